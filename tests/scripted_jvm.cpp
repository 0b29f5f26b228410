// A fake runtime library. Appends what the launcher does with it to the file SCRIPT_CALLS, as lines
// that begin with ">", and answers from the environment:
//
//   SCRIPT_create, SCRIPT_attach    the code to return, instead of JNI_OK
//   SCRIPT_status                   the status that main returns, instead of 0
//   SCRIPT_call=throws              main throws an exception
//   SCRIPT_NAME=missing or throws   the class or method NAME is not found; "throws" leaves an
//                                   exception pending
#include <jni.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::set<std::string> KNOWN = {"com/norvale/app/daemon/entry/NativeLauncher",
                                     "main([Ljava/lang/String;)V", "java/lang/String",
                                     "java/lang/Throwable", "printStackTrace()V"};
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
Reference lookUp(const std::string& path, const std::string& type = "") {
  const bool isFound =
      KNOWN.contains(path + type) && script(path.substr(path.rfind('/') + 1)).empty();
  return isFound ? reinterpret_cast<Reference>(1) : nullptr;
}

jint callMain(jobject arguments) {
  std::string call = "main";
  if (arguments != reinterpret_cast<jobject>(&mainArguments)) call += " with another array than";
  for (const char* argument : mainArguments) call += std::string(" [") + argument + "]";
  note(call);
  script("call");
  return scriptedCode("status");
}

// Functions that the launcher does not need stay null, so that calling them crashes.
const JNINativeInterface_ environmentFunctions = [] {
  JNINativeInterface_ f{};
  f.FindClass = [](JNIEnv*, const char* name) { return lookUp<jclass>(name); };
  f.GetMethodID = [](JNIEnv*, jclass, const char* name, const char* type) {
    return lookUp<jmethodID>(name, type);
  };
  f.GetStaticMethodID = f.GetMethodID;
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
  f.CallStaticIntMethodV = [](JNIEnv*, jclass, jmethodID, va_list original) {
    va_list arguments;  // clang-tidy takes the original for a constant where it is a pointer
    va_copy(arguments, original);
    auto* array = va_arg(arguments, jobject);
    va_end(arguments);
    return callMain(array);
  };
  f.ExceptionOccurred = [](JNIEnv*) { return pending; };
  f.CallVoidMethodV = [](JNIEnv*, jobject object, jmethodID, va_list) {
    note(object == pending ? "printStackTrace" : "printStackTrace of another object");
  };
  f.DeleteLocalRef = [](JNIEnv*, jobject) { note("DeleteLocalRef"); };
  f.ExceptionClear = [](JNIEnv*) { note("ExceptionClear"); };
  return f;
}();
JNIEnv environment{&environmentFunctions};

jint attach(JavaVM* /*vm*/, void** env, void* /*arguments*/) {
  *env = &environment;
  return scriptedCode("attach");
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** /*env*/, void* arguments) {
  const auto& init = *static_cast<JavaVMInitArgs*>(arguments);
  const char* port = std::getenv("NORVALED_DEBUG_PORT");
  std::ostringstream call;
  call << "NORVALED_DEBUG_PORT=" << (port != nullptr ? port : "") << "\n> session leader "
       << (getsid(0) == getpid()) << "\n> JVM " << std::hex << init.version << ", lenient "
       << int{init.ignoreUnrecognized} << "\n\t";
  for (int i = 0; i < init.nOptions; ++i) call << init.options[i].optionString << "\n\t";
  note(call.str());

  static JNIInvokeInterface_ functions{};
  functions.AttachCurrentThread = attach;
  static JavaVM machine{&functions};
  *vm = &machine;
  const jint code = scriptedCode("create");
  if (code != JNI_OK) {
    static const char* heapLimit = init.options[0].optionString;
    std::atexit([] { note(std::string("exit handler sees ") + heapLimit); });
  }
  return code;
}
