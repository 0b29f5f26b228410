// Faults from outside while the real launcher runs: what it must survive, and what must survive it.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include "bundle.h"
#ifdef __linux__
#include <sys/mount.h>
#endif

namespace {

constexpr uid_t NOBODY = 54321;  // without any process of its own
const std::string ENDED = " operator() JVM main ended\n operator() JVM started successfully\n";

Start mainThatRuns(const std::string& first, const std::string& second = "true") {
  return {{}, {"SCRIPTED_JVM_MAIN=" + first, "SCRIPTED_JVM_THEN=" + second}};
}

TEST(Fault, LogDirectoryGoneForAWhile) {
  const Bundle bundle;
  const std::string logs = bundle.logs, away = logs + "2";
  const Result result = bundle.run(
      mainThatRuns("mv '" + logs + "' '" + away + "'", "mv '" + away + "' '" + logs + "'"));
  EXPECT_EQ(from(result.messages, " operator() JVM calling"),
            " operator() JVM calling main\n" + ENDED);

  const Result removed = bundle.run(mainThatRuns("rm '" + bundle.log.string() + "'"));
  EXPECT_TRUE(removed.log.starts_with(KESTREL_VERSION " "));  // it comes back, without its banner
  EXPECT_EQ(messagesOf("Logger initialized\n" + removed.log),
            " jvm_vprintf JVM:  between\n" + ENDED);
}

TEST(Fault, KilledInMidRun) {
  const Bundle bundle;
  const Result killed = bundle.run(mainThatRuns("kill -9 $PPID"), 128 + SIGKILL);
  EXPECT_TRUE(killed.messages.ends_with(" operator() JVM calling main\n"));
  const Result next = bundle.run();
  EXPECT_EQ(next.log.rfind(killed.log + "\n\n=====", 0), 0U);
  EXPECT_TRUE(next.messages.ends_with(ENDED));
}

TEST(Fault, TwoLaunchersShareOneLog) {
  const Bundle bundle;
  for (int i = 0; i < 2000; ++i) writeFile(bundle.lib / (std::to_string(i) + ".jar"), "");
  std::vector<int> processes;
  for (int i = 0; i < 20; ++i)
    processes.push_back(bundle.start({{}, {"KESTREL_AGGRESSIVE_OPTIMIZATIONS"}}));
  for (const int process : processes) bundle.finish(process);
  // Every record is one append, those of several lines and many blocks too.
  const std::string begin = " startJVM JVM Args: \n\t", end = "\n\t\n";
  int count = 0;
  for (std::string log = from(readFile(bundle.log), begin); !log.empty(); ++count) {
    const std::string record = log.substr(begin.size(), log.find(end) - begin.size());
    EXPECT_EQ(std::count(record.begin(), record.end(), '\n'), 51);
    EXPECT_EQ(std::count(record.begin(), record.end(), '\t'), 51);
    log = from(log.substr(begin.size()), begin);
  }
  EXPECT_EQ(count, 20);
}

TEST(Fault, OrdinaryUserWithoutTheMeans) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const Bundle bundle;
  fs::create_directory(bundle.logs);
  const auto becomeNobody = [] {
    if (setuid(NOBODY) != 0) _exit(126);
  };
  bundle.run({.beforeExec = becomeNobody}, 1);
  EXPECT_TRUE(fs::is_empty(bundle.logs));

#ifdef __linux__  // where the limit on processes counts threads
  fs::permissions(bundle.logs, fs::perms(0777));
  const auto withoutThreads = [&] {
    const rlimit one{1, 1};
    setrlimit(RLIMIT_NPROC, &one);
    becomeNobody();
  };
  const Result noThread = bundle.run({.beforeExec = withoutThreads}, 128 + SIGABRT);
  EXPECT_EQ(noThread.messages, " run Program arguments:  \n");
#endif
}

#ifdef __linux__
TEST(Fault, LogFileSystemIsFull) {
  const Bundle bundle;
  fs::create_directory(bundle.logs);
  if (mount("tmpfs", bundle.logs.c_str(), "tmpfs", 0, "size=4k") != 0) {
    GTEST_SKIP() << "mounting a file system is not permitted";
  }
  const std::string earlier(4000, 'x');
  writeFile(bundle.log, earlier + "\n");
  const Result result = bundle.run();
  umount(bundle.logs.c_str());
  EXPECT_EQ(result.log.rfind(earlier + "\n\n\n=====", 0), 0U);
}
#endif

}  // namespace
