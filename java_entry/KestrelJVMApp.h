// Calls the application's Java entry class.
#ifndef KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_
#define KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_

#include <jni.h>

class KestrelJVMApp {
 public:
  enum Failure {
    ATTACH_FAILED = 103,                   // the thread cannot be attached
    CLASS_NOT_FOUND_WITH_EXCEPTION = 104,  // the entry class is not found, with a Java exception
    CLASS_NOT_FOUND = 105,                 // the entry class is not found, without one
    METHOD_NOT_FOUND = 106,                // the entry class has no such main
    ENTRY_FAILED = 107,                    // the call to main yielded 2
    ENTRY_THREW = 108,                     // the call to main left a Java exception pending
  };

  // Calls the entry class's static main with the whole command line, argv[0] included, and returns
  // when main does. Called once, on the thread that created `vm`. Returns what the call to main
  // yielded (0: started, 1: exit after start-up; never 2). On failure it logs the reason and
  // returns one of Failure.
  static int callMainMethod(JavaVM* vm, int argc, char** argv);

 private:
  // Both stay null: callMainMethod() is called once and keeps what it finds in local variables.
  static JNIEnv* ourJniOnMainThread;
  static jclass ourKestrelClazz;
};

#endif  // KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_
