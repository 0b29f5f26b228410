#include "java_entry/JavaException.h"

#include "logging/Logging.h"

bool checkFailureAndLog(JNIEnv* env) {
  jthrowable exception = env->ExceptionOccurred();
  if (exception == nullptr) return false;

  // The exception stays pending during the look-ups and while it prints itself.
  jclass throwableClass = env->FindClass("java/lang/Throwable");
  if (throwableClass == nullptr) {
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable class";
    return true;
  }
  jmethodID printStackTrace = env->GetMethodID(throwableClass, "printStackTrace", "()V");
  if (printStackTrace == nullptr) {
    // What is missing is a method; the wording is kept as it is.
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable#printStackTrace class";
    return true;
  }
  env->CallVoidMethod(exception, printStackTrace);
  env->DeleteLocalRef(throwableClass);
  env->ExceptionClear();
  return true;
}
