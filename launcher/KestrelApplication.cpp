// The process entry: sets up the log, starts the JVM on its own thread and waits for that thread.
#include "launcher/KestrelApplication.h"

#include <CoreFoundation/CoreFoundation.h>
#include <objc/runtime.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>

#include "java_entry/KestrelJVMApp.h"
#include "jvm/KestrelJVMHost.h"
#include "logging/Logging.h"

// Part of the compiler's ABI for automatic reference counting; no public header declares them.
extern "C" void* objc_autoreleasePoolPush(void);
extern "C" void objc_autoreleasePoolPop(void* pool);

// Looked up once, before main: nil unless the Java toolkit's library is already loaded then.
// Nothing here reads it.
Class NSApplicationAWTClass = nullptr;

__attribute__((constructor)) static void lookUpApplicationClass() {
  void* pool = objc_autoreleasePoolPush();
  NSApplicationAWTClass = objc_lookUpClass("NSApplicationAWT");
  objc_autoreleasePoolPop(pool);
}

extern "C" void timer_empty(CFRunLoopTimerRef /*timer*/, void* /*info*/) {}

void runApp() {
  constexpr double NEVER = std::numeric_limits<double>::max();
  CFRunLoopTimerRef keepAlive =
      CFRunLoopTimerCreate(kCFAllocatorDefault, NEVER, 0.0, 0, 0, timer_empty, nullptr);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), keepAlive, kCFRunLoopDefaultMode);
  CFRelease(keepAlive);

  while (CFRunLoopRunInMode(kCFRunLoopDefaultMode, NEVER, false) != kCFRunLoopRunFinished) {
  }
  LOG_RECORD(INFO, "runApp") << "CoreFoundation event loop is finished";
}

static int run(int argc, char** argv) {
  constexpr int NOT_STARTED = 255;
  constexpr int CANNOT_CREATE_JVM = 53;

  std::string jvmArgsFilePath;  // stays empty: this launcher reads no options file

  initialize_logging(false);
  setsid();  // a process group leader cannot; that is fine

  std::string argumentText;
  for (int i = 1; i < argc; ++i) argumentText.append(argv[i]).append(" ");
  LOG_RECORD(INFO, "run") << "Program arguments: " << argumentText;

  std::atomic<std::int32_t> launchResult{NOT_STARTED};
  std::atomic<bool> exitAfterStartup{false};
  // Always set: the entry's call lasts as long as the application, so when it returns the process
  // must exit, not enter the run loop.
  exitAfterStartup = true;

  std::thread jvmThread([&jvmArgsFilePath, argc, &argv, &launchResult, &exitAfterStartup] {
    JavaVM* vm = KestrelJVMHost::startJVM(jvmArgsFilePath);
    if (vm == nullptr) reportFatalAndExit("Failed to start JVM", CANNOT_CREATE_JVM, true);

    LOG_RECORD(INFO, "operator()") << "JVM calling main";
    const int result = KestrelJVMApp::callMainMethod(vm, argc, argv);
    LOG_RECORD(INFO, "operator()") << "JVM main ended";

    if (result == 0) {
      LOG_RECORD(INFO, "operator()") << "JVM started successfully";
      launchResult = 0;
    } else if (result == 1) {
      LOG_RECORD(INFO, "operator()") << "JVM exit after startup is set, exiting";
      launchResult = 0;
      exitAfterStartup = true;
    }
    if (result < 2) return;  // a negative result leaves launchResult as it is
    reportFatalAndExit("Failed to initialize Kestrel JVM application: " + std::to_string(result),
                       result, true);
  });
  jvmThread.join();

  if (launchResult != 0) exitAfterStartup = true;
  if (exitAfterStartup) return launchResult;

  LOG_RECORD(INFO, "run") << "JVM Start completed!";
  LOG_RECORD(INFO, "run") << "JVM was created. Going to call runApp()";
  runApp();
  LOG_RECORD(INFO, "run") << "runApp() has finished";
  return 0;
}

int main(int argc, char** argv) { return run(argc, argv); }
