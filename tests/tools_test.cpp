// What supporters and packagers run: tools/log, macos/sign and tools/Bundle.java.
#include "tests/bundle_fixture.h"

using testing::AllOf, testing::EndsWith, testing::HasSubstr;

namespace {

struct Tools : BundleFixture {
  Tools() { setenv("PROJECT", PROJECT, 1); }

  std::string outputOf(const std::string& line, int status = 0) {
    start("cd $ROOT || exit; " + line, status);
    return output;
  }
};
using Bundle = Tools;  // the sanitizers leave it out by its name

// With stand-ins for a Mac's tools: codesign tells its arguments, a jar is its list of names.
TEST_F(Tools, SignGoesInsideOut) {
  outputOf(R"(mkdir tools; echo 'IFS="|"; echo "$*"' >tools/codesign; echo 'cat "$2"' >tools/unzip
mv Kestrel.app 'An App.app'; cd An*/Contents; printf 'B\nnative/lib it.dylib\n' >'lib/an app.jar'
rm MacOS/kestrel jre/*/*/lib/*; touch MacOS/kestrel 'MacOS/a helper' lib/1.jnilib
cd jre/Contents; mkdir Home/bin; touch Info.plist Home/bin/java Home/release 'Home/lib/lib 2.dylib'
chmod +x $ROOT/tools/* $ROOT/An*/Contents/MacOS/* Home/bin/java Home/lib/*)");
  const std::string expected = R"(not signed: native/lib it.dylib in Contents/lib/an app.jar
Contents/jre/Contents/Home/lib/lib 2.dylib|Contents/lib/1.jnilib
--entitlements|macos/entitlements.plist|Contents/jre/Contents/Home/bin/java|Contents/MacOS/a helper
Contents/jre
--entitlements|macos/entitlements.plist|An App.app
--verify|--deep|--strict|--verbose=2|An App.app
)";
  outputOf(
      "for identity in - Me; do PATH=$ROOT/tools:$PATH \"$PROJECT/macos/sign\" An* $identity; "
      "done");
  output = replaced(output, "--force|--sign|Me|--options|runtime|--timestamp|", "");
  output = replaced(replaced(output, "--force|--sign|-|", ""), PROJECT "/", "");
  EXPECT_EQ(replaced(output, root + "/", ""), expected + expected);
}

TEST_F(Bundle, StartsWithItsArchiveWhereverItLies) {
  setenv("JDK", std::filesystem::path(JAVAC).parent_path().c_str(), 1);
  outputOf(R"(mkdir -p jars same out/Kestrel.app/Contents/previous && cat >A.java <<END &&
package com.norvale.app.daemon.entry;
class NativeLauncher {
  java.util.logging.Logger logger;
  public static void main(String[] args) { System.out.print("the old code"); System.exit(3); }
}
END
"$JDK/javac" -J-XX:TieredStopAtLevel=1 -d classes A.java "$PROJECT/tools/Bundle.java" &&
"$JDK/jar" --create --file 'jars/an application.jar' -C classes com &&
cp jars/* 'same/An Application.jar' && head -c 900 jars/* >cut.jar)");
  const std::string make = "\"$JDK/java\" -cp classes Bundle bundle out/Kestrel.app $K jars";
  EXPECT_THAT(outputOf(make + " missing.jar", 1), HasSubstr("missing.jar does not exist"));
  EXPECT_THAT(outputOf(make + " cut.jar", 1), HasSubstr("cut.jar is not a jar, or cut off"));
  EXPECT_THAT(outputOf(make + " same", 1), HasSubstr("two jars are named "));
  outputOf("exec " + make + R"( & until ls -A out | grep -q '^[.]bundle'; do
  kill -0 $! && sleep 0.1 || exit
done; kill $!; wait $!)",
           143);
  outputOf("rmdir -p out/Kestrel.app/Contents/previous && mkdir out");  // nothing else is there

  outputOf("KESTREL_MODULES=java.prefs " + make + " && mv out/Kestrel.app 'moved here.app'");
  EXPECT_THAT(outputOf("moved*/Contents/jre/Contents/Home/bin/java --list-modules"),
              AllOf(HasSubstr("java.desktop@"), HasSubstr("java.logging@"),
                    HasSubstr("java.prefs@"), HasSubstr("jdk.jdwp.agent@")));
  const std::string run = "exec \"$ROOT/moved here.app/Contents/MacOS/kestrel\"";
  EXPECT_THAT(outputOf("NORVALED_JVM_ARGS=-Xshare:on " + run, 3), EndsWith("the old code"));
  outputOf(R"(sed 's/the old/the new/' A.java >B.java && "$JDK/javac" -d new B.java &&
"$JDK/jar" --create --file moved*/Contents/lib/*.jar -C new com)");
  EXPECT_THAT(outputOf(run, 3), EndsWith("the new code"));
}

}  // namespace
