// A runtime library that refuses at once: what is left is the launcher's own share of a start.
#include <jni.h>

JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* args) {
  return (void)vm, (void)env, (void)args, JNI_ERR;
}
