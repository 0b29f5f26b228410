#include "java_entry/JavaException.h"

#include "logging/Logging.h"

bool checkFailureAndLog(JNIEnv* env) {
  jthrowable exception = env->ExceptionOccurred();
  if (exception == nullptr) return false;

  // It stays pending during the look-ups, so that one that fails leaves it pending, as intended.
  jclass throwableClass = env->FindClass("java/lang/Throwable");
  if (throwableClass == nullptr) {
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable class";
    return true;
  }
  jmethodID printStackTrace = env->GetMethodID(throwableClass, "printStackTrace", "()V");
  if (printStackTrace == nullptr) {
    // The text is intended, though it is a method that is missing.
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable#printStackTrace class";
    return true;
  }
  env->CallVoidMethod(exception, printStackTrace);
  env->DeleteLocalRef(throwableClass);
  env->ExceptionClear();
  return true;
}
