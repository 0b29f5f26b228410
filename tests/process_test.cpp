// Launches the launcher in a bundle with the scripted JVM: its log, the calls to the JVM, and how
// it exits.
#include <utility>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith, testing::StartsWith;

namespace {

using Launcher = BundleFixture;

// The end of a log, or all of it if main was not called.
std::string sinceCallingMain(const std::string& log) {
  const std::size_t begin = log.find(" operator() JVM calling main");
  return begin == std::string::npos ? log : log.substr(begin);
}

TEST_F(Launcher, ExitsAsTheJavaEntryDecides) {
  const std::string foundClass = R"( operator() JVM calling main
> AttachCurrentThread
> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
)";
  const std::string calledMain = foundClass + R"(> GetStaticMethodID(main([Ljava/lang/String;)V)
> FindClass(java/lang/String)
> CallStaticIntMethod [<install>/kestrel] [a  b] [] [größe]
)";
  const std::string returned = calledMain + R"(> ExceptionOccurred
 operator() JVM main ended
)";
  const std::string printedException = R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
> CallVoidMethod
> DeleteLocalRef
> ExceptionClear
)";
  const auto reported = [](int status) {
    return " operator() JVM main ended\n"
           " reportFatalAndExit Failed to initialize Kestrel JVM application: " +
           std::to_string(status) + "\n";
  };
  struct Case {
    std::string script;  // for the scripted JVM
    int status;
    std::string whatHappened;
    std::string log;  // after the JVM is created
  };
  const std::vector<Case> cases = {
      {"SCRIPT_status=0", 0, "main returned 0",
       returned + " operator() JVM started successfully\n"},
      {"SCRIPT_status=1", 0, "main returned 1",
       returned + " operator() JVM exit after startup is set, exiting\n"},
      {"SCRIPT_status=-1", 255, "main returned a negative value", returned},
      {"SCRIPT_status=7", 7, "main returned 7", calledMain + "> ExceptionOccurred\n" + reported(7)},
      {"SCRIPT_attach=-5", 103, "attaching the thread failed", R"( operator() JVM calling main
> AttachCurrentThread
 callMainMethod Failed to attach native thread to JVM
)" + reported(103)},
      {"SCRIPT_NativeLauncher=throws", 104, "the entry class cannot be loaded",
       foundClass + " callMainMethod Failed to find  NativeLauncher  class\n" + printedException +
           " callMainMethod Finding  NativeLauncher  class failed with exception!\n" +
           reported(104)},
      {"SCRIPT_NativeLauncher=missing", 105, "the entry class cannot be loaded",
       foundClass + R"( callMainMethod Failed to find  NativeLauncher  class
> ExceptionOccurred
)" + reported(105)},
      {"SCRIPT_main=throws", 106, "the entry class has no such main",
       foundClass + R"(> GetStaticMethodID(main([Ljava/lang/String;)V)
 callMainMethod Failed to find method ' main ' on  NativeLauncher
)" + reported(106)},
      {"SCRIPT_status=2 SCRIPT_call=throws", 107, "main could not start the application",
       calledMain + " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n" +
           reported(107)},
      {"SCRIPT_call=throws", 108, "main threw an exception",
       calledMain + printedException + " callMainMethod Method ' main ' failed with exception!\n" +
           reported(108)},
      {"SCRIPT_call=throws SCRIPT_Throwable=missing", 108, "main threw an exception",
       calledMain + R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
 checkFailureAndLog Failed to find Throwable class
 callMainMethod Method ' main ' failed with exception!
)" + reported(108)},
      {"SCRIPT_call=throws SCRIPT_printStackTrace=missing", 108, "main threw an exception",
       calledMain + R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
 checkFailureAndLog Failed to find Throwable#printStackTrace class
 callMainMethod Method ' main ' failed with exception!
)" + reported(108)},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.script);
    const Process process = launch(expected.script + " exec $LAUNCHER 'a  b' '' größe");
    ASSERT_EQ(process.ending, exited(expected.status)) << process;
    EXPECT_THAT(process.log, StartsWith(" run Program arguments:  a  b  größe \n"));
    EXPECT_TRUE(isSameText(sinceCallingMain(process.log), expected.log));
    EXPECT_EQ(whatHappened(), std::to_string(expected.status) + " " + expected.whatHappened);
  }
}

TEST_F(Launcher, ExitsWith53IfTheRuntimeCannotBeLoaded) {
  fs::remove(runtime + "/libjli.dylib");
  const Process process = launch("exec $LAUNCHER");
  EXPECT_EQ(process.ending, exited(53)) << process;
  // Each system's loader words the reason in its own way, but names the file.
  const std::regex reason("( :  ).*/libjli.dylib.*");
  EXPECT_EQ(std::regex_replace(process.log, reason, "$1<reason>"), R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
 resolveJNICreateFunction Cannot load  <install>/../jre/Contents/Home/lib/libjli.dylib :  <reason>
 startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)");
  EXPECT_THAT(whatHappened(), StartsWith("53 the runtime could not be loaded: "));
}

TEST_F(Launcher, ExitsWith53IfTheJvmCannotBeCreated) {
  const Process process = launch("SCRIPT_create=-4 exec $LAUNCHER");
  EXPECT_EQ(process.ending, exited(53)) << process;
  EXPECT_THAT(process.log, EndsWith(R"(
 startJVM Error creating VM: code= -4 . Exiting...

 reportFatalAndExit Failed to start JVM
)"));
  EXPECT_EQ(whatHappened(), "53 the JVM could not be created: -4");
}

struct OptionsCase {
  std::string environment;
  // A regular expression: rows of docs/options.md whose last column matches it are not passed.
  std::string notPassed = "only if";
  std::vector<std::pair<std::string, std::string>> replacements{};
  std::string inheritedPort{};  // what the JVM finds in NORVALED_DEBUG_PORT
  std::string records{};        // what the launcher logs about the port and the user's options
};

// The options that docs/options.md promises for a launch, in the form of the log.
std::string documentedOptions(const OptionsCase& launch) {
  const std::regex row(R"(\| ([^|]*`[^|]*) \|[^|]*\|([^|]*)\|)");
  std::string options = "\n\t";
  for (const std::string& line : linesOf(contentOf(PROJECT "/docs/options.md"))) {
    std::smatch cells;
    if (!std::regex_match(line, cells, row)) continue;
    std::string option = replaced(cells[1], "`", "");
    const std::string condition = cells[2];
    if (std::regex_search(condition, std::regex(launch.notPassed))) continue;
    for (const auto& [from, to] : launch.replacements) option = replaced(option, from, to);
    options += replaced(option, "<size>", "384") + "\n\t";
  }
  return options;
}

TEST_F(Launcher, PassesTheDocumentedOptions) {
  for (const std::string name : {"b.jar", "a.jar", "ajar", "A.JAR", ".jar"}) {
    std::ofstream(lib + "/" + name).close();
  }
  fs::create_directory(lib + "/folder.jar");
  fs::create_symlink(root, root + "/link");
  std::string jars;
  for (const fs::directory_entry& entry : fs::directory_iterator(lib)) {  // in its own order
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) jars += (jars.empty() ? "" : ":") + ("<install>/../lib/" + name);
  }
  const std::vector<OptionsCase> cases = {
      {.environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS= KESTREL_GC_FORCE_SERIAL_GC= "
                      "KESTREL_GC_FORCE_PARALLEL_GC= KESTREL_GC_AGGRESSIVE_RECLAIM= TMPDIR= "
                      "KESTREL_GC_MAX_PAUSE_MILLIS= NORVALED_DEBUG_PORT= NORVALED_JVM_ARGS=",
       .replacements = {{"MaxGCPauseMillis=100", "MaxGCPauseMillis="}}},
      {.environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS=0ff KESTREL_GC_AGGRESSIVE_RECLAIM=0abc "
                      "KESTREL_GC_MAX_PAUSE_MILLIS=abc TMPDIR=$LAUNCHER",  // which is a file
       .notPassed =
           "only if|not passed if `KESTREL_(AGGRESSIVE_OPTIMIZATIONS|GC_AGGRESSIVE_RECLAIM)",
       .replacements = {{"MaxGCPauseMillis=100", "MaxGCPauseMillis=abc"}}},
      {.environment = "KESTREL_GC_FORCE_SERIAL_GC=10 KESTREL_GC_FORCE_PARALLEL_GC=1 "
                      "TMPDIR=$ROOT/link/",
       .notPassed = "only if `NORVALED|not passed if `KESTREL_GC_FORCE_SERIAL_GC=1`|G1 only",
       .replacements = {{"UseG1GC", "UseSerialGC"}, {"<TMPDIR>", root + "/link/"}}},
      {.environment = "KESTREL_GC_FORCE_SERIAL_GC=0 KESTREL_GC_FORCE_PARALLEL_GC=10 "
                      "TMPDIR=$ROOT/missing",
       .notPassed = "only if|G1 only",
       .replacements = {{"UseG1GC", "UseParallelGC"}}},
      {.environment = "NORVALED_DEBUG_PORT=99999999999",  // more than an int can hold
       .notPassed = "only if `(NORVALED_JVM_ARGS|TMPDIR)",
       .replacements = {{"<y or n>", "n"}, {"<port>", "0"}},
       .inheritedPort = "99999999999",
       .records = " startJVM Enabling JDWP with suspend=n on any available port\n"},
      {.environment = "NORVALED_DEBUG_PORT=-5x NORVALED_JVM_ARGS=' -Db=2\t-Xms64m \v\f\r'",
       .notPassed = "only if `TMPDIR",
       .replacements = {{"<y or n>", "y"},
                        {"<port>", "-5"},
                        {"each word of NORVALED_JVM_ARGS", "-Db=2\n\t-Xms64m"}},
       .inheritedPort = "0",
       .records = " startJVM Enabling JDWP with suspend=y on port  -5\n startJVM Adding JVM args "
                  "from NORVALED_JVM_ARGS:   -Db=2\t-Xms64m \v\f\r\n"},
  };
  for (const OptionsCase& expected : cases) {
    SCOPED_TRACE(expected.environment);
    const Process process = launch("unset KESTREL_AGGRESSIVE_OPTIMIZATIONS; " +
                                   expected.environment + " exec $LAUNCHER");
    ASSERT_EQ(process.ending, exited(0)) << process;
    const std::string options = replaced(documentedOptions(expected), "<jars>", jars);
    const std::string untilCreated =
        R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
)" + expected.records +
        " startJVM Using class path:  " + replaced(jars, ":", "\n") +
        "\n startJVM JVM Args: " + options +
        "\n startJVM Starting JVM"
        "\n> NORVALED_DEBUG_PORT=" +
        expected.inheritedPort + "\n> CreateJavaVM" + options +
        "\n startJVM Java Virtual Machine is created!\n";
    const std::size_t callingMain = process.log.find(" operator() JVM calling main");
    ASSERT_TRUE(isSameText(process.log.substr(0, callingMain), untilCreated));
  }
}

TEST_F(Launcher, FindsItsFilesByThePathItIsStartedBy) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"cd $BIN/..; KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE= exec MacOS/kestrel", "MacOS"},
      {"cd $BIN; PATH=. exec kestrel", ""},
      {"KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $LAUNCHER", "none"},  // not checked
  };
  for (const auto& [script, directory] : cases) {
    EXPECT_EQ(linesWith(launch(script).log, "Loading"),
              " resolveJNICreateFunction Loading JLI library from " + directory +
                  "/../jre/Contents/Home/lib/libjli.dylib\n")
        << script;
  }
}

TEST_F(Launcher, RecordsThatTheJarsDirectoryIsMissing) {
  fs::remove(lib);
  const Process process = launch("exec $LAUNCHER");
  EXPECT_EQ(process.ending, exited(0)) << process;
  EXPECT_EQ(linesWith(process.log, "collectJars|Using class path"),
            R"( collectJars Directory  <install>/../lib/  is missing or not accessible
 startJVM Using class path:  
)");
}

TEST_F(Launcher, LogsWhereTheEnvironmentSays) {
  struct Case {
    std::string environment;
    std::string directory;  // empty if none can be used
  };
  const std::vector<Case> cases = {
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/new/deep TEST_TMPDIR=$ROOT/other", "new/deep"},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/at//its/end/", "at/its/end"},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/link", "target"},
      {"TEST_TMPDIR=$ROOT/other HOME=$ROOT", "other/nativeLogs"},
      {"HOME=$ROOT/home", "home/Library/Logs/Norvale/Kestrel-Dev"},
      {"", ""},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE= TEST_TMPDIR=$ROOT/other", ""},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=target", ""},  // relative
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$LAUNCHER", ""},
  };
  unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
  setenv("SCRIPT_CALLS", "/dev/null", 1);
  outputOf("cd $ROOT; mkdir target; ln -s target link");
  for (const auto& [environment, directory] : cases) {
    SCOPED_TRACE(environment);
    const Process process = launch("cd $ROOT; " + environment + " exec $LAUNCHER");
    ASSERT_EQ(process.ending, exited(directory.empty() ? 1 : 0)) << process;
    EXPECT_EQ(process.output, "");
    EXPECT_EQ(outputOf("cd $ROOT; find * -name kestrel-native.log -exec rm {} ';' -print"),
              directory.empty() ? "" : directory + "/kestrel-native.log\n");
  }
}

TEST_F(Launcher, MakesLogDirectoriesForTheOwnerAlone) {
  launch("umask 0; KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/new/deep exec $LAUNCHER");
  EXPECT_EQ(fs::status(root + "/new").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(root + "/new/deep").permissions(), fs::perms::owner_all);
}

// a0000 is JNI_VERSION_10.
TEST_F(Launcher, CreatesAStrictJvm10InItsOwnSession) {
  EXPECT_EQ(linesWith(launch("SCRIPT_inspect=1 exec $LAUNCHER").log,
                      "^> (version|ignoreUnrecognized|session|options)"),
            R"(> version a0000
> ignoreUnrecognized 0
> session leader 1
> options with extraInfo vfprintf exit abort
)");
}

TEST_F(Launcher, ReadsOnlyVariablesThatTheReadmeNames) {
  EXPECT_EQ(outputOf(R"sh(cd "$PROJECT"
      cat launcher/*.cpp java_entry/*.cpp jvm/*.cpp logging/*.cpp platform/*.cpp |
        sed -n 's/.*getenv("\([A-Z_]*\)").*/\1/p' >$ROOT/variables
      grep -q TMPDIR $ROOT/variables || echo 'no variables found'
      while read -r name; do grep -q "\`$name\`" README.md || echo "$name"; done <$ROOT/variables)sh"),
            "");
}

TEST_F(Launcher, ExitsOnlyWithStatusesThatTroubleshootingNames) {
  EXPECT_EQ(outputOf(R"sh(cd "$PROJECT"
      sed -n '/^enum Failure/,/}/s/.* = \([0-9]*\),/\1/p' java_entry/KestrelJVMApp.cpp >$ROOT/statuses
      grep -q 103 $ROOT/statuses || echo 'no statuses found'
      while read -r status; do
        grep -q "^- Status: .*$status" docs/troubleshooting.md || echo "$status"
      done <$ROOT/statuses)sh"),
            "");
}

}  // namespace
