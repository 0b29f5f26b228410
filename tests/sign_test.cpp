// macos/sign with fake tools of a Mac: codesign prints its arguments, and a jar is a text file of
// entry names.
#include "tests/bundle_fixture.h"

namespace {

struct Sign : BundleFixture {
  Sign() {
    outputOf(R"(cd $ROOT; mkdir tools; mv Kestrel.app 'An App.app'
      echo 'IFS="|"; echo "codesign|$*"' >tools/codesign
      echo 'cat "$2"' >tools/unzip
      cd An*/Contents
      rm MacOS/kestrel jre/Contents/Home/lib/libjli.dylib
      touch MacOS/kestrel 'MacOS/a helper' MacOS/1.so lib/1.jnilib
      printf 'B.class\nnative/lib it.dylib\n' >'lib/an app.jar'
      cd jre/Contents; mkdir Home/bin
      touch Info.plist Home/bin/java Home/release 'Home/lib/lib 2.dylib'
      chmod +x $ROOT/tools/* $ROOT/An*/Contents/MacOS/* Home/bin/java Home/lib/*)");
  }

  std::string sign(const std::string& identity) {
    const std::string output = outputOf(
        "cd $ROOT; PATH=$ROOT/tools:$PATH exec \"$PROJECT/macos/sign\" 'An App.app' " + identity);
    return replaced(replaced(output, PROJECT, "<project>"), root, "<root>");
  }
};

TEST_F(Sign, SignsFromTheInsideOut) {
  const std::string expected = R"(not signed: native/lib it.dylib in Contents/lib/an app.jar
codesign|<signature>|Contents/jre/Contents/Home/lib/lib 2.dylib|Contents/lib/1.jnilib|Contents/MacOS/1.so
codesign|<signature>|--entitlements|<project>/macos/entitlements.plist|Contents/jre/Contents/Home/bin/java|Contents/MacOS/a helper
codesign|<signature>|Contents/jre
codesign|<signature>|--entitlements|<project>/macos/entitlements.plist|<root>/An App.app
codesign|--verify|--deep|--strict|--verbose=2|<root>/An App.app
)";
  const std::string distribution = "--force|--sign|Me|--options|runtime|--timestamp";
  EXPECT_EQ(sign("Me"), replaced(expected, "<signature>", distribution));
  const std::string adHoc = "--force|--sign|-";  // without the hardened runtime
  EXPECT_EQ(sign("-"), replaced(expected, "<signature>", adHoc));
}

}  // namespace
