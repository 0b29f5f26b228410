// A runtime library that notes what it is given and answers as its script says:
//
//   SCRIPTED_JVM_CALLS  the file for one line per call and option
//   SCRIPTED_JVM        words NAME=ANSWER: codes for "create", "attach" and "status" (main's own),
//                       "throws" or "missing" for what is looked up, "throws" for "call" (of main)
//   SCRIPTED_JVM_MAIN   a shell command for main
#include <jni.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

// Nowhere defined: only a loader that binds a function when it is called can load this library.
extern "C" void scriptedJvmNeverCallsThis();

namespace {

// Any addresses do as references, and such that no code may look into.
const auto REFERENCE = reinterpret_cast<jobject>(1);
const auto EXCEPTION = reinterpret_cast<jthrowable>(2);
jthrowable pending = nullptr;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string answer(const std::string& question) {
  std::istringstream words(variable("SCRIPTED_JVM"));
  for (std::string word; words >> word;) {
    if (word.starts_with(question + "=")) return word.substr(question.size() + 1);
  }
  return "";
}

int code(const char* question) { return std::atoi(answer(question).c_str()); }  // NOLINT

template <typename... Pieces>
void note(const Pieces&... pieces) {
  ((std::ofstream(variable("SCRIPTED_JVM_CALLS"), std::ios::app) << "> ") << ... << pieces) << "\n";
}

const char* asExpected(bool holds) { return holds ? "" : " with something else"; }

template <typename Reference>
Reference found(const char* call, const std::string& name, const char* more = "") {
  note(call, "(", name, more, ")");
  const std::string script = answer(name.substr(name.rfind('/') + 1));
  if (script == "throws") pending = EXCEPTION;
  return script.empty() ? reinterpret_cast<Reference>(REFERENCE) : nullptr;
}

jint runMain(JNIEnv*, jclass, jmethodID, va_list) {
  note("CallStaticIntMethod");
  const std::string command = variable("SCRIPTED_JVM_MAIN");
  if (!command.empty() && std::system(command.c_str()) != 0) scriptedJvmNeverCallsThis();
  if (answer("call") == "throws") pending = EXCEPTION;
  return code("status");
}

// A call of a function that is not filled in crashes, as it should.
const JNINativeInterface_ environmentFunctions = [] {
  JNINativeInterface_ f{};
  f.FindClass = [](JNIEnv*, const char* name) { return found<jclass>("FindClass", name); };
  f.GetStaticMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return found<jmethodID>("GetStaticMethodID", name, type);
  };
  f.GetMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return found<jmethodID>("GetMethodID", name, type);
  };
  f.NewObjectArray = [](JNIEnv*, jsize length, jclass, jobject) {
    return found<jobjectArray>("NewObjectArray", std::to_string(length));
  };
  f.NewStringUTF = [](JNIEnv*, const char* s) { return found<jstring>("NewStringUTF", "", s); };
  f.SetObjectArrayElement = [](JNIEnv*, jobjectArray, jsize index, jobject) {
    note("SetObjectArrayElement(", index, ")");
  };
  f.CallStaticIntMethodV = runMain;
  f.ExceptionOccurred = [](JNIEnv*) { return note("ExceptionOccurred"), pending; };
  f.CallVoidMethodV = [](JNIEnv*, jobject object, jmethodID, va_list) {
    note("CallVoidMethod", asExpected(object == EXCEPTION));
  };
  f.DeleteLocalRef = [](JNIEnv*, jobject object) {
    note("DeleteLocalRef", asExpected(object == REFERENCE));
  };
  f.ExceptionClear = [](JNIEnv*) { note("ExceptionClear"), pending = nullptr; };
  return f;
}();
JNIEnv environment{&environmentFunctions};

const JNIInvokeInterface_ machineFunctions = [] {
  JNIInvokeInterface_ f{};
  f.AttachCurrentThread = [](JavaVM*, void** env, void* arguments) {
    note("AttachCurrentThread", asExpected(arguments == nullptr));
    *env = &environment;
    return code("attach");
  };
  return f;
}();
JavaVM machine{&machineFunctions};

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto* init = static_cast<JavaVMInitArgs*>(arguments);
  const bool isLeader = getsid(0) == getpid();  // of a session of the launcher's own
  note("CreateJavaVM", asExpected(isLeader && init->version == 0x000A0000 &&
                                  init->ignoreUnrecognized == JNI_FALSE));
  for (int i = 0; i < init->nOptions; ++i) {
    const JavaVMOption& option = init->options[i];
    const std::string text = option.optionString != nullptr ? option.optionString : "(null)";
    note(option.extraInfo != nullptr ? "hook " : "option ", text);
  }
  *vm = &machine;
  return code("create");
}
