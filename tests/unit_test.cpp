// What no start shows; includes sources for their own names. Each test needs a process of its own.
#include <CoreFoundation/CoreFoundation.h>
#include <dlfcn.h>
#include <objc/runtime.h>

#include <algorithm>
#include <map>
#include <thread>
#include <vector>

#include "jvm/ClassPath.h"
#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr;

namespace {

std::time_t clockShows = 0;
long pageSize = 0;
const char* lookedUp = nullptr;  // before main
int freed = 0;
int runs = 0;
va_list noArguments{};

// The launcher's runs last for ever: here the first runs out of time, if a timer keeps it.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_TRUE(mode == kCFRunLoopDefaultMode && seconds == 1.7976931348623157e+308 && !afterSource);
  if (++runs == 1) return CFRunLoopRunInMode(mode, 0, afterSource);
  return runs == 2 ? kCFRunLoopRunStopped : kCFRunLoopRunFinished;
}

}  // namespace

#include "logging/Logging.cpp"
// Not replaced when the program is linked: sanitizers bring malloc and free, and call sysconf
// before they are ready for code of ours; the others are in shared libraries on a Mac.
#define sysconf(name) ((name) == _SC_PAGESIZE ? pageSize : -1)
#define free(block) (++freed, free(block))
#define CFRunLoopRunInMode runInMode
#define objc_lookUpClass(name) (lookedUp = (name), nullptr)
#define main launcherMain
#include "jvm/JVMOptions.cpp"
#include "jvm/KestrelJVMHost.cpp"
#include "launcher/KestrelApplication.cpp"

// Stands before the C library's own in this program.
extern "C" std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) {
  return clockShows;
}

namespace {

struct Unit : BundleFixture {
  Unit() { setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1); }
  std::string logged() { return readable(contentOf(log), getpid()); }
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
  const std::string lines =
      R"(<head>2026-11-16 06:23:45.225 INFO   ---- (native)                  f a  b  -5 0
<head>2026-11-16 01:36:39.999 INFO   ---- (native)                  f two
lines
<head>2026-11-16 01:36:40.000 INFO   ---- (native)                  f
)";
  const std::string head = VERSION " " + std::to_string(getpid()) + " ";
  EXPECT_EQ(replaced(contentOf(log), head, "<head>"), "earlier\n" + banner + banner + lines);
  EXPECT_EQ(replaced(testing::internal::GetCapturedStderr(), head, "<head>"), lines);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  EXPECT_EQ(getLogsHome(), logs);
}

TEST_F(Unit, LogTakesARecordInOneWrite) {
  if (!fs::exists("/proc/self/io")) GTEST_SKIP() << "the system does not count writes";
  initialize_logging(false);
  long writes = 0;
  long before = 0;
  for (const int size : {1, 1, 9000}) {  // the last is more than a stream's own buffer holds
    LOG_RECORD(INFO, "f") << std::string(size, 'x');
    const std::string counters = contentOf("/proc/self/io");
    before = std::exchange(writes, std::stol(counters.substr(counters.find("syscw: ") + 7)));
  }
  EXPECT_EQ(writes - before, 1);
}

TEST_F(Unit, LogTakesTwoRecordsAtOnceAndDropsAThird) {
  initialize_logging(false);
  for (const int inFlight : {0, 1, 2}) {
    LOG_RECORD(INFO, "f") << inFlight;
    EXPECT_EQ(massage_handler_logging++, inFlight);
  }
  EXPECT_EQ(logged(), " f 0\n f 1\n");
  massage_handler_logging = 0;
  std::vector<std::thread> threads;  // for the thread sanitizer
  while (threads.size() < 8) {
    threads.emplace_back([] {
      for (int n = 0; n < 200; ++n) LOG_RECORD(INFO, "f");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(massage_handler_logging, 0);
}

TEST_F(Unit, FatalEndsSayWhyOnTheConsole) {
  isConsoleLoggingEnabled = true;
  std::atexit([] { std::fputs("handlers ran", stderr); });
  const std::string file = bin + "/kestrel/below";
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", file.c_str(), 1);
  EXPECT_EXIT(
      initialize_logging(false), testing::ExitedWithCode(1),
      " reportFatalAndExit Invalid or inaccessible log directory: " + file + "\nhandlers ran");
  fs::create_directories(log);  // no file can have that name
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Failed to open log file for writing: " + log + "\n");
}

TEST_F(Unit, HelpersKeepToTheirLimits) {
  for (const auto& [bytes, option] : std::map<long, std::string>{
           {-1, "-Xss384k"}, {16384, "-Xss384k"}, {50175, "-Xss384k"}, {50176, "-Xss392k"}}) {
    pageSize = bytes;
    EXPECT_EQ(computeStackSizeOpt(), option) << bytes;
  }
  EXPECT_EQ(string_replace("a:b", "", "x"), "a:b");
  EXPECT_EQ(string_replace("aa", "a", "aa"), "aaaa");
}

TEST_F(Unit, HookWritesTheJvmsWordsIntoTheLog) {
  initialize_logging(false);
  EXPECT_EQ(jvm_vprintf(nullptr, "Error occurred\n", noArguments), 15);
  EXPECT_EQ(jvm_vprintf(nullptr, std::string(2000, 'x').c_str(), noArguments), 2000);
  const std::string cut(1019, 'x');
  EXPECT_EQ(logged(), " jvm_vprintf JVM:  Error occurred\n\n jvm_vprintf JVM:  " + cut + "\n");
}

TEST_F(Unit, OptionsAreReleasedOnlyAfterACreation) {
  initialize_logging(false);
  const std::string file = root + "/args";
  EXPECT_EQ(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_THAT(logged(), EndsWith("\n startJVM Unable to open jvm args file:  " + file + "\n"));
  std::ofstream(file) << "-Xmx2g -x\n\n  -Da=1\r\n";
  setenv("NORVALED_DEBUG_PORT", "0", 1);
  setenv("SCRIPT_create", "-1", 1);
  EXPECT_EQ(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_EQ(freed, 0);
  EXPECT_THAT(logged(), EndsWith("\n startJVM Error creating VM: code= -1 . Exiting...\n\n"));
  fs::remove(log);
  unsetenv("SCRIPT_create");
  EXPECT_NE(KestrelJVMHost::startJVM(file), nullptr);
  const std::string text = logged();  // two lists, each with one tab more than options
  EXPECT_EQ(freed, std::count(text.begin(), text.end(), '\t') / 2 - 1);
  EXPECT_THAT(text, HasSubstr("VM 0\n\t-Xmx160m\n\t-Xmx2g -x\n\t\n\t  -Da=1\r\n\t-agentlib:"));
#ifdef __linux__  // where a lazily loaded library stays apart unless it is asked for
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), nullptr);
#endif
}

TEST_F(Unit, RunAppEndsOnlyWhenTheLoopHasFinished) {
  initialize_logging(false);
  runApp();
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(logged(), " runApp CoreFoundation event loop is finished\n");
  EXPECT_STREQ(lookedUp, "NSApplicationAWT");
}

}  // namespace
