// Launches applications with a real JVM, as docs/application.md describes them to their developers.
#include <clocale>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;

namespace {

// The JDK of this build and the sample application in a bundle.
struct RealJvm : BundleFixture {
  RealJvm() {
    fs::remove_all(contents + "/jre");
    fs::create_directory_symlink(KESTREL_JRE, contents + "/jre");
    fs::copy_file(SAMPLE_JAR, lib + "/sample.jar");
    // macOS before 14 has no such locale, but there a JDK takes UTF-8 anyway.
    if (std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr) setenv("LC_ALL", "C.UTF-8", 1);
  }
};

TEST_F(RealJvm, GetsArgumentsAndProperties) {
  const Process process = launch("cd $ROOT; exec $LAUNCHER write größe 'two words'");
  EXPECT_TRUE(isSameText(linesWith(process.output, "^argument|KESTREL|user.dir"),
                         R"(argument 0: <install>/kestrel
argument 1: write
argument 2: größe
argument 3: two words
KESTREL_VERSION=<version>
user.dir=<install>
)"));
  EXPECT_TRUE(fs::exists(root + "/größe"));
}

// No thread outlives main, and no shutdown hook runs.
TEST_F(RealJvm, ExitsWhenMainReturns) {
  const Process process =
      launch("KESTREL_GC_FORCE_PARALLEL_GC=1 NORVALED_DEBUG_PORT=0 exec $LAUNCHER leave");
  EXPECT_NE(linesWith(process.output, "Listening for transport dt_socket at address: "), "");
  EXPECT_EQ(lastLine(process.output), "user.dir=<install>");
  EXPECT_EQ(whatHappened(), "0 main returned 0");
}

TEST_F(RealJvm, ShowsAnExceptionOfMain) {
  const Process process =
      launch("KESTREL_GC_FORCE_SERIAL_GC=1 KESTREL_AGGRESSIVE_OPTIMIZATIONS=0 exec $LAUNCHER throw",
             exited(108));
  EXPECT_EQ(linesWith(process.output, "Exception"),
            "java.lang.IllegalStateException: the sample was asked to throw\n");
  EXPECT_EQ(whatHappened(), "108 main threw an exception");
}

TEST_F(RealJvm, LogsStacksOnTheFirstSignalAndExitsOnTheSecond) {
  const Process process = launch(R"(
      { until grep -qs 'Full thread dump' $LOG; do
          kill -0 $$ && sleep 0.1 || exit
        done
        kill -TERM $$; } &
      exec $LAUNCHER signal QUIT)",
                                 exited(143));
  EXPECT_EQ(lastLine(process.output), "a hook ran");
  EXPECT_EQ(lastLine(process.log), " jvm_exit JVM: exit( 143 )");
  EXPECT_EQ(whatHappened(), "143 terminated by a signal");
}

TEST_F(RealJvm, LeavesAReportAndTheHeapIfMemoryRunsOut) {
  const Process process = launch("exec $LAUNCHER exhaust", killed(SIGABRT));
  EXPECT_EQ(readable(outputOf("echo $(ls $ROOT/logs)"), process.pid),
            "kestrel-error-<pid>.log kestrel-native.log kestrel-oom-<pid>.hprof\n");
  EXPECT_EQ(lastLine(process.log), " jvm_abort JVM: abort()");
  EXPECT_EQ(whatHappened(), "134 Java out of memory: Java heap space");
}

TEST_F(RealJvm, RunsTheExampleOfTheDocument) {
  outputOf(
      R"(rm $LIB/*; cd $ROOT && sed -n '/^```java$/,/^```$/{//!p;}' "$PROJECT/docs/application.md" >NativeLauncher.java &&
    ')" JAVAC R"(' -d $LIB/example.jar NativeLauncher.java)");
  const Process process = launch("exec $LAUNCHER one two");
  EXPECT_EQ(lastLine(process.output), "hello one two");
  EXPECT_EQ(lastLine(process.log), " jvm_exit JVM: exit( 0 )");
}

}  // namespace
