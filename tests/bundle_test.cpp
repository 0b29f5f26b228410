// Bundles with a Java runtime of their own, as tools/Bundle.java makes them.
#include "tests/bundle_fixture.h"

using testing::AllOf, testing::EndsWith, testing::HasSubstr;

namespace {

struct Bundle : BundleFixture {
  Bundle() {
    setenv("JDK", std::filesystem::path(JAVAC).parent_path().c_str(), 1);
    setenv("BUNDLE", PROJECT_FOLDER "/tools/Bundle.java", 1);
    start(
        R"(cd $ROOT && mkdir -p jars same out/Kestrel.app/Contents/previous && cat >A.java <<END &&
package com.norvale.app.daemon.entry;
class NativeLauncher {
  java.util.logging.Logger logger;
  public static void main(String[] arguments) {
    System.out.print("the old code");
    System.exit(3);
  }
}
END
$JDK/javac -J-XX:TieredStopAtLevel=1 -d classes A.java "$BUNDLE" &&
$JDK/jar --create --file 'jars/an application.jar' -C classes com &&
cp jars/* same && head -c 900 jars/* >cut.jar)");
  }

  // Expects a line that runs $MAKE to end with a status and to leave the earlier bundle alone.
  void expectNothingDone(const std::string& line, int status, const std::string& message) {
    setenv("MAKE", "$JDK/java -cp classes Bundle bundle out/Kestrel.app $K jars", 1);
    EXPECT_THAT(start("cd $ROOT; " + line, status).output, HasSubstr(message));
    EXPECT_EQ(start("cd $ROOT; ls -A out out/Kestrel.app/Contents").output,
              "out:\nKestrel.app\n\nout/Kestrel.app/Contents:\nprevious\n");
  }
};

TEST_F(Bundle, StartsWithItsArchiveWhereverItLies) {
  expectNothingDone("eval $MAKE missing.jar", 1, "missing.jar does not exist");
  expectNothingDone("eval $MAKE cut.jar", 1, "cut.jar is not a jar, or cut off");
  expectNothingDone("eval $MAKE same", 1, "two jars are named an application.jar");
  expectNothingDone(R"(eval exec $MAKE & until ls -A out | grep -q '^[.]bundle'; do
  kill -0 $! && sleep 0.1 || exit
done; kill $!; wait $!)",
                    143, "");

  start(R"(cd $ROOT && KESTREL_MODULES=java.prefs $JDK/java "$BUNDLE" \
  bundle out/Kestrel.app $K jars && mv out/Kestrel.app 'moved here.app')");
  const std::string moved = "\"$ROOT/moved here.app/Contents/";
  EXPECT_THAT(start(moved + "jre/Contents/Home/bin/java\" --list-modules").output,
              AllOf(HasSubstr("java.desktop@"), HasSubstr("java.logging@"),
                    HasSubstr("java.prefs@"), HasSubstr("jdk.jdwp.agent@")));
  const std::string run = "exec " + moved + "MacOS/kestrel\"";
  EXPECT_THAT(start("NORVALED_JVM_ARGS=-Xshare:on " + run, 3).output, EndsWith("the old code"));
  start(R"(cd $ROOT/classes; class=com/norvale/app/daemon/entry/NativeLauncher.class
LC_ALL=C sed 's/the old/the new/' $class >patched && mv patched $class &&
$JDK/jar --create --file ../moved*/Contents/lib/*.jar com)");
  EXPECT_THAT(start(run, 3).output, EndsWith("the new code"));
}

}  // namespace
