// A runtime library that notes what it is given and answers as its script says:
//
//   SCRIPTED_JVM_CALLS  the file for a line per call, with the options as the launcher lists them
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

// References that no code may look into.
const auto REFERENCE = reinterpret_cast<jobject>(1);
const auto EXCEPTION = reinterpret_cast<jthrowable>(2);
jthrowable pending = nullptr;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string answer(const std::string& question, const std::string& byDefault = "") {
  std::istringstream words(variable("SCRIPTED_JVM"));
  for (std::string word; words >> word;) {
    if (word.starts_with(question + "=")) return word.substr(question.size() + 1);
  }
  return byDefault;
}

int code(const std::string& question) { return std::stoi(answer(question, "0")); }

void note(const std::string& call, bool isAsExpected = true) {
  std::ofstream calls(variable("SCRIPTED_JVM_CALLS"), std::ios::app);
  calls << "> " << call << (isAsExpected ? "" : " with something else") << "\n";
}

// Notes a look-up. Null where the script says so, else the reference.
template <typename Reference>
Reference lookUp(const std::string& call, const std::string& name, const std::string& type = "") {
  note(call + "(" + name + type + ")");
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
  f.FindClass = [](JNIEnv*, const char* name) { return lookUp<jclass>("FindClass", name); };
  f.GetStaticMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return lookUp<jmethodID>("GetStaticMethodID", name, type);
  };
  f.GetMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return lookUp<jmethodID>("GetMethodID", name, type);
  };
  f.NewObjectArray = [](JNIEnv*, jsize length, jclass, jobject) {
    return lookUp<jobjectArray>("NewObjectArray", std::to_string(length));
  };
  f.NewStringUTF = [](JNIEnv*, const char* s) { return lookUp<jstring>("NewStringUTF", "", s); };
  f.SetObjectArrayElement = [](JNIEnv*, jobjectArray, jsize index, jobject) {
    note("SetObjectArrayElement(" + std::to_string(index) + ")");
  };
  f.CallStaticIntMethodV = runMain;
  f.ExceptionOccurred = [](JNIEnv*) {
    note("ExceptionOccurred");
    return pending;
  };
  f.CallVoidMethodV = [](JNIEnv*, jobject object, jmethodID, va_list) {
    note("CallVoidMethod", object == EXCEPTION);
  };
  f.DeleteLocalRef = [](JNIEnv*, jobject object) { note("DeleteLocalRef", object == REFERENCE); };
  f.ExceptionClear = [](JNIEnv*) {
    note("ExceptionClear");
    pending = nullptr;
  };
  return f;
}();
JNIEnv environment{&environmentFunctions};

const JNIInvokeInterface_ machineFunctions = [] {
  JNIInvokeInterface_ f{};
  f.AttachCurrentThread = [](JavaVM*, void** env, void* arguments) {
    note("AttachCurrentThread", arguments == nullptr);
    *env = &environment;
    return code("attach");
  };
  return f;
}();
JavaVM machine{&machineFunctions};

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto* init = static_cast<JavaVMInitArgs*>(arguments);
  bool isAsExpected = init->version == 0x000A0000 && init->ignoreUnrecognized == JNI_FALSE;
  if (getsid(0) != getpid()) isAsExpected = false;  // the launcher leads a session of its own
  std::string options = "\n\t";
  for (int i = 0; i < init->nOptions; ++i) {
    const JavaVMOption& option = init->options[i];
    const std::string text = option.optionString != nullptr ? option.optionString : "(null)";
    if (text.starts_with("-") == (option.extraInfo != nullptr)) isAsExpected = false;
    options += text + "\n\t";
  }
  note("CreateJavaVM" + options, isAsExpected);
  *vm = &machine;
  return code("create");
}
