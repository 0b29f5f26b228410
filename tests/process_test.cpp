// Starts of the launcher: command line, environment and bundle in; the log, the JVM's calls, output
// and exit status out.
#include <vector>

#include "tests/old_fixture.h"

namespace fs = std::filesystem;
using testing::AllOf, testing::ContainsRegex, testing::EndsWith, testing::HasSubstr;

namespace {

using Launcher = OldFixture;
using RealJvm = OldFixture;  // the sanitizers leave these out by their name

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
  const std::string call = "> CallStaticIntMethod [<install>/kestrel] [a  b] [] [größe]\n";
  const std::string threw = " callMainMethod Method ' main ' failed with exception!\n";
  const std::string ended = " operator() JVM main ended\n";
  // Script, status, and the end of the records, which replaces success from its own first line on.
  const std::vector<std::tuple<std::string, int, std::string>> rows = {
      {"SCRIPT_status=0", 0, success},
      {"SCRIPT_status=1", 0, ended + " operator() JVM exit after startup is set, exiting\n"},
      {"SCRIPT_status=-1", 255, ended},
      {"SCRIPT_status=7", 7, "> ExceptionOccurred\n"},
      {"SCRIPT_attach=-5", 103,
       "> AttachCurrentThread\n callMainMethod Failed to attach native thread to JVM\n"},
      {"SCRIPT_NativeLauncher=throws", 104,
       missing + printing +
           " callMainMethod Finding  NativeLauncher  class failed with exception!\n"},
      {"SCRIPT_NativeLauncher=missing", 105, missing + "> ExceptionOccurred\n"},
      {"SCRIPT_main=throws", 106,
       "> GetStaticMethodID(main([Ljava/lang/String;)V)\n"
       " callMainMethod Failed to find method ' main ' on  NativeLauncher\n"},
      {"SCRIPT_status=2 SCRIPT_call=throws", 107,
       call + " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n"},
      {"SCRIPT_call=throws", 108, call + printing + threw},
      {"SCRIPT_call=throws SCRIPT_Throwable=missing", 108,
       call + upTo(printing, "Throwable)\n") +
           " checkFailureAndLog Failed to find Throwable class\n" + threw},
      {"SCRIPT_call=throws SCRIPT_printStackTrace=missing", 108,
       call + upTo(printing, "()V)\n") +
           " checkFailureAndLog Failed to find Throwable#printStackTrace class\n" + threw},
  };
  for (const auto& [script, status, end] : rows) {
    std::string expected = success.substr(0, success.find(upTo(end, "\n"))) + end;
    if (status >= 2 && status < 255) {
      expected += ended + " reportFatalAndExit Failed to initialize Kestrel JVM application: " +
                  std::to_string(status) + "\n";
    }
    EXPECT_THAT(start(script + " exec $K 'a  b' '' größe", status),
                AllOf(HasSubstr(" run Program arguments:  a  b  größe \n"),
                      EndsWith("is created!\n" + expected)))
        << script;
  }
}

TEST_F(Launcher, EndsWith53WithoutRuntime) {
  fs::remove(runtime + "/libjli.dylib");
  const std::string path = "<install>/../jre/Contents/Home/lib/libjli.dylib";
  const std::string reason = " resolveJNICreateFunction Cannot load  " + path + " :  " + path;
  EXPECT_THAT(start("exec $K", 53), AllOf(HasSubstr(reason), EndsWith(R"(
 startJVM Failed to locate exported function to start VM
 reportFatalAndExit Failed to start JVM
)")));
}

TEST_F(Launcher, GivesTheJvmItsDocumentedOptions) {
  start(R"(cd ${K%/*}/../lib; touch b.jar a.jar ajar A.JAR .jar; mkdir folder.jar
      ln -s $ROOT $ROOT/link; find ${K%/*}/../lib -name '*.jar')");
  const std::string jars = output.substr(0, output.size() - 1);  // in the directory's own order
  const std::string suspendIs = "s/<y or n>/";
  const std::string onAnyPort = " startJVM Enabling JDWP with suspend=n on any available port\n";
  const std::string waitsOnPort = " startJVM Enabling JDWP with suspend=y on port  ";
  const std::string words = " -Db=2\t-Xms64m \v\f\r";
  // The environment, what it changes in the document, its own records, and the port left in it.
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> rows = {
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS=false KESTREL_GC_FORCE_SERIAL_GC= TMPDIR=$K "
       "KESTREL_GC_FORCE_PARALLEL_GC=true KESTREL_GC_AGGRESSIVE_RECLAIM= NORVALED_JVM_ARGS=",
       "", "", ""},
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS= KESTREL_GC_FORCE_SERIAL_GC=true TMPDIR=$ROOT/missing "
       "KESTREL_GC_AGGRESSIVE_RECLAIM=no KESTREL_GC_MAX_PAUSE_MILLIS=abc NORVALED_DEBUG_PORT=",
       "s/Millis=100/Millis=abc/", "", ""},
      {"KESTREL_AGGRESSIVE_OPTIMIZATIONS=0ff KESTREL_GC_AGGRESSIVE_RECLAIM=0abc "
       "KESTREL_GC_FORCE_PARALLEL_GC= KESTREL_GC_MAX_PAUSE_MILLIS=",
       "s/Millis=100/Millis=/; /gone with .*OPTIMIZATIONS/d; /gone with .*RECLAIM/d", "", ""},
      {"KESTREL_GC_FORCE_SERIAL_GC=10 KESTREL_GC_FORCE_PARALLEL_GC=1 TMPDIR=$ROOT/link/",
       "s/UseG1/UseSerial/; /G1 only/d; /gone with .*SERIAL/d; s,<TMPDIR>," + root + "/link/,", "",
       ""},
      {"KESTREL_GC_FORCE_SERIAL_GC=0 KESTREL_GC_FORCE_PARALLEL_GC=10",
       "s/UseG1/UseParallel/; /G1 only/d", "", ""},
      {"NORVALED_DEBUG_PORT=5005x", suspendIs + "y/; s/<port>/5005/", waitsOnPort + "5005\n", "0"},
      {"NORVALED_DEBUG_PORT=99999999999", suspendIs + "n/; s/<port>/0/", onAnyPort, "99999999999"},
      {"NORVALED_DEBUG_PORT=-5 NORVALED_JVM_ARGS='" + words + "'",
       suspendIs + "y/; s/<port>/-5/; s/^| each word.*/| `-Db=2@-Xms64m`/",
       waitsOnPort + "-5\n startJVM Adding JVM args from NORVALED_JVM_ARGS:  " + words + "\n", "0"},
  };
  const std::string sedToOptions = R"(; /<TMPDIR>`/d; /<port>`/d; s/<size>/384/; y/@/\n/
      s/^| `\([^`]*\)`.*/\1/p' ")" PROJECT "/docs/options.md\"";
  const std::string untilCreated = R"( run Program arguments:  
 resolveJNICreateFunction Loading JLI library from <install>/../jre/Contents/Home/lib/libjli.dylib
<records> startJVM Using class path:  <jars>
 startJVM JVM Args: <options>
 startJVM Starting JVM
> CreateJavaVM <port><options>
 startJVM Java Virtual Machine is created!
)";
  for (const auto& [environment, edit, records, port] : rows) {
    start("sed -n '/^## /q; " + edit + sedToOptions);
    std::string options = replaced("\n" + output, "\n", "\n\t");
    options = replaced(options, "<jars>", replaced(jars, "\n", ":"));
    std::string expected = replaced(replaced(untilCreated, "<records>", records), "<jars>", jars);
    expected = replaced(replaced(expected, "<options>", options), "<port>", port);
    const std::string line = "unset KESTREL_AGGRESSIVE_OPTIMIZATIONS; " + environment + " exec $K";
    EXPECT_EQ(upTo(start(line), "is created!\n"), expected) << "docs/options.md: " << environment;
  }
}

TEST_F(Launcher, FindsItsFilesFromTheNameItIsStartedBy) {
  const std::string noJars = "\n startJVM Using class path:  \n";
  EXPECT_THAT(start("cd ${K%/*/*}; KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE= exec MacOS/kestrel"),
              AllOf(HasSubstr(" from MacOS/../jre/Contents/Home/lib/libjli.dylib" + noJars),
                    HasSubstr("\n\t-Duser.dir=MacOS\n"), HasSubstr("Method [MacOS/kestrel]\n")));
  // A bare name's bundle is looked for under the root, and nobody checks an override.
  EXPECT_THAT(start("cd ${K%/*}; PATH=. exec kestrel", 53), HasSubstr(" from /../jre/"));
  EXPECT_THAT(start("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=none exec $K", 53),
              HasSubstr(" from none/../jre/"));
  fs::remove(lib);
  const std::string missing = "Directory  <install>/../lib/  is missing or not accessible";
  EXPECT_THAT(start("exec $K"), HasSubstr("\n collectJars " + missing + noJars));
}

TEST_F(Launcher, LogsWhereTheEnvironmentSays) {
  const std::string unset = "unset KESTREL_NATIVE_LOG_DIR_OVERRIDE; ";
  const std::string chosen = "KESTREL_NATIVE_LOG_DIR_OVERRIDE=";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {chosen + "$ROOT/new/deep TEST_TMPDIR=$ROOT/t", "new/deep"},
      {chosen + "$ROOT/at//its/end/", "at/its/end"},
      {chosen + "$ROOT/link", "relative"},
      {unset + "TEST_TMPDIR=$ROOT/t HOME=$ROOT", "t/nativeLogs"},
      {unset + "HOME=$ROOT/home", "home/Library/Logs/Norvale/Kestrel-Dev"},
      // None of these can be used.
      {unset, ""},
      {chosen + " TEST_TMPDIR=$ROOT/other", ""},
      {chosen + "relative", ""},
      {chosen + "$K", ""},
  };
  start("cd $ROOT; mkdir relative; ln -s relative link");
  for (const auto& [environment, directory] : rows) {
    start("cd $ROOT; umask 0; " + environment + " exec $K", directory.empty() ? 1 : 0);
    EXPECT_EQ(output, "");
    EXPECT_NE(fs::exists(root + "/" + directory + "/kestrel-native.log"), directory.empty());
  }
  start("cd $ROOT; find new at t home -type d ! -perm 700");
  EXPECT_EQ(output, "") << "others may read these";
}

// What docs/application.md tells the application's team, with a real JVM and the sample.
TEST_F(RealJvm, RunsApplications) {
  fs::remove_all(contents + "/jre");
  fs::create_directory_symlink(KESTREL_JRE, contents + "/jre");
  fs::copy_file(SAMPLE_JAR, lib + "/sample.jar");
  const std::string success = " operator() JVM started successfully";
  // A start, its status, what it puts out, and the end of its log.
  const std::vector<std::tuple<std::string, int, std::string, std::string>> rows = {
      {"cd $ROOT; LC_ALL=C.UTF-8 $K write größe 'two words' && echo gr*", 0,
       "argument 0: <install>/kestrel\nargument 1: write\nargument 2: größe\n"
       "argument 3: two words\nKESTREL_VERSION=<version>\n.*\nuser.dir=<install>\ngröße\n$",
       success},
      // No thread outlives main, no hook runs. Each collector accepts what is left of the list.
      {"KESTREL_GC_FORCE_PARALLEL_GC=1 NORVALED_DEBUG_PORT=0 exec $K leave", 0,
       "Listening for transport dt_socket at address: .*\nuser.dir=[^\n]*\n$", success},
      {"KESTREL_GC_FORCE_SERIAL_GC=1 KESTREL_AGGRESSIVE_OPTIMIZATIONS=0 exec $K throw", 108,
       "IllegalStateException: the sample was asked to throw", " application: 108"},
      // A first signal shows the threads' stacks and lets the application go on, a second ends it.
      {R"((until grep -qs 'Full thread dump' $ROOT/logs/kestrel-native.log; do
        kill -0 $$ && sleep 0.1 || exit
      done; kill -TERM $$) & exec $K signal QUIT)",
       143, "\na hook ran\n", " jvm_exit JVM: exit( 143 )"},
      {"$K exhaust; status=$?; ls $ROOT/logs; exit $status", 134,
       "fatal error: OutOfMemory encountered.*\nkestrel-error-[0-9]+.log\n"
       "kestrel-native.log\nkestrel-oom-[0-9]+.hprof\n$",
       " jvm_abort JVM: abort()"},
      {R"(cd $ROOT && rm ${K%/*}/../lib/*
      sed -n '/^```java$/,/^```$/{//!p;}' ")" PROJECT
       R"(/docs/application.md" >NativeLauncher.java
      ')" JAVAC R"(' -d ${K%/*}/../lib/example.jar NativeLauncher.java; exec $K one two)",
       3, "hello one two\n$", " jvm_exit JVM: exit( 3 )"},
  };
  for (const auto& [line, status, printed, lastRecord] : rows) {
    EXPECT_THAT(start(line, status), EndsWith(lastRecord + "\n")) << line;
    EXPECT_THAT(output, ContainsRegex(printed)) << line;
  }
}

}  // namespace
