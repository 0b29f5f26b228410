// Creates the one JVM of the process from the runtime in the bundle.
#ifndef KESTREL_JVM_KESTREL_JVM_HOST_H_
#define KESTREL_JVM_KESTREL_JVM_HOST_H_

#include <jni.h>

#include <string>

class KestrelJVMHost {
 public:
  // Creates the JVM; the calling thread becomes one of its threads. `argsFilePath` names a file
  // with one JVM option per line; an empty string means no file. If the JVM cannot be created, logs
  // the reason and returns null; the option strings then stay allocated, since the process is about
  // to end. Called once.
  static JavaVM* startJVM(std::string argsFilePath);

  // Returns JNI_CreateJavaVM from the runtime's launcher library, which then stays loaded. Returns
  // null if the library cannot be loaded (logged) or does not export the function (not logged).
  static void* resolveJNICreateFunction();
};

#endif  // KESTREL_JVM_KESTREL_JVM_HOST_H_
