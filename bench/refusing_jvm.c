// A runtime library that refuses at once, so that only the launcher's own work remains.
#include <jni.h>

JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* args) {
  (void)vm;
  (void)env;
  (void)args;
  return JNI_ERR;
}
