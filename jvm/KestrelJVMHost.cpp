#include "jvm/KestrelJVMHost.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "jvm/ClassPath.h"
#include "jvm/JVMOptions.h"
#include "jvm/LaunchOptions.h"
#include "jvm/TuningOptions.h"
#include "logging/Logging.h"
#include "platform/InstallDir.h"

namespace {

using CreateJavaVM = jint (*)(JavaVM** vm, void** env, void* args);

// Hooks of the invocation interface. The JVM may call them from any of its threads, several at a
// time; they never call into the JVM or end the process.

// Writes the JVM's messages to the log in place of the console. Returns the length of the complete
// text, even if the log gets only its beginning.
int jvm_vprintf(FILE* /*stream*/, const char* format, va_list arguments) {
  char text[1024] = {};
  // Less than the buffer can hold, so that its last bytes stay zero.
  const int length = vsnprintf(text, 1020, format, arguments);
  LOG_RECORD(INFO, "jvm_vprintf") << "JVM: " << text;
  return length;
}

void jvm_exit(int code) { LOG_RECORD(INFO, "jvm_exit") << "JVM: exit(" << code << ")"; }

void jvm_abort() { LOG_RECORD(INFO, "jvm_abort") << "JVM: abort()"; }

// Returns the -Xss option: eight memory pages, but at least FLOOR_KIB.
std::string computeStackSizeOpt() {
  constexpr std::uint64_t FLOOR_KIB = 384;
  std::uint64_t sizeKiB = FLOOR_KIB;
  const long pageBytes = sysconf(_SC_PAGESIZE);
  if (pageBytes > 0) {
    sizeKiB = std::max(FLOOR_KIB, (static_cast<std::uint64_t>(pageBytes) >> 10) * 8);
  }
  return "-Xss" + std::to_string(sizeKiB) + "k";
}

template <typename Function>
void addHook(JVMOptions& options, const char* name, Function* hook) {
  options.push_back({to_c_str(name), reinterpret_cast<void*>(hook)});
}

// Module openings, hooks, version property, crash files, temporary directory.
void addDiagnosticsOptions(JVMOptions& options) {
  addOption(options, "--add-opens=java.desktop/sun.awt=ALL-UNNAMED");
  addOption(options, "--add-opens=java.desktop/sun.awt.resources=ALL-UNNAMED");
  addOption(options, "--add-opens=java.desktop/java.awt=ALL-UNNAMED");
  addOption(options, "--add-opens=java.desktop/sun.lwawt=ALL-UNNAMED");
  addOption(options, "--add-opens=java.desktop/sun.lwawt.macosx=ALL-UNNAMED");

  addHook(options, "vfprintf", jvm_vprintf);
  addHook(options, "exit", jvm_exit);
  addHook(options, "abort", jvm_abort);

  addOption(options, "-DKESTREL_VERSION=" KESTREL_VERSION);

  const std::string pid = std::to_string(OSHelper::getPid());
  addOption(options, "-XX:+CrashOnOutOfMemoryError");
  addOption(options, "-XX:+HeapDumpOnOutOfMemoryError");
  addOption(options, "-XX:HeapDumpPath=" + getLogsHome() + "/kestrel-oom-" + pid + ".hprof");
  addOption(options, "-XX:ErrorFile=" + getLogsHome() + "/kestrel-error-" + pid + ".log");

  char* temporaryDir = std::getenv("TMPDIR");
  if (temporaryDir != nullptr && isDirectory(temporaryDir)) {
    addOption(options, std::string("-Djava.io.tmpdir=") + temporaryDir);
  }
}

// Returns the options for the log, one per line after a tab; the last line is a tab alone.
std::string describe(const JVMOptions& options) {
  constexpr char NEXT_LINE[] = "\n\t";
  std::string text = NEXT_LINE;
  for (const JavaVMOption& option : options) {
    if (option.optionString != nullptr) text += option.optionString;
    text += NEXT_LINE;
  }
  return text;
}

}  // namespace

void* KestrelJVMHost::resolveJNICreateFunction() {
  const std::string path =
      OS::getApplicationInstallDir() + "/../jre/Contents/Home/lib/libjli.dylib";
  LOG_RECORD(INFO, "resolveJNICreateFunction") << "Loading JLI library from" << path;

  void* library = dlopen(path.c_str(), RTLD_LAZY);
  if (library == nullptr) {
    LOG_RECORD(WARN, "resolveJNICreateFunction") << "Cannot load " << path << ": " << dlerror();
    return nullptr;
  }
  return dlsym(library, "JNI_CreateJavaVM");
}

// The declared interface is by value, though nothing here changes the path.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
JavaVM* KestrelJVMHost::startJVM(std::string argsFilePath) {
  const auto createJavaVM = reinterpret_cast<CreateJavaVM>(resolveJNICreateFunction());
  if (createJavaVM == nullptr) {
    LOG_RECORD(ERROR, "startJVM") << "Failed to locate exported function to start VM";
    return nullptr;
  }

  // The user's options come first, then the class path, then the launcher's policy and diagnostics:
  // of an option given twice, the JVM uses the later one. Only the maximum heap size goes to the
  // front, so that a user's -Xmx overrides it. The list owns its strings; the JVM copies them while
  // it is created.
  JVMOptions options;
  if (!addArgsFileOptions(options, argsFilePath)) return nullptr;
  addDebugPortOption(options);
  addEnvironmentOptions(options);
  addClassPathOptions(options);
  addTuningOptions(options, computeStackSizeOpt());
  addDiagnosticsOptions(options);
  LOG_RECORD(INFO, "startJVM") << "JVM Args:" << describe(options);

  JavaVMInitArgs initArgs{};
  initArgs.version = JNI_VERSION_10;
  initArgs.nOptions = static_cast<jint>(options.size());
  initArgs.options = options.data();
  initArgs.ignoreUnrecognized = JNI_FALSE;

  LOG_RECORD(INFO, "startJVM") << "Starting JVM";
  JavaVM* vm = nullptr;
  void* env = nullptr;  // unused: the caller attaches the thread again
  const jint code = createJavaVM(&vm, &env, &initArgs);
  if (code != JNI_OK) {
    // The text is intended, though it is the caller that exits, and so is the empty line that the
    // line break leaves in the log.
    LOG_RECORD(ERROR, "startJVM") << "Error creating VM: code=" << code << ". Exiting...\n";
    return nullptr;  // the strings stay allocated, as intended: the process is about to end
  }
  for (const JavaVMOption& option : options) std::free(option.optionString);
  LOG_RECORD(INFO, "startJVM") << "Java Virtual Machine is created!";
  return vm;
}
