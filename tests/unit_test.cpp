// What no start of the launcher shows. Sources are included to reach their file-local names.
#include <CoreFoundation/CoreFoundation.h>
#include <dlfcn.h>
#include <objc/runtime.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <ctime>
#include <sstream>
#include <thread>
#include <vector>

#include "jvm/ClassPath.h"
#include "platform/InstallDir.h"
#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr;

namespace {

std::time_t clockShows = 0;
long pageSize = 0;
const char* lookedUp = nullptr;  // before main
bool isMemoryOut = false;
int freed = 0;
std::vector<CFRunLoopRunResult> results;

// The launcher's runs last for ever: the second is to run out of time, and the third, which would
// wait for the launcher's own timer, to finish.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_TRUE(mode == kCFRunLoopDefaultMode && seconds == 1.7976931348623157e+308 && !afterSource);
  CFRunLoopRunResult result = kCFRunLoopRunFinished;
  if (results.size() < 2) {
    result = CFRunLoopRunInMode(mode, results.empty() ? seconds : 0.01, afterSource);
  }
  results.push_back(result);
  return result;
}

}  // namespace

#include "logging/Logging.cpp"
// Not replaced when the program is linked: sanitizers bring malloc and free, and call sysconf
// before they are ready for code of ours; the run loop's other functions are to stay what they are.
#define malloc(size) (isMemoryOut ? nullptr : malloc(size))
#define sysconf(name) ((name) == _SC_PAGESIZE ? pageSize : -1)
#define free(block) (++freed, free(block))
#define CFRunLoopRunInMode runInMode
#define main launcherMain
#include "jvm/JVMOptions.cpp"
#include "jvm/KestrelJVMHost.cpp"
#include "launcher/KestrelApplication.cpp"
#undef main
#undef CFRunLoopRunInMode
#undef free
#undef sysconf
#undef malloc

// These stand before the libraries' own in this program.
extern "C" {
std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) { return clockShows; }
Class objc_lookUpClass(const char* name) {
  lookedUp = name;
  return nullptr;
}
void* objc_autoreleasePoolPush() { return nullptr; }
void objc_autoreleasePoolPop(void* /*pool*/) {}
}

namespace {

struct Unit : BundleFixture {
  Unit() { setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1); }
  std::string logged() { return readable(contentOf(log), std::to_string(getpid())); }
};

TEST_F(Unit, LogLineIsExact) {
  setenv("TZ", "UTC0", 1);
  LOG_RECORD(ERROR, "early") << "is lost";
  EXPECT_THAT(format_log_message(""), HasSubstr("NOT INITIALIZED1970-01-01 00:00:00.000 INFO "));
  std::ofstream(log) << "earlier\n";
  initialize_logging(true);
  initialize_logging(false);  // leaves the console on
  testing::internal::CaptureStderr();
  clockShows = 1794810225;
  LOG_RECORD(ERROR, "f") << "a" << std::string(" b ") << -5 << 0;
  setenv("TZ", "EST5", 1);  // the machine travels
  clockShows = 1794810999;
  LOG_RECORD(DEBUG, "f") << "two\nlines";
  clockShows = 1794811000;
  LOG_RECORD(INFO, "f");
  const std::string head = VERSION " " + std::to_string(getpid()) + " ";
  const std::string lines =
      R"(<head>2026-11-16 06:23:45.225 INFO   ---- (native)                  f a  b  -5 0
<head>2026-11-16 01:36:39.999 INFO   ---- (native)                  f two
lines
)";
  const std::string last =
      "<head>2026-11-16 01:36:40.000 INFO   ---- (native)                  f\n";
  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  EXPECT_EQ(replaced(contentOf(log), head, "<head>"), "earlier\n" + banner + banner + lines + last);
  EXPECT_EQ(replaced(testing::internal::GetCapturedStderr(), head, "<head>"), lines + last);

  // A file that is gone comes back without banner; the environment is not asked again.
  fs::remove(log);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  LOG_RECORD(INFO, "f");
  EXPECT_EQ(replaced(contentOf(log), head, "<head>"), last);
  EXPECT_EQ(getLogsHome(), logs);
}

TEST_F(Unit, LogTakesTwoRecordsAtOnceAndDropsAThird) {
  initialize_logging(false);
  EXPECT_EQ(massage_handler_logging, 0);
  for (const int inFlight : {0, 1, 2, 3}) {
    massage_handler_logging = inFlight;
    LOG_RECORD(INFO, "f") << inFlight;
    EXPECT_EQ(massage_handler_logging, inFlight);
  }
  EXPECT_EQ(logged(), " f 0\n f 1\n");

  massage_handler_logging = 0;
  std::vector<std::thread> threads(8);
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      for (int n = 0; n < 200; ++n) LOG_RECORD(INFO, "f") << n;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(massage_handler_logging, 0);
}

#ifdef __linux__  // where the system counts the writes of a process
TEST_F(Unit, LogTakesARecordInOneWrite) {
  initialize_logging(false);
  const auto countWrites = [] {
    const std::string counters = contentOf("/proc/self/io");
    return std::stol(counters.substr(counters.find("syscw: ") + 7));
  };
  countWrites();  // in a first call a sanitizer may write too
  const long before = countWrites();
  LOG_RECORD(INFO, "f") << std::string(9000, 'x');  // more than a stream's own buffer holds
  EXPECT_EQ(countWrites() - before, 1);
}
#endif

TEST_F(Unit, FatalEndsSayWhyOnTheConsole) {
  isConsoleLoggingEnabled = true;
  std::atexit([] { std::fputs("handlers ran", stderr); });
  EXPECT_EXIT(reportFatalAndExit("end", 53, false), testing::ExitedWithCode(53),
              " reportFatalAndExit end\nhandlers ran");
  const std::string file = bin + "/kestrel";
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", file.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Invalid or inaccessible log directory: " + file + "\n");
  fs::create_directories(log);  // no file can have that name
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Failed to open log file for writing: " + log + "\n");
}

TEST_F(Unit, HelpersKeepToTheirLimits) {
  const std::vector<std::pair<long, std::string>> stackSizes = {
      {16384, "-Xss384k"}, {50175, "-Xss384k"}, {50176, "-Xss392k"}, {-1, "-Xss384k"}};
  for (const auto& [bytes, option] : stackSizes) {
    pageSize = bytes;
    EXPECT_EQ(computeStackSizeOpt(), option) << bytes;
  }
  EXPECT_EQ(string_replace("a:b", "", "x"), "a:b");
  EXPECT_EQ(string_replace("aa", "a", "aa"), "aaaa");
#ifdef __linux__
  std::string path = "/proc/self/fd/" + std::to_string(socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_TRUE(isDirectory(path.data()));  // a socket's type includes the directory's bit
#endif
}

int print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = jvm_vprintf(nullptr, format, arguments);
  va_end(arguments);
  return length;
}

TEST_F(Unit, HooksWriteTheJvmsWordsIntoTheLog) {
  initialize_logging(false);
  EXPECT_EQ(print("%s occurred\n", "Error"), 15);
  EXPECT_EQ(print("%s", std::string(2000, 'x').c_str()), 2000);
  jvm_exit(3);
  jvm_abort();
  EXPECT_EQ(replaced(logged(), std::string(1019, 'x'), "<1019 characters>"),
            R"( jvm_vprintf JVM:  Error occurred

 jvm_vprintf JVM:  <1019 characters>
 jvm_exit JVM: exit( 3 )
 jvm_abort JVM: abort()
)");
}

TEST_F(Unit, ArgsFileIsReadByTheLine) {
  initialize_logging(false);
  const std::string file = root + "/args";
  EXPECT_EQ(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_THAT(logged(), EndsWith("\n startJVM Unable to open jvm args file:  " + file + "\n"));
  std::ofstream(file) << "-Xmx2g -x\n\n  -Da=1\r\n";
  setenv("NORVALED_DEBUG_PORT", "0", 1);
  EXPECT_NE(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_THAT(logged(),
              HasSubstr("> CreateJavaVM\n\t-Xmx160m\n\t-Xmx2g -x\n\t\n\t  -Da=1\r\n\t-agentlib:"));
}

TEST_F(Unit, OptionsAreReleasedOnlyAfterACreation) {
  initialize_logging(false);
  EXPECT_NE(KestrelJVMHost::startJVM(""), nullptr);
  const std::string text = logged();  // has each option twice, with an end of its own to each list
  EXPECT_EQ(freed, std::count(text.begin(), text.end(), '\t') / 2 - 1);
#ifdef __linux__  // where a lazily loaded library stays apart unless it is asked for
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), nullptr);
#endif
  freed = 0;
  setenv("SCRIPT_create", "-1", 1);
  isMemoryOut = true;  // is the JVM's to complain of
  EXPECT_EQ(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_EQ(freed, 0);
  EXPECT_THAT(logged(), HasSubstr("\n\t\n\t\n\t\n startJVM Starting JVM\n"));
  EXPECT_THAT(logged(), HasSubstr("\n\t(null)\n\t(null)\n"));
  EXPECT_THAT(logged(), EndsWith("\n startJVM Error creating VM: code= -1 . Exiting...\n\n"));
}

TEST_F(Unit, RunAppEndsOnlyWhenTheLoopHasFinished) {
  initialize_logging(false);
  EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 60, false), kCFRunLoopRunFinished);
  const auto stop = [](CFRunLoopTimerRef, void*) { CFRunLoopStop(CFRunLoopGetCurrent()); };
  CFRunLoopTimerRef once = CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + 0.01, 0, 0, 0, stop, nullptr);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), once, kCFRunLoopDefaultMode);
  CFRelease(once);
  runApp();
  EXPECT_EQ(results, (std::vector<CFRunLoopRunResult>{kCFRunLoopRunStopped, kCFRunLoopRunTimedOut,
                                                      kCFRunLoopRunFinished}));
  EXPECT_EQ(logged(), " runApp CoreFoundation event loop is finished\n");
  EXPECT_STREQ(lookedUp, "NSApplicationAWT");
}

}  // namespace
