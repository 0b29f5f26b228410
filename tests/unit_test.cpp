// What running the launcher cannot show.
#include <CoreFoundation/CoreFoundation.h>
#include <objc/runtime.h>

#include <limits>
#include <thread>

#include "jvm/ClassPath.h"
#include "launcher/KestrelApplication.h"
#include "tests/bundle_fixture.h"

// NOLINTBEGIN(bugprone-suspicious-include): they are included to reach their file-local names.
#include "jvm/KestrelJVMHost.cpp"
#include "logging/Logging.cpp"
// NOLINTEND(bugprone-suspicious-include)

namespace fs = std::filesystem;

namespace {

std::time_t clockShows = 0;
int timers = 0;
int runs = 0;
const char* lookedUp = nullptr;  // set before main

}  // namespace

// In this program, these take the place of the system's functions.
extern "C" {

std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) { return clockShows; }

Class objc_lookUpClass(const char* name) {
  lookedUp = name;
  return nullptr;
}

void CFRunLoopAddTimer(CFRunLoopRef /*loop*/, CFRunLoopTimerRef /*timer*/, CFRunLoopMode /*mode*/) {
  ++timers;
}

// The system's would wait forever. This returns every result once, kCFRunLoopRunFinished last.
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean returnAfterSourceHandled) {
  EXPECT_EQ(mode, kCFRunLoopDefaultMode);
  EXPECT_EQ(seconds, std::numeric_limits<double>::max());
  EXPECT_FALSE(returnAfterSourceHandled);
  return static_cast<CFRunLoopRunResult>(kCFRunLoopRunHandledSource - runs++);
}

}  // extern "C"

namespace {

struct Unit : BundleFixture {
  Unit() {
    setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1);
    logsDirInitialized = isFileLoggingEnabled = isConsoleLoggingEnabled = false;
  }

  std::string logged() { return readable(contentOf(log), getpid()); }
};

TEST_F(Unit, LogLineIsExact) {
  setenv("TZ", "UTC0", 1);
  std::ofstream(log) << "earlier\n";
  LOG_RECORD(ERROR, "f") << "is lost";  // before the log is initialized
  initialize_logging(true);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", (root + "/elsewhere").c_str(), 1);
  initialize_logging(false);  // leaves the directory as it is and the console on
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
  EXPECT_TRUE(
      isSameText(replaced(contentOf(log), head, "<head>"), "earlier\n" + banner + banner + lines));
  EXPECT_TRUE(isSameText(replaced(testing::internal::GetCapturedStderr(), head, "<head>"), lines));
}

TEST_F(Unit, LogWritesARecordAtOnce) {
  if (!fs::exists("/proc/self/io")) GTEST_SKIP() << "the system does not count writes";
  initialize_logging(false);
  const auto writes = [] {
    return std::stol(linesWith(contentOf("/proc/self/io"), "syscw").substr(7));
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
  massage_handler_logging = 0;
  EXPECT_TRUE(isSameText(logged(), " f 0\n f 1\n"));
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

TEST_F(Unit, LogThatCannotBeUsedIsFatal) {
  fs::create_directories(log);
  EXPECT_EXIT(initialize_logging(true), testing::ExitedWithCode(1),
              " reportFatalAndExit Failed to open log file for writing: " + log + "\n");
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "relative", 1);
  EXPECT_EXIT(initialize_logging(true), testing::ExitedWithCode(1),
              " reportFatalAndExit Invalid or inaccessible log directory: relative\n");
}

TEST_F(Unit, StringReplaceDoesNotSearchReplacements) {
  EXPECT_EQ(string_replace("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(string_replace("a:b", "", "x"), "a:b");
}

TEST_F(Unit, JvmOutputIsLoggedUpToItsLimit) {
  initialize_logging(false);
  va_list none{};
  // cppcheck-suppress va_list_usedBeforeStarted ; the format uses no argument
  EXPECT_EQ(jvm_vprintf(nullptr, std::string(2000, 'x').c_str(), none), 2000);
  EXPECT_TRUE(isSameText(logged(), " jvm_vprintf JVM:  " + std::string(1019, 'x') + "\n"));
}

TEST_F(Unit, OptionsFileIsPassedLineByLine) {
  initialize_logging(false);
  EXPECT_EQ(KestrelJVMHost::startJVM("/no/such file"), nullptr);
  EXPECT_EQ(lastLine(logged()), " startJVM Unable to open jvm args file:  /no/such file");

  setenv("NORVALED_DEBUG_PORT", "0", 1);
  std::ofstream(root + "/options") << "-Xmx2g -x\n\n  -Da=1\r\n";
  EXPECT_NE(KestrelJVMHost::startJVM(root + "/options"), nullptr);
  const std::string first =
      "> JVM a0000, lenient 0\n\t-Xmx160m\n\t-Xmx2g -x\n\t\n\t  -Da=1\r\n\t-agent";
  EXPECT_TRUE(isSameText(since("> JVM", logged()).substr(0, first.size()), first));
}

TEST_F(Unit, RunAppReturnsOnlyWhenTheLoopHasFinished) {
  initialize_logging(false);
  runApp();
  EXPECT_EQ(timers, 1);
  EXPECT_EQ(runs, 4);
  EXPECT_TRUE(isSameText(logged(), " runApp CoreFoundation event loop is finished\n"));
}

TEST_F(Unit, NsApplicationClassIsLookedUpBeforeMain) { EXPECT_STREQ(lookedUp, "NSApplicationAWT"); }

}  // namespace
