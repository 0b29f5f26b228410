// What running the launcher cannot show. Includes source files to reach their file-local names.
#include <CoreFoundation/CoreFoundation.h>
#include <dlfcn.h>
#include <objc/runtime.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "jvm/ClassPath.h"
#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr;

namespace {

std::time_t clockShows = 0;
long pageSize = 0;
int freed = 0;
int runs = 0;
const char* lookedUp = nullptr;  // set before main
va_list noArguments{};

// The launcher's loop would wait forever. Here the first run times out (provided a timer keeps the
// loop alive), the second is stopped, the third finishes.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_EQ(mode, kCFRunLoopDefaultMode);
  EXPECT_EQ(seconds, 1.7976931348623157e+308);
  EXPECT_FALSE(afterSource);
  if (++runs == 1) return CFRunLoopRunInMode(mode, 0, afterSource);
  return runs == 2 ? kCFRunLoopRunStopped : kCFRunLoopRunFinished;
}

}  // namespace

#include "logging/Logging.cpp"
// Replaced by macros, not at link time: the sanitizers define malloc and free and call sysconf
// before they are ready for other code, and on a Mac the other functions are in shared libraries.
#define sysconf(name) ((name) == _SC_PAGESIZE ? pageSize : -1)
#define free(block) (++freed, free(block))
#define CFRunLoopRunInMode runInMode
#define objc_lookUpClass(name) (lookedUp = (name), nullptr)
#define main launcherMain
#include "jvm/JVMOptions.cpp"
#include "jvm/KestrelJVMHost.cpp"
#include "launcher/KestrelApplication.cpp"

// Overrides the C library's time() in this program; noexcept where the system's header says so.
extern "C" std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) {
  return clockShows;
}

namespace {

struct Unit : BundleFixture {
  Unit() {
    setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1);
    // As in a new process.
    std::strcpy(logPrefix, "NOT INITIALIZED");
    logsDirInitialized = isFileLoggingEnabled = isConsoleLoggingEnabled = false;
    massage_handler_logging = 0;
    clockShows = freed = runs = 0;
  }

  std::string logged() { return readable(contentOf(log), getpid()); }
};

TEST_F(Unit, LogLineIsExact) {
  setenv("TZ", "UTC0", 1);
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
}

TEST_F(Unit, LogIsOffBeforeItsInitialization) {
  LOG_RECORD(ERROR, "early") << "is lost";
  EXPECT_EQ(contentOf(log), "");
  setenv("TZ", "UTC0", 1);
  EXPECT_EQ(format_log_message(" early"),
            "NOT INITIALIZED1970-01-01 00:00:00.000 INFO   ---- "
            "(native)                  early\n");
}

TEST_F(Unit, LogDirectoryStaysAsItWasAtFirst) {
  initialize_logging(false);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  EXPECT_EQ(getLogsHome(), logs);
}

TEST_F(Unit, LogWritesARecordAtOnce) {
  if (!fs::exists("/proc/self/io")) GTEST_SKIP() << "the system does not count writes";
  initialize_logging(false);
  const auto writes = [] {
    const std::string counters = contentOf("/proc/self/io");
    return std::stol(counters.substr(counters.find("syscw: ") + 7));
  };
  writes();  // a sanitizer's first use of these functions may write something itself
  LOG_RECORD(INFO, "f");
  const long before = writes();
  LOG_RECORD(INFO, "f") << std::string(9000, 'x');  // more than a stream's own buffer holds
  EXPECT_EQ(writes() - before, 1);
}

TEST_F(Unit, LogTakesTwoRecordsAtOnceAndDropsAThird) {
  initialize_logging(false);
  for (const int inFlight : {0, 1, 2}) {
    massage_handler_logging = inFlight;
    LOG_RECORD(INFO, "f") << inFlight;
    EXPECT_EQ(massage_handler_logging, inFlight);
  }
  EXPECT_EQ(logged(), " f 0\n f 1\n");
}

TEST_F(Unit, LogTakesRecordsFromSeveralThreads) {
  initialize_logging(false);
  std::vector<std::thread> threads;
  while (threads.size() < 8) {
    threads.emplace_back([] {
      for (int n = 0; n < 200; ++n) LOG_RECORD(INFO, "f");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(massage_handler_logging, 0);
}

TEST_F(Unit, FatalErrorIsShownOnTheConsoleAndRunsExitHandlers) {
  isConsoleLoggingEnabled = true;
  const std::string file = bin + "/kestrel/below";
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", file.c_str(), 1);
  const auto initialize = [] {
    std::atexit([] { std::fputs("handlers ran", stderr); });
    initialize_logging(false);
  };
  EXPECT_EXIT(
      initialize(), testing::ExitedWithCode(1),
      " reportFatalAndExit Invalid or inaccessible log directory: " + file + "\nhandlers ran");
}

TEST_F(Unit, LogFileThatCannotBeOpenedIsFatal) {
  isConsoleLoggingEnabled = true;
  fs::create_directories(log);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Failed to open log file for writing: " + log + "\n");
}

TEST_F(Unit, ThreadStackIsEightPagesButAtLeast384KiB) {
  const std::vector<std::pair<long, std::string>> cases = {
      {-1, "-Xss384k"}, {16384, "-Xss384k"}, {50175, "-Xss384k"}, {50176, "-Xss392k"}};
  for (const auto& [bytes, option] : cases) {
    pageSize = bytes;
    EXPECT_EQ(computeStackSizeOpt(), option) << bytes;
  }
}

TEST_F(Unit, StringReplaceDoesNotSearchReplacements) {
  EXPECT_EQ(string_replace("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(string_replace("a:b", "", "x"), "a:b");
}

TEST_F(Unit, JvmOutputIsLoggedUpToItsLimit) {
  initialize_logging(false);
  EXPECT_EQ(jvm_vprintf(nullptr, "Error occurred\n", noArguments), 15);
  EXPECT_EQ(jvm_vprintf(nullptr, std::string(2000, 'x').c_str(), noArguments), 2000);
  EXPECT_EQ(logged(), " jvm_vprintf JVM:  Error occurred\n\n jvm_vprintf JVM:  " +
                          std::string(1019, 'x') + "\n");
}

TEST_F(Unit, OptionsFileThatCannotBeReadIsRecorded) {
  initialize_logging(false);
  EXPECT_EQ(KestrelJVMHost::startJVM("/no/such file"), nullptr);
  EXPECT_THAT(logged(), EndsWith("\n startJVM Unable to open jvm args file:  /no/such file\n"));
}

TEST_F(Unit, OptionsFileIsPassedLineByLine) {
  initialize_logging(false);
  setenv("NORVALED_DEBUG_PORT", "0", 1);
  std::ofstream(root + "/options") << "-Xmx2g -x\n\n  -Da=1\r\n";
  EXPECT_NE(KestrelJVMHost::startJVM(root + "/options"), nullptr);
  EXPECT_THAT(logged(), HasSubstr("> CreateJavaVM\n\t-Xmx160m\n\t-Xmx2g -x\n\t\n\t  -Da=1\r\n"
                                  "\t-agentlib:"));
}

TEST_F(Unit, OptionsAreFreedOnlyAfterTheJvmIsCreated) {
  initialize_logging(false);
  setenv("SCRIPT_create", "-1", 1);
  EXPECT_EQ(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_EQ(freed, 0);
  fs::remove(log);
  unsetenv("SCRIPT_create");
  EXPECT_NE(KestrelJVMHost::startJVM(""), nullptr);
  const std::string text = logged();  // the list twice, each time with one tab more than options
  EXPECT_EQ(freed, std::count(text.begin(), text.end(), '\t') / 2 - 1);
}

#ifdef __linux__  // where RTLD_LOCAL is the default
TEST_F(Unit, RuntimeLibraryIsLoadedLocally) {
  EXPECT_NE(KestrelJVMHost::resolveJNICreateFunction(), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), nullptr);
}
#endif

TEST_F(Unit, RunAppReturnsOnlyWhenTheLoopHasFinished) {
  initialize_logging(false);
  runApp();
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(logged(), " runApp CoreFoundation event loop is finished\n");
}

TEST_F(Unit, NsApplicationClassIsLookedUpBeforeMain) { EXPECT_STREQ(lookedUp, "NSApplicationAWT"); }

}  // namespace
