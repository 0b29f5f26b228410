// tools/Bundle.java: mostly with scripts in the place of the launcher and the Java runtime.
#include <csignal>
#include <numeric>
#include <set>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;

namespace {

struct Bundle : BundleFixture {
  // Leaves in $ROOT app.jar, which is the sample, and `runtime`, which is scripted.
  Bundle() {
    const std::string bin = fs::path(JAVAC).parent_path();
    setenv("JDK", bin.c_str(), 1);
    setenv("BUNDLE",
           ("exec " + bin + "/java -XX:TieredStopAtLevel=1 -cp " BUNDLER " Bundle").c_str(), 1);
    setenv("CALLS", (root + "/calls").c_str(), 1);
    setenv("SCRIPT", "", 1);
    fs::copy_file(SAMPLE_JAR, root + "/app.jar");
    fs::create_directories(root + "/runtime/bin");
    fs::create_directories(root + "/runtime/lib/server");
    fs::copy_file(PROJECT "/tests/scripted_runtime", root + "/runtime/bin/java");
    fs::copy_file(PROJECT "/tests/scripted_runtime", root + "/kestrel");
    std::ofstream(root + "/runtime/release") << "JAVA_VERSION=\"25.0.1\"\n";
  }

  // Runs a script in $ROOT. In the output <root> stands for $ROOT and <work> for the folder in
  // which the bundle is made.
  Process runHere(const std::string& script) const {
    Process process = run("cd $ROOT; " + script);
    process.output = withPlaceholders(process.output);
    return process;
  }

  std::string withPlaceholders(const std::string& text) const {
    const std::string places = replaced(text, root, "<root>");
    return std::regex_replace(places, std::regex("<root>/\\.bundle-[^/\n]*"), "<work>");
  }

  // Makes the bundle out.app with the scripted runtime, in place of an earlier one.
  Process makeBundle(const std::string& environment) const {
    fs::create_directories(root + "/out.app/Contents/earlier");
    return runHere(environment +
                   " KESTREL_RUNTIME=runtime $BUNDLE bundle out.app kestrel app.jar -- 'a b'");
  }

  // Only the earlier bundle is there, and no work folder.
  void expectEarlierBundle() const {
    EXPECT_EQ(outputOf("cd $ROOT; ls out.app/Contents; ls -A | sed -n /bundle/p"), "earlier\n");
  }
};

TEST_F(Bundle, RejectsWrongInput) {
  runHere(
      R"(mkdir empty folder.app; touch empty/notes.txt empty/._b.jar; head -c 900 app.jar >cut.jar
      printf 'PK\5\6\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0' >none.jar; mkdir twice; cp app.jar twice/App.jar)");
  const std::string usage =
      "usage: java Bundle.java bundle TARGET.app LAUNCHER ITEM... [-- ARG...]\n"
      "   or: java Bundle.java macos TARGET.app LAUNCHER ITEM...\n"
      "   or: java Bundle.java check bundle|macos [ITEM...]\n"
      "An ITEM is a jar, a native library or a folder that contains some of these.";
  const std::string entryClass = "com/norvale/app/daemon/entry/NativeLauncher.class";
  struct Row {
    std::string command, message;
  };
  for (const Row& row : std::vector<Row>{
           {"$BUNDLE -", usage},
           {"$BUNDLE macos out.app kestrel app.jar -- x", usage},
           {"$BUNDLE bundle a:b.app kestrel app.jar",
            "the bundle's path must end in .app and contain no colon: <root>/a:b.app"},
           {"$BUNDLE macos folder.app kestrel app.jar",
            "<root>/folder.app exists and is not a bundle"},
           {"$BUNDLE macos out.app app.jar app.jar", "<root>/app.jar is not an executable file"},
           {"$BUNDLE check macos ''", "empty file name"},
           {"$BUNDLE check macos gone.jar", "<root>/gone.jar does not exist or is not a file"},
           {"$BUNDLE check macos kestrel",
            "<root>/kestrel is neither a jar, nor a native library, nor a folder"},
           {"$BUNDLE check macos empty", "no jar or native library in <root>/empty"},
           {"$BUNDLE check macos cut.jar",
            "<root>/cut.jar is not a jar or is truncated: zip END header not found"},
           {"$BUNDLE check macos none.jar", "no jar contains " + entryClass},
           {"$BUNDLE check macos app.jar twice", "two files are named App.jar"},
           {"KESTREL_RUNTIME=none $BUNDLE check bundle",
            "KESTREL_RUNTIME=<root>/none is not a Java runtime"},
           {"KESTREL_RECORD_SECONDS=1x $BUNDLE check bundle",
            "KESTREL_RECORD_SECONDS must be a number from 1 to 99999: 1x"},
       }) {
    const Process process = runHere(row.command);
    EXPECT_EQ(process.ending, exited(1)) << row.command;
    EXPECT_EQ(process.output, "bundle: " + row.message + "\n") << row.command;
  }
}

std::string bytes(const std::vector<unsigned>& words, bool bigEndian) {
  std::string text;
  for (const unsigned word : words) {
    for (const int byte : {0, 1, 2, 3}) {
      text += static_cast<char>(word >> 8 * (bigEndian ? 3 - byte : byte));
    }
  }
  return text;
}

TEST_F(Bundle, TakesLibrariesForTheRightMacsOnly) {
  constexpr unsigned INTEL = 0x01000007;
  constexpr unsigned ARM = 0x0100000C;
  const auto macho = [](unsigned processor, unsigned type) {
    return bytes({0xFEEDFACF, processor, 3, type}, false);
  };
  const std::string intelLibrary = macho(INTEL, 6);
  const std::string armLibrary = macho(ARM, 6);
  const auto universal = [](const std::vector<unsigned>& table) { return bytes(table, true); };
  struct Row {
    std::string name, content, architecture;
    bool isRight;
  };
  fs::create_directories(root + "/mac/Contents/Home/lib");
  for (const Row& row : std::vector<Row>{
           {"Intel", intelLibrary, "", true},
           {"Apple silicon", armLibrary, "arm64", true},
           {"other processor", armLibrary, "x86_64", false},
           {"program", macho(INTEL, 2), "", false},
           {"universal",
            universal({0xCAFEBABE, 2, ARM, 0, 48, 16, 0, INTEL, 0, 64, 16, 0}) + armLibrary +
                intelLibrary,
            "", true},
           {"universal without Intel",
            universal({0xCAFEBABE, 1, ARM, 0, 28, 16, 0}) + armLibrary + intelLibrary, "", false},
           {"Java class", universal({0xCAFEBABE, 65, INTEL, 0, 28, 16, 0}) + intelLibrary, "",
            false},
           {"cut off", intelLibrary.substr(0, 15), "", false},
       }) {
    std::ofstream(root + "/mac/Contents/Home/lib/libjli.dylib") << row.content;
    const Process process = runHere("KESTREL_MACOS_ARCH=" + row.architecture +
                                    " KESTREL_MACOS_RUNTIME=mac $BUNDLE check macos");
    EXPECT_EQ(process.ending, exited(row.isRight ? 0 : 1)) << row.name << "\n" << process;
  }
}

// Each file and folder with its permissions.
std::string contentsOf(const std::string& folder) {
  std::set<std::string> lines;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    std::ostringstream line;
    line << entry.path().lexically_relative(folder).string() << " " << std::oct
         << static_cast<unsigned>(entry.status().permissions());
    lines.insert(line.str() + "\n");
  }
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

TEST_F(Bundle, IsCompleteAndReadableForAll) {
  runHere(R"(umask 077; mkdir -p built/App.app/Contents/MacOS built/App.app/Contents/Resources items
      cp kestrel built/App.app/Contents/MacOS; touch built/App.app/Contents/Info.plist
      touch built/App.app/Contents/Resources/app.icns items/a.dylib items/b.so items/notes.txt
      touch items/.DS_Store items/._a.dylib; cp app.jar items; chmod 600 items/app.jar
      mkdir -p mac/Contents/Home/lib mac/Contents/Home/lib/x.dSYM; touch mac/Contents/Info.plist
      printf '\317\372\355\376\7\0\0\1\0\0\0\0\6\0\0\0' >mac/Contents/Home/lib/libjli.dylib
      touch mac/Contents/.DS_Store mac/Contents/Home/lib/x.dSYM/y; ln -s libjli.dylib mac/Contents/Home/lib/link
      ln -s $ROOT/app.jar mac/Contents/Home/certificates; mkdir -p out.app/Contents/earlier)");
  const Process process = runHere(
      "umask 077; KESTREL_MACOS_RUNTIME=mac $BUNDLE macos out.app "
      "built/App.app/Contents/MacOS/kestrel items");
  EXPECT_EQ(process.output, "bundle: the bundle is <root>/out.app\n");
  EXPECT_EQ(contentsOf(root + "/out.app"), R"(Contents 755
Contents/Info.plist 644
Contents/MacOS 755
Contents/MacOS/a.dylib 644
Contents/MacOS/b.so 644
Contents/MacOS/kestrel 755
Contents/Resources 755
Contents/Resources/app.icns 644
Contents/jre 755
Contents/jre/Contents 755
Contents/jre/Contents/Home 755
Contents/jre/Contents/Home/certificates 644
Contents/jre/Contents/Home/lib 755
Contents/jre/Contents/Home/lib/libjli.dylib 644
Contents/jre/Contents/Home/lib/link 644
Contents/jre/Contents/Info.plist 644
Contents/lib 755
Contents/lib/app.jar 644
)");
  runHere("ln -s /no/such/file mac/Contents/Home/broken");
  EXPECT_EQ(
      runHere("KESTREL_MACOS_RUNTIME=mac $BUNDLE macos out.app kestrel app.jar").output,
      "bundle: <root>/mac/Contents/Home/broken is a link to /no/such/file, which does not exist\n");
}

TEST_F(Bundle, PreparesItsRuntime) {
  const Process process = makeBundle(
      "CLASSPATH=x NORVALED_DEBUG_PORT=1 KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=x "
      "NORVALED_JVM_ARGS=-Da=b");
  EXPECT_EQ(process.ending, exited(0));
  EXPECT_EQ(process.output,
            R"(bundle: recording the classes that the application loads, until it exits or for 20 s
bundle: the application exited with status 0
bundle: writing the class archive
bundle: archive in use: application.jsa, 0 MiB (linked classes: no, full module graph: no)
bundle: the bundle is <root>/out.app
)");
  EXPECT_EQ(withPlaceholders(contentOf(root + "/calls")), R"(kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xlog:cds,aot
java
  -Xmx160m
  -Xss384k
  -Xshare:off
  -XX:DumpLoadedClassList=<work>/classes
  -Xss8m
  com/norvale/app/daemon/entry/NativeLauncher
  <work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b
java
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
kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xshare:on -Xlog:cds,aot
)");
  const std::string archive = "/out.app/Contents/jre/Contents/Home/lib/server/application.jsa";
  EXPECT_EQ(contentOf(root + archive), "java/lang/Object\n") << "without the half line";
}

TEST_F(Bundle, WritesTheArchiveAgainIfLinkedClassesDoNotWork) {
  EXPECT_EQ(makeBundle("SCRIPT='linked unusable'").output,
            R"(bundle: recording the classes that the application loads, until it exits or for 20 s
bundle: the application exited with status 0
bundle: writing the class archive
bundle: the JVM does not start with linked classes; writing the archive without them
bundle: writing the class archive
bundle: archive in use: application.jsa, 0 MiB (linked classes: no, full module graph: no)
bundle: the bundle is <root>/out.app
)");
}

TEST_F(Bundle, RestoresTheEarlierOneIfTheArchiveIsNotUsed) {
  std::ofstream(root + "/runtime/release") << "JAVA_VERSION=\"21.0.1\"\n";  // which links nothing
  const Process process = makeBundle("SCRIPT='archive unusable'");
  EXPECT_EQ(process.ending, exited(1));
  EXPECT_EQ(process.output,
            R"(bundle: recording the classes that the application loads, until it exits or for 20 s
bundle: the application exited with status 0
bundle: writing the class archive
bundle: the JVM does not use its archive: Error: no use
)");
  expectEarlierBundle();
}

TEST_F(Bundle, RestoresTheEarlierOneAfterASignal) {
  const Process process = makeBundle(R"(
      (until [ -e waiting ]; do kill -0 $$ && sleep 0.1 || exit; done; kill $$) &
      SCRIPT='waits in the proof')");
  EXPECT_EQ(process.ending, exited(128 + SIGTERM)) << process;
  expectEarlierBundle();
}

TEST_F(Bundle, EndsAnApplicationThatRunsOn) {
  const Process process = makeBundle("SCRIPT='runs on' KESTREL_RECORD_SECONDS=1");
  EXPECT_THAT(process.output, testing::HasSubstr("the application exited with status 143\n"));
  EXPECT_EQ(outputOf("cd $ROOT; rm -f alive; sleep 1; ls alive 2>/dev/null || echo gone"), "gone\n")
      << "a child process that ignores SIGTERM";
}

TEST_F(Bundle, NamesAnApplicationWithoutMain) {
  const Process process = makeBundle("SCRIPT='has no main'");
  EXPECT_EQ(process.output,
            R"(bundle: recording the classes that the application loads, until it exits or for 20 s
bundle: the application does not start: Error: Main method not found
)");
  expectEarlierBundle();
}

TEST_F(Bundle, DeletesWhatAKilledProcessHasLeft) {
  const std::string live = root + "/.bundle-" + std::to_string(getpid()) + "-1";
  fs::create_directory(live);
  fs::create_directories(root + "/.bundle-99999999-1/x");
  EXPECT_EQ(runHere("$BUNDLE macos out.app kestrel app.jar").ending, exited(0));
  EXPECT_FALSE(fs::exists(root + "/.bundle-99999999-1"));
  EXPECT_TRUE(fs::exists(live)) << "its process is running";
}

// With a real JDK: what the application sees does not depend on where and how the archive was made.
TEST_F(Bundle, ShowsTheApplicationItsOwnPlace) {
  const Process made = runHere(R"(set -e
mkdir -p modules/sealed/box modules/missing/none new jars moved out
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
echo 'module sealed { requires missing; requires java.logging; exports box; }' >modules/sealed/module-info.java
echo 'package box; public class Box { java.util.logging.Logger logger; }' >modules/sealed/box/Box.java
echo 'module missing {}' >modules/missing/module-info.java
echo 'Sealed: true' >manifest
"$JDK/javac" -d classes --module-source-path modules --module sealed
"$JDK/javac" -d main -cp classes/sealed Main.java
"$JDK/jar" -c -f jars/sealed.jar -m manifest -C classes/sealed .
"$JDK/jar" -c -f jars/main.jar -C main .
KESTREL_MODULES=java.prefs $BUNDLE bundle out/App.app )" KESTREL_LAUNCHER " jars");
  ASSERT_EQ(made.ending, exited(0)) << made;
  EXPECT_EQ(linesWith(made.output, "modules "),
            "bundle: looking for the modules that the jars use\n"
            "bundle: linking a runtime with modules "
            "java.base,java.desktop,java.logging,java.prefs,jdk.jdwp.agent\n");

  setenv("NORVALED_JVM_ARGS", "-Xshare:on", 1);  // without its archive the JVM would not start
  const std::string code = "^file|code";
  EXPECT_EQ(linesWith(runHere("exec $ROOT/out/App.app/Contents/MacOS/kestrel").output, code),
            R"(file:<root>/out/App.app/Contents/lib/main.jar
file:<root>/out/App.app/Contents/lib/sealed.jar
old code, sealed: true
)");
  runHere(R"(mv out/App.app "moved/My App.app"
      sed 's/old/new/' Main.java >new/NativeLauncher.java
      "$JDK/javac" -d main -cp classes/sealed new/NativeLauncher.java
      "$JDK/jar" -c -f moved/*/Contents/lib/main.jar -C main .)");
  const Process moved = runHere("exec \"$ROOT/moved/My App.app/Contents/MacOS/kestrel\"");
  EXPECT_EQ(moved.ending, exited(3));
  EXPECT_EQ(linesWith(moved.output, code), R"(file:<root>/moved/My%20App.app/Contents/lib/main.jar
file:<root>/moved/My%20App.app/Contents/lib/sealed.jar
new code, sealed: true
)");
  EXPECT_EQ(runHere("exec moved/*/Contents/MacOS/kestrel").ending, exited(104));
}

}  // namespace
