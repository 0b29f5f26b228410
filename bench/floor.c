// The floor for a start with a real JVM: a program that, on a second thread, only loads the JVM
// library, creates the JVM with the options it is given and calls the entry class's main.
//
//   floor LIBRARY OPTIONS-FILE [ARG...]
//
// The file holds one option per line. The main gets LIBRARY and the arguments.
#include <dlfcn.h>
#include <jni.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef jint (*CreateJavaVM)(JavaVM**, void**, void*);

enum { MOST_OPTIONS = 256, LONGEST_OPTION = 65536 };

static int commandLength;
static char** command;

static jint readOptions(const char* path, JavaVMOption* options) {
  static char line[LONGEST_OPTION];
  jint count = 0;
  FILE* file = fopen(path, "r");
  if (!file) return 0;
  while (count < MOST_OPTIONS && fgets(line, sizeof line, file)) {
    line[strcspn(line, "\n")] = '\0';
    options[count].optionString = strdup(line);
    options[count++].extraInfo = 0;
  }
  fclose(file);
  return count;
}

static void* startJava(void* unused) {
  static JavaVMOption options[MOST_OPTIONS];
  void* library = dlopen(command[1], RTLD_LAZY);
  CreateJavaVM create = library ? (CreateJavaVM)dlsym(library, "JNI_CreateJavaVM") : 0;
  if (!create) exit(1);

  JavaVM* vm = 0;
  JNIEnv* env = 0;
  JavaVMInitArgs args = {JNI_VERSION_10, readOptions(command[2], options), options, JNI_FALSE};
  if (create(&vm, (void**)&env, &args) != JNI_OK) exit(53);

  jclass entry = (*env)->FindClass(env, "com/norvale/app/daemon/entry/NativeLauncher");
  jmethodID method = (*env)->GetStaticMethodID(env, entry, "main", "([Ljava/lang/String;)V");
  jclass string = (*env)->FindClass(env, "java/lang/String");
  jobjectArray array = (*env)->NewObjectArray(env, commandLength - 2, string, 0);
  (*env)->SetObjectArrayElement(env, array, 0, (*env)->NewStringUTF(env, command[1]));
  for (int i = 3; i < commandLength; ++i) {
    (*env)->SetObjectArrayElement(env, array, i - 2, (*env)->NewStringUTF(env, command[i]));
  }
  (*env)->CallStaticIntMethod(env, entry, method, array);
  return unused;
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  commandLength = argc;
  command = argv;
  pthread_t thread;
  if (pthread_create(&thread, 0, startJava, 0) != 0) return 1;
  pthread_join(thread, 0);
  return 0;
}
