// floor LIBRARY OPTION... CLASS [ARG...]: the least that a launch with a real JVM takes. On a
// second thread, loads the JVM library, creates the JVM with the options and calls main of the
// class, with the name of the class before the arguments.
// floor LIBRARY: the least that a launcher can do. Only loads the library and calls its function.
#include <dlfcn.h>
#include <jni.h>
#include <pthread.h>
#include <stdlib.h>

typedef jint (*CreateJavaVM)(JavaVM**, void**, void*);

struct Launch {
  const char* library;
  JavaVMOption* options;
  int optionCount;
  char** arguments;  // the first is the name of the class
  int argumentCount;
};

static JNIEnv* createJvm(const struct Launch* launch) {
  void* library = dlopen(launch->library, RTLD_LAZY);
  if (library == NULL) exit(1);
  CreateJavaVM create = (CreateJavaVM)dlsym(library, "JNI_CreateJavaVM");
  if (create == NULL) exit(1);

  JavaVMInitArgs args = {JNI_VERSION_10, launch->optionCount, launch->options, JNI_FALSE};
  JavaVM* vm = NULL;
  void* env = NULL;
  if (create(&vm, &env, &args) != JNI_OK) exit(53);
  return env;
}

static void* run(void* parameter) {
  struct Launch* launch = parameter;
  JNIEnv* env = createJvm(launch);

  jclass entry = (*env)->FindClass(env, launch->arguments[0]);
  jmethodID method = (*env)->GetStaticMethodID(env, entry, "main", "([Ljava/lang/String;)V");
  jclass string = (*env)->FindClass(env, "java/lang/String");
  jobjectArray array = (*env)->NewObjectArray(env, launch->argumentCount, string, NULL);
  for (int i = 0; i < launch->argumentCount; ++i) {
    jstring argument = (*env)->NewStringUTF(env, launch->arguments[i]);
    (*env)->SetObjectArrayElement(env, array, i, argument);
  }
  // The launcher calls main as if it returned an int, too.
  (*env)->CallStaticIntMethod(env, entry, method, array);
  return NULL;
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  int entry = 2;
  while (entry < argc && argv[entry][0] == '-') ++entry;
  struct Launch launch = {argv[1], NULL, entry - 2, argv + entry, argc - entry};
  if (entry == argc) {
    createJvm(&launch);
    return 0;
  }
  launch.options = calloc(argc, sizeof *launch.options);
  if (launch.options == NULL) return 1;
  for (int i = 0; i < launch.optionCount; ++i) launch.options[i].optionString = argv[2 + i];

  pthread_t thread;
  if (pthread_create(&thread, NULL, run, &launch) != 0) return 1;
  pthread_join(thread, NULL);
  free(launch.options);
  return 0;
}
