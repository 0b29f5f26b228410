// A runtime library that notes each call in the file SCRIPT_CALLS, options as the launcher lists
// them, and answers as its script says: SCRIPT_create, SCRIPT_attach and SCRIPT_status, which is
// main's, are codes; of a class or method, or "call" for main, SCRIPT_NAME is "throws" or
// "missing".
#include <jni.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::vector<const char*> mainArguments;
jthrowable pending = nullptr;

std::string script(const std::string& name) {
  const char* value = std::getenv(("SCRIPT_" + name).c_str());
  if (value == nullptr) return "";
  if (value == std::string("throws")) pending = reinterpret_cast<jthrowable>(1);
  return value;
}

jint scriptedCode(const std::string& name) {
  const std::string code = script(name);
  return code.empty() ? JNI_OK : std::stoi(code);
}

void note(const std::string& call) {
  std::ofstream(std::getenv("SCRIPT_CALLS"), std::ios::app) << "> " << call << "\n";
}

template <typename Reference>
Reference lookUp(const std::string& call, const char* name, const std::string& type = "") {
  const std::string path = name;
  note(call + "(" + path + type + ")");
  return script(path.substr(path.rfind('/') + 1)).empty() ? reinterpret_cast<Reference>(1)
                                                          : nullptr;
}

jint runMain(JNIEnv*, jclass, jmethodID, va_list list) {
  std::string call = "CallStaticIntMethod";
  if (va_arg(list, jobject) != reinterpret_cast<jobject>(&mainArguments))
    call += " with something else";
  for (const char* argument : mainArguments) call += std::string(" [") + argument + "]";
  note(call);
  script("call");  // which may throw
  return scriptedCode("status");
}

// A call of a function that is not filled in crashes, as it should.
const JNINativeInterface_ environmentFunctions = [] {
  JNINativeInterface_ f{};
  f.FindClass = [](JNIEnv*, const char* name) { return lookUp<jclass>("FindClass", name); };
  f.GetMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return lookUp<jmethodID>("GetMethodID", name, type);
  };
  f.GetStaticMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return lookUp<jmethodID>("GetStaticMethodID", name, type);
  };
  f.NewObjectArray = [](JNIEnv*, jsize length, jclass, jobject) {
    mainArguments.assign(length, "");
    return reinterpret_cast<jobjectArray>(&mainArguments);
  };
  f.NewStringUTF = [](JNIEnv*, const char* text) {
    return reinterpret_cast<jstring>(const_cast<char*>(text));
  };
  f.SetObjectArrayElement = [](JNIEnv*, jobjectArray, jsize index, jobject text) {
    mainArguments.at(index) = reinterpret_cast<const char*>(text);
  };
  f.CallStaticIntMethodV = runMain;
  f.ExceptionOccurred = [](JNIEnv*) {
    note("ExceptionOccurred");
    return pending;
  };
  f.CallVoidMethodV = [](JNIEnv*, jobject, jmethodID, va_list) { note("CallVoidMethod"); };
  f.DeleteLocalRef = [](JNIEnv*, jobject) { note("DeleteLocalRef"); };
  f.ExceptionClear = [](JNIEnv*) { note("ExceptionClear"); };
  return f;
}();
JNIEnv environment{&environmentFunctions};

jint attach(JavaVM*, void** env, void*) {
  note("AttachCurrentThread");
  *env = &environment;
  return scriptedCode("attach");
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto* init = static_cast<JavaVMInitArgs*>(arguments);
  bool isAsExpected = init->version == 0x000A0000 && !init->ignoreUnrecognized;
  if (getsid(0) != getpid()) isAsExpected = false;  // the launcher leads a session of its own
  const char* port = std::getenv("NORVALED_DEBUG_PORT");
  std::string call = std::string("CreateJavaVM ") + (port != nullptr ? port : "") + "\n\t";
  for (int i = 0; i < init->nOptions; ++i) {
    const std::string text = init->options[i].optionString;
    if (text.starts_with("-") == (init->options[i].extraInfo != nullptr)) isAsExpected = false;
    call += text + "\n\t";
  }
  note(call + (isAsExpected ? "" : " with something else"));
  static JNIInvokeInterface_ functions{};
  functions.AttachCurrentThread = attach;
  static JavaVM machine{&functions};
  *vm = &machine;
  return scriptedCode("create");
}
