// The run loop and the look-ups that the start-up sequence does not show, called in process.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "bundle.h"
#include "platform/InstallDir.h"

namespace {

CFRunLoopTimerRef installed = nullptr;
std::vector<CFRunLoopRunResult> results;

// Keeps what the launcher creates, so that a test can end it.
CFRunLoopTimerRef createTimer(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                              CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                              CFRunLoopTimerCallBack callout, CFRunLoopTimerContext* context) {
  EXPECT_EQ(fireDate, 1.7976931348623157e+308);
  EXPECT_EQ(interval, 0.0);
  EXPECT_EQ(context, nullptr);
  installed = CFRunLoopTimerCreate(allocator, fireDate, interval, flags, order, callout, context);
  return installed;
}

// The launcher's own limit is never reached: the second run gets a short one.
CFRunLoopRunResult runInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean afterSource) {
  EXPECT_EQ(mode, kCFRunLoopDefaultMode);
  EXPECT_EQ(seconds, 1.7976931348623157e+308);
  EXPECT_FALSE(afterSource);
  const bool isSecond = results.size() == 1;
  results.push_back(CFRunLoopRunInMode(mode, isSecond ? 0.01 : seconds, afterSource));
  return results.back();
}

}  // namespace

#define CFRunLoopTimerCreate createTimer
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
  static int fired = 0;
  CFRunLoopTimerContext context{0, CFRunLoopGetCurrent(), nullptr, nullptr, nullptr};
  const auto tick = [](CFRunLoopTimerRef timer, void* loop) {
    if (++fired == 1) CFRunLoopStop(static_cast<CFRunLoopRef>(loop));
    if (results.size() < 2) return;
    CFRunLoopTimerInvalidate(installed);
    CFRunLoopTimerInvalidate(timer);
  };
  CFRunLoopTimerRef ticker = CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + 0.05, 0.05, 0, 0, tick, &context);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), ticker, kCFRunLoopDefaultMode);
  CFRelease(ticker);

  runApp();
  EXPECT_EQ(results, (std::vector<CFRunLoopRunResult>{kCFRunLoopRunStopped, kCFRunLoopRunTimedOut,
                                                      kCFRunLoopRunFinished}));
  EXPECT_EQ(messagesOf(readFile(bundle.log)), " runApp CoreFoundation event loop is finished\n");
  EXPECT_EQ(NSApplicationAWTClass, nullptr);
  timer_empty(nullptr, nullptr);
  installed = nullptr;  // for the leak checker
}

TEST(Platform, DirectoryTestLooksAtOneBit) {
  const Bundle bundle;
  const std::string root = bundle.root;
  fs::create_directory_symlink(root, root + "/link");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (root + "/socket").copy(address.sun_path, sizeof address.sun_path - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(descriptor);
  const std::pair<const char*, bool> rows[] = {
      {"", true}, {"/link", true}, {"/socket", true}, {"/missing", false}, {"/file", false}};
  writeFile(root + "/file", "");
  for (const auto& [name, expected] : rows) {
    std::string path = root + name;
    EXPECT_EQ(isDirectory(path.data()), expected) << path;
  }
}

#ifdef __linux__
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
