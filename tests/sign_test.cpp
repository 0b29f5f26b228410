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

TEST_F(Sign, ReleasesTheStapledBundle) {
  const Process release =  // Apple has the ticket at the second try
      runOnMac("release 'An App.app' Me Profile", "xcrun|stapler*",
               "[ -e $ROOT/asked ] || { touch $ROOT/asked; echo Record not found; exit 65; }");
  EXPECT_EQ(release.ending, exited(0)) << release;
  EXPECT_EQ(replaced(linesWith(calls, "^[^c]"), "<root>/A-B & Co-1.2-arm64", "<package>"),
            R"(xcrun|--find|stapler
lipo|-archs|<root>/An App.app/Contents/MacOS/kestrel
PlistBuddy|-c|Print :CFBundleName|<root>/An App.app/Contents/Info.plist
PlistBuddy|-c|Print :CFBundleShortVersionString|<root>/An App.app/Contents/Info.plist
ditto|-c|-k|--keepParent|<root>/An App.app|<package>-submitted.zip
xcrun|notarytool|submit|<package>-submitted.zip|--keychain-profile|Profile|--wait|--output-format|json
xcrun|stapler|staple|<root>/An App.app
sleep|30
xcrun|stapler|staple|<root>/An App.app
spctl|--assess|--type|execute|--verbose=2|<root>/An App.app
ditto|-c|-k|--keepParent|<root>/An App.app|<package>.zip
shasum|-a|256|A-B & Co-1.2-arm64.zip
)");
  EXPECT_EQ(contentOf(root + "/A-B & Co-1.2-arm64.zip.sha256"), "sum  A-B & Co-1.2-arm64.zip\n");
  EXPECT_EQ(outputOf("cd $ROOT; echo A-B*"),
            "A-B & Co-1.2-arm64.zip A-B & Co-1.2-arm64.zip.sha256\n");
}

TEST_F(Sign, MakesAnAdHocPackageWithoutApple) {
  EXPECT_EQ(runOnMac("release 'An App.app' Me").ending, exited(2));  // notarising needs a profile
  const Process release = runOnMac("release 'An App.app' -");
  EXPECT_EQ(release.ending, exited(0)) << release;
  EXPECT_EQ(linesWith(calls, "^(ditto|xcrun|spctl)"),
            "ditto|-c|-k|--keepParent|<root>/An App.app|<root>/A-B & Co-1.2-arm64-adhoc.zip\n");
}

TEST_F(Sign, ReleaseEndsAtTheFirstFailure) {
  const struct {
    const char *call, *fault, *output;
  } cases[] = {
      {"xcrun*find*", "exit 72", "install Xcode"},
      {"lipo*", "exit 1", "no launcher for Macs"},
      {"PlistBuddy*Name*", "exit 1", "after CFBundleName"},
      {"codesign|--force*", "exit 1", "not everything is signed"},
      {"unzip*", "echo x.jnilib", "an app.jar\nrelease: not everything is signed"},
      {"codesign|--display*helper", "exit 1", "/a helper\nrelease: these files"},
      {"codesign|--display*java", "echo TeamIdentifier=X", "/java\nrelease: these files"},
      {"ditto*submitted.zip", "exit 1", "-submitted.zip is incomplete"},
      {"xcrun*submit*", R"(echo '"status":"Accepted"'; exit 69)", "store-credentials Profile"},
      {"xcrun|notarytool*", R"(echo "\"id\":\"7\", \"status\":\"Invalid\"", log $3)",
       "log 7\nrelease: the notary rejects"},
      {"xcrun*submit*", R"(echo '"id":"7", "status":"In Progress"')", "no verdict"},
      {"xcrun|stapler*", "echo Record not found; exit 65", "still has no ticket"},
      {"xcrun|stapler*", "echo Invalid; exit 65", "Invalid\nrelease: not stapled: check"},
      {"spctl*", "echo source=Notarized Developer ID; exit 3", "does not accept"},
      {"spctl*", "echo override=security disabled", "does not accept"},
      {"ditto*arm64.zip", "exit 1", "arm64.zip is incomplete"},
      {"shasum*", "exit 1", "sha256 is incomplete"},
  };
  for (const auto& [call, fault, output] : cases) {
    const Process release = runOnMac("release 'An App.app' Me Profile", call, fault);
    EXPECT_EQ(release.ending, exited(1)) << call << fault;
    EXPECT_THAT(release.output, testing::HasSubstr(output));
  }
}

}  // namespace
