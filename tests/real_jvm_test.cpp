// The launcher with a real JVM and the sample application: what only a JVM can show.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "bundle.h"

namespace {

struct RealJvm : testing::Test, Bundle {
  RealJvm() : Bundle(JVM_LIBRARY) { fs::create_symlink(SAMPLE_JAR, lib / "sample.jar"); }
};

TEST_F(RealJvm, StartsWithDefaultOptions) {
  const Result result = run({{"hello", "two words", "größe"}, {"LC_ALL=C.UTF-8"}});
  EXPECT_TRUE(contains(result.output, "argument 0: " + launcher.string() + "\nargument 1: hello\n" +
                                          "argument 2: two words\nargument 3: größe\n"));
  EXPECT_TRUE(contains(result.output, "\nKESTREL_VERSION=" KESTREL_VERSION "\n"));
  EXPECT_TRUE(contains(result.output, "\nuser.dir=" + bin.string() + "\n"));
  EXPECT_TRUE(contains(result.messages, " startJVM Java Virtual Machine is created!\n"));
}

TEST_F(RealJvm, EndsAsTheApplicationDoes) {
  const struct {
    Strings arguments;
    int status;
    std::string last;
  } rows[] = {{{"status", "1"}, 0, "JVM exit after startup is set, exiting\n"},
              {{"status", "2"}, 107, "Failed to initialize Kestrel JVM application: 107\n"},
              {{"status", "7"}, 7, "Failed to initialize Kestrel JVM application: 7\n"},
              {{"status", "-1"}, 255, "JVM main ended\n"},
              {{"exit", "7"}, 7, " jvm_exit JVM: exit( 7 )\n"},
              {{"throw"}, 108, "Failed to initialize Kestrel JVM application: 108\n"}};
  for (const auto& row : rows) {
    const Result result = run({row.arguments, {}}, row.status);
    EXPECT_TRUE(result.messages.ends_with(row.last)) << result.messages;
    const bool throws = row.arguments[0] == "throw";
    EXPECT_EQ(contains(result.output, "IllegalStateException: the sample was"), throws);
  }
  fs::remove(lib / "sample.jar");
  EXPECT_TRUE(contains(run({}, 104).output, "NoClassDefFoundError"));
}

TEST_F(RealJvm, TakesEverySwitch) {
  for (const char* variable :
       {"KESTREL_GC_FORCE_SERIAL_GC=1", "KESTREL_GC_FORCE_PARALLEL_GC=1",
        "KESTREL_GC_AGGRESSIVE_RECLAIM=0", "KESTREL_AGGRESSIVE_OPTIMIZATIONS=0"}) {
    SCOPED_TRACE(variable);
    run({{}, {variable}});
  }
  // The JVM reads the hooks behind the user's options: what it says of those alone is not logged.
  const Result unknown = run({{}, {"NORVALED_JVM_ARGS=-XX:+NoSuchOption"}}, 53);
  EXPECT_TRUE(contains(unknown.messages, " startJVM Error creating VM: code= -6 . Exiting...\n"));
  EXPECT_TRUE(contains(unknown.output, "Unrecognized VM option 'NoSuchOption'"));
  // What it says of all options together is, and it ends the process itself.
  const Result conflict = run({{}, {"NORVALED_JVM_ARGS=-XX:+UseSerialGC"}}, 1);
  EXPECT_TRUE(contains(conflict.messages, " jvm_vprintf JVM:  Multiple garbage collectors"));
  EXPECT_TRUE(conflict.messages.ends_with(" jvm_abort JVM: abort()\n"));
}

TEST_F(RealJvm, FullHeapLeavesAnErrorFile) {
  const int pid = start({{"exhaust"}, {}});
  finish(pid, 128 + SIGABRT);
  EXPECT_TRUE(fs::exists(logs / ("kestrel-error-" + std::to_string(pid) + ".log")));
  EXPECT_TRUE(fs::exists(logs / ("kestrel-oom-" + std::to_string(pid) + ".hprof")));
}

TEST_F(RealJvm, ListensForADebugger) {
  const std::string listening = "Listening for transport dt_socket at address: ";
  const Result open = run({{"hello"}, {"NORVALED_DEBUG_PORT=0"}});
  EXPECT_TRUE(contains(open.output, listening)) << open.output;

  const int port = 20000 + getpid() % 20000;
  const int pid = start({{"hello"}, {"NORVALED_DEBUG_PORT=" + std::to_string(port)}});
  for (int i = 0; i < 1000 && !contains(readFile(root / "output"), listening); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(getsid(pid), pid);  // a session of its own
  kill(pid, SIGKILL);
  const Result waiting = finish(pid, 128 + SIGKILL);
  EXPECT_TRUE(contains(waiting.output, listening + std::to_string(port)));
  EXPECT_FALSE(contains(waiting.output, "argument 0"));
}

TEST_F(RealJvm, ManyThreadsPrintThroughTheHook) {
  const Result result = run({{"threads", "300"}, {"NORVALED_JVM_ARGS=-Xlog:os+thread=debug"}});
  std::istringstream lines(from(result.messages, " operator() JVM calling main"));
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const bool isWhole =
        line.starts_with(" operator() JVM ") || line.starts_with(" jvm_vprintf JVM:  ");
    EXPECT_TRUE(line.empty() || isWhole) << line;
  }
  EXPECT_GT(count, 300);
}

}  // namespace
