#include "java_entry/JavaException.h"

#include "logging/Logging.h"

bool checkFailureAndLog(JNIEnv* env) {
  jthrowable exception = env->ExceptionOccurred();
  if (exception == nullptr) return false;

  // The exception stays pending until its stack trace has been printed, on purpose.
  jclass throwableClass = env->FindClass("java/lang/Throwable");
  if (throwableClass == nullptr) {
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable class";
    return true;
  }
  jmethodID printStackTrace = env->GetMethodID(throwableClass, "printStackTrace", "()V");
  if (printStackTrace == nullptr) {
    // A method is missing, not a class; the wording is kept on purpose.
    LOG_RECORD(ERROR, "checkFailureAndLog") << "Failed to find Throwable#printStackTrace class";
    return true;
  }
  env->CallVoidMethod(exception, printStackTrace);
  env->DeleteLocalRef(throwableClass);
  env->ExceptionClear();
  return true;
}
