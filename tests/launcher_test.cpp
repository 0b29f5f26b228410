// The run loop and the look-ups that the start-up sequence does not show, called in process.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "bundle.h"
#include "platform/InstallDir.h"

namespace {

CFRunLoopTimerRef installed = nullptr;  // by the launcher
std::vector<CFRunLoopRunResult> results;

// Another thread stops the first run and ends the timer in the third; the second gets a short
// limit.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_TRUE(mode == kCFRunLoopDefaultMode && seconds == 1.7976931348623157e+308 && !afterSource);
  const std::size_t turn = results.size();
  std::thread other([turn, loop = CFRunLoopGetCurrent()] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (turn == 0) CFRunLoopStop(loop);
    if (turn == 2) CFRunLoopTimerInvalidate(installed);
  });
  results.push_back(CFRunLoopRunInMode(mode, turn == 1 ? 0.01 : seconds, afterSource));
  other.join();
  return results.back();
}

}  // namespace

#define CFRunLoopTimerCreate(...) (installed = CFRunLoopTimerCreate(__VA_ARGS__))
#define CFRunLoopRunInMode runInMode
#define main launcherMain
#include "launcher/KestrelApplication.cpp"
#undef main
#undef CFRunLoopRunInMode
#undef CFRunLoopTimerCreate

namespace {

TEST(RunApp, EndsOnlyWhenTheLoopHasFinished) {
  const Bundle bundle;
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", bundle.logs.c_str(), 1);
  initialize_logging(false);
  int fired = 0;
  CFRunLoopTimerContext context{0, &fired, nullptr, nullptr, nullptr};
  const auto count = [](CFRunLoopTimerRef, void* info) { ++*static_cast<int*>(info); };
  CFRunLoopTimerRef once = CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + 0.01, 0, 0, 0, count, &context);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), once, kCFRunLoopDefaultMode);
  CFRelease(once);

  runApp();
  EXPECT_EQ(results, (std::vector<CFRunLoopRunResult>{kCFRunLoopRunStopped, kCFRunLoopRunTimedOut,
                                                      kCFRunLoopRunFinished}));
  EXPECT_EQ(messagesOf(readFile(bundle.log)), " runApp CoreFoundation event loop is finished\n");
  EXPECT_EQ(fired, 1);
  installed = nullptr;  // for the leak checker
}

#ifdef __linux__
TEST(Platform, DirectoryTestLooksAtOneBit) {
  const int socketPath = socket(AF_UNIX, SOCK_STREAM, 0);
  const std::pair<std::string, bool> rows[] = {
      {"/proc/self/fd/" + std::to_string(socketPath), true},  // a socket's type includes the bit
      {"/proc/self/cwd", true},                               // a link
      {"/proc/self/exe", false},
      {"/missing", false}};
  for (auto [path, expected] : rows) EXPECT_EQ(isDirectory(path.data()), expected) << path;
}

TEST(Platform, ExecutableDirectoryFollowsFoundation) {
  const std::pair<const char*, const char*> rows[] = {
      {"/tmp/a", "/tmp"}, {"/a", "/"}, {"a", ""},    {"a/b/", "a"},    {"//x//b", "/x"},
      {"/", "/"},         {"//", "/"}, {"./a", "."}, {"a/b/c", "a/b"}, {"", ""}};
  for (const auto& [program, directory] : rows) {
    program_invocation_name = const_cast<char*>(program);
    EXPECT_STREQ(getExecutableDir(), directory) << program;
  }
}
#endif

}  // namespace
