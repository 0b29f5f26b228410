// A runtime library that notes what it is given and answers as its script says:
//
//   SCRIPTED_JVM_CALLS  the file for one line per call
//   SCRIPTED_JVM        words NAME=ANSWER: codes for "create", "attach" and "status" (main's own),
//                       "throws" or "missing" for what is looked up, "throws" for "call" (of main)
//   SCRIPTED_JVM_MAIN   a shell command for main; behind it main prints through the hook
//   SCRIPTED_JVM_THEN   a second command, behind that
#include <jni.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

int (*printHook)(FILE*, const char*, va_list) = nullptr;
bool pending = false;

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

int code(const char* question) { return std::atoi(answer(question).c_str()); }

void note(const std::string& call) {
  std::ofstream(variable("SCRIPTED_JVM_CALLS"), std::ios::app) << call << "\n";
}

// Any address does as a reference, and one that no code may look into.
template <typename Reference>
Reference found(const std::string& call, const std::string& name, const std::string& more = "") {
  note(call + "(" + name + more + ")");
  const std::string script = answer(name.substr(name.rfind('/') + 1));
  pending = pending || script == "throws";
  return script.empty() ? reinterpret_cast<Reference>(1) : nullptr;
}

void print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  printHook(stdout, format, arguments);
  va_end(arguments);
}

jint runMain(JNIEnv*, jclass, jmethodID, va_list) {
  note("CallStaticIntMethod");
  if (!variable("SCRIPTED_JVM_MAIN").empty()) {
    if (std::system(variable("SCRIPTED_JVM_MAIN").c_str()) != 0) return 99;
    print("%s", "between");
    if (std::system(variable("SCRIPTED_JVM_THEN").c_str()) != 0) return 99;
  }
  pending = answer("call") == "throws";
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
    note("SetObjectArrayElement(" + std::to_string(index) + ")");
  };
  f.CallStaticIntMethodV = runMain;
  f.ExceptionOccurred = [](JNIEnv*) {
    note("ExceptionOccurred");
    return pending ? reinterpret_cast<jthrowable>(2) : nullptr;
  };
  f.CallVoidMethodV = [](JNIEnv*, jobject o, jmethodID, va_list) {
    note(o == reinterpret_cast<jobject>(2) ? "CallVoidMethod" : "CallVoidMethod on a stranger");
  };
  f.DeleteLocalRef = [](JNIEnv*, jobject o) {
    note(o == reinterpret_cast<jobject>(1) ? "DeleteLocalRef" : "DeleteLocalRef of the exception");
  };
  f.ExceptionClear = [](JNIEnv*) {
    note("ExceptionClear");
    pending = false;
  };
  return f;
}();
JNIEnv environment{&environmentFunctions};

const JNIInvokeInterface_ machineFunctions = [] {
  JNIInvokeInterface_ f{};
  f.AttachCurrentThread = [](JavaVM*, void** env, void* arguments) {
    note(arguments == nullptr ? "AttachCurrentThread" : "AttachCurrentThread with arguments");
    *env = &environment;
    return code("attach");
  };
  return f;
}();
JavaVM machine{&machineFunctions};

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto* init = static_cast<JavaVMInitArgs*>(arguments);
  std::string options;
  for (int i = 0; i < init->nOptions; ++i) {
    const JavaVMOption& option = init->options[i];
    const std::string text = option.optionString != nullptr ? option.optionString : "(null)";
    options += (option.extraInfo != nullptr ? " @" : " ") + text;
    if (text == "vfprintf") printHook = reinterpret_cast<decltype(printHook)>(option.extraInfo);
  }
  const bool isStrict = init->version == 0x000A0000 && init->ignoreUnrecognized == JNI_FALSE;
  note((isStrict ? "CreateJavaVM" : "CreateJavaVM with other arguments") + options);
  *vm = &machine;
  return code("create");
}
