// The call of the application's Java entry class.
#ifndef KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_
#define KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_

#include <jni.h>

class KestrelJVMApp {
 public:
  // Calls the entry class's static main with the whole command line, argv[0] included, and returns
  // when it does. Called once, on the thread that created `vm`. The result is what main's call
  // yielded (0 started, 1 exit after start-up; never 2), or after the records that tell why
  //   103  the thread cannot be attached
  //   104  the entry class is not found, with a Java exception
  //   105  the entry class is not found, without one
  //   106  the entry class has no such main
  //   107  main's call yielded 2
  //   108  main's call left a Java exception
  static int callMainMethod(JavaVM* vm, int argc, char** argv);

 private:
  // Both stay null: callMainMethod(), which is called once, keeps what it finds in locals.
  static JNIEnv* ourJniOnMainThread;
  static jclass ourKestrelClazz;
};

#endif  // KESTREL_JAVA_ENTRY_KESTREL_JVM_APP_H_
