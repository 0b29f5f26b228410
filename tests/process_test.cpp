// Starts of the launcher: command line, environment and bundle in; the log, the JVM's calls, output
// and exit status out.
#include <tuple>
#include <utility>
#include <vector>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::AllOf, testing::ContainsRegex, testing::EndsWith, testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Launcher : BundleFixture {};

// Up to the end of the first `words`.
std::string upTo(const std::string& text, const std::string& words) {
  return text.substr(0, text.find(words) + words.size());
}

TEST_F(Launcher, EndsAsTheJavaEntryDoes) {
  const std::string success = R"( operator() JVM calling main
> AttachCurrentThread
> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
> GetStaticMethodID(main([Ljava/lang/String;)V)
> FindClass(java/lang/String)
> CallStaticIntMethod [<install>/kestrel] [a  b] [] [größe]
> ExceptionOccurred
 operator() JVM main ended
 operator() JVM started successfully
)";
  const std::string printing = R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
> CallVoidMethod
> DeleteLocalRef
> ExceptionClear
)";
  const std::string missing = R"(> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
 callMainMethod Failed to find  NativeLauncher  class
)";
  const std::string raised =
      " callMainMethod Finding  NativeLauncher  class failed with exception!\n";
  const std::string call = "> CallStaticIntMethod [<install>/kestrel] [a  b] [] [größe]\n";
  const std::string threw = " callMainMethod Method ' main ' failed with exception!\n";
  // Script, status, and what takes the place of the success from the first line of its own on.
  const std::vector<std::tuple<std::string, int, std::string>> rows = {
      {"SCRIPT_status=0", 0, success},
      {"SCRIPT_status=1", 0,
       " operator() JVM main ended\n operator() JVM exit after startup is set, exiting\n"},
      {"SCRIPT_status=-1", 255, " operator() JVM main ended\n"},
      {"SCRIPT_status=7", 7, "> ExceptionOccurred\n"},
      {"SCRIPT_attach=-5", 103,
       "> AttachCurrentThread\n callMainMethod Failed to attach native thread to JVM\n"},
      {"SCRIPT_NativeLauncher=throws", 104, missing + printing + raised},
      {"SCRIPT_NativeLauncher=missing", 105, missing + "> ExceptionOccurred\n"},
      {"SCRIPT_main=throws", 106,
       "> GetStaticMethodID(main([Ljava/lang/String;)V)\n"
       " callMainMethod Failed to find method ' main ' on  NativeLauncher\n"},
      {"SCRIPT_status=2 SCRIPT_call=throws", 107,
       call + " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n"},
      {"SCRIPT_call=throws", 108, call + printing + threw},
      {"SCRIPT_call=throws SCRIPT_Throwable=missing", 108,
       call + "> ExceptionOccurred\n> FindClass(java/lang/Throwable)\n" +
           " checkFailureAndLog Failed to find Throwable class\n" + threw},
      {"SCRIPT_call=throws SCRIPT_printStackTrace=missing", 108,
       call + upTo(printing, "()V)\n") +
           " checkFailureAndLog Failed to find Throwable#printStackTrace class\n" + threw},
  };
  for (const auto& [script, status, end] : rows) {
    std::string expected = success.substr(0, success.find(upTo(end, "\n"))) + end;
    if (status >= 2 && status < 255) {
      expected += R"( operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: )" +
                  std::to_string(status) + "\n";
    }
    const Start ended = start(script + " exec $K 'a  b' '' größe", status);
    EXPECT_THAT(ended.log, StartsWith(" run Program arguments:  a  b  größe \n"));
    EXPECT_EQ(ended.log.substr(ended.log.find(upTo(success, "\n"))), expected) << script;
  }
}

TEST_F(Launcher, EndsWith53WithoutJvm) {
  const std::string path = "<install>/../jre/Contents/Home/lib/libjli.dylib";
  const std::string loading = " resolveJNICreateFunction Loading JLI library from " + path + "\n";
  const std::string end = R"( startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)";
  fs::remove(runtime + "/libjli.dylib");
  const std::string reason = " resolveJNICreateFunction Cannot load  " + path + " :  " + path;
  EXPECT_THAT(
      start("exec $K", 53).log,
      AllOf(StartsWith(" run Program arguments:  \n" + loading + reason), EndsWith("\n" + end)));
  fs::create_symlink(LIBRARY_WITHOUT_JVM, runtime + "/libjli.dylib");
  EXPECT_EQ(start("exec $K", 53).log, " run Program arguments:  \n" + loading + end);
}

struct OptionRow {
  std::string environment;
  std::string gone{};     // rows of the table, as a regular expression
  std::string option{};   // as in the table
  std::string changed{};  // as in this environment
  std::string records{};
  std::string port{};  // in the environment afterwards
};

// The options of the table in docs/options.md, as the launcher lists them.
std::string documentedOptions(const OptionRow& change) {
  const auto isGone = testing::Matches(ContainsRegex("<TMPDIR>`|<port>`" + change.gone));
  std::ifstream document(PROJECT_FOLDER "/docs/options.md");
  std::string options = "\n\t";
  std::string row;
  while (std::getline(document, row) && !row.starts_with("## ")) {
    if (!change.option.empty()) row = replaced(row, change.option, change.changed);
    if (row.starts_with("| `") && !isGone(row))
      options += row.substr(3, row.find('`', 3) - 3) + "\n\t";
  }
  return replaced(options, "<size>", "384");
}

TEST_F(Launcher, GivesTheJvmItsDocumentedOptions) {
  for (const char* name : {"b.jar", "a.jar", "ajar", "A.JAR", ".jar"}) {
    std::ofstream(lib + "/" + name).close();
  }
  fs::create_directory(lib + "/folder.jar");
  fs::create_directory_symlink(root, root + "/link");
  std::string jars;
  for (const fs::directory_entry& entry : fs::directory_iterator(lib)) {  // in its own order
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) jars.append(":<install>/../lib/").append(name);
  }
  jars.erase(0, 1);
  const std::string agent = "<y or n>,address=*:<port>";
  const std::string any = " startJVM Enabling JDWP with suspend=n on any available port\n";
  const std::string wait = " startJVM Enabling JDWP with suspend=y on port  ";
  const std::string words = " -Db=2\t-Xms64m \v\f\r";
  const std::vector<OptionRow> rows = {
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS=false KESTREL_GC_FORCE_SERIAL_GC= "
       "KESTREL_GC_FORCE_PARALLEL_GC=true KESTREL_GC_AGGRESSIVE_RECLAIM= TMPDIR=$K"},
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS= KESTREL_GC_FORCE_SERIAL_GC=true "
       "KESTREL_GC_AGGRESSIVE_RECLAIM=no KESTREL_GC_MAX_PAUSE_MILLIS=abc",
       "", "Millis=100", "Millis=abc"},
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS=0ff KESTREL_GC_AGGRESSIVE_RECLAIM=0abc "
       "KESTREL_GC_FORCE_PARALLEL_GC= KESTREL_GC_MAX_PAUSE_MILLIS=",
       "|gone with .*(OPTIMIZATIONS|RECLAIM)", "Millis=100", "Millis="},
      {"KESTREL_GC_FORCE_SERIAL_GC=10 KESTREL_GC_FORCE_PARALLEL_GC=1",
       "|G1 only|gone with .*SERIAL", "UseG1", "UseSerial"},
      {"KESTREL_GC_FORCE_SERIAL_GC=0 KESTREL_GC_FORCE_PARALLEL_GC=10", "|G1 only", "UseG1",
       "UseParallel"},
      {"KESTREL_GC_FORCE_SERIAL_GC=1 KESTREL_AGGRESSIVE_OPTIMIZATIONS=0",
       "|G1 only|gone with .*(SERIAL|OPTIMIZATIONS)", "UseG1", "UseSerial"},
      {"TMPDIR=$ROOT/link/", "", "<TMPDIR>", root + "/link/"},
      {"TMPDIR=$ROOT/missing"},
      {"NORVALED_DEBUG_PORT= NORVALED_JVM_ARGS="},
      {"NORVALED_DEBUG_PORT=5005x", "", agent, "y,address=*:5005", wait + "5005\n", "0"},
      {"NORVALED_DEBUG_PORT=-5", "", agent, "y,address=*:-5", wait + "-5\n", "0"},
      {"NORVALED_DEBUG_PORT=' '", "", agent, "n,address=*:0", any, " "},
      {"NORVALED_DEBUG_PORT=99999999999", "", agent, "n,address=*:0", any, "99999999999"},
      {"NORVALED_DEBUG_PORT=0 NORVALED_JVM_ARGS='" + words + "'", "", agent,
       "n,address=*:0\n\t-Db=2\n\t-Xms64m",
       any + " startJVM Adding JVM args from NORVALED_JVM_ARGS:  " + words + "\n", "0"},
  };
  const std::string begin =
      " run Program arguments:  \n"
      R"( resolveJNICreateFunction Loading JLI )"
      R"(library from <install>/../jre/Contents/Home/lib/libjli.dylib
<records> startJVM Using class path:  )" +
      replaced(jars, ":", "\n") + R"(
 startJVM JVM Args: <options>
 startJVM Starting JVM
> CreateJavaVM<options>
 startJVM Java Virtual Machine is created!
)";
  for (const OptionRow& row : rows) {
    const std::string options = replaced(documentedOptions(row), "<jars>", jars);
    const std::string expected = replaced(begin, "<options>", options);
    const Start started =
        start("unset KESTREL_AGGRESSIVE_OPTIMIZATIONS; " + row.environment + " exec $K");
    EXPECT_EQ(upTo(started.log, "is created!\n"), replaced(expected, "<records>", row.records))
        << "docs/options.md and the JVM differ with " << row.environment;
    EXPECT_EQ(started.output, row.port) << row.environment;
  }
}

TEST_F(Launcher, FindsItsFilesFromTheNameItIsStartedBy) {
  const std::string noJars = "\n startJVM Using class path:  \n";
  const Start relative = start("cd ${K%/*/*}; exec MacOS/kestrel");
  EXPECT_THAT(relative.log,
              HasSubstr(" from MacOS/../jre/Contents/Home/lib/libjli.dylib" + noJars));
  EXPECT_THAT(relative.log, HasSubstr("\n\t-Duser.dir=MacOS\n"));
  EXPECT_THAT(relative.log, HasSubstr("> CallStaticIntMethod [MacOS/kestrel]\n"));
  // A bare name's bundle is looked for under the root, and nobody checks an override.
  EXPECT_THAT(start("cd ${K%/*}; PATH=. exec kestrel", 53).log, HasSubstr(" from /../jre/"));
  const Start overridden = start("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $K", 53);
  EXPECT_THAT(overridden.log, HasSubstr(" from none/../jre/"));
  fs::remove(lib);
  const std::string missing =
      "\n collectJars Directory  <install>/../lib/  is missing or not accessible";
  EXPECT_THAT(start("exec $K").log, HasSubstr(missing + noJars));
}

TEST_F(Launcher, LogsWhereTheEnvironmentSays) {
  const std::string unset = "unset KESTREL_NATIVE_LOG_DIR_OVERRIDE; ";
  const std::string chosen = "KESTREL_NATIVE_LOG_DIR_OVERRIDE=";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {chosen + "$ROOT/new/deep TEST_TMPDIR=$ROOT/t", "new/deep"},
      {chosen + "$ROOT/at//its/end/", "at/its/end"},
      {unset + "TEST_TMPDIR=$ROOT/t HOME=$ROOT", "t/nativeLogs"},
      {unset + "HOME=$ROOT/home", "home/Library/Logs/Norvale/Kestrel-Dev"},
      // None of these can be used.
      {unset, ""},
      {chosen + " TEST_TMPDIR=$ROOT/other", ""},
      {chosen + "relative", ""},
      {chosen + "$K", ""},
      {chosen + "$K/below", ""},
      {chosen + "$ROOT/taken", ""},
  };
  fs::create_directories(root + "/taken/kestrel-native.log");  // where the log file should be
  fs::create_directories(root + "/relative");
  for (const auto& [environment, directory] : rows) {
    const std::string line = "cd $ROOT; umask 0; " + environment + " exec $K";
    EXPECT_EQ(start(line, directory.empty() ? 1 : 0).output, "");
    EXPECT_NE(fs::exists(root + "/" + directory + "/kestrel-native.log"), directory.empty());
    for (fs::path part = directory; !part.empty(); part = part.parent_path()) {
      EXPECT_EQ(fs::status(root / part).permissions(), fs::perms::owner_all) << part;
    }
  }
}

// With a real JVM and the sample application: what docs/application.md tells the application's
// team, and what only a real JVM can show.
struct RealJvm : BundleFixture {
  RealJvm() {
    fs::remove_all(contents + "/jre");
    fs::create_directory_symlink(KESTREL_JRE, contents + "/jre");
    fs::copy_file(SAMPLE_JAR, lib + "/sample.jar");
  }

  void expectEnd(const std::string& line, int status, const std::string& output,
                 const std::string& lastRecord) {
    const Start ended = start(line, status);
    EXPECT_THAT(ended.output, ContainsRegex(output)) << line;
    EXPECT_THAT(ended.log, EndsWith(lastRecord + "\n")) << line;
  }
};

TEST_F(RealJvm, RunsTheApplicationToItsEnd) {
  const std::string success = " operator() JVM started successfully";
  expectEnd("cd $ROOT; LC_ALL=C.UTF-8 $K write größe 'two words' && echo größe", 0,
            "argument 0: <install>/kestrel\nargument 1: write\nargument 2: größe\n"
            "argument 3: two words\nKESTREL_VERSION=<version>\n.*\nuser.dir=<install>\ngröße\n$",
            success);
  expectEnd("LC_ALL=C.UTF-8 exec $K process 😀", 0, "\n😀\n$", success);
  // No thread outlives it, no hook runs.
  expectEnd("NORVALED_DEBUG_PORT=0 exec $K leave", 0,
            "Listening for transport dt_socket at address: .*\nuser.dir=[^\n]*\n$", success);
  // The collectors that the switches choose accept what is left of the list.
  expectEnd("KESTREL_GC_FORCE_SERIAL_GC=1 KESTREL_GC_AGGRESSIVE_RECLAIM=0 exec $K status -1", 255,
            "", " operator() JVM main ended");
  expectEnd("KESTREL_GC_FORCE_PARALLEL_GC=1 KESTREL_AGGRESSIVE_OPTIMIZATIONS=0 exec $K throw", 108,
            "IllegalStateException: the sample was asked to throw", " application: 108");
  expectEnd("rm ${K%/*}/../lib/sample.jar; exec $K", 104, "NoClassDefFoundError",
            " application: 104");
}

TEST_F(RealJvm, RunsTheExampleOfTheDocument) {
  fs::remove(lib + "/sample.jar");
  setenv("DOCUMENT", PROJECT_FOLDER "/docs/application.md", 1);
  expectEnd(R"(cd $ROOT; sed -n '/^```java$/,/^```$/{//!p;}' "$DOCUMENT" >NativeLauncher.java
      ')" JAVAC R"(' -d ${K%/*}/../lib/example.jar NativeLauncher.java; exec $K one two)",
            3, "hello one two\n$", " jvm_exit JVM: exit( 3 )");
}

TEST_F(RealJvm, RecordsHowItEnds) {
  expectEnd("exec $K exit 300", 44, "", " jvm_exit JVM: exit( 300 )");
  // A first signal shows the threads' stacks and lets the application go on, a second ends it.
  expectEnd(R"((until grep -qs 'Full thread dump' $ROOT/logs/kestrel-native.log; do
        kill -0 $$ && sleep 0.1 || exit
      done; kill -TERM $$) & exec $K signal QUIT)",
            143, "\na hook ran\n", " jvm_exit JVM: exit( 143 )");
  expectEnd("$K exhaust; status=$?; ls $ROOT/logs; exit $status", 134,
            "fatal error: OutOfMemory encountered.*\nkestrel-error-[0-9]+.log\n"
            "kestrel-native.log\nkestrel-oom-[0-9]+.hprof\n$",
            " jvm_abort JVM: abort()");
  // The JVM reads the hooks after the user's options: what it says of those alone is not logged.
  expectEnd("NORVALED_JVM_ARGS=-XX:+NoSuchOption exec $K", 53,
            "Unrecognized VM option 'NoSuchOption'",
            "\n startJVM Error creating VM: code= -6 . Exiting...\n\n reportFatalAndExit Failed to "
            "start JVM");
  // What it says of all options together is, and it ends the process itself.
  expectEnd("NORVALED_JVM_ARGS=-XX:+UseSerialGC exec $K", 1, "", " jvm_abort JVM: abort()");
}

}  // namespace
