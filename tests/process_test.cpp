// Launches the launcher in a bundle with the scripted JVM: its log, the calls to the JVM, and how
// it exits.
#include <set>
#include <utility>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;

namespace {

using Launcher = BundleFixture;

TEST_F(Launcher, ExitsAsTheJavaEntryDecides) {
  const std::string calling = " operator() JVM calling main\n";
  const std::string called = calling + "> main [<install>/kestrel] [a  b] [] [größe]\n";
  const std::string ended = " operator() JVM main ended\n";
  const std::string fatal =
      ended + " reportFatalAndExit Failed to initialize Kestrel JVM application: <status>\n";
  const std::string notFound = " callMainMethod Failed to find  NativeLauncher  class\n";
  const std::string printed = "> printStackTrace\n> DeleteLocalRef\n> ExceptionClear\n";
  const std::string threw = " callMainMethod Method ' main ' failed with exception!\n";
  struct Case {
    std::string script;        // for the scripted JVM
    std::string whatHappened;  // the exit status comes first
    std::string records;       // after the JVM is created
  };
  const std::vector<Case> cases = {
      {"SCRIPT_status=0", "0 main returned 0",
       called + ended + " operator() JVM started successfully\n"},
      {"SCRIPT_status=1", "0 main returned 1",
       called + ended + " operator() JVM exit after startup is set, exiting\n"},
      {"SCRIPT_status=-1", "255 main returned a negative value", called + ended},
      {"SCRIPT_status=7", "7 main returned 7", called + fatal},
      {"SCRIPT_attach=-5", "103 attaching the thread failed",
       calling + " callMainMethod Failed to attach native thread to JVM\n" + fatal},
      {"SCRIPT_NativeLauncher=throws", "104 the entry class cannot be loaded",
       calling + notFound + printed +
           " callMainMethod Finding  NativeLauncher  class failed with exception!\n" + fatal},
      {"SCRIPT_NativeLauncher=missing", "105 the entry class cannot be loaded",
       calling + notFound + fatal},
      {"SCRIPT_main=throws", "106 the entry class has no such main",
       calling + " callMainMethod Failed to find method ' main ' on  NativeLauncher\n" + fatal},
      {"SCRIPT_status=2 SCRIPT_call=throws", "107 main could not start the application",
       called + " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n" +
           fatal},
      {"SCRIPT_call=throws", "108 main threw an exception", called + printed + threw + fatal},
      {"SCRIPT_call=throws SCRIPT_Throwable=missing", "108 main threw an exception",
       called + " checkFailureAndLog Failed to find Throwable class\n" + threw + fatal},
      {"SCRIPT_call=throws SCRIPT_printStackTrace=missing", "108 main threw an exception",
       called + " checkFailureAndLog Failed to find Throwable#printStackTrace class\n" + threw +
           fatal},
  };
  for (const auto& [script, outcome, records] : cases) {
    SCOPED_TRACE(script);
    const int status = std::stoi(outcome);
    const Process process = launch(script + " exec $LAUNCHER 'a  b' '' größe", exited(status));
    EXPECT_EQ(linesWith(process.log, "^ run"), " run Program arguments:  a  b  größe \n");
    EXPECT_TRUE(isSameText(since(calling, process.log),
                           replaced(records, "<status>", std::to_string(status))));
    EXPECT_EQ(whatHappened(), outcome);
  }
}

TEST_F(Launcher, ExitsWith53IfTheRuntimeCannotBeLoaded) {
  fs::remove(runtime + "/libjli.dylib");
  const Process process = launch("exec $LAUNCHER", exited(53));
  // Each system's loader words the reason in its own way, but names the file.
  const std::regex reason("( :  ).*/libjli.dylib.*");
  EXPECT_TRUE(isSameText(std::regex_replace(process.log, reason, "$1<reason>"),
                         R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
 resolveJNICreateFunction Cannot load  <install>/../jre/Contents/Home/lib/libjli.dylib :  <reason>
 startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)"));
  EXPECT_EQ(whatHappened().find("53 the runtime could not be loaded: "), 0) << whatHappened();
}

// The options stay allocated, and the exit handlers run.
TEST_F(Launcher, ExitsWith53IfTheJvmCannotBeCreated) {
  const std::string error = " startJVM Error creating VM: code= -4 . Exiting...\n";
  const std::string script = "LSAN_OPTIONS=detect_leaks=0 SCRIPT_create=-4 exec $LAUNCHER";
  EXPECT_TRUE(isSameText(since(error, launch(script, exited(53)).log), error + R"(
 reportFatalAndExit Failed to start JVM
> exit handler sees -Xmx160m
)"));
  EXPECT_EQ(whatHappened(), "53 the JVM could not be created: -4");
}

struct OptionsCase {
  std::string environment;
  std::set<std::string> conditions;  // those in docs/options.md that are met
  std::vector<std::pair<std::string, std::string>> replacements{};
  std::string inheritedPort{};  // what the JVM finds in NORVALED_DEBUG_PORT
  std::string records{};        // what the launcher logs about the port and the user's options
};

// The options that docs/options.md promises for a launch, in the form of the log.
std::string documentedOptions(const OptionsCase& launch) {
  const std::regex row(R"(\| ([^|]*`[^|]*) \|[^|]*\| ([^|]*?) ?\|)");
  std::string options = "\n\t";
  for (const std::string& line : linesOf(contentOf(PROJECT "/docs/options.md"))) {
    std::smatch cells;
    if (!std::regex_match(line, cells, row)) continue;
    if (cells[2] != "" && !launch.conditions.contains(cells[2])) continue;
    std::string option = replaced(cells[1], "`", "");
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
  outputOf(
      "cd $ROOT; ln -s socket link; "
      "perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => \"socket\", Listen => 1)'");
  std::string jars;
  for (const fs::directory_entry& entry : fs::directory_iterator(lib)) {  // in its own order
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) jars += (jars.empty() ? "" : ":") + ("<install>/../lib/" + name);
  }
  const std::vector<OptionsCase> cases = {
      {.environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS= KESTREL_GC_FORCE_SERIAL_GC= "
                      "KESTREL_GC_FORCE_PARALLEL_GC= KESTREL_GC_AGGRESSIVE_RECLAIM= TMPDIR= "
                      "KESTREL_GC_MAX_PAUSE_MILLIS= NORVALED_DEBUG_PORT= NORVALED_JVM_ARGS=",
       .conditions = {"optimizations", "G1", "G1 with optimizations", "reclaim"},
       .replacements = {{"MaxGCPauseMillis=100", "MaxGCPauseMillis="}}},
      {.environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS=0ff KESTREL_GC_AGGRESSIVE_RECLAIM=0abc "
                      "KESTREL_GC_MAX_PAUSE_MILLIS=abc TMPDIR=$LAUNCHER",  // which is a file
       .conditions = {"G1"},
       .replacements = {{"MaxGCPauseMillis=100", "MaxGCPauseMillis=abc"}}},
      {.environment = "KESTREL_GC_FORCE_SERIAL_GC=10 KESTREL_GC_FORCE_PARALLEL_GC=1 "
                      "TMPDIR=$ROOT/link",  // to a socket, which counts as a directory
       .conditions = {"optimizations", "serial", "reclaim", "temporary directory"},
       .replacements = {{"<TMPDIR>", root + "/link"}}},
      {.environment = "KESTREL_GC_FORCE_SERIAL_GC=0 KESTREL_GC_FORCE_PARALLEL_GC=10 "
                      "TMPDIR=$ROOT/missing "
                      "NORVALED_DEBUG_PORT=99999999999",  // more than an int can hold
       .conditions = {"debugger", "optimizations", "parallel", "reclaim"},
       .replacements = {{"<y or n>", "n"}, {"<port>", "0"}},
       .inheritedPort = "99999999999",
       .records = " startJVM Enabling JDWP with suspend=n on any available port\n"},
      {.environment = "NORVALED_DEBUG_PORT=-5x TMPDIR=$ROOT/ "
                      "NORVALED_JVM_ARGS=' -Db=2\t-Xms64m \v\f\r'",
       .conditions = {"debugger", "own options", "optimizations", "G1", "G1 with optimizations",
                      "reclaim", "temporary directory"},
       .replacements = {{"<y or n>", "y"},
                        {"<port>", "-5"},
                        {"each word of NORVALED_JVM_ARGS", "-Db=2\n\t-Xms64m"},
                        {"<TMPDIR>", root + "/"}},
       .inheritedPort = "0",
       .records = " startJVM Enabling JDWP with suspend=y on port  -5\n startJVM Adding JVM args "
                  "from NORVALED_JVM_ARGS:   -Db=2\t-Xms64m \v\f\r\n"},
  };
  for (const OptionsCase& expected : cases) {
    SCOPED_TRACE(expected.environment);
    const Process process = launch("unset KESTREL_AGGRESSIVE_OPTIMIZATIONS; " +
                                   expected.environment + " exec $LAUNCHER");
    const std::string options = replaced(documentedOptions(expected), "<jars>", jars);
    const std::string start = R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
)";
    const std::string created = R"(
 startJVM Java Virtual Machine is created!
 operator() JVM calling main
> main [<install>/kestrel]
 operator() JVM main ended
 operator() JVM started successfully
)";
    ASSERT_TRUE(isSameText(
        process.log,
        start + expected.records + " startJVM Using class path:  " + replaced(jars, ":", "\n") +
            "\n startJVM JVM Args: " + options +
            "\n startJVM Starting JVM\n> NORVALED_DEBUG_PORT=" + expected.inheritedPort +
            "\n> session leader 1\n> JVM a0000, lenient 0" + options + created));
  }
}

TEST_F(Launcher, FindsItsFilesByThePathItIsStartedBy) {
  fs::remove(runtime + "/libjli.dylib");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"cd $BIN/..; KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE= exec MacOS/kestrel", "MacOS"},
      {"cd $BIN; PATH=. exec kestrel", ""},
      {"KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $LAUNCHER", "none"},  // not checked
  };
  for (const auto& [script, directory] : cases) {
    EXPECT_EQ(linesWith(launch(script, exited(53)).log, "Loading"),
              " resolveJNICreateFunction Loading JLI library from " + directory +
                  "/../jre/Contents/Home/lib/libjli.dylib\n");
  }
}

TEST_F(Launcher, RecordsThatTheJarsDirectoryIsMissing) {
  fs::remove(lib);
  EXPECT_TRUE(isSameText(linesWith(launch("exec $LAUNCHER").log, "collectJars|Using class path"),
                         R"( collectJars Directory  <install>/../lib/  is missing or not accessible
 startJVM Using class path:  
)"));
}

TEST_F(Launcher, LogsWhereTheEnvironmentSays) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/new/deep TEST_TMPDIR=$ROOT/other", "new/deep"},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/at//its/end/", "at/its/end"},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$ROOT/link", "target"},
      {"TEST_TMPDIR=$ROOT/other HOME=$ROOT", "other/nativeLogs"},
      {"HOME=$ROOT/home", "home/Library/Logs/Norvale/Kestrel-Dev"},
      {"", ""},  // no directory can be used, and so on
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE= TEST_TMPDIR=$ROOT/other", ""},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=target", ""},  // relative
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$LAUNCHER", ""},
  };
  unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
  setenv("SCRIPT_CALLS", "/dev/null", 1);
  outputOf("cd $ROOT; mkdir target; ln -s target link");
  for (const auto& [environment, directory] : cases) {
    SCOPED_TRACE(environment);
    const Process process = launch("cd $ROOT; umask 0; " + environment + " exec $LAUNCHER",
                                   exited(directory.empty() ? 1 : 0));
    EXPECT_EQ(process.output, "");
    EXPECT_EQ(outputOf("cd $ROOT; find * -name kestrel-native.log -exec rm {} ';' -print"),
              directory.empty() ? "" : directory + "/kestrel-native.log\n");
  }
  EXPECT_EQ(fs::status(root + "/new").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(root + "/new/deep").permissions(), fs::perms::owner_all);
}

TEST_F(Launcher, ReadsOnlyVariablesThatTheReadmeNames) {
  EXPECT_EQ(outputOf(R"sh(cd "$PROJECT"
      cat launcher/*.cpp java_entry/*.cpp jvm/*.cpp logging/*.cpp platform/*.cpp |
        sed -n 's/.*getenv("\([A-Z_]*\)").*/\1/p' >$ROOT/variables
      grep -q TMPDIR $ROOT/variables || echo 'no variables found'
      while read -r name; do grep -q "\`$name\`" README.md || echo "$name"; done <$ROOT/variables)sh"),
            "");
}

}  // namespace
