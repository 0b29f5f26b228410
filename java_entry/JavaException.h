// Reports Java exceptions that JNI calls leave pending.
#ifndef KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_
#define KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_

#include <jni.h>

// Returns whether a Java exception is pending on the calling thread, to which `env` belongs. If so,
// prints its stack trace to Java's standard error and clears it; if it cannot be printed, logs that
// and leaves it pending.
bool checkFailureAndLog(JNIEnv* env);

#endif  // KESTREL_JAVA_ENTRY_JAVA_EXCEPTION_H_
