// What no start of the launcher shows. Sources are included to reach their file-local names and to
// take the place of what they call; each test is a process of its own.
#include <CoreFoundation/CoreFoundation.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <objc/runtime.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "jvm/ClassPath.h"
#include "platform/InstallDir.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr, testing::StartsWith;

namespace {

std::time_t clockShows = 0;
long pageSize = 0;
bool isMemoryOut = false;
int freed = 0;
CFRunLoopTimerRef installed = nullptr;  // by the launcher
const char* lookedUp = nullptr;         // before main
std::vector<CFRunLoopRunResult> results;

long fakeSysconf(int name) { return name == _SC_PAGESIZE ? pageSize : -1; }
void* fakeMalloc(std::size_t size) { return isMemoryOut ? nullptr : std::malloc(size); }

void countedFree(void* block) {
  ++freed;
  std::free(block);
}

// The first run has no limit; the second runs out of time, since the launcher's timer keeps it
// alive, and the third ends without that timer.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_TRUE(mode == kCFRunLoopDefaultMode && seconds == 1.7976931348623157e+308 && !afterSource);
  results.push_back(CFRunLoopRunInMode(mode, results.empty() ? seconds : 0.01, afterSource));
  if (results.back() == kCFRunLoopRunTimedOut) CFRunLoopTimerInvalidate(installed);
  return results.back();
}

}  // namespace

// Stands before the C library's in this program.
extern "C" std::time_t time(std::time_t* /*result*/) noexcept(noexcept(time(nullptr))) {
  return clockShows;
}

#include "logging/Logging.cpp"
#define malloc fakeMalloc
#include "jvm/JVMOptions.cpp"
#undef malloc
#define free countedFree
#define sysconf fakeSysconf
#include "jvm/KestrelJVMHost.cpp"
#undef sysconf
#undef free
#define CFRunLoopTimerCreate(...) (installed = CFRunLoopTimerCreate(__VA_ARGS__))
#define CFRunLoopRunInMode runInMode
#define objc_lookUpClass(name) (lookedUp = (name), objc_lookUpClass(name))
#define main launcherMain
#include "launcher/KestrelApplication.cpp"
#undef main
#undef objc_lookUpClass
#undef CFRunLoopRunInMode
#undef CFRunLoopTimerCreate

namespace {

// In a throw-away folder around a bundle with the scripted JVM.
struct Inside : testing::Test {
  Inside() {
    environ[0] = nullptr;
    for (const std::string& folder : {logs, bin, jli}) fs::create_directories(folder);
    fs::create_symlink(SCRIPTED_JVM, jli + "/libjli.dylib");
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
    setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bin.c_str(), 1);
    setenv("SCRIPTED_JVM_CALLS", log.c_str(), 1);
  }
  ~Inside() override { fs::remove_all(root); }

  std::string text() {
    std::ifstream file(log);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // What the log says behind the last banner, without version, process, time and level.
  std::string messages() {
    std::string all = text().erase(0, text().rfind(BANNER) + sizeof BANNER - 1);
    const std::size_t head = format_log_message("").size() - 1;
    for (std::size_t i; (i = all.find(logPrefix)) != std::string::npos;) all.erase(i, head);
    return all;
  }

  const std::string root = [] {
    std::string name = fs::temp_directory_path() / "kestrel-XXXXXX";
    return std::string(mkdtemp(name.data()));
  }();
  const std::string logs = root + "/logs", log = logs + "/kestrel-native.log", bin = root + "/bin";
  const std::string jli = root + "/jre/Contents/Home/lib";
};

TEST_F(Inside, LogLineIsExact) {
  LOG_RECORD(ERROR, "early") << "is lost";
  EXPECT_THAT(format_log_message(" x"), StartsWith("NOT INITIALIZED1970-01-01 00:00:00.000 INFO "));
  std::ofstream(log) << "earlier\n";
  initialize_logging(true);
  initialize_logging(false);  // leaves the console on
  testing::internal::CaptureStderr();
  clockShows = 1794810225;
  { DumpLoggerBuilder nothing(DumpLoggerBuilder::WARN); }
  setenv("TZ", "EST5", 1);  // the machine travels
  LOG_RECORD(ERROR, "f") << "a" << std::string(" b ") << -5 << 0;
  clockShows = 1794810999;
  LOG_RECORD(DEBUG, "f") << "two\nlines";
  clockShows = 1794811000;
  LOG_RECORD(INFO, "f");
  const std::string id = KESTREL_VERSION " " + std::to_string(getpid()) + " 2026-11-16 0";
  const std::string tag = " INFO   ---- (native)                 ";
  const std::string last = id + "1:36:40.000" + tag + " f\n";
  const std::string lines = id + "6:23:45.225" + tag + "\n" + id + "1:23:45.225" + tag +
                            " f a  b  -5 0\n" + id + "1:36:39.999" + tag + " f two\nlines\n" + last;
  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  EXPECT_EQ(text(), "earlier\n" + banner + banner + lines);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), lines);

  // A file that is gone comes back without banner; the environment is not asked again.
  fs::remove(log);
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "/elsewhere", 1);
  LOG_RECORD(INFO, "f");
  EXPECT_EQ(text(), last);
  EXPECT_EQ(getLogsHome(), logs);
}

TEST_F(Inside, LogTakesTwoRecordsAtOnceAndDropsAThird) {
  initialize_logging(false);
  for (int inFlight : {0, 1, 2, 3}) {
    massage_handler_logging = inFlight;
    LOG_RECORD(INFO, "f") << inFlight;
    EXPECT_EQ(massage_handler_logging, inFlight);
  }
  EXPECT_EQ(messages(), " f 0\n f 1\n");

  massage_handler_logging = 0;
  fs::resize_file(log, 0);
  const std::string record(9000, 'x');  // more than a stream's own buffer holds
  std::vector<std::thread> threads(8);
  for (std::thread& thread : threads) {
    thread = std::thread([&record] {
      for (int n = 0; n < 200; ++n) LOG_RECORD(INFO, "f") << record;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(massage_handler_logging, 0);
  const std::size_t whole = format_log_message(" f " + record).size() - 1;
  std::istringstream lines(text());
  for (std::string line; std::getline(lines, line);) ASSERT_EQ(line.size(), whole);
}

TEST_F(Inside, FatalEndsSayWhyOnTheConsole) {
  isConsoleLoggingEnabled = true;
  std::atexit([] { std::fputs("handlers ran", stderr); });
  EXPECT_EXIT(reportFatalAndExit("end", 53, false), testing::ExitedWithCode(53),
              " reportFatalAndExit end\nhandlers ran");
  const std::string file = jli + "/libjli.dylib";
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", file.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Invalid or inaccessible log directory: " + file + "\n");
  fs::create_directories(log);  // no file can have that name
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
  EXPECT_EXIT(initialize_logging(false), testing::ExitedWithCode(1),
              " reportFatalAndExit Failed to open log file for writing: " + log + "\n");
}

TEST_F(Inside, HelpersKeepToTheirLimits) {
  const std::pair<long, const char*> rows[] = {
      {16384, "-Xss384k"}, {50175, "-Xss384k"}, {50176, "-Xss392k"}, {-1, "-Xss384k"}};
  for (const auto& [bytes, option] : rows) {
    pageSize = bytes;
    EXPECT_EQ(computeStackSizeOpt(), option) << bytes;
  }
  EXPECT_EQ(string_replace("a:b", "", "x"), "a:b");
  EXPECT_EQ(string_replace("aa", "a", "aa"), "aaaa");
}

int print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = jvm_vprintf(nullptr, format, arguments);
  va_end(arguments);
  return length;
}

TEST_F(Inside, HooksWriteTheJvmsWordsIntoTheLog) {
  initialize_logging(false);
  EXPECT_EQ(print("%s occurred\n", "Error"), 15);
  EXPECT_EQ(print("%s", std::string(2000, 'x').c_str()), 2000);
  jvm_exit(3);
  jvm_abort();
  EXPECT_EQ(messages(),
            " jvm_vprintf JVM:  Error occurred\n\n jvm_vprintf JVM:  " + std::string(1019, 'x') +
                "\n jvm_exit JVM: exit( 3 )\n jvm_abort JVM: abort()\n");
}

TEST_F(Inside, ArgsFileIsReadByTheLine) {
  initialize_logging(false);
  const std::string file = root + "/args";
  EXPECT_EQ(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_THAT(messages(), EndsWith("\n startJVM Unable to open jvm args file:  " + file + "\n"));
  std::ofstream(file) << "-Xmx2g -x\n\n  -Da=1\r\n";
  setenv("NORVALED_DEBUG_PORT", "0", 1);
  EXPECT_NE(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_THAT(messages(), HasSubstr("\n> option -Xmx160m\n> option -Xmx2g -x\n> option \n"
                                    "> option   -Da=1\r\n> option -agentlib:jdwp="));
}

TEST_F(Inside, OptionsAreReleasedOnlyBehindACreation) {
  initialize_logging(false);
  EXPECT_NE(KestrelJVMHost::startJVM(""), nullptr);
  const std::string options = messages();
  EXPECT_EQ(freed, std::count(options.begin(), options.end(), '\t') - 1);
#ifdef __linux__  // where a lazily loaded library stays apart unless it is asked for
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), nullptr);
  std::string path = "/proc/self/fd/" + std::to_string(socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_TRUE(isDirectory(path.data()));  // a socket's type includes the directory's bit
#endif
  freed = 0;
  setenv("SCRIPTED_JVM", "create=-1", 1);
  isMemoryOut = true;  // is the JVM's to complain of
  EXPECT_EQ(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_EQ(freed, 0);
  EXPECT_THAT(messages(), HasSubstr("\n\t\n\t\n\t\n startJVM Starting JVM\n"));
  EXPECT_THAT(messages(), HasSubstr("\n> option (null)\n> option (null)\n"));
}

TEST_F(Inside, RunAppEndsOnlyWhenTheLoopHasFinished) {
  initialize_logging(false);
  const auto stop = [](CFRunLoopTimerRef, void*) { CFRunLoopStop(CFRunLoopGetCurrent()); };
  CFRunLoopTimerRef once = CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + 0.01, 0, 0, 0, stop, nullptr);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), once, kCFRunLoopDefaultMode);
  CFRelease(once);
  runApp();
  EXPECT_EQ(results, (std::vector<CFRunLoopRunResult>{kCFRunLoopRunStopped, kCFRunLoopRunTimedOut,
                                                      kCFRunLoopRunFinished}));
  EXPECT_EQ(messages(), " runApp CoreFoundation event loop is finished\n");
  EXPECT_STREQ(lookedUp, "NSApplicationAWT");
  installed = nullptr;  // for the leak checker
}

}  // namespace
