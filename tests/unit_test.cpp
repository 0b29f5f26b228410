// What running the launcher cannot show. Includes source files to reach their file-local names.
#include <thread>
#include <utility>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr;

namespace {

std::time_t clockShows = 0;
long pageSize = 0;
int freed = 0;
va_list noArguments{};

}  // namespace

#include "logging/Logging.cpp"
// Replaced by macros, not at link time: the sanitizers define malloc and free and call sysconf
// before they are ready for other code.
#define sysconf(name) ((name) == _SC_PAGESIZE ? pageSize : -1)
#define free(block) (++freed, free(block))
#include "jvm/JVMOptions.cpp"
#include "jvm/KestrelJVMHost.cpp"

// Overrides the C library's time() in this program.
extern "C" std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) {
  return clockShows;
}

namespace {

struct Unit : BundleFixture {
  Unit() {
    setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1);
    // As in a new process.
    logsDirInitialized = isFileLoggingEnabled = isConsoleLoggingEnabled = false;
    massage_handler_logging = 0;
    clockShows = freed = 0;
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

TEST_F(Unit, LogDirectoryStaysAsItWasAtFirst) {
  initialize_logging(false);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  EXPECT_EQ(getLogsHome(), logs);
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
  EXPECT_EXIT(
      {
        std::atexit([] { std::fputs("handlers ran", stderr); });
        initialize_logging(false);
      },
      testing::ExitedWithCode(1),
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
  EXPECT_THAT(logged(), HasSubstr("\n\t-Xmx160m\n\t-Xmx2g -x\n\t\n\t  -Da=1\r\n"
                                  "\t-agentlib:"));
}

TEST_F(Unit, OptionsAreFreedOnlyAfterTheJvmIsCreated) {
  setenv("SCRIPT_create", "-1", 1);
  EXPECT_EQ(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_EQ(freed, 0);
  unsetenv("SCRIPT_create");
  EXPECT_NE(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_GT(freed, 0);
}

}  // namespace
