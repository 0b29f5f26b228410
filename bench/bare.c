// bare LIBRARY: the least a launcher can do, load the runtime library and call its one function.
#include <dlfcn.h>
#include <jni.h>

typedef jint (*CreateJavaVM)(JavaVM**, void**, void*);

int main(int argc, char** argv) {
  void* library = argc > 1 ? dlopen(argv[1], RTLD_LAZY) : 0;
  CreateJavaVM create = library ? (CreateJavaVM)dlsym(library, "JNI_CreateJavaVM") : 0;
  if (!create) return 1;
  JavaVM* vm = 0;
  void* env = 0;
  JavaVMInitArgs args = {JNI_VERSION_10, 0, 0, JNI_FALSE};
  return create(&vm, &env, &args) == JNI_OK ? 0 : 53;
}
