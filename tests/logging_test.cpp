// The log's inside, which a start of the launcher does not show: each test begins a fresh process.
#include "logging/Logging.cpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <thread>

#include "bundle.h"

std::time_t clockShows = 0;

// Stands before the C library's in this program.
extern "C" std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) {
  return clockShows;
}

namespace {

class Log : public testing::Test {
 protected:
  Log() {
    setenv("TZ", "UTC", 1);
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", bundle.logs.c_str(), 1);
  }
  const Bundle bundle;
};

TEST_F(Log, LineIsExact) {
  LOG_RECORD(ERROR, "early") << "is lost";
  EXPECT_EQ(format_log_message(" x").rfind("NOT INITIALIZED1970-01-01 00:00:00.000 INFO ", 0), 0U);
  EXPECT_FALSE(fs::exists(bundle.logs));

  fs::create_directories(bundle.logs);
  writeFile(bundle.log, "earlier\n");
  initialize_logging(true);
  initialize_logging(false);  // leaves the console on
  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  const std::string start = "earlier\n" + banner + banner;

  testing::internal::CaptureStderr();
  clockShows = 1794810225;
  { DumpLoggerBuilder nothing(DumpLoggerBuilder::WARN); }
  LOG_RECORD(ERROR, "f") << "a" << std::string(" b ") << -5 << 0;
  clockShows = 1794810999;
  LOG_RECORD(DEBUG, "f") << "two\nlines";
  clockShows = 1794811000;
  LOG_RECORD(INFO, "f");
  const std::string id = KESTREL_VERSION " " + std::to_string(getpid()) + " 2026-11-16 0";
  const std::string tag = " INFO   ---- (native)                 ";
  const std::string lines = id + "6:23:45.225" + tag + "\n" + id + "6:23:45.225" + tag +
                            " f a  b  -5 0\n" + id + "6:36:39.999" + tag + " f two\nlines\n" + id +
                            "6:36:40.000" + tag + " f\n";
  EXPECT_EQ(readFile(bundle.log), start + lines);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), lines);

  // A file that is gone comes back without banner; the environment is not asked again.
  clockShows = 1794811000;
  fs::remove(bundle.log);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  LOG_RECORD(INFO, "f");
  EXPECT_EQ(readFile(bundle.log), id + "6:36:40.000" + tag + " f\n");
  EXPECT_EQ(getLogsHome(), bundle.logs);
}

TEST_F(Log, ThirdRecordAtOnceIsDropped) {
  initialize_logging(false);
  for (int inFlight : {0, 1, 2, 3}) {
    massage_handler_logging = inFlight;
    LOG_RECORD(INFO, "f") << inFlight;
    EXPECT_EQ(massage_handler_logging, inFlight);
  }
  EXPECT_EQ(messagesOf(readFile(bundle.log)), " f 0\n f 1\n");
}

TEST_F(Log, ManyThreadsLeaveWholeLines) {
  initialize_logging(false);
  const std::string text(9000, 'x');
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 200; ++n) LOG_RECORD(INFO, "f") << text;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(massage_handler_logging, 0);
  std::istringstream lines(messagesOf(readFile(bundle.log)));
  for (std::string line; std::getline(lines, line);) ASSERT_EQ(line, " f " + text);
}

TEST_F(Log, FatalEndsSayWhy) {
  isConsoleLoggingEnabled = true;
  std::atexit([] { std::fputs("handlers ran", stderr); });
  EXPECT_EXIT(reportFatalAndExit("end", 53, false), testing::ExitedWithCode(53),
              " reportFatalAndExit end\nhandlers ran");
  for (const std::string& path : {std::string(), bundle.launcher.string()}) {
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", path.c_str(), 1);
    EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
                " reportFatalAndExit Invalid or inaccessible log directory: " + path + "\n");
  }
  fs::create_directories(bundle.log);  // no file can have that name
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", bundle.logs.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              "Failed to open log file for writing: " + bundle.log.string() + "\n");
}

}  // namespace
