// Starts of the real launcher against the scripted JVM: arguments and environment in, the JVM's
// calls, log and exit status out.
#include <gtest/gtest.h>

#include "bundle.h"

namespace {

const std::string FATAL = " reportFatalAndExit ";
const std::string ENTRY_FAILED = FATAL + "Failed to initialize Kestrel JVM application: ";

TEST(Launcher, EndsAsTheJavaEntryDoes) {
  const Bundle bundle;
  const std::string attach =
      "AttachCurrentThread\nFindClass(com/norvale/app/daemon/entry/NativeLauncher)\n";
  const std::string lookUp = attach + "GetStaticMethodID(main([Ljava/lang/String;)V)\n";
  const std::string call =
      lookUp + "FindClass(java/lang/String)\nNewObjectArray(2)\nNewStringUTF(" +
      bundle.launcher.string() + ")\nSetObjectArrayElement(0)\n" +
      "NewStringUTF(two words)\nSetObjectArrayElement(1)\nCallStaticIntMethod\n";
  const std::string ask = "ExceptionOccurred\n";
  const std::string throwable = ask + "FindClass(java/lang/Throwable)\n";
  const std::string report = throwable + "GetMethodID(printStackTrace()V)\n";
  const std::string print = report + "CallVoidMethod\nDeleteLocalRef\nExceptionClear\n";
  const std::string self = " callMainMethod ", check = " checkFailureAndLog Failed to find ";
  const std::string notFound = self + "Failed to find  NativeLauncher  class\n";
  const std::string threw = self + "Method ' main ' failed with exception!\n";
  const struct {
    std::string script;
    int status;
    std::string records;  // between "JVM calling main" and "JVM main ended"
    std::string last;
    std::string calls;
  } rows[] = {
      {"status=0", 0, "", " operator() JVM started successfully\n", call + ask},
      {"status=1", 0, "", " operator() JVM exit after startup is set, exiting\n", call + ask},
      {"status=-1", 255, "", "", call + ask},
      {"status=7", 7, "", ENTRY_FAILED + "7\n", call + ask},
      {"status=2 call=throws", 107,
       self + "Failed to invoke method ' main ' on the  NativeLauncher\n", ENTRY_FAILED + "107\n",
       call},
      {"call=throws", 108, threw, ENTRY_FAILED + "108\n", call + print},
      {"call=throws Throwable=missing", 108, check + "Throwable class\n" + threw,
       ENTRY_FAILED + "108\n", call + throwable},
      {"call=throws printStackTrace=missing", 108,
       check + "Throwable#printStackTrace class\n" + threw, ENTRY_FAILED + "108\n", call + report},
      {"attach=-5", 103, self + "Failed to attach native thread to JVM\n", ENTRY_FAILED + "103\n",
       "AttachCurrentThread\n"},
      {"NativeLauncher=throws", 104,
       notFound + self + "Finding  NativeLauncher  class failed with exception!\n",
       ENTRY_FAILED + "104\n", attach + print},
      {"NativeLauncher=missing", 105, notFound, ENTRY_FAILED + "105\n", attach + ask},
      {"main=throws", 106, self + "Failed to find method ' main ' on  NativeLauncher\n",
       ENTRY_FAILED + "106\n", lookUp},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const Result result = bundle.run({{"two words"}, {"SCRIPTED_JVM=" + row.script}});
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(from(result.messages, " startJVM Java"),
              " startJVM Java Virtual Machine is created!\n operator() JVM calling main\n" +
                  row.records + " operator() JVM main ended\n" + row.last);
    EXPECT_EQ(result.calls, row.calls);
  }
}

TEST(Launcher, EndsWith53WithoutJvm) {
  const std::string fatal = FATAL + "Failed to start JVM\n";
  const std::string noFunction = " startJVM Failed to locate exported function to start VM\n";
  const Bundle bundle;
  const Result refused = bundle.run({{}, {"SCRIPTED_JVM=create=-1"}});
  EXPECT_EQ(refused.status, 53);
  EXPECT_EQ(
      from(refused.messages, " startJVM Starting JVM"),
      " startJVM Starting JVM\n startJVM Error creating VM: code= -1 . Exiting...\n\n" + fatal);

  const std::string path = bundle.bin.string() + "/../jre/Contents/Home/lib/libjli.dylib";
  const std::string loading =
      " run Program arguments:  \n resolveJNICreateFunction "
      "Loading JLI library from " +
      path + "\n";
  fs::remove(bundle.jli);
  const Result missing = bundle.run();
  EXPECT_EQ(missing.status, 53);
  const std::string warning = " resolveJNICreateFunction Cannot load  " + path + " :  " + path;
  EXPECT_EQ(missing.messages.find(loading + warning), 0U);
  EXPECT_EQ(from(missing.messages, noFunction), noFunction + fatal);

  fs::create_symlink(LIBRARY_WITHOUT_JVM, bundle.jli);
  const Result noSymbol = bundle.run();
  EXPECT_EQ(noSymbol.status, 53);
  EXPECT_EQ(noSymbol.messages, loading + noFunction + fatal);
}

// The list with "@BIN", "@LOGS" and "@PID" for what a start puts in; hooks begin with an "@" too.
const std::string USER_GROUPS =
    " -Xmx160m -Dkestrel.jars.path=@BIN/../lib/ -Djna.nounpack=true -Djna.nosys=true"
    " -Djna.noclasspath=true -Djava.class.path=@BIN/../lib/app.jar -Djna.library.path=@BIN"
    " -Djna.boot.library.path=@BIN -Dplume.library.path=@BIN -Duser.dir=@BIN"
    " -Dplume.metal.gpu.priority=integrated -Dapple.laf.useScreenMenuBar=true -Xms8m -Xss384k"
    " -XX:+UnlockExperimentalVMOptions -XX:+CreateCoredumpOnCrash -XX:MetaspaceSize=16m"
    " -XX:MinMetaspaceFreeRatio=10 -XX:MaxMetaspaceFreeRatio=10 -XX:+UseCompressedOops"
    " -XX:+UseCompressedClassPointers";
const std::string COMPILER =
    " -XX:CompressedClassSpaceSize=64m -XX:ReservedCodeCacheSize=64m -XX:+UseCodeCacheFlushing"
    " -XX:CICompilerCount=2 -XX:+UseCompactObjectHeaders -XX:+UseStringDeduplication";
const std::string PLUME = " -Dplume.gpu.resourceCacheLimit=1M -Dplume.buffering=2";
const std::string G1 = " -XX:+UseG1GC -XX:ParallelGCThreads=2 -XX:ConcGCThreads=1";
const std::string G1_EXTRAS =
    " -XX:SoftMaxHeapSize=128m -XX:G1PeriodicGCInterval=10000"
    " -XX:G1PeriodicGCSystemLoadThreshold=0";
const std::string RECLAIM =
    " -XX:MinHeapFreeRatio=10 -XX:MaxHeapFreeRatio=10 -XX:-ShrinkHeapInSteps";
const std::string PAUSE = " -XX:MaxGCPauseMillis=100";
const std::string DIAGNOSTICS =
    " --add-opens=java.desktop/sun.awt=ALL-UNNAMED"
    " --add-opens=java.desktop/sun.awt.resources=ALL-UNNAMED"
    " --add-opens=java.desktop/java.awt=ALL-UNNAMED"
    " --add-opens=java.desktop/sun.lwawt=ALL-UNNAMED"
    " --add-opens=java.desktop/sun.lwawt.macosx=ALL-UNNAMED @vfprintf @exit @abort"
    " -DKESTREL_VERSION=0.8.6886 -XX:+CrashOnOutOfMemoryError -XX:+HeapDumpOnOutOfMemoryError"
    " -XX:HeapDumpPath=@LOGS/kestrel-oom-@PID.hprof -XX:ErrorFile=@LOGS/kestrel-error-@PID.log";

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t i = 0; (i = text.find(what, i)) != std::string::npos; i += by.size()) {
    text.replace(i, what.size(), by);
  }
  return text;
}

TEST(Launcher, GivesTheJvmItsOptions) {
  const Bundle bundle;
  const std::string dir = bundle.root, serial = " -XX:+UseSerialGC";
  const std::string parallel = " -XX:+UseParallelGC -XX:ParallelGCThreads=2";
  const std::string all = COMPILER + PLUME + G1 + G1_EXTRAS + RECLAIM;
  writeFile(bundle.lib / "app.jar", "");
  fs::create_directory_symlink(dir, dir + "/link");
  const std::string optimize = "KESTREL_AGGRESSIVE_OPTIMIZATIONS";
  const std::string gc = "KESTREL_GC_", force = gc + "FORCE_";
  const struct {
    Strings environment;
    std::string tuning;  // between the groups that are always the same
    std::string end;
  } rows[] = {
      {{}, all + PAUSE, ""},
      {{optimize + "=0ff"}, PLUME + G1 + RECLAIM + PAUSE, ""},
      {{optimize + "=false"}, all + PAUSE, ""},
      {{optimize + "="}, all + PAUSE, ""},
      {{force + "SERIAL_GC=1", force + "PARALLEL_GC=1"},
       COMPILER + PLUME + serial + RECLAIM + PAUSE,
       ""},
      {{force + "SERIAL_GC=true", force + "PARALLEL_GC="}, all + PAUSE, ""},
      {{force + "SERIAL_GC=", force + "PARALLEL_GC=10"},
       COMPILER + PLUME + parallel + RECLAIM + PAUSE,
       ""},
      {{force + "SERIAL_GC=10", optimize + "=0"}, PLUME + serial + RECLAIM + PAUSE, ""},
      {{gc + "AGGRESSIVE_RECLAIM=0abc"}, COMPILER + PLUME + G1 + G1_EXTRAS + PAUSE, ""},
      {{gc + "AGGRESSIVE_RECLAIM=no"}, all + PAUSE, ""},
      {{gc + "AGGRESSIVE_RECLAIM="}, all + PAUSE, ""},
      {{gc + "MAX_PAUSE_MILLIS=250"}, all + " -XX:MaxGCPauseMillis=250", ""},
      {{gc + "MAX_PAUSE_MILLIS="}, all + " -XX:MaxGCPauseMillis=", ""},
      {{gc + "MAX_PAUSE_MILLIS=abc"}, all + " -XX:MaxGCPauseMillis=abc", ""},
      {{"TMPDIR=" + dir + "/"}, all + PAUSE, " -Djava.io.tmpdir=" + dir + "/"},
      {{"TMPDIR=" + dir + "/link"}, all + PAUSE, " -Djava.io.tmpdir=" + dir + "/link"},
      {{"TMPDIR=" + dir + "/missing"}, all + PAUSE, ""},
      {{"TMPDIR=" + bundle.launcher.string()}, all + PAUSE, ""},
      {{"TMPDIR="}, all + PAUSE, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.environment));
    Strings environment = {optimize};  // unset, whatever the tests run with
    environment.insert(environment.end(), row.environment.begin(), row.environment.end());
    const int pid = bundle.start({{}, environment});
    const Result result = bundle.finish(pid);
    std::string expected = USER_GROUPS + row.tuning + DIAGNOSTICS + row.end;
    expected = replaced(expected, "@BIN", bundle.bin);
    expected = replaced(expected, "@LOGS", bundle.logs);
    expected = replaced(expected, "@PID", std::to_string(pid));
    EXPECT_EQ(result.options, "CreateJavaVM" + expected);
    const std::string logged = replaced(replaced(expected, " @", " "), " ", "\n\t");
    EXPECT_EQ(from(result.messages, " startJVM JVM Args:"),
              " startJVM JVM Args: " + logged + "\n\t\n startJVM Starting JVM\n" +
                  from(result.messages, " startJVM Java"));
  }
}

TEST(Launcher, HandsOnItsCommandLine) {
  const Bundle bundle;
  writeFile(bundle.lib / "b.jar", "");
  const struct {
    std::string program, directory, bin;
  } starts[] = {{bundle.launcher, "/", bundle.bin},
                {"MacOS/kestrel", bundle.contents, "MacOS"},
                {"kestrel", bundle.bin, ""}};  // a bare name's bundle is looked for under the root
  for (const auto& [program, directory, bin] : starts) {
    SCOPED_TRACE(program);
    const Result result = bundle.run({{"a  b", "", "größe"}, {}, program, directory});
    EXPECT_EQ(result.status, bin.empty() ? 53 : 0);
    EXPECT_EQ(
        result.messages.find(" run Program arguments:  a  b  größe \n resolveJNICreateFunction "
                             "Loading JLI library from " +
                             bin + "/../jre/Contents/"),
        0U);
    if (bin.empty()) continue;
    EXPECT_TRUE(contains(result.options, " -Djava.class.path=" + bin + "/../lib/b.jar "));
    for (const std::string& argument :
         {program, std::string("a  b"), std::string(), std::string("größe")}) {
      EXPECT_TRUE(contains(result.calls, "NewStringUTF(" + argument + ")\n")) << argument;
    }
  }
  const Result many = bundle.run({Strings(5000, "argument")});
  EXPECT_EQ(many.status, 0);
  EXPECT_EQ(many.messages.find('\n'), sizeof " run Program arguments: " + 5000 * sizeof "argument");
  EXPECT_TRUE(contains(many.calls, "SetObjectArrayElement(5000)\nCallStaticIntMethod\n"));
}

TEST(Launcher, ListsTheJarsOfItsLibraryDirectory) {
  const Bundle bundle;
  for (const char* name : {"b.jar", "a.jar", "notes.txt", "A.JAR", ".jar"})
    writeFile(bundle.lib / name, "");
  fs::create_directory(bundle.lib / "folder.jar");
  std::string expected;  // in the directory's own order
  for (const auto& entry : fs::directory_iterator(bundle.lib)) {
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) expected += ":" + bundle.bin.string() + "/../lib/" + name;
  }
  const Result result = bundle.run();
  EXPECT_EQ(std::count(expected.begin(), expected.end(), ':'), 4);
  EXPECT_TRUE(contains(result.options, " -Djava.class.path=" + expected.substr(1) + " "));
  EXPECT_TRUE(contains(result.messages, "\n startJVM Using class path:  " +
                                            replaced(expected.substr(1), ":", "\n") + "\n"));

  fs::remove_all(bundle.lib);
  const Result missing = bundle.run();
  EXPECT_EQ(missing.status, 0);
  EXPECT_TRUE(contains(missing.options, " -Djava.class.path= "));
  EXPECT_TRUE(contains(missing.messages, "\n collectJars Directory  " + bundle.bin.string() +
                                             "/../lib/  is missing or not accessible\n"));

  // The override moves runtime and jars with it, and nobody checks it.
  const std::string override = "KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=";
  const Result moved = bundle.run({{}, {override + "/none"}});
  EXPECT_EQ(moved.status, 53);
  EXPECT_TRUE(contains(moved.messages, " from /none/../jre/Contents/Home/lib/libjli.dylib\n"));
  EXPECT_EQ(bundle.run({{}, {override}}).status, 0);
}

TEST(LogDirectory, IsTheFirstThatTheEnvironmentNames) {
  const Bundle bundle;
  const std::string root = bundle.root, variable = "KESTREL_NATIVE_LOG_DIR_OVERRIDE";
  fs::create_directories(bundle.root / "taken/kestrel-native.log");
  const struct {
    Strings environment;
    std::string directory;  // under the root; empty: none is usable
  } rows[] = {
      {{variable + "=" + root + "/new/deep", "TEST_TMPDIR=" + root + "/t"}, "new/deep"},
      {{variable, "TEST_TMPDIR=" + root + "/t", "HOME=" + root}, "t/nativeLogs"},
      {{variable, "HOME=" + root + "/home"}, "home/Library/Logs/Norvale/Kestrel-Dev"},
      {{variable}, ""},
      {{variable + "=", "TEST_TMPDIR=" + root + "/t2"}, ""},
      {{variable + "=relative"}, ""},
      {{variable + "=" + bundle.launcher.string()}, ""},
      {{variable + "=" + bundle.launcher.string() + "/below"}, ""},
      {{variable + "=" + root + "/taken"}, ""},  // the log file's name is a folder there
  };
  for (const auto& [environment, directory] : rows) {
    SCOPED_TRACE(testing::PrintToString(environment));
    const Result result = bundle.run({{}, environment, "", root, [] { umask(0); }});
    EXPECT_EQ(result.status, directory.empty() ? 1 : 0);
    EXPECT_EQ(result.options.empty(), directory.empty());
    EXPECT_EQ(result.output, "");
    if (directory.empty()) continue;
    EXPECT_TRUE(fs::exists(bundle.root / directory / "kestrel-native.log"));
    for (fs::path made = directory; !made.empty(); made = made.parent_path()) {
      EXPECT_EQ(fs::status(bundle.root / made).permissions(), fs::perms(0700)) << made;
    }
  }
  EXPECT_FALSE(fs::exists(bundle.root / "relative") || fs::exists(bundle.root / "t2"));
}

}  // namespace
