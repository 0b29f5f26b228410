// A runtime library that notes what it is given and answers as its script says:
//
//   SCRIPT_CALLS  the file for a line per call, with the options as the launcher lists them
//   SCRIPT_create, SCRIPT_attach, SCRIPT_status  codes; the last is main's
//   SCRIPT_NAME   "throws" or "missing" for a class or method that is looked up
//   SCRIPT_call   "throws" for main
#include <jni.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

// Nowhere defined: only a loader that binds a function when it is called can load this library.
extern "C" void scriptedJvmNeverCallsThis();

namespace {

// References that no code may look into.
const auto REFERENCE = reinterpret_cast<jobject>(1);
const auto EXCEPTION = reinterpret_cast<jthrowable>(2);
const auto ARRAY = reinterpret_cast<jobjectArray>(3);
jthrowable pending = nullptr;
std::vector<const char*> mainArguments;

std::string script(const std::string& name) {
  const char* value = std::getenv(("SCRIPT_" + name).c_str());
  return value != nullptr ? value : "";
}

int scriptedCode(const std::string& name) {
  return static_cast<int>(std::strtol(script(name).c_str(), nullptr, 10));
}

void note(const std::string& call, bool isAsExpected = true) {
  std::ofstream calls(std::getenv("SCRIPT_CALLS"), std::ios::app);
  calls << "> " << call << (isAsExpected ? "" : " with something else") << "\n";
}

// Null where the script says so, else the reference.
template <typename Reference>
Reference lookUp(const std::string& call, const std::string& name, const std::string& type = "") {
  note(call + "(" + name + type + ")");
  const std::string end = script(name.substr(name.rfind('/') + 1));
  if (end == "throws") pending = EXCEPTION;
  return end.empty() ? reinterpret_cast<Reference>(REFERENCE) : nullptr;
}

jint runMain(JNIEnv*, jclass, jmethodID, va_list list) {
  std::string call = "CallStaticIntMethod";
  for (const char* argument : mainArguments) call += std::string(" [") + argument + "]";
  note(call, va_arg(list, jobject) == ARRAY);
  const char* port = std::getenv("NORVALED_DEBUG_PORT");
  if (port != nullptr) std::cout << port << std::flush;
  if (script("call") == "throws") pending = EXCEPTION;
  if (script("call") == "crashes") scriptedJvmNeverCallsThis();
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
    return ARRAY;
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
    return scriptedCode("attach");
  };
  return f;
}();
JavaVM machine{&machineFunctions};

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto* init = static_cast<JavaVMInitArgs*>(arguments);
  const bool isLeader = getsid(0) == getpid();  // of a session of the launcher's own
  bool isAsExpected = isLeader && init->version == 0x000A0000 && !init->ignoreUnrecognized;
  std::string options = "\n\t";
  for (const JavaVMOption* option = init->options; option != init->options + init->nOptions;
       ++option) {
    const std::string text = option->optionString != nullptr ? option->optionString : "(null)";
    if (text.starts_with("-") == (option->extraInfo != nullptr)) isAsExpected = false;
    options += text + "\n\t";
  }
  note("CreateJavaVM" + options, isAsExpected);
  *vm = &machine;
  return scriptedCode("create");
}
