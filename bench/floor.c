// floor LIBRARY OPTION... CLASS [ARG...]: the floor for a start with a real JVM. On a second thread
// it only loads the JVM library, creates the JVM with the options and calls the class's main with
// CLASS and the arguments.
#include <dlfcn.h>
#include <jni.h>
#include <pthread.h>
#include <stdlib.h>

typedef jint (*CreateJavaVM)(JavaVM**, void**, void*);

static void* startJava(void* words) {
  char** command = words;
  void* library = dlopen(command[1], RTLD_LAZY);
  CreateJavaVM create = library ? (CreateJavaVM)dlsym(library, "JNI_CreateJavaVM") : 0;
  if (!create) exit(1);

  static JavaVMOption options[256];
  JavaVMInitArgs args = {JNI_VERSION_10, 0, options, JNI_FALSE};
  char** word = command + 2;
  while (**word == '-') options[args.nOptions++].optionString = *word++;
  JavaVM* vm = 0;
  JNIEnv* env = 0;
  if (create(&vm, (void**)&env, &args) != JNI_OK) exit(53);

  jclass entry = (*env)->FindClass(env, *word);
  jmethodID method = (*env)->GetStaticMethodID(env, entry, "main", "([Ljava/lang/String;)V");
  jclass string = (*env)->FindClass(env, "java/lang/String");
  jsize count = 0;
  while (word[count]) ++count;
  jobjectArray array = (*env)->NewObjectArray(env, count, string, 0);
  for (jsize i = 0; i < count; ++i) {
    (*env)->SetObjectArrayElement(env, array, i, (*env)->NewStringUTF(env, word[i]));
  }
  (*env)->CallStaticIntMethod(env, entry, method, array);
  return 0;
}

int main(int argc, char** argv) {
  pthread_t thread;
  if (argc < 3 || pthread_create(&thread, 0, startJava, argv) != 0) return 1;
  pthread_join(thread, 0);
  return 0;
}
