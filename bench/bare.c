// bare LIBRARY: the least that a launcher can do: loads the runtime library and calls its function.
#include <dlfcn.h>
#include <jni.h>

typedef jint (*CreateJavaVM)(JavaVM**, void**, void*);

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  void* library = dlopen(argv[1], RTLD_LAZY);
  if (library == NULL) return 1;
  CreateJavaVM create = (CreateJavaVM)dlsym(library, "JNI_CreateJavaVM");
  if (create == NULL) return 1;

  JavaVM* vm = NULL;
  void* env = NULL;
  JavaVMInitArgs args = {JNI_VERSION_10, 0, NULL, JNI_FALSE};
  return create(&vm, &env, &args) == JNI_OK ? 0 : 53;
}
