// The bundler: mostly with scripts in place of the launcher and of the Java runtime.
#include <csignal>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::HasSubstr;

namespace {

// $ROOT contains app.jar, which is the sample, and `kestrel` and `runtime`, which are scripted.
struct Bundle : BundleFixture {
  Bundle() {
    const std::string jdk = fs::path(JAVAC).parent_path();
    setenv("JDK", jdk.c_str(), 1);
    setenv("BUILT_LAUNCHER", KESTREL_LAUNCHER, 1);
    setenv("CALLS", (root + "/calls").c_str(), 1);
    unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
    unsetenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS");
    const std::string bundler = jdk + "/java -XX:TieredStopAtLevel=1 -jar " BUNDLER;
    const std::string target = " --dest " + root + " --name out --mac-package-identifier x";
    setenv("BUNDLER", bundler.c_str(), 1);
    setenv("CHECK", (bundler + " macos -" + target + " app.jar").c_str(), 1);
    setenv("MAKE_MAC", (bundler + " macos kestrel" + target).c_str(), 1);
    setenv("MAKE", (bundler + " bundle kestrel" + target + " --runtime-image runtime").c_str(), 1);
    outputOf(R"(cd $ROOT; mkdir -p runtime/bin runtime/lib/server
      cp ')" SAMPLE_JAR R"(' app.jar; cp "$PROJECT/tests/scripted_runtime" kestrel
      cp kestrel runtime/bin/java; cp $BUILT_LAUNCHER runtime/lib/libjli.dylib
      cp $BUILT_LAUNCHER runtime/lib/server/libjvm.so; echo 'JAVA_VERSION="25.0.1"' >runtime/release)");
  }

  // Runs a script in $ROOT. In its output, <root> stands for $ROOT, and <work> for the folder in
  // which a bundle is made.
  Process runHere(const std::string& script) const {
    Process process = run("cd $ROOT; " + script);
    process.output = withPlaceholders(process.output);
    return process;
  }

  std::string withPlaceholders(const std::string& text) const {
    const std::regex run("<root>/\\.out\\.app\\.work/run-[^/\n]*");
    return std::regex_replace(replaced(text, root, "<root>"), run, "<work>");
  }

  // Makes out.app in place of an earlier bundle. The prefix is shell text before the command:
  // commands, then variables. The shell becomes the maker, so $$ is its ID.
  Process replaceBundle(const std::string& prefix, const std::string& words = "app.jar") const {
    fs::create_directories(root + "/out.app/Contents/earlier");
    return runHere(prefix + " exec $MAKE " + words);
  }

  std::string bundleHas() const { return outputOf("ls $ROOT/out.app/Contents | xargs"); }
  std::string workFolders() const { return outputOf("cd $ROOT; ls -A | sed -n '/work$/p'"); }
  void expectEarlierBundle() const {
    EXPECT_EQ(bundleHas(), "earlier\n");
    EXPECT_EQ(workFolders(), "");
  }
};

TEST_F(Bundle, RejectsWrongInput) {
  outputOf(
      R"(cd $ROOT; mkdir -p notes other.app twice A.app mac/lib; touch notes/notes.txt notes/._x.jar
      head -c 900 app.jar >cut.jar; cp app.jar twice/App.jar; ln -s none linked.app
      printf 'PK\5\6\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0' >empty.jar
      printf 'bplist00' >b.plist; printf '<plist><dict/><!--' >cut.plist
      echo '<plist><dict><key>CFBundleExecutable</key><string>x</string></dict></plist>' >x.plist
      printf '\177ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0>\0' >linux.so; cp linux.so notes
      printf '\317\372\355\376\14\0\0\1' >mac/lib/libjli.dylib; cp runtime/release mac
      echo 'Main-Class: org.acme.Main' >manifest; "$JDK/jar" -c -f main.jar -m manifest kestrel)");
  const std::string entry = "com/norvale/app/daemon/entry/NativeLauncher.class";
  struct Case {
    std::string command, message;
  };
  const std::vector<Case> cases = {
      {"$CHECK --dest a:b", "the bundle's path must not contain a colon: <root>/a:b/out.app"},
      {"$CHECK --name other", "<root>/other.app exists and is not a bundle"},
      {"$CHECK --name linked", "<root>/linked.app is a link; remove it"},
      {"$CHECK --name .x",
       "--name must be a file name that contains no colon and does not begin with a dot: .x"},
      {"$CHECK --app-version 1.2-beta",
       "--app-version must be one to three numbers separated by dots: 1.2-beta"},
      {"$CHECK --icon kestrel", "--icon must be an .icns file: <root>/kestrel"},
      {"$CHECK --info-plist b.plist",
       "<root>/b.plist is a binary property list; convert it: plutil -convert xml1 "
       "<root>/b.plist"},
      {"$CHECK --info-plist x.plist", "<root>/x.plist must not contain CFBundleExecutable"},
      {"$CHECK --env A=1 --env A=2", "the variable A is given twice"},
      {"$CHECK --app-content notes",
       "<root>/notes/linux.so is native code, which only an ITEM *.so, *.dylib or *.jnilib may "
       "contain"},
      {"$CHECK nosuch", "<root>/nosuch does not exist"},
      {"$CHECK kestrel",
       "<root>/kestrel is neither a jar, nor a native library, nor a folder; --app-content takes "
       "other files"},
      {"$CHECK A.app", "no jar or native library in <root>/A.app"},
      {"$CHECK linux.so",
       "<root>/linux.so contains x86_64 code for Linux, but the bundle is for x86_64 code for "
       "Macs; --arch chooses the processor"},
      {"$CHECK cut.jar", "<root>/cut.jar is not a jar or is damaged: zip END header not found"},
      {"cp app.jar a:b.jar; $CHECK a:b.jar",
       "a file's name must not contain a colon: <root>/a:b.jar"},
      {"$CHECK twice", "two files have the same name: <root>/app.jar and <root>/twice/App.jar"},
      {"cp app.jar b.jar; $CHECK b.jar",
       "more than one jar contains " + entry + ": <root>/app.jar, <root>/b.jar"},
      {"$BUNDLER macos - --dest . empty.jar main.jar",
       "no jar contains " + entry +
           "; name the application's main class with --main-class org.acme.Main"},
      {"$CHECK --main-class App",
       "<root>/app.jar contains the entry class, so --main-class does not apply"},
      {"$BUNDLER macos - --dest . main.jar --main-class App",
       "no jar contains the class of --main-class App"},
      {"$CHECK --runtime-image mac",
       "<root>/mac/lib/libjli.dylib contains arm64 code for Macs, but the bundle is for x86_64 "
       "code for "
       "Macs; --arch chooses the processor"},
      {"$BUNDLER bundle - --dest . --record-seconds 1x app.jar",
       "--record-seconds must be a number from 1 to 99999: 1x"},
      {"$MAKE --info-plist cut.plist app.jar",
       "<root>/cut.plist cannot be read: XML document structures must start and end within the "
       "same "
       "entity."},
      {"mkfifo pipe; $MAKE_MAC --app-content pipe app.jar",
       "<root>/pipe is neither a file, nor a folder, nor a link"},
      {"ln -s $ROOT runtime/bin/out; $MAKE app.jar",
       "<root>/runtime/bin/out is a link to a folder that contains it"},
      {"mkdir c; ln -s ../A.app c/l; $MAKE_MAC --dest A.app/new --app-content c app.jar",
       "<root>/A.app contains the folder in which the bundle is made"},
  };
  for (const Case& expected : cases) {
    const Process process = runHere(expected.command);
    EXPECT_EQ(process.ending, exited(1)) << expected.command;
    EXPECT_EQ(process.output, "bundle: " + expected.message + "\n") << expected.command;
  }
  EXPECT_EQ(outputOf("find $ROOT -name out.app -o -name '*.work'"), "");
}

TEST_F(Bundle, RejectsWrongUseBeforeAnythingIsBuilt) {
  struct Case {
    std::string command, message;
  };
  const std::vector<Case> cases = {
      {"dev bundle --nope",
       "dev: --nope is not an option of ./dev bundle; see ./dev bundle --help"},
      {"dev bundle --arch arm64",
       "dev: --arch is not an option of ./dev bundle; see ./dev bundle --help"},
      {"dev macos --name", "dev: --name needs a value; see ./dev macos --help"},
      {"dev macos app.jar -- x", "dev: -- belongs to ./dev bundle; see ./dev macos --help"},
  };
  outputOf(R"(cd $ROOT; mkdir checkout; cp "$PROJECT/dev" checkout
      cp -R "$PROJECT/tools" "$PROJECT/bundler" checkout)");
  for (const Case& expected : cases) {
    const Process process = runHere("PATH=/usr/bin:/bin checkout/" + expected.command);
    EXPECT_EQ(process.ending, exited(2)) << expected.command;
    EXPECT_EQ(process.output, expected.message + "\n");
  }
  EXPECT_FALSE(fs::exists(root + "/checkout/build"));
  EXPECT_EQ(runHere("checkout/dev macos --name several --help").ending, exited(0));
  const Process process = runHere("$MAKE --no-archive app.jar -- x");
  EXPECT_EQ(process.ending, exited(2)) << process;
}

TEST_F(Bundle, IsCompleteAndReadableForAll) {
  outputOf(R"(umask 077; cd $ROOT; mkdir -p items/sub data; cp app.jar items; touch data/words.diz
      printf '\312\376\272\276\0\0\0\2' >items/a.dylib; touch items/notes.txt items/.DS_Store
      printf icns >app.icns
      cat >more.plist <<'XML'
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"> <dict> <key>LSUIElement</key> <true/> <!-- -->
  <key>LSEnvironment</key> <dict><key>B</key><string>&lt; </string></dict>
  <key>CFBundleVersion</key><string>77</string> </dict> </plist>
XML
      mkdir -p mac/Contents/Home/lib/x.dSYM; cp runtime/release mac/Contents/Home; cd mac/Contents/Home/lib
      cp $ROOT/items/a.dylib libjli.dylib; touch x.dSYM/y
      ln -s libjli.dylib link; ln -s $ROOT/runtime/release certificates; ln -s /no/such/file broken
      ln -s ../../../../runtime/bin tools)");
  const Process made = runHere(R"(umask 077; $MAKE_MAC items --name 'A & B' --icon \
      app.icns --info-plist more.plist --java-options '-Da=b -Dc' --java-options -Dd --env E=f \
      --app-content data --runtime-image mac)");
  EXPECT_EQ(
      made.output,
      R"(bundle: warning: left out, since they are neither jars nor native libraries: <root>/items/notes.txt, <root>/items/sub
bundle: warning: left out, since they are links to nothing: <root>/mac/Contents/Home/lib/broken
bundle: the bundle is <root>/A & B.app
bundle: every launch from a terminal needs these variables: NORVALED_JVM_ARGS='-Da=b -Dc -Dd' E='f' B='< '
)");
  EXPECT_EQ(outputOf("cd $ROOT/A*/Contents; find * ! -type d | sort"), R"(Info.plist
MacOS/a.dylib
MacOS/kestrel
Resources/app.icns
Resources/data/words.diz
jre/Contents/Home/lib/certificates
jre/Contents/Home/lib/libjli.dylib
jre/Contents/Home/lib/link
jre/Contents/Home/lib/tools/java
jre/Contents/Home/release
lib/app.jar
)");
  EXPECT_EQ(linesWith(contentOf(root + "/A & B.app/Contents/Info.plist"),
                      "app.icns|>x<|A &amp|77|" VERSION "|LSUI|>-D|&lt"),
            R"(        <string>app.icns</string>
        <string>x</string>
        <string>A &amp; B</string>
        <string>)" VERSION R"(</string>
        <string>77</string>
        <key>LSUIElement</key>
            <string>-Da=b -Dc -Dd</string>
            <string>&lt; </string>
)");
  EXPECT_EQ(outputOf("cd $ROOT/A*; find . -type l -exec readlink {} ';'"), "libjli.dylib\n");
  EXPECT_EQ(
      outputOf(R"(cd $ROOT; find A*.app ! -type l ! -perm -444; find A*.app -type d ! -perm -111
      find A*.app -name kestrel ! -perm -111)"),
      "")
      << "not for all";
}

TEST_F(Bundle, WarnsOfWhatMayNotBeIntended) {
  const Process process =
      runHere(R"(touch other.jar; mkdir sub; echo 1 >sub/A.class; echo 2 >sub/B.class
      echo 'Class-Path: app.jar other.jar none.jar' >manifest
      "$JDK/jar" -c -f a.jar -m manifest -C sub A.class -C sub B.class
      echo 3 >sub/B.class; "$JDK/jar" -c -f b.jar -C sub A.class -C sub B.class
      exec $MAKE_MAC app.jar a.jar b.jar)");
  EXPECT_EQ(
      linesWith(process.output, "warning"),
      "bundle: warning: the manifest of <root>/a.jar names in its Class-Path what is not in the "
      "bundle: other.jar\n"
      "bundle: warning: a.jar and b.jar contain different classes of one name, such as B.class; "
      "the order of the class path decides, which is not defined\n");
}

TEST_F(Bundle, PreparesItsRuntime) {
  const Process process =
      replaceBundle(R"(touch file; export CLASSPATH=x NORVALED_DEBUG_PORT=1 SCRIPT='
      record() {
        printf "java/lang/Object\nM id: 2 super: 1 source: /x.jar\nhalf a li" >"$list"
        touch relative "$(dirname "$0")/left"
      }';)",
                    "app.jar --java-options -Da=b -- 'a b' file");
  EXPECT_EQ(
      process.output,
      R"(bundle: warning: the application does not run in this folder, so it may not find file; give it <root>/file
bundle: these variables of yours have no effect on the bundle (see --env and --java-options): CLASSPATH, NORVALED_DEBUG_PORT
bundle: recording the loaded classes, for 20 s or until the application exits
bundle: the application exited with status 0
bundle: writing the class archive
bundle: archive in use: application.jsa, 0 MiB, without linked classes
bundle: warning: removed what the application has left in its bundle: Contents/jre/Contents/Home/bin/left
bundle: the bundle is <root>/out.app
bundle: every launch needs these variables: NORVALED_JVM_ARGS='-Da=b'
)");
  EXPECT_EQ(bundleHas(), "Info.plist MacOS jre lib\n");
  EXPECT_EQ(workFolders(), "");
  const std::string home = root + "/out.app/Contents/jre/Contents/Home";
  EXPECT_EQ(contentOf(home + "/lib/server/application.jsa"), "java/lang/Object\n");
  EXPECT_FALSE(fs::exists(home + "/bin/left"));
  EXPECT_FALSE(fs::exists(root + "/relative"));
  const std::string calls = withPlaceholders(contentOf(root + "/calls"));
  EXPECT_EQ(linesWith(calls, "kestrel$|  (a b|NORV|CLASSP|-Du|-Dj)"),
            R"(<work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xlog:cds,aot
  -Duser.dir=<work>/current
  <work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b
  -Djava.class.path=
  NORVALED_JVM_ARGS=-Da=b
<work>/out.app/Contents/MacOS/kestrel
  a b
  NORVALED_JVM_ARGS=-Da=b -Xshare:on -Xlog:cds,aot
)");
}

TEST_F(Bundle, WritesTheArchiveAgainIfLinkedClassesDoNotWork) {
  const Process process = replaceBundle(R"(export SCRIPT='
      dump() { cp "$list" "$archive"; echo $linking >"$ROOT/linking"; }
      prove() { grep -q no "$ROOT/linking" && call_main; }';)");
  EXPECT_EQ(process.ending, exited(0)) << process;
  EXPECT_THAT(process.output, HasSubstr("this JVM cannot use linked classes; writing the archive"));
  EXPECT_EQ(linesWith(contentOf(root + "/calls"), "JVM_ARGS.*on"),
            "  NORVALED_JVM_ARGS=-Xshare:on -Xlog:cds,aot\n"
            "  NORVALED_JVM_ARGS=-Xshare:on -Xlog:cds,aot\n");
}

TEST_F(Bundle, SetsTheSwitchForAnOldRuntime) {
  std::ofstream(root + "/runtime/release") << "JAVA_VERSION=\"21.0.1\"\n";
  const Process process = replaceBundle("");
  EXPECT_THAT(process.output, EndsWith("bundle: every launch needs these variables: "
                                       "KESTREL_AGGRESSIVE_OPTIMIZATIONS='0'\n"));
  EXPECT_EQ(linesWith(contentOf(root + "/calls"), "AGGR|AOT"),
            replaced("xxxx", "x", "  KESTREL_AGGRESSIVE_OPTIMIZATIONS=0\n"));
  EXPECT_THAT(contentOf(root + "/out.app/Contents/Info.plist"),
              HasSubstr("<key>KESTREL_AGGRESSIVE_OPTIMIZATIONS</key>"));
}

TEST_F(Bundle, KeepsTheEarlierOneAfterAFailure) {
  const std::string remedy = "--no-archive makes a bundle without launching it.\n";
  struct Case {
    std::string script, words, message;  // what the user is told at the end
  };
  const std::vector<Case> cases = {
      {"call_main() { echo no; exit 1; }", "app.jar",
       "bundle: the application does not start:\n    no\n" + remedy},
      {R"(record() { echo 'Exception in thread "main" E: x'; echo ' at a.b'; exit 1; })", "app.jar",
       "bundle: the application fails while it is recorded:\n"
       "    Exception in thread \"main\" E: x\n     at a.b\n" +
           remedy},
      {R"(record() { echo x >"$list"; rm "$(dirname "$0")/../lib/x"; })", "app.jar",
       "bundle: the application has changed Contents/jre/Contents/Home/lib/x in its bundle, which "
       "would break a signature; --no-archive makes a bundle without launching it\n"},
      {"dump() { echo No space left; exit 1; }", "app.jar", "MiB):\n    No space left\n" + remedy},
      {"prove() { echo Error: no use; echo 'OpenJDK warning: x'; exit 1; }",
       "app.jar -- 'JVM calling main'",
       "bundle: the JVM does not use its archive:\n    Error: no use\n" + remedy},
      {"prove() { mapped=$ROOT/other.jsa; call_main; }", "app.jar",
       "bundle: the JVM uses <root>/other.jsa in place of the bundle's own archive; is "
       "-XX:SharedArchiveFile in the options?\n"},
  };
  outputOf("touch $ROOT/other.jsa $ROOT/runtime/lib/x");
  for (const Case& expected : cases) {
    setenv("SCRIPT", expected.script.c_str(), 1);
    const Process process = replaceBundle("", expected.words);
    EXPECT_EQ(process.ending, exited(1)) << expected.script;
    EXPECT_EQ(process.output.substr(process.output.size() -
                                    std::min(process.output.size(), expected.message.size())),
              expected.message);
    expectEarlierBundle();
  }
}

// While the maker proves the archive, a signal ends it.
TEST_F(Bundle, EndsOnASignal) {
  setenv("SCRIPT", "prove() { echo $$ >$ROOT/waiting; exec sleep 9; }", 1);
  for (const int signal : {SIGINT, SIGTERM}) {
    const Process process = replaceBundle("(until [ -s waiting ]; do sleep 0.1; done; kill -" +
                                          std::to_string(signal) + " $$) &");
    EXPECT_EQ(process.ending, exited(128 + signal)) << process;
    EXPECT_EQ(linesWith(process.output, "the bundle is"), "");
    EXPECT_EQ(outputOf("cd $ROOT; ! kill -0 $(cat waiting) 2>/dev/null; rm waiting"), "");
    expectEarlierBundle();
  }
}

TEST_F(Bundle, IsMadeByOneProcessAtATime) {
  const Process process = runHere(R"(
      export SCRIPT='prove() { until [ -e $ROOT/go ]; do sleep 0.1; done; call_main; }'
      ($MAKE app.jar; echo "first: $?") & until grep -qs share:on calls; do sleep 0.1; done
      $MAKE app.jar; echo "second: $?"; touch go; wait)");
  EXPECT_EQ(linesWith(process.output, "another|^first|^second|the bundle is"),
            R"(bundle: another process is making out.app
second: 1
bundle: the bundle is <root>/out.app
first: 0
)");
  EXPECT_EQ(workFolders(), "");
}

TEST_F(Bundle, RecoversFromAKilledProcess) {
  const std::string make = "exec $MAKE_MAC app.jar";
  EXPECT_EQ(replaceBundle("SCRIPT='prove() { kill -9 $PPID; }'").ending, killed(SIGKILL));
  EXPECT_EQ(bundleHas(), "earlier\n");
  EXPECT_EQ(workFolders(), ".out.app.work\n");
  // Between its two renames.
  EXPECT_EQ(runHere("mv out.app \"$(echo .*.work/run-*)/earlier\"; mkfifo pipe;"
                    "exec $MAKE_MAC --app-content pipe app.jar")
                .output,
            "bundle: put back <root>/out.app, which a killed process had moved away\n"
            "bundle: <root>/pipe is neither a file, nor a folder, nor a link\n");
  expectEarlierBundle();

  outputOf(
      "cd $ROOT; mkdir -p .out.app.work/run-x/earlier; touch .out.app.work/.kestrel-bundler-lock");
  EXPECT_EQ(runHere(make).ending, exited(0));
  EXPECT_EQ(bundleHas(), "Info.plist MacOS jre lib\n") << "and not the one that had been replaced";
  EXPECT_EQ(workFolders(), "");
}

TEST_F(Bundle, LeavesAloneWhatItHasNotMade) {
  for (const std::string foreign : {"mkdir $W; touch $W/x", "touch $W", "ln -s runtime $W"}) {
    EXPECT_EQ(runHere("W=.out.app.work; " + foreign + "; exec $MAKE_MAC app.jar").output,
              "bundle: <root>/.out.app.work was not made by this user with this program; remove "
              "it\n");
    outputOf(
        "cd $ROOT; ls .out*.work/x || test -e .out*.work/lib || test -f .out*.work; rm -r "
        ".out*.work");
  }
  outputOf("cd $ROOT; mkdir .out.app.work .other.app.work");
  EXPECT_EQ(runHere("exec $MAKE_MAC app.jar").ending, exited(0))
      << "an empty folder counts as none";
  EXPECT_EQ(workFolders(), ".other.app.work\n");
}

TEST_F(Bundle, EndsAnApplicationThatRunsOn) {
  const Process process = replaceBundle(R"(export SCRIPT='record() {
      echo x >"$list"
      (trap "" TERM; while touch "$ROOT/alive"; do sleep 0.1; done) & wait
    }';)",
                                        "--record-seconds 1 app.jar");
  EXPECT_THAT(process.output, HasSubstr("the application was stopped after 1 s\n"));
  EXPECT_EQ(outputOf("cd $ROOT; rm -f alive; sleep 1; ls | sed -n /alive/p"), "")
      << "its child, which ignores SIGTERM";
}

// With a real JDK. The archive must not change what the application sees: its code source, sealed
// packages, a jar that was replaced, a plug-in with a class loader of its own. A module that a jar
// requires may be missing.
TEST_F(Bundle, RunsAnOrdinaryApplication) {
  const Process made = runHere(R"(set -e
mkdir -p modules/sealed/box modules/missing jars
cat >App.java <<'END'
import java.io.*;
import java.net.*;
public class App {
  public static void main(String[] args) throws Exception {
    URL[] jar = {new File(args[0]).toURI().toURL()};
    ClassLoader loader = new URLClassLoader(jar, App.class.getClassLoader());
    System.out.println(loader.loadClass("PlugIn").getDeclaredConstructor().newInstance());
    for (Class<?> c : new Class<?>[] {App.class, box.Box.class}) {
      System.out.println(c.getProtectionDomain().getCodeSource().getLocation());
    }
    System.out.println("old code, sealed: " + box.Box.class.getPackage().isSealed());
    System.out.println("code on " + Thread.currentThread().getName() + " " + depth(9000));
    new Thread(() -> {
      try { Thread.sleep(500); } catch (InterruptedException e) { }
      System.out.println("code that outlives main");
    }).start();
    if (args.length > 1) throw new IOException(args[1]);
  }
  static int depth(int n) { return n == 0 ? 0 : 1 + depth(n - 1); }
}
class Hidden extends App { static { System.out.println("code of Hidden"); } }
END
echo 'public class PlugIn extends App { public String toString() { return "plug-in code"; } }' >PlugIn.java
cat >modules/sealed/module-info.java <<'END'
module sealed { requires missing; requires java.logging; exports box; }
END
echo 'package box; public class Box { java.util.logging.Logger l; }' >modules/sealed/box/Box.java
echo 'module missing {}' >modules/missing/module-info.java
echo 'Sealed: true' >manifest
"$JDK/javac" --release 17 -d classes --module-source-path modules --module sealed
"$JDK/javac" --release 17 -d main -cp classes/sealed App.java
"$JDK/javac" --release 17 -d plug-in -cp main PlugIn.java
"$JDK/jar" -c -f jars/sealed.jar -m manifest -C classes/sealed .
"$JDK/jar" -c -f jars/main.jar -C main .
"$JDK/jar" -c -f plug-in.jar -C plug-in .
$BUNDLER bundle "$BUILT_LAUNCHER" --dest out --mac-package-identifier x --main-class App --add-modules java.prefs jars -- $PWD/plug-in.jar
$BUNDLER bundle "$BUILT_LAUNCHER" --dest . --name hidden --main-class Hidden --mac-package-identifier x --no-archive \
  --runtime-image out/Kestrel.app/Contents/jre/Contents/Home jars)");
  ASSERT_EQ(made.ending, exited(0)) << made;
  EXPECT_EQ(linesWith(made.output, "linking a runtime|warning:"),
            "bundle: linking a runtime with modules "
            "java.base,java.desktop,java.logging,java.prefs,jdk.jdwp.agent\n");
  EXPECT_FALSE(fs::exists(root + "/out/Kestrel.app/Contents/jre/Contents/Home/bin"));

  // Whatever this build's JDK is; from 24 on, no switch is needed.
  const std::string launch = linesWith(made.output, "every launch").empty()
                                 ? ""
                                 : "export KESTREL_AGGRESSIVE_OPTIMIZATIONS=0; ";
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
  setenv("NORVALED_JVM_ARGS", "-Xshare:on", 1);  // the JVM does not start without its archive
  const Process process =
      runHere(launch + "exec $ROOT/out/Kestrel.app/Contents/MacOS/kestrel $PWD/plug-in.jar");
  EXPECT_EQ(process.ending, exited(0));
  EXPECT_EQ(linesWith(process.output, "^file|code"),
            R"(plug-in code
file:<root>/out/Kestrel.app/Contents/lib/main.jar
file:<root>/out/Kestrel.app/Contents/lib/sealed.jar
old code, sealed: true
code on main 9000
code that outlives main
)");
  outputOf(R"(cd $ROOT; mv out 'moved here'; sed -i.old 's/old code/new code/' App.java
      "$JDK/javac" --release 17 -d main -cp classes/sealed App.java
      "$JDK/jar" -c -f moved*/Kestrel.app/Contents/lib/main.jar -C main .)");
  const Process moved = runHere(
      launch +
      "exec \"$PWD/moved here/Kestrel.app/Contents/MacOS/kestrel\" $PWD/plug-in.jar 'code is 1'");
  EXPECT_EQ(moved.ending, exited(1));
  EXPECT_EQ(linesWith(moved.output, "^file|code"), R"(plug-in code
file:<root>/moved%20here/Kestrel.app/Contents/lib/main.jar
file:<root>/moved%20here/Kestrel.app/Contents/lib/sealed.jar
new code, sealed: true
code on main 9000
Exception in thread "main" java.io.IOException: code is 1
code that outlives main
)");
  const Process byReflection =
      runHere(launch + "exec $PWD/hidden.app/Contents/MacOS/kestrel $PWD/plug-in.jar 'code is 1'");
  EXPECT_EQ(byReflection.ending, exited(1));
  EXPECT_EQ(linesWith(byReflection.output, "Hidden|on main|code is"),
            "code of Hidden\ncode on main 9000\nException in thread \"main\" java.io.IOException: "
            "code is 1\n");
  EXPECT_EQ(runHere(launch + "exec moved*/Kestrel.app/Contents/MacOS/kestrel").ending, exited(104))
      << "by a relative path the JVM finds no classes, as without an archive";
}

}  // namespace
