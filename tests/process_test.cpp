// Launches the launcher in a bundle with the scripted JVM: its log, the calls to the JVM, and how
// it exits.
#include <algorithm>
#include <map>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::HasSubstr, testing::StartsWith;

namespace {

using Launcher = BundleFixture;

// The end of `text` that begins with `words`, or all of it if they are not there.
std::string from(const std::string& words, const std::string& text) {
  const std::size_t begin = text.find(words);
  return begin == std::string::npos ? text : text.substr(begin);
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
  const std::string printedException = R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
> CallVoidMethod
> DeleteLocalRef
> ExceptionClear
)";
  struct Case {
    std::string script;  // for the scripted JVM
    int status;
    std::string whatHappened;
    std::string log;  // from the JVM's creation on
  };
  const std::vector<Case> cases = {
      {"SCRIPT_status=0", 0, "main returned 0", calledMain + R"(> ExceptionOccurred
 operator() JVM main ended
 operator() JVM started successfully
)"},
      {"SCRIPT_status=1", 0, "main returned 1", calledMain + R"(> ExceptionOccurred
 operator() JVM main ended
 operator() JVM exit after startup is set, exiting
)"},
      {"SCRIPT_status=-1", 255, "main returned a negative value",
       calledMain + R"(> ExceptionOccurred
 operator() JVM main ended
)"},
      {"SCRIPT_status=7", 7, "main returned 7", calledMain + R"(> ExceptionOccurred
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 7
)"},
      {"SCRIPT_attach=-5", 103, "attaching the thread failed", R"( operator() JVM calling main
> AttachCurrentThread
 callMainMethod Failed to attach native thread to JVM
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 103
)"},
      {"SCRIPT_NativeLauncher=throws", 104, "the entry class cannot be loaded",
       foundClass + " callMainMethod Failed to find  NativeLauncher  class\n" + printedException +
           R"( callMainMethod Finding  NativeLauncher  class failed with exception!
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 104
)"},
      {"SCRIPT_NativeLauncher=missing", 105, "the entry class cannot be loaded",
       foundClass + R"( callMainMethod Failed to find  NativeLauncher  class
> ExceptionOccurred
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 105
)"},
      {"SCRIPT_main=throws", 106, "the entry class has no such main",
       foundClass + R"(> GetStaticMethodID(main([Ljava/lang/String;)V)
 callMainMethod Failed to find method ' main ' on  NativeLauncher
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 106
)"},
      {"SCRIPT_status=2 SCRIPT_call=throws", 107, "main could not start the application",
       calledMain + R"( callMainMethod Failed to invoke method ' main ' on the  NativeLauncher
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 107
)"},
      {"SCRIPT_call=throws", 108, "main threw an exception",
       calledMain + printedException +
           R"( callMainMethod Method ' main ' failed with exception!
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 108
)"},
      {"SCRIPT_call=throws SCRIPT_Throwable=missing", 108, "main threw an exception",
       calledMain + R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
 checkFailureAndLog Failed to find Throwable class
 callMainMethod Method ' main ' failed with exception!
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 108
)"},
      {"SCRIPT_call=throws SCRIPT_printStackTrace=missing", 108, "main threw an exception",
       calledMain + R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
 checkFailureAndLog Failed to find Throwable#printStackTrace class
 callMainMethod Method ' main ' failed with exception!
 operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: 108
)"},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.script);
    const Process process = launch(expected.script + " exec $LAUNCHER 'a  b' '' größe");
    EXPECT_EQ(process.ending, exited(expected.status)) << process;
    EXPECT_THAT(process.log, StartsWith(" run Program arguments:  a  b  größe \n"));
    EXPECT_EQ(from(" operator() JVM calling main", process.log), expected.log);
    EXPECT_EQ(whatHappened(process), std::to_string(expected.status) + " " + expected.whatHappened);
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
  EXPECT_THAT(whatHappened(process), StartsWith("53 the runtime could not be loaded: "));
}

TEST_F(Launcher, ExitsWith53IfTheRuntimeLibraryHasNoJvm) {
  fs::remove(runtime + "/libjli.dylib");
  fs::create_symlink(LIBRARY_WITHOUT_JVM, runtime + "/libjli.dylib");
  const Process process = launch("exec $LAUNCHER");
  EXPECT_EQ(process.ending, exited(53)) << process;
  EXPECT_EQ(process.log, R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
 startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)");
  EXPECT_EQ(whatHappened(process), "53 the runtime library has no JVM");
}

TEST_F(Launcher, ExitsWith53IfTheJvmCannotBeCreated) {
  const Process process = launch("SCRIPT_create=-4 exec $LAUNCHER");
  EXPECT_EQ(process.ending, exited(53)) << process;
  EXPECT_EQ(from(" startJVM Error", process.log),
            R"( startJVM Error creating VM: code= -4 . Exiting...

 reportFatalAndExit Failed to start JVM
)");
  EXPECT_EQ(whatHappened(process), "53 the JVM could not be created: -4");
}

TEST_F(Launcher, CreatesAStrictJvm10InASessionOfItsOwn) {
  EXPECT_EQ(linesWith(launch("SCRIPT_inspect=1 exec $LAUNCHER").log,
                      "^> (version|ignoreUnrecognized|session|options)"),
            R"(> version a0000
> ignoreUnrecognized 0
> session leader 1
> options with extraInfo vfprintf exit abort
)");
}

// How a launch differs from the default, as far as the options depend on it.
struct Settings {
  bool aggressiveOptimizations = true;
  bool aggressiveReclaim = true;
  std::string collector = "G1";
  std::string maxPauseMillis = "100";
  std::string suspend{};
  std::string port{};  // empty without a debugger
  std::string userOptions{};
  std::string temporaryDir{};
};

// The options that the first tables of docs/options.md promise for a launch, in the log's form.
std::string documentedOptions(const Settings& settings, const std::string& jars) {
  // Phrases of the third column, and whether they remove an option from this launch.
  const std::map<std::string, bool> conditions = {
      {"not passed if `KESTREL_AGGRESSIVE_OPTIMIZATIONS=0`", !settings.aggressiveOptimizations},
      {"not passed if `KESTREL_GC_AGGRESSIVE_RECLAIM=0`", !settings.aggressiveReclaim},
      {"not passed if `KESTREL_GC_FORCE_SERIAL_GC=1`", settings.collector == "Serial"},
      {"G1 only", settings.collector != "G1"},
      {"only if `NORVALED_DEBUG_PORT` is set", settings.port.empty()},
      {"only if `NORVALED_JVM_ARGS` is set", settings.userOptions.empty()},
      {"only if `TMPDIR` names a directory", settings.temporaryDir.empty()},
  };
  const std::map<std::string, std::string> replacements = {
      {"each word of NORVALED_JVM_ARGS", settings.userOptions},
      {"UseG1GC", "Use" + settings.collector + "GC"},
      {"MaxGCPauseMillis=100", "MaxGCPauseMillis=" + settings.maxPauseMillis},
      {"<y or n>", settings.suspend},
      {"<port>", settings.port},
      {"<jars>", jars},
      {"<size>", "384"},
      {"<TMPDIR>", settings.temporaryDir},
  };
  const std::regex row(R"(\| ([^|]*`[^|]*) \|[^|]*\|([^|]*)\|)");
  const std::string separator = "\n\t";
  std::string options = separator;
  for (const std::string& line : linesOf(contentOf(PROJECT "/docs/options.md"))) {
    if (line.starts_with("## ") && options != separator) break;
    std::smatch cells;
    if (!std::regex_match(line, cells, row)) continue;
    const bool isRemoved =
        std::any_of(conditions.begin(), conditions.end(), [&](const auto& condition) {
          return condition.second && cells.str(2).find(condition.first) != std::string::npos;
        });
    if (isRemoved) continue;
    std::string option = replaced(cells[1], "`", "");
    if (option == "-XX:+UseG1GC" && settings.collector != "G1") {
      EXPECT_THAT(cells[2], HasSubstr("`-XX:+Use" + settings.collector + "GC`"));
    }
    for (const auto& [from, to] : replacements) option = replaced(option, from, to);
    options += option + separator;
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

  struct Case {
    std::string name;
    std::string environment;
    Settings settings{};
    std::string records{};    // the launcher's own about this environment
    std::string portInJvm{};  // NORVALED_DEBUG_PORT as the JVM finds it
  };
  const std::vector<Case> cases = {
      {.name = "no value begins with the digit that turns its switch",
       .environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS=false KESTREL_GC_FORCE_SERIAL_GC=true "
                      "KESTREL_GC_FORCE_PARALLEL_GC=true KESTREL_GC_AGGRESSIVE_RECLAIM=no"},
      {.name = "empty values",
       .environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS= KESTREL_GC_FORCE_SERIAL_GC= "
                      "KESTREL_GC_FORCE_PARALLEL_GC= KESTREL_GC_AGGRESSIVE_RECLAIM= TMPDIR= "
                      "KESTREL_GC_MAX_PAUSE_MILLIS= NORVALED_DEBUG_PORT= NORVALED_JVM_ARGS=",
       .settings = {.maxPauseMillis = ""}},
      {.name = "switched off; a temporary directory that is none",
       .environment = "KESTREL_AGGRESSIVE_OPTIMIZATIONS=0ff KESTREL_GC_AGGRESSIVE_RECLAIM=0abc "
                      "KESTREL_GC_MAX_PAUSE_MILLIS=abc TMPDIR=$LAUNCHER",
       .settings = {.aggressiveOptimizations = false,
                    .aggressiveReclaim = false,
                    .maxPauseMillis = "abc"}},
      {.name = "both collectors: serial; a temporary directory behind a link",
       .environment = "KESTREL_GC_FORCE_SERIAL_GC=10 KESTREL_GC_FORCE_PARALLEL_GC=1 "
                      "TMPDIR=$ROOT/link/",
       .settings = {.collector = "Serial", .temporaryDir = root + "/link/"}},
      {.name = "the parallel collector; a temporary directory that is missing",
       .environment = "KESTREL_GC_FORCE_SERIAL_GC=0 KESTREL_GC_FORCE_PARALLEL_GC=10 "
                      "TMPDIR=$ROOT/missing",
       .settings = {.collector = "Parallel"}},
      {.name = "a port to wait on, and text after it",
       .environment = "NORVALED_DEBUG_PORT=5005x",
       .settings = {.suspend = "y", .port = "5005"},
       .records = " startJVM Enabling JDWP with suspend=y on port  5005\n",
       .portInJvm = "0"},
      {.name = "a port that no int can hold",
       .environment = "NORVALED_DEBUG_PORT=99999999999",
       .settings = {.suspend = "n", .port = "0"},
       .records = " startJVM Enabling JDWP with suspend=n on any available port\n",
       .portInJvm = "99999999999"},
      {.name = "a negative port, and options with every kind of white space",
       .environment = "NORVALED_DEBUG_PORT=-5 NORVALED_JVM_ARGS=' -Db=2\t-Xms64m \v\f\r'",
       .settings = {.suspend = "y", .port = "-5", .userOptions = "-Db=2\n\t-Xms64m"},
       .records = " startJVM Enabling JDWP with suspend=y on port  -5\n startJVM Adding JVM args "
                  "from NORVALED_JVM_ARGS:   -Db=2\t-Xms64m \v\f\r\n",
       .portInJvm = "0"},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.name + ": " + expected.environment);
    const Process process = launch("unset KESTREL_AGGRESSIVE_OPTIMIZATIONS; " +
                                   expected.environment + " exec $LAUNCHER");
    EXPECT_EQ(process.ending, exited(0)) << process;
    const std::string options = documentedOptions(expected.settings, jars);
    EXPECT_TRUE(isSameText(process.log,
                           " run Program arguments:  \n"
                           " resolveJNICreateFunction Loading JLI library from "
                           "<install>/../jre/Contents/Home/lib/libjli.dylib\n" +
                               expected.records + " startJVM Using class path:  " +
                               replaced(jars, ":", "\n") + "\n startJVM JVM Args: " + options +
                               "\n startJVM Starting JVM\n> NORVALED_DEBUG_PORT=" +
                               expected.portInJvm + "\n> CreateJavaVM" + options +
                               R"(
 startJVM Java Virtual Machine is created!
 operator() JVM calling main
> AttachCurrentThread
> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
> GetStaticMethodID(main([Ljava/lang/String;)V)
> FindClass(java/lang/String)
> CallStaticIntMethod [<install>/kestrel]
> ExceptionOccurred
 operator() JVM main ended
 operator() JVM started successfully
)"));
  }
}

TEST_F(Launcher, FindsItsFilesNextToARelativePath) {
  const Process process =
      launch("cd $BIN/..; KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE= exec MacOS/kestrel");
  EXPECT_EQ(linesWith(process.log, "Loading|class path|Call"), R"(
 resolveJNICreateFunction Loading JLI library from MacOS/../jre/Contents/Home/lib/libjli.dylib
 startJVM Using class path:  
> CallStaticIntMethod [MacOS/kestrel]
)" + 1);
  EXPECT_THAT(process.log, HasSubstr("\n\t-Duser.dir=MacOS\n"));
}

TEST_F(Launcher, LooksUnderTheRootIfStartedByABareName) {
  EXPECT_EQ(linesWith(launch("cd $BIN; PATH=. exec kestrel").log, "Loading"),
            " resolveJNICreateFunction Loading JLI library from "
            "/../jre/Contents/Home/lib/libjli.dylib\n");
}

TEST_F(Launcher, TakesAnInstallDirectoryWithoutACheck) {
  const Process process = launch("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $LAUNCHER");
  EXPECT_EQ(linesWith(process.log, "Loading"),
            " resolveJNICreateFunction Loading JLI library from "
            "none/../jre/Contents/Home/lib/libjli.dylib\n");
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
    EXPECT_EQ(process.ending, exited(directory.empty() ? 1 : 0)) << process;
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

}  // namespace
