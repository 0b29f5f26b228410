// Starts of the launcher: command line, environment and bundle in; the log, the JVM's calls, output
// and exit status out.
#include <algorithm>
#include <vector>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::Not, testing::StartsWith;

namespace {

struct Launcher : BundleFixture {};

// From the first `words` on.
std::string from(const std::string& text, const std::string& words) {
  const std::size_t begin = text.find(words);
  return begin == std::string::npos ? text : text.substr(begin);
}

// Up to the end of the first `words`.
std::string upTo(const std::string& text, const std::string& words) {
  const std::size_t begin = text.find(words);
  return begin == std::string::npos ? text : text.substr(0, begin + words.size());
}

TEST_F(Launcher, EndsAsTheJavaEntryDoes) {
  const std::string success = R"( operator() JVM calling main
> AttachCurrentThread
> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
> GetStaticMethodID(main([Ljava/lang/String;)V)
> FindClass(java/lang/String)
> NewObjectArray(2)
> NewStringUTF(<install>/kestrel)
> SetObjectArrayElement(0)
> NewStringUTF(two words)
> SetObjectArrayElement(1)
> CallStaticIntMethod
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
  const std::string classMissing = " callMainMethod Failed to find  NativeLauncher  class\n";
  const std::string mainThrew = " callMainMethod Method ' main ' failed with exception!\n";
  struct Row {
    std::string script;
    int status;
    std::string lastAsInSuccess;  // the last line that is the same
    std::string then;
  };
  const std::vector<Row> rows = {
      {"status=0", 0, "started successfully\n", ""},
      {"status=1", 0, "main ended\n", " operator() JVM exit after startup is set, exiting\n"},
      {"status=-1", 255, "main ended\n", ""},
      {"status=7", 7, "ExceptionOccurred\n", ""},
      {"attach=-5", 103, "AttachCurrentThread\n",
       " callMainMethod Failed to attach native thread to JVM\n"},
      {"NativeLauncher=throws", 104, "/NativeLauncher)\n",
       classMissing + printing +
           " callMainMethod Finding  NativeLauncher  class failed with exception!\n"},
      {"NativeLauncher=missing", 105, "/NativeLauncher)\n", classMissing + "> ExceptionOccurred\n"},
      {"main=throws", 106, ")V)\n",
       " callMainMethod Failed to find method ' main ' on  NativeLauncher\n"},
      {"status=2 call=throws", 107, "CallStaticIntMethod\n",
       " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n"},
      {"call=throws", 108, "CallStaticIntMethod\n", printing + mainThrew},
      {"call=throws Throwable=missing", 108, "CallStaticIntMethod\n",
       upTo(printing, "Throwable)\n") + " checkFailureAndLog Failed to find Throwable class\n" +
           mainThrew},
      {"call=throws printStackTrace=missing", 108, "CallStaticIntMethod\n",
       upTo(printing, ")V)\n") +
           " checkFailureAndLog Failed to find Throwable#printStackTrace class\n" + mainThrew},
  };
  for (const Row& row : rows) {
    std::string expected = upTo(success, row.lastAsInSuccess) + row.then;
    if (row.status >= 2 && row.status != 255) {
      expected += R"( operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: )" +
                  std::to_string(row.status) + "\n";
    }
    const Start ended = start("SCRIPTED_JVM='" + row.script + "' exec $K 'two words'", row.status);
    EXPECT_EQ(from(ended.log, " operator() JVM calling main"), expected) << row.script;
  }
}

TEST_F(Launcher, EndsWith53WithoutJvm) {
  const std::string begin =
      " run Program arguments:  \n"
      R"( resolveJNICreateFunction Loading JLI )"
      R"(library from <install>/../jre/Contents/Home/lib/libjli.dylib
)";
  const std::string noFunction = R"( startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)";
  EXPECT_THAT(start("SCRIPTED_JVM=create=-1 exec $K", 53).log,
              EndsWith(R"( startJVM Error creating VM: code= -1 . Exiting...

 reportFatalAndExit Failed to start JVM
)"));
  fs::remove(runtime + "/libjli.dylib");
  const std::string path = "<install>/../jre/Contents/Home/lib/libjli.dylib";
  EXPECT_THAT(
      start("exec $K", 53).log,
      AllOf(StartsWith(begin + " resolveJNICreateFunction Cannot load  " + path + " :  " + path),
            EndsWith("\n" + noFunction)));
  fs::create_symlink(LIBRARY_WITHOUT_JVM, runtime + "/libjli.dylib");
  EXPECT_EQ(start("exec $K", 53).log, begin + noFunction);
}

const char* const OPTIONS_DOCUMENT = PROJECT_FOLDER "/docs/options.md";

// The options of the document's table, in its order, without the rows in which `gone` is found.
std::vector<std::string> documentedOptions(const std::string& gone) {
  std::ifstream document(OPTIONS_DOCUMENT);
  std::vector<std::string> options;
  std::string row;
  while (std::getline(document, row) && !row.starts_with("| option |")) continue;
  while (std::getline(document, row) && row.starts_with("|")) {
    const bool isOption = row.starts_with("| `") && !std::regex_search(row, std::regex(gone));
    if (isOption) options.push_back(row.substr(3, row.find('`', 3) - 3));
  }
  return options;
}

TEST_F(Launcher, GivesTheJvmItsDocumentedOptions) {
  std::ofstream(lib + "/app.jar").close();
  fs::create_directory_symlink(root, root + "/link");
  struct Row {
    std::string environment;
    std::string gone;
    std::string option;  // in the table
    std::string changed;
  };
  const std::string optimize = "KESTREL_AGGRESSIVE_OPTIMIZATIONS=";
  const std::string reclaim = "KESTREL_GC_AGGRESSIVE_RECLAIM=";
  const std::string serial = "KESTREL_GC_FORCE_SERIAL_GC=";
  const std::string parallel = "KESTREL_GC_FORCE_PARALLEL_GC=";
  const std::string goneWith = "gone with `";
  const std::string pause = "KESTREL_GC_MAX_PAUSE_MILLIS=";
  const std::vector<Row> rows = {
      {optimize + "false " + serial + " " + parallel + "true " + reclaim, "", "G1", "G1"},
      {optimize + " " + serial + "true " + parallel + " " + reclaim + "no " + pause + "abc", "",
       "Millis=100", "Millis=abc"},
      {optimize + "0ff " + reclaim + "0abc " + pause,
       "|" + goneWith + "(" + optimize + "|" + reclaim + ")", "Millis=100", "Millis="},
      {serial + "10 " + parallel + "1", "|G1 only|" + goneWith + serial, "G1", "Serial"},
      {serial + "0 " + parallel + "10", "|G1 only", "G1", "Parallel"},
      {serial + "1 " + optimize + "0", "|G1 only|" + goneWith + "(" + optimize + "|" + serial + ")",
       "G1", "Serial"},
      {"TMPDIR=$ROOT/link/", "", "<TMPDIR>", "<root>/link/"},
      {"TMPDIR=$ROOT/missing", "", "G1", "G1"},
  };
  for (const Row& row : rows) {
    std::string listed;
    std::string given;
    for (std::string option : documentedOptions("only with `NORVALED" + row.gone)) {
      option = replaced(option, row.option, row.changed);
      if (option.ends_with("<TMPDIR>")) continue;  // it is not set, or names no directory
      option = replaced(replaced(option, "<jars>", "<install>/../lib/app.jar"), "<size>", "384");
      listed += "\n\t" + option;
      given += (option.starts_with("-") ? "> option " : "> hook ") + option + "\n";
    }
    const std::string expected =
        " run Program arguments:  \n"
        R"( resolveJNICreateFunction Loading JLI library from )"
        R"(<install>/../jre/Contents/Home/lib/libjli.dylib
 startJVM Using class path:  <install>/../lib/app.jar
 startJVM JVM Args: )" +
        listed + "\n\t" + R"(
 startJVM Starting JVM
> CreateJavaVM
)" + given +
        " startJVM Java Virtual Machine is created!\n";
    const Start started =
        start("unset " + replaced(optimize, "=", "; ") + row.environment + " exec $K");
    EXPECT_EQ(upTo(started.log, "is created!\n"), expected)
        << "the JVM's options differ from " << OPTIONS_DOCUMENT << " with " << row.environment;
  }
}

TEST_F(Launcher, PutsTheUsersOptionsFirst) {
  const std::string agent = "> option -agentlib:jdwp=transport=dt_socket,server=y,suspend=";
  const std::string enabling = " startJVM Enabling JDWP with suspend=";
  struct Row {
    std::string port;
    std::string portAfterwards;
    std::string record;
    std::string option;
  };
  const std::string anyRecord = enabling + "n on any available port\n";
  const std::string anyOption = agent + "n,address=*:0\n";
  const std::vector<Row> rows = {
      {"5005x", "0", enabling + "y on port  5005\n", agent + "y,address=*:5005\n"},
      {"-5", "0", enabling + "y on port  -5\n", agent + "y,address=*:-5\n"},
      {"0", "0", anyRecord, anyOption},
      {" ", " ", anyRecord, anyOption},
      {"99999999999", "99999999999", anyRecord, anyOption},
      {"", "", "", ""},
  };
  for (const Row& row : rows) {
    const Start started = start(
        "SCRIPTED_JVM_MAIN='echo \"$NORVALED_DEBUG_PORT.\"' "
        "NORVALED_JVM_ARGS= NORVALED_DEBUG_PORT='" +
        row.port + "' exec $K");
    EXPECT_EQ(started.output, row.portAfterwards + ".\n") << row.port;
    EXPECT_THAT(started.log,
                HasSubstr("libjli.dylib\n" + row.record + " startJVM Using class path:"));
    EXPECT_THAT(started.log,
                HasSubstr("\n> option -Xmx160m\n" + row.option + "> option -Dkestrel."));
  }
  const std::string arguments = " -Db=2\t-Xms64m \v\f\r";
  const Start started =
      start("NORVALED_DEBUG_PORT=0 NORVALED_JVM_ARGS='" + arguments + "' exec $K");
  EXPECT_THAT(started.log,
              HasSubstr(anyRecord + " startJVM Adding JVM args from NORVALED_JVM_ARGS:  " +
                        arguments + "\n startJVM Using class path:"));
  EXPECT_THAT(started.log, HasSubstr("\n> option -Xmx160m\n" + anyOption +
                                     "> option -Db=2\n> option -Xms64m\n> option -Dkestrel."));
}

TEST_F(Launcher, HandsOnItsCommandLineAndFindsItsFiles) {
  struct Row {
    std::string line;
    std::string program;
    std::string installDir;
  };
  const std::vector<Row> rows = {
      {"cd /; exec $K", "<install>/kestrel", "<install>"},
      {"cd $ROOT/Kestrel.app/Contents; exec MacOS/kestrel", "MacOS/kestrel", "MacOS"},
  };
  for (const Row& row : rows) {
    const Start started = start(row.line + " 'a  b' '' größe");
    EXPECT_THAT(started.log, StartsWith(" run Program arguments:  a  b  größe \n"));
    EXPECT_THAT(started.log, HasSubstr(" library from " + row.installDir + "/../jre/Contents/"));
    EXPECT_THAT(started.log, HasSubstr("\n> option -Duser.dir=" + row.installDir + "\n"));
    EXPECT_THAT(started.log, HasSubstr("> NewStringUTF(" + row.program + R"()
> SetObjectArrayElement(0)
> NewStringUTF(a  b)
> SetObjectArrayElement(1)
> NewStringUTF()
> SetObjectArrayElement(2)
> NewStringUTF(größe)
> SetObjectArrayElement(3)
)"));
  }
  // A bare name's bundle is looked for under the root.
  EXPECT_THAT(start("cd ${K%/*}; PATH=. exec kestrel", 53).log,
              HasSubstr(" library from /../jre/Contents/"));
  // The override moves runtime and jars with it, and nobody checks it.
  EXPECT_THAT(start("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $K", 53).log,
              HasSubstr(" library from none/../jre/Contents/Home/lib/libjli.dylib\n"));
}

TEST_F(Launcher, ListsTheJarsOfItsLibraryDirectory) {
  const std::string record = "\n startJVM Using class path:  ";
  const std::string option = "\n> option -Djava.class.path=";
  EXPECT_THAT(start("exec $K").log, HasSubstr("libjli.dylib" + record + "\n"));  // is no fault

  for (const char* name : {"b.jar", "a.jar", "notes.txt", "A.JAR", ".jar"}) {
    std::ofstream(lib + "/" + name).close();
  }
  fs::create_directory(lib + "/folder.jar");
  std::string jars;
  for (const fs::directory_entry& entry : fs::directory_iterator(lib)) {  // in its own order
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) jars += ":<install>/../lib/" + name;
  }
  jars.erase(0, 1);
  const Start started = start("exec $K");
  EXPECT_THAT(started.log, HasSubstr(record + replaced(jars, ":", "\n") + "\n startJVM JVM Args:"));
  EXPECT_THAT(started.log, HasSubstr(option + jars + "\n"));

  fs::remove_all(lib);
  EXPECT_THAT(start("exec $K").log,
              AllOf(HasSubstr("\n collectJars Directory  <install>/../lib/  is missing or not "
                              "accessible" +
                              record + "\n"),
                    HasSubstr(option + "\n")));
}

TEST_F(Launcher, LogsWhereTheEnvironmentSays) {
  const std::string unset = "unset KESTREL_NATIVE_LOG_DIR_OVERRIDE; ";
  const std::string chosen = "KESTREL_NATIVE_LOG_DIR_OVERRIDE=";
  const std::vector<std::pair<std::string, std::string>> usable = {
      {chosen + "$ROOT/new/deep TEST_TMPDIR=$ROOT/t", "new/deep"},
      {chosen + "$ROOT/at//its/end/", "at/its/end"},
      {unset + "TEST_TMPDIR=$ROOT/t HOME=$ROOT", "t/nativeLogs"},
      {unset + "HOME=$ROOT/home", "home/Library/Logs/Norvale/Kestrel-Dev"},
  };
  for (const auto& [environment, directory] : usable) {
    EXPECT_EQ(start("umask 0; " + environment + " exec $K").output, "");
    EXPECT_NE(contentOf(root + "/" + directory + "/kestrel-native.log"), "") << environment;
    for (fs::path part = directory; !part.empty(); part = part.parent_path()) {
      EXPECT_EQ(fs::status(root / part).permissions(), fs::perms::owner_all) << part;
    }
  }
  fs::create_directories(root + "/taken/kestrel-native.log");  // where the log file should be
  fs::create_directories(root + "/relative");
  for (const std::string& environment :
       {unset, chosen + " TEST_TMPDIR=$ROOT/other", chosen + "relative", chosen + "$K",
        chosen + "$K/below", chosen + "$ROOT/taken"}) {
    EXPECT_EQ(start("cd $ROOT; " + environment + " exec $K", 1).output, "");
  }
  EXPECT_FALSE(fs::exists(root + "/other"));
  EXPECT_TRUE(fs::is_empty(root + "/relative"));
}

// With a real JVM and the sample application: what docs/application.md tells the application's
// team, and what only a real JVM can show.
struct RealJvm : BundleFixture {
  RealJvm() {
    fs::remove_all(contents + "/jre");
    fs::create_directory_symlink(KESTREL_JRE, contents + "/jre");
    fs::copy_file(SAMPLE_JAR, lib + "/sample.jar");
  }
};

TEST_F(RealJvm, GivesTheApplicationItsArgumentsAndProperties) {
  const Start started = start("cd $ROOT; LC_ALL=C.UTF-8 exec $K write größe 'two words'");
  EXPECT_THAT(readable(started.output, started.pid), HasSubstr(R"(argument 0: <install>/kestrel
argument 1: write
argument 2: größe
argument 3: two words
KESTREL_VERSION=<version>
)"));
  EXPECT_THAT(readable(started.output, started.pid), HasSubstr("\nuser.dir=<install>\n"));
  EXPECT_TRUE(fs::exists(root + "/größe"));  // in the working directory
  EXPECT_THAT(started.log, EndsWith(" operator() JVM started successfully\n"));
  EXPECT_THAT(start("LC_ALL=C.UTF-8 exec $K process 😀").output,
              AllOf(EndsWith("\n😀\n"), Not(HasSubstr("argument 2: 😀"))));
}

TEST_F(RealJvm, RunsTheExampleOfTheDocument) {
  setenv("DOCUMENT", PROJECT_FOLDER "/docs/application.md", 1);
  setenv("JAVAC", JAVAC, 1);
  const Start started = start(R"(cd $ROOT && rm Kestrel.app/Contents/lib/sample.jar &&
      sed -n '/^```java$/,/^```$/{//!p;}' $DOCUMENT >NativeLauncher.java &&
      $JAVAC -d Kestrel.app/Contents/lib/example.jar NativeLauncher.java && exec $K one two)",
                              3);
  EXPECT_THAT(started.output, EndsWith("hello one two\n"));
  EXPECT_THAT(started.log, EndsWith(" jvm_exit JVM: exit( 3 )\n"));
}

TEST_F(RealJvm, EndsAsTheApplicationDoes) {
  EXPECT_THAT(start("exec $K exit 300", 44).log, EndsWith(" jvm_exit JVM: exit( 300 )\n"));
  // The switches choose collectors that the JVM accepts with all that is left in the list.
  EXPECT_THAT(
      start("KESTREL_GC_FORCE_SERIAL_GC=1 KESTREL_GC_AGGRESSIVE_RECLAIM=0 exec $K status -1", 255)
          .log,
      EndsWith(" operator() JVM main ended\n"));
  const Start thrown = start(
      "KESTREL_GC_FORCE_PARALLEL_GC=1 KESTREL_AGGRESSIVE_OPTIMIZATIONS=0 "
      "exec $K throw",
      108);
  EXPECT_THAT(thrown.output, HasSubstr("IllegalStateException: the sample was asked to throw"));
  EXPECT_THAT(thrown.log, EndsWith("Kestrel JVM application: 108\n"));
  const Start left = start("NORVALED_DEBUG_PORT=0 exec $K leave");
  EXPECT_THAT(left.output, HasSubstr("Listening for transport dt_socket at address: "));
  EXPECT_THAT(left.output, Not(HasSubstr("\na ")));  // thread has outlived it, nor hook run
  const Start missing = start("rm ${K%/*}/../lib/sample.jar; exec $K", 104);
  EXPECT_THAT(missing.output, HasSubstr("NoClassDefFoundError"));
  EXPECT_THAT(missing.log, EndsWith("Kestrel JVM application: 104\n"));
}

TEST_F(RealJvm, TakesSignals) {
  // The first shows all threads' stacks and lets the application go on, the second ends it.
  const Start ended = start(R"((until grep -qs 'Full thread dump' $ROOT/logs/kestrel-native.log; do
        kill -0 $$ && sleep 0.1 || exit
      done; kill -TERM $$) & exec $K signal QUIT)",
                            143);
  EXPECT_THAT(ended.output, HasSubstr("\na hook ran\n"));
  EXPECT_THAT(ended.log, EndsWith(" jvm_exit JVM: exit( 143 )\n"));
}

TEST_F(RealJvm, RecordsWhyItRefusesOrDies) {
  // The JVM reads the hooks after the user's options: what it says of those alone is not logged.
  const Start refused = start("NORVALED_JVM_ARGS=-XX:+NoSuchOption exec $K", 53);
  EXPECT_THAT(refused.output, HasSubstr("Unrecognized VM option 'NoSuchOption'"));
  EXPECT_THAT(refused.log, EndsWith(R"( startJVM Error creating VM: code= -6 . Exiting...

 reportFatalAndExit Failed to start JVM
)"));
  // What it says of all options together is, and it ends the process itself.
  EXPECT_THAT(start("NORVALED_JVM_ARGS=-XX:+UseSerialGC exec $K", 1).log,
              AllOf(HasSubstr(" jvm_vprintf JVM:  "), EndsWith(" jvm_abort JVM: abort()\n")));
  const Start exhausted = start("exec $K exhaust", 134);
  EXPECT_THAT(exhausted.output, HasSubstr("fatal error: OutOfMemory encountered"));
  EXPECT_THAT(exhausted.log, EndsWith(" jvm_abort JVM: abort()\n"));
  EXPECT_TRUE(fs::exists(logs + "/kestrel-error-" + exhausted.pid + ".log"));
  EXPECT_TRUE(fs::exists(logs + "/kestrel-oom-" + exhausted.pid + ".hprof"));
}

}  // namespace
