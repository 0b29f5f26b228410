// Reporting of Java exceptions that JNI calls leave behind.
#ifndef KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_
#define KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_

#include <jni.h>

// Whether a Java exception is pending on the calling thread, which owns `env`. One that is prints
// its stack trace to Java's standard error and is cleared; if it cannot be printed, that is logged
// and it stays pending.
bool checkFailureAndLog(JNIEnv* env);

#endif  // KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_
