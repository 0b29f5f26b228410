#include "java_entry/KestrelJVMApp.h"

#include "java_entry/JavaException.h"
#include "logging/Logging.h"

namespace {

constexpr char ENTRY_CLASS[] = "com/norvale/app/daemon/entry/NativeLauncher";
constexpr char ENTRY_CLASS_NAME[] = "NativeLauncher";
constexpr char ENTRY_METHOD[] = "main";
constexpr char ENTRY_DESCRIPTOR[] = "([Ljava/lang/String;)V";

// The status that main yields if the Java side could not be started.
constexpr int JAVA_SIDE_NOT_STARTED = 2;

// Exceptions raised here stay pending and are reported after the call to main.
jobjectArray toJavaStrings(JNIEnv* env, int argc, char** argv) {
  jclass stringClass = env->FindClass("java/lang/String");
  jobjectArray strings = env->NewObjectArray(argc, stringClass, nullptr);
  for (int i = 0; i < argc; ++i) {
    env->SetObjectArrayElement(strings, i, env->NewStringUTF(argv[i]));
  }
  return strings;
}

}  // namespace

JNIEnv* KestrelJVMApp::ourJniOnMainThread = nullptr;
jclass KestrelJVMApp::ourKestrelClazz = nullptr;

int KestrelJVMApp::callMainMethod(JavaVM* vm, int argc, char** argv) {
  JNIEnv* env = nullptr;
  if (vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
    LOG_RECORD(ERROR, "callMainMethod") << "Failed to attach native thread to JVM";
    return ATTACH_FAILED;
  }

  jclass entryClass = env->FindClass(ENTRY_CLASS);
  if (entryClass == nullptr) {
    LOG_RECORD(ERROR, "callMainMethod") << "Failed to find " << ENTRY_CLASS_NAME << " class";
    if (!checkFailureAndLog(env)) return CLASS_NOT_FOUND;
    LOG_RECORD(ERROR, "callMainMethod")
        << "Finding " << ENTRY_CLASS_NAME << " class failed with exception!";
    return CLASS_NOT_FOUND_WITH_EXCEPTION;
  }

  jmethodID mainMethod = env->GetStaticMethodID(entryClass, ENTRY_METHOD, ENTRY_DESCRIPTOR);
  if (mainMethod == nullptr) {
    LOG_RECORD(ERROR, "callMainMethod")
        << "Failed to find method '" << ENTRY_METHOD << "' on " << ENTRY_CLASS_NAME;
    return METHOD_NOT_FOUND;
  }

  // Deliberately calls a void method as if it returned int: the value obtained is the contract with
  // the Java side. A main that contains no loop and whose last act is a call to an int-returning
  // method yields that int. Any other main leaves an arbitrary value and has to call System.exit.
  const int status =
      env->CallStaticIntMethod(entryClass, mainMethod, toJavaStrings(env, argc, argv));
  if (status == JAVA_SIDE_NOT_STARTED) {
    LOG_RECORD(ERROR, "callMainMethod")
        << "Failed to invoke method '" << ENTRY_METHOD << "' on the " << ENTRY_CLASS_NAME;
    return ENTRY_FAILED;
  }
  if (checkFailureAndLog(env)) {
    LOG_RECORD(ERROR, "callMainMethod") << "Method '" << ENTRY_METHOD << "' failed with exception!";
    return ENTRY_THREW;
  }
  return status;
}
