// tools/Bundle.java with an application of one jar, which ends with 3.
#include <filesystem>
#include <utility>
#include <vector>

#include "tests/bundle_fixture.h"

using testing::AllOf, testing::EndsWith, testing::HasSubstr;

namespace {

struct RealJvm : BundleFixture {
  RealJvm() {
    setenv("JDK", std::filesystem::path(JAVAC).parent_path().c_str(), 1);
    setenv("MAKER", PROJECT_FOLDER "/tools/Bundle.java", 1);
    start("$JDK/javac -d $ROOT $MAKER");         // once, where its users leave it to java each time
    setenv("KESTREL_RECORD_SECONDS", "600", 1);  // it ends by itself
  }

  // Makes a jar of an application that says the word and needs java.sql.
  void makeApplication(const std::string& jar, const std::string& word) {
    setenv("JAR", jar.c_str(), 1);
    setenv("WORD", word.c_str(), 1);
    start(R"(cd $ROOT; cat >A.java <<END
        package com.norvale.app.daemon.entry;
        class NativeLauncher {
          java.sql.Date date;
          public static void main(String[] args) { System.out.print("$WORD"); System.exit(3); }
        }
END
        $JDK/javac -d classes A.java && $JDK/jar --create --file "$JAR" -C classes com)");
  }
};

TEST_F(RealJvm, BundlesAnApplication) {
  makeApplication("an app.jar", "old");
  start(
      "cd $ROOT; mkdir -p same new.app/Contents/old; cp 'an app.jar' same; head -c 99 same/* "
      ">c.jar");
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {"'an app.jar' nosuch.jar", "nosuch.jar does not exist"},
      {"c.jar", "c.jar is not a jar, or cut off"},
      {"'an app.jar' same", "two jars are named an app.jar"},
  };
  for (const auto& [jars, message] : refusals) {
    EXPECT_THAT(start("cd $ROOT; $JDK/java -cp . Bundle bundle new.app $K " + jars, 1).output,
                HasSubstr(message));
    EXPECT_EQ(start("cd $ROOT; ls new.app/Contents; ls -d .bundle* 2>&- || true").output, "old\n");
  }

  start(
      "cd $ROOT; KESTREL_MODULES=java.prefs $JDK/java -cp . Bundle bundle new.app $K 'an app.jar'");
  EXPECT_THAT(
      start("cd $ROOT; mv new.app 'here it is.app'; cat here*/Contents/jre/*/*/release").output,
      AllOf(HasSubstr("java.prefs"), HasSubstr("java.sql"), HasSubstr("jdk.jdwp.agent")));
  // With -Xshare:on a JVM that does not take its archive ends with 1.
  setenv("K", (root + "/here it is.app/Contents/MacOS/kestrel").c_str(), 1);
  EXPECT_THAT(start("NORVALED_JVM_ARGS=-Xshare:on exec \"$K\"", 3).output, EndsWith("old"));
  makeApplication("here it is.app/Contents/lib/an app.jar", "new");
  EXPECT_THAT(start("exec \"$K\"", 3).output, EndsWith("new"));
}

}  // namespace
