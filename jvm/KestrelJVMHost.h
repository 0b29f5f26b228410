// Creates the one JVM of the process from the runtime in the bundle.
#ifndef KESTREL_JVM_KESTREL_JVM_HOST_H_
#define KESTREL_JVM_KESTREL_JVM_HOST_H_

#include <jni.h>

#include <string>

class KestrelJVMHost {
 public:
  // Creates the JVM; the calling thread becomes one of its threads. `argsFilePath` names a file
  // with one JVM option per line, the empty string no file. Null, after a record that tells why,
  // when the JVM cannot be created; the option strings are then leaked on purpose, since the
  // process is about to end. Called once, on one thread.
  static JavaVM* startJVM(std::string argsFilePath);

  // The runtime's JNI_CreateJavaVM, from its launcher library, which stays loaded for good. Null
  // when the library cannot be loaded (logged) or does not export it (not logged).
  static void* resolveJNICreateFunction();
};

#endif  // KESTREL_JVM_KESTREL_JVM_HOST_H_
