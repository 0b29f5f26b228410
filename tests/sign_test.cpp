// macos/sign and macos/release with stand-ins for the tools of a Mac. A jar is a text file of entry
// names.
#include "tests/bundle_fixture.h"

namespace {

struct Sign : BundleFixture {
  Sign() {
    outputOf(R"(cd $ROOT; mkdir tools; mv Kestrel.app 'An App.app'
      cat >tools/codesign <<'END'
#!/bin/sh
IFS='|'
call="${0##*/}|$*"
case $call in unzip* | file*) ;; *) echo "$call" >>$ROOT/calls ;; esac
case $call in $FAULTY_CALL) eval "$FAULT"; exit ;; esac
case $call in
  codesign*--display*) [ -e "$3" ] && echo TeamIdentifier=Mine >&2 ;;
  ditto*) touch "$5" ;;
  file*) for f; do echo "$f: Mach-O"; echo "$f (for architecture x): Mach-O"; done ;;
  lipo*) echo 'arm64 ' ;;
  PlistBuddy*Name*) echo 'A/B & Co' ;;
  PlistBuddy*) echo 1.2 ;;
  shasum*) echo "sum  $3" ;;
  spctl*) echo 'source=Notarized Developer ID' >&2 ;;
  unzip*) cat "$2" ;;
  xcrun*submit*) echo '{"id": "42", "status": "Accepted", "message": "Done"}' ;;
esac
END
      for tool in unzip file lipo PlistBuddy shasum spctl xcrun ditto sleep; do
        ln -s codesign tools/$tool
      done
      cd An*/Contents
      rm MacOS/kestrel jre/Contents/Home/lib/libjli.dylib
      touch MacOS/kestrel 'MacOS/a helper' MacOS/1.so lib/1.jnilib
      echo B.class >'lib/an app.jar'
      cd jre/Contents; mkdir Home/bin
      touch Info.plist Home/bin/java Home/release 'Home/lib/lib 2.dylib'
      chmod +x $ROOT/tools/* $ROOT/An*/Contents/MacOS/* Home/bin/java Home/lib/*)");
  }

  // Runs a program of macos/. `calls` then has its calls of tools; those that match the pattern
  // `faultyCall` have run the script `fault` in place of the stand-in's.
  Process runOnMac(const std::string& command, const std::string& faultyCall = "",
                   const std::string& fault = "") {
    setenv("FAULTY_CALL", faultyCall.c_str(), 1);
    setenv("FAULT", fault.c_str(), 1);
    Process process =
        run("cd $ROOT; rm -f calls; PATH=$ROOT/tools:$PATH exec \"$PROJECT\"/macos/" + command);
    calls = replaced(replaced(contentOf(root + "/calls"), PROJECT, "<project>"), root, "<root>");
    return process;
  }

  std::string calls;
};

TEST_F(Sign, SignsFromTheInsideOut) {
  const std::string expected =
      R"(codesign|<signature>|Contents/jre/Contents/Home/lib/lib 2.dylib|Contents/lib/1.jnilib|Contents/MacOS/1.so
codesign|<signature>|--entitlements|<project>/macos/entitlements.plist|Contents/jre/Contents/Home/bin/java|Contents/MacOS/a helper
codesign|<signature>|Contents/jre
codesign|<signature>|--entitlements|<project>/macos/entitlements.plist|<root>/An App.app
codesign|--verify|--deep|--strict|--verbose=2|<root>/An App.app
)";
  const std::string notSigned =
      R"(sign: not signed, which notarisation rejects; take them out as docs/macos.md says:
  native/lib it.dylib in Contents/lib/an app.jar
  x.jnilib in Contents/lib/an app.jar
)";
  outputOf("printf 'native/lib it.dylib\nx.jnilib\n' >>$ROOT/'An App.app/Contents/lib/an app.jar'");
  const Process release = runOnMac("sign 'An App.app' Me");
  const std::string distribution = "--force|--sign|Me|--options|runtime|--timestamp";
  EXPECT_EQ(calls, replaced(expected, "<signature>", distribution));
  EXPECT_EQ(release.output + release.ending, notSigned + exited(1));

  const Process adHoc = runOnMac("sign 'An App.app' -");
  EXPECT_EQ(calls, replaced(expected, "<signature>", "--force|--sign|-"));  // not hardened
  EXPECT_EQ(adHoc.output + adHoc.ending, notSigned + exited(0));
}

}  // namespace
