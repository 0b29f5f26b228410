// tools/Bundle.java: mostly with scripts in place of the launcher and of the Java runtime.
#include <csignal>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

enum Order { littleEndian, bigEndian };

std::string bytesOf(const std::vector<unsigned>& words, Order order) {
  std::string bytes;
  for (const unsigned word : words) {
    for (const int byte : {0, 1, 2, 3}) {
      bytes += static_cast<char>(word >> 8 * (order == bigEndian ? 3 - byte : byte));
    }
  }
  return bytes;
}

// Heads of Mach-O files: magic, processor, its subtype, type of file. A universal file has in big
// endian its magic and the number of its parts; for each part processor, subtype, offset, size and
// alignment; then the parts.
constexpr unsigned INTEL = 0x01000007, ARM = 0x0100000C, PROGRAM = 2, LIBRARY = 6;
const std::string intelLibrary = bytesOf({0xFEEDFACF, INTEL, 3, LIBRARY}, littleEndian);
const std::string armLibrary = bytesOf({0xFEEDFACF, ARM, 0, LIBRARY}, littleEndian);
const std::string universalLibrary =
    bytesOf({0xCAFEBABE, 2, ARM, 0, 48, 16, 0, INTEL, 3, 64, 16, 0}, bigEndian) + armLibrary +
    intelLibrary;

// $ROOT contains app.jar, which is the sample, and `kestrel` and `runtime`, which are scripted.
struct Bundle : BundleFixture {
  Bundle() {
    const std::string jdk = fs::path(JAVAC).parent_path();
    setenv("JDK", jdk.c_str(), 1);
    setenv("BUNDLE", (root + "/bundle").c_str(), 1);
    setenv("BUILT_LAUNCHER", KESTREL_LAUNCHER, 1);
    setenv("CALLS", (root + "/calls").c_str(), 1);
    setenv("SCRIPT", "", 1);
    outputOf(R"(cd $ROOT; mkdir -p runtime/bin runtime/lib/server
      cp ')" SAMPLE_JAR R"(' app.jar; cp "$PROJECT/tests/scripted_runtime" kestrel
      cp kestrel runtime/bin/java; echo 'JAVA_VERSION="25.0.1"' >runtime/release
      echo 'exec "$JDK/java" -XX:TieredStopAtLevel=1 -cp ")" BUNDLER R"(" Bundle "$@"' >bundle
      chmod +x bundle)");
  }

  // Runs a script in $ROOT. In its output, <root> stands for $ROOT and <work> for the folder in
  // which a bundle is made.
  Process runHere(const std::string& script) const {
    Process process = run("cd $ROOT; " + script);
    process.output = withPlaceholders(process.output);
    return process;
  }

  std::string withPlaceholders(const std::string& text) const {
    const std::regex workFolder("<root>/\\.bundle-[^/\n]*");
    return std::regex_replace(replaced(text, root, "<root>"), workFolder, "<work>");
  }

  // Makes out.app with the scripted runtime, in place of an earlier bundle. The prefix is shell
  // text before the command: commands, then variables. The shell becomes the maker, so $$ is its
  // ID.
  Process makeBundle(const std::string& prefix) const {
    fs::create_directories(root + "/out.app/Contents/earlier");
    return runHere(prefix +
                   " KESTREL_RUNTIME=runtime exec $BUNDLE bundle out.app kestrel "
                   "app.jar -- 'a b'");
  }

  void expectEarlierBundle() const {
    EXPECT_EQ(outputOf("ls $ROOT/out.app/Contents"), "earlier\n");
    EXPECT_EQ(outputOf("cd $ROOT; ls -A | sed -n /^[.]bundle/p"), "") << "a work folder is left";
  }
};

TEST_F(Bundle, RejectsWrongInput) {
  outputOf(R"(cd $ROOT; mkdir notes folder.app twice; touch notes/notes.txt notes/._x.jar
      head -c 900 app.jar >cut.jar; cp app.jar twice/App.jar
      printf 'PK\5\6\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0' >empty.jar)");
  struct Case {
    std::string command, message;
  };
  const std::vector<Case> cases = {
      {"$BUNDLE bundle a:b.app kestrel app.jar",
       "the bundle's path must end in .app and contain no colon: <root>/a:b.app"},
      {"$BUNDLE macos folder.app kestrel app.jar", "<root>/folder.app exists and is not a bundle"},
      {"$BUNDLE check macos notes", "no jar or native library in <root>/notes"},
      {"$BUNDLE check macos cut.jar",
       "<root>/cut.jar is not a jar or is truncated: zip END header not found"},
      {"$BUNDLE check macos empty.jar",
       "no jar contains com/norvale/app/daemon/entry/NativeLauncher.class"},
      {"$BUNDLE check macos app.jar twice", "two files are named App.jar"},
      {"KESTREL_RECORD_SECONDS=1x $BUNDLE check bundle",
       "KESTREL_RECORD_SECONDS must be a number from 1 to 99999: 1x"},
  };
  for (const Case& expected : cases) {
    const Process process = runHere(expected.command);
    EXPECT_EQ(process.ending, exited(1)) << expected.command;
    EXPECT_EQ(process.output, "bundle: " + expected.message + "\n") << expected.command;
  }
}

TEST_F(Bundle, AcceptsOnlyAMacRuntimeForTheProcessor) {
  const std::string program = bytesOf({0xFEEDFACF, INTEL, 3, PROGRAM}, littleEndian);
  const std::string armTable = bytesOf({0xCAFEBABE, 1, ARM, 0, 28, 16, 0}, bigEndian);
  const std::string javaClass =
      bytesOf({0xCAFEBABE, 65, INTEL, 3, 28, 16, 0}, bigEndian);  // Java 21
  struct Case {
    std::string name, library, processor;
    bool isAccepted;
  };
  const std::vector<Case> cases = {
      {"Intel", intelLibrary, "x86_64", true},
      {"Apple silicon", armLibrary, "arm64", true},
      {"a program", program, "x86_64", false},
      {"universal", universalLibrary, "x86_64", true},
      {"universal, with Intel code that its table lacks", armTable + intelLibrary, "x86_64", false},
      {"a Java class, which begins as a universal file does", javaClass + intelLibrary, "x86_64",
       false},
  };
  fs::create_directories(root + "/mac/Contents/Home/lib");
  for (const Case& expected : cases) {
    std::ofstream(root + "/mac/Contents/Home/lib/libjli.dylib") << expected.library;
    const Process process = runHere("KESTREL_MACOS_ARCH=" + expected.processor +
                                    " KESTREL_MACOS_RUNTIME=mac exec $BUNDLE check macos");
    EXPECT_EQ(process.ending, exited(expected.isAccepted ? 0 : 1)) << expected.name;
  }
}

TEST_F(Bundle, IsCompleteAndReadableForAll) {
  outputOf(R"(umask 077; cd $ROOT; mkdir -p items App.app/Contents/MacOS App.app/Contents/Resources
      cp kestrel App.app/Contents/MacOS; cp app.jar items
      touch App.app/Contents/Info.plist App.app/Contents/Resources/app.icns
      touch items/a.dylib items/b.so items/notes.txt items/.DS_Store items/._a.dylib
      mkdir -p mac/Contents/Home/lib/x.dSYM; cd mac/Contents/Home/lib; touch x.dSYM/y
      ln -s libjli.dylib link; ln -s $ROOT/runtime/release certificates)");
  std::ofstream(root + "/mac/Contents/Home/lib/libjli.dylib") << universalLibrary;
  const std::string make =
      "umask 077; KESTREL_MACOS_RUNTIME=mac exec $BUNDLE macos out.app "
      "App.app/Contents/MacOS/kestrel items";
  fs::create_directories(root + "/out.app/Contents/earlier");
  EXPECT_EQ(runHere(make).output, "bundle: the bundle is <root>/out.app\n");
  EXPECT_EQ(outputOf("cd $ROOT/out.app/Contents; find * ! -type d | sort"), R"(Info.plist
MacOS/a.dylib
MacOS/b.so
MacOS/kestrel
Resources/app.icns
jre/Contents/Home/lib/certificates
jre/Contents/Home/lib/libjli.dylib
jre/Contents/Home/lib/link
lib/app.jar
)");
  EXPECT_EQ(outputOf("cd $ROOT/out.app; find . -type l -exec readlink {} ';'"), "libjli.dylib\n");
  EXPECT_EQ(outputOf(R"(cd $ROOT/out.app
      find . ! -type l ! -perm -444; find . -type d ! -perm -111
      find . -name kestrel ! -perm -111)"),
            "")
      << "not for all";
  fs::create_symlink("/no/such/file", root + "/mac/Contents/broken");
  EXPECT_EQ(
      runHere(make).output,
      "bundle: <root>/mac/Contents/broken is a link to /no/such/file, which does not exist\n");
}

TEST_F(Bundle, PreparesItsRuntime) {
  const Process process = makeBundle(
      "CLASSPATH=x NORVALED_DEBUG_PORT=1 KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=x "
      "NORVALED_JVM_ARGS=-Da=b");
  EXPECT_EQ(process.output,
            R"(bundle: recording the loaded classes, for 20 s or until the application exits
bundle: the application exited with status 0
bundle: writing the class archive
bundle: archive in use: application.jsa, 0 MiB (linked classes: no, full module graph: no)
bundle: the bundle is <root>/out.app
)");
  EXPECT_EQ(withPlaceholders(contentOf(root + "/calls")), R"(<work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xlog:cds,aot
<work>/out.app/Contents/jre/Contents/Home/bin/java
  -Xmx160m
  -Xss384k
  -Xshare:off
  -XX:DumpLoadedClassList=<work>/classes
  -Xss8m
  com/norvale/app/daemon/entry/NativeLauncher
  <work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b
<work>/out.app/Contents/jre/Contents/Home/bin/java
  -Xmx160m
  -Xss384k
  -Xms1g
  -Xmx1g
  -XX:CompressedClassSpaceSize=1g
  -Djava.class.path=
  -Xshare:dump
  -XX:SharedClassListFile=<work>/classes
  -XX:SharedArchiveFile=<work>/archive
  -XX:+AOTClassLinking
  NORVALED_JVM_ARGS=-Da=b
<root>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xshare:on -Xlog:cds,aot
)");
  const std::string archive = "/out.app/Contents/jre/Contents/Home/lib/server/application.jsa";
  EXPECT_EQ(contentOf(root + archive), "java/lang/Object\n")
      << "the class list, without the incomplete line at its end";
}

TEST_F(Bundle, WritesTheArchiveAgainIfLinkedClassesDoNotWork) {
  const Process process = makeBundle("umask 077; SCRIPT='linked classes unusable'");
  EXPECT_EQ(process.ending, exited(0)) << process;
  EXPECT_THAT(process.output, HasSubstr("the JVM does not start with linked classes; writing"));
  EXPECT_EQ(outputOf("cd $ROOT; find out.app -name '*.jsa' ! -perm -444"), "");
}

TEST_F(Bundle, RestoresTheEarlierOneAfterAFailure) {
  std::ofstream(root + "/runtime/release")
      << "JAVA_VERSION=\"21.0.1\"\n";  // which cannot link, so there is one attempt only
  const Process process = makeBundle("SCRIPT='archive unusable'");
  EXPECT_EQ(process.ending, exited(1));
  EXPECT_EQ(linesWith(process.output, "archive"),
            "bundle: writing the class archive\n"
            "bundle: the JVM does not use its archive: Error: no use\n");
  expectEarlierBundle();

  fs::remove_all(root + "/out.app");
  runHere(
      "SCRIPT='archive unusable' KESTREL_RUNTIME=runtime $BUNDLE bundle out.app kestrel app.jar");
  EXPECT_FALSE(fs::exists(root + "/out.app")) << "there was no earlier one";
}

// In the last launch, a signal ends the maker.
TEST_F(Bundle, RestoresTheEarlierOneAfterASignal) {
  const Process process = makeBundle(R"(
      (until [ -e waiting ]; do kill -0 $$ && sleep 0.1 || exit; done; kill $$) &
      SCRIPT='waits in the last launch')");
  EXPECT_EQ(process.ending, exited(128 + SIGTERM)) << process;
  expectEarlierBundle();
}

TEST_F(Bundle, EndsAnApplicationThatRunsOn) {
  const Process process = makeBundle("SCRIPT='runs on' KESTREL_RECORD_SECONDS=1");
  EXPECT_THAT(process.output, HasSubstr("the application exited with status 143\n"));
  EXPECT_EQ(outputOf("cd $ROOT; rm -f alive; sleep 1; ls | sed -n /alive/p"), "")
      << "its child, which ignores SIGTERM";
}

TEST_F(Bundle, DeletesWhatAKilledProcessHasLeft) {
  const std::string live = root + "/.bundle-" + std::to_string(getpid()) + "-1";
  const std::string abandoned = root + "/.bundle-99999999-1";  // no process has such an ID
  fs::create_directory(live);
  fs::create_directories(abandoned + "/other.app.previous/Contents");
  EXPECT_EQ(runHere("exec $BUNDLE macos out.app kestrel app.jar").ending, exited(0));
  EXPECT_TRUE(fs::exists(live));
  EXPECT_FALSE(fs::exists(abandoned));
  EXPECT_TRUE(fs::exists(root + "/other.app/Contents")) << "which the killed process had moved";
}

// With a real JDK. The archive must not change what the application sees: its code source, sealed
// packages, and a jar that was replaced. A module that a jar requires may be missing.
TEST_F(Bundle, ShowsTheApplicationWhereItIs) {
  const Process made = runHere(R"(set -e
mkdir -p modules/sealed/box modules/missing jars out
cat >Main.java <<'END'
package com.norvale.app.daemon.entry;
class NativeLauncher {
  public static void main(String[] args) {
    for (Class<?> c : new Class<?>[] {NativeLauncher.class, box.Box.class}) {
      System.out.println(c.getProtectionDomain().getCodeSource().getLocation());
    }
    System.out.println("old code, sealed: " + box.Box.class.getPackage().isSealed());
    System.exit(3);
  }
}
END
cat >modules/sealed/module-info.java <<'END'
module sealed { requires missing; requires java.logging; exports box; }
END
echo 'package box; public class Box { java.util.logging.Logger l; }' >modules/sealed/box/Box.java
echo 'module missing {}' >modules/missing/module-info.java
echo 'Sealed: true' >manifest
"$JDK/javac" --release 17 -d classes --module-source-path modules --module sealed
"$JDK/javac" --release 17 -d main -cp classes/sealed Main.java
"$JDK/jar" -c -f jars/sealed.jar -m manifest -C classes/sealed .
"$JDK/jar" -c -f jars/main.jar --release 17 -C main .
KESTREL_MODULES=java.prefs $BUNDLE bundle out/App.app "$BUILT_LAUNCHER" jars)");
  ASSERT_EQ(made.ending, exited(0)) << made;
  EXPECT_EQ(linesWith(made.output, "linking a runtime"),
            "bundle: linking a runtime with modules "
            "java.base,java.desktop,java.logging,java.prefs,jdk.jdwp.agent\n");

  setenv("NORVALED_JVM_ARGS", "-Xshare:on", 1);  // the JVM does not start without its archive
  EXPECT_EQ(linesWith(runHere("$ROOT/out/App.app/Contents/MacOS/kestrel").output, "^file|code"),
            R"(file:<root>/out/App.app/Contents/lib/main.jar
file:<root>/out/App.app/Contents/lib/sealed.jar
old code, sealed: true
)");
  outputOf(R"(cd $ROOT; mv out 'moved here'; sed -i.old 's/old code/new code/' Main.java
      "$JDK/javac" --release 17 -d main -cp classes/sealed Main.java
      "$JDK/jar" -c -f moved*/App.app/Contents/lib/main.jar --release 17 -C main .)");
  const Process moved = runHere("exec \"$ROOT/moved here/App.app/Contents/MacOS/kestrel\"");
  EXPECT_EQ(moved.ending, exited(3));
  EXPECT_EQ(linesWith(moved.output, "^file|code"),
            R"(file:<root>/moved%20here/App.app/Contents/lib/main.jar
file:<root>/moved%20here/App.app/Contents/lib/sealed.jar
new code, sealed: true
)");
  EXPECT_EQ(runHere("exec moved*/App.app/Contents/MacOS/kestrel").ending, exited(104))
      << "by a relative path the JVM finds no classes, as without an archive";
}

}  // namespace
