// Loads the library of the Java runtime in the bundle.
#include <dlfcn.h>

#include "jvm/KestrelJVMHost.h"
#include "logging/Logging.h"
#include "platform/InstallDir.h"

void* KestrelJVMHost::resolveJNICreateFunction() {
  const std::string path =
      OS::getApplicationInstallDir() + "/../jre/Contents/Home/lib/libjli.dylib";
  LOG_RECORD(INFO, "resolveJNICreateFunction") << "Loading JLI library from" << path;

  void* library = dlopen(path.c_str(), RTLD_LAZY);
  if (library == nullptr) {
    LOG_RECORD(WARN, "resolveJNICreateFunction") << "Cannot load " << path << ": " << dlerror();
    return nullptr;
  }
  return dlsym(library, "JNI_CreateJavaVM");
}
