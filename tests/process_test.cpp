// Starts of the real launcher against the scripted JVM: arguments and environment in, the JVM's
// calls, log and exit status out.
#include <gtest/gtest.h>

#include <algorithm>

#include "bundle.h"

namespace {

const std::string FATAL = " reportFatalAndExit Failed to ";

TEST(Launcher, EndsAsTheJavaEntryDoes) {
  const Bundle bundle;
  const std::string attach =
      "AttachCurrentThread\nFindClass(com/norvale/app/daemon/entry/NativeLauncher)\n";
  const std::string lookUp = attach + "GetStaticMethodID(main([Ljava/lang/String;)V)\n";
  const std::string call =
      lookUp + "FindClass(java/lang/String)\nNewObjectArray(2)\nNewStringUTF(" +
      bundle.launcher.string() + ")\nSetObjectArrayElement(0)\n" +
      "NewStringUTF(two words)\nSetObjectArrayElement(1)\nCallStaticIntMethod\n";
  const std::string ask = "ExceptionOccurred\n", asked = call + ask;
  const std::string throwable = ask + "FindClass(java/lang/Throwable)\n";
  const std::string report = throwable + "GetMethodID(printStackTrace()V)\n";
  const std::string print = report + "CallVoidMethod\nDeleteLocalRef\nExceptionClear\n";
  const std::string self = " callMainMethod ", check = " checkFailureAndLog Failed to find ";
  const std::string notFound = self + "Failed to find  NativeLauncher  class\n";
  const std::string raised = self + "Finding  NativeLauncher  class failed with exception!\n";
  const std::string noMethod = self + "Failed to find method ' main ' on  NativeLauncher\n";
  const std::string failed = self + "Failed to invoke method ' main ' on the  NativeLauncher\n";
  const std::string threw = self + "Method ' main ' failed with exception!\n";
  const std::string none = "AttachCurrentThread\n";
  const std::string noThread = self + "Failed to attach native thread to JVM\n";
  const std::string noThrowable = check + "Throwable class\n" + threw;
  const std::string noTrace = check + "Throwable#printStackTrace class\n" + threw;
  const struct {
    std::string script;
    int status;
    std::string records;  // behind "JVM calling main"
    std::string calls;
    std::string last{};  // the one behind "JVM main ended"; a fatal one is added
  } rows[] = {{"status=0", 0, "", asked, " operator() JVM started successfully\n"},
              {"status=1", 0, "", asked, " operator() JVM exit after startup is set, exiting\n"},
              {"status=-1", 255, "", asked},
              {"status=7", 7, "", asked},
              {"status=2 call=throws", 107, failed, call},
              {"call=throws", 108, threw, call + print},
              {"call=throws Throwable=missing", 108, noThrowable, call + throwable},
              {"call=throws printStackTrace=missing", 108, noTrace, call + report},
              {"attach=-5", 103, noThread, none},
              {"NativeLauncher=throws", 104, notFound + raised, attach + print},
              {"NativeLauncher=missing", 105, notFound, attach + ask},
              {"main=throws", 106, noMethod, lookUp}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const Result result = bundle.run({{"two words"}, {"SCRIPTED_JVM=" + row.script}}, row.status);
    std::string messages =
        " operator() JVM calling main\n" + row.records + " operator() JVM main ended\n" + row.last;
    if (row.status >= 2 && row.status < 255) {
      messages +=
          FATAL + "initialize Kestrel JVM application: " + std::to_string(row.status) + "\n";
    }
    EXPECT_EQ(from(result.messages, " operator() JVM calling"), messages);
    EXPECT_EQ(result.calls, row.calls);
  }
}

TEST(Launcher, EndsWith53WithoutJvm) {
  const std::string fatal = FATAL + "start JVM\n";
  const std::string noFunction = " startJVM Failed to locate exported function to start VM\n";
  const std::string error = " startJVM Error creating VM: code= -1 . Exiting...\n\n";
  const Bundle bundle;
  const Result refused = bundle.run({{}, {"SCRIPTED_JVM=create=-1"}}, 53);
  EXPECT_TRUE(refused.messages.ends_with("\n startJVM Starting JVM\n" + error + fatal));

  const std::string path = bundle.bin.string() + "/../jre/Contents/Home/lib/libjli.dylib";
  const std::string loading =
      " run Program arguments:  \n resolveJNICreateFunction Loading JLI library from " + path +
      "\n";
  fs::remove(bundle.jli);
  const Result missing = bundle.run({}, 53);
  const std::string warning = " resolveJNICreateFunction Cannot load  " + path + " :  ";
  EXPECT_TRUE(missing.messages.starts_with(loading + warning));
  const std::string reason = missing.messages.substr((loading + warning).size());
  EXPECT_LT(reason.find(path), reason.find(noFunction));  // the loader's own words name it again
  EXPECT_EQ(from(missing.messages, noFunction), noFunction + fatal);

  fs::create_symlink(LIBRARY_WITHOUT_JVM, bundle.jli);
  EXPECT_EQ(bundle.run({}, 53).messages, loading + noFunction + fatal);
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t i = 0; (i = text.find(what, i)) != std::string::npos; i += by.size()) {
    text.replace(i, what.size(), by);
  }
  return text;
}

// The default options and what docs/options.md, which is held to the launcher here, notes of each.
std::vector<std::pair<std::string, std::string>> documentedOptions() {
  std::vector<std::pair<std::string, std::string>> rows;
  std::istringstream lines(readFile(OPTIONS_DOCUMENT));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("| `") || contains(line, "only with `NORVALED")) continue;
    const std::size_t end = line.find('`', 3);
    rows.emplace_back(line.substr(3, end - 3), line.substr(end));
  }
  return rows;
}

TEST(Launcher, GivesTheJvmItsDocumentedOptions) {
  const Bundle bundle;
  writeFile(bundle.lib / "app.jar", "");
  const std::string bin = bundle.bin, dir = bundle.root, link = dir + "/link";
  fs::create_directory_symlink(dir, link);
  const std::string optimize = "KESTREL_AGGRESSIVE_OPTIMIZATIONS", gc = "KESTREL_GC_";
  const std::string serial = gc + "FORCE_SERIAL_GC=", parallel = gc + "FORCE_PARALLEL_GC=";
  const std::string reclaim = gc + "AGGRESSIVE_RECLAIM=", pause = gc + "MAX_PAUSE_MILLIS=";
  const std::string useG1 = "-XX:+UseG1GC", useSerial = "-XX:+UseSerialGC", gone = "gone with `";
  const std::string goal = "-XX:MaxGCPauseMillis=", temporary = "-Djava.io.tmpdir=";
  const struct {
    Strings environment;
    Strings gone;  // notes of the options that are not given
    std::string option, instead;
  } cases[] = {{{optimize + "=0ff"}, {gone + optimize}, "", ""},
               {{optimize + "=false"}, {}, "", ""},
               {{optimize + "="}, {}, "", ""},
               {{serial + "1", parallel + "1"}, {"G1 only", gone + serial}, useG1, useSerial},
               {{serial + "true", parallel}, {}, "", ""},
               {{serial, parallel + "10"}, {"G1 only"}, useG1, "-XX:+UseParallelGC"},
               {{serial + "10", optimize + "=0"},
                {"G1 only", gone + serial, gone + optimize},
                useG1,
                useSerial},
               {{reclaim + "0abc"}, {gone + reclaim}, "", ""},
               {{reclaim + "no"}, {}, "", ""},
               {{reclaim}, {}, "", ""},
               {{pause + "250"}, {}, goal + "100", goal + "250"},
               {{pause}, {}, goal + "100", goal},
               {{pause + "abc"}, {}, goal + "100", goal + "abc"},
               {{"TMPDIR=" + dir + "/"}, {}, temporary + "<TMPDIR>", temporary + dir + "/"},
               {{"TMPDIR=" + link}, {}, temporary + "<TMPDIR>", temporary + link},
               {{"TMPDIR=" + link + "/missing"}, {}, "", ""},
               {{"TMPDIR=" + bundle.launcher.string()}, {}, "", ""},
               {{"TMPDIR="}, {}, "", ""}};
  for (const auto& test : cases) {
    Strings environment = {optimize};  // unset, whatever the tests run with
    environment.insert(environment.end(), test.environment.begin(), test.environment.end());
    SCOPED_TRACE(environment.back());
    const int pid = bundle.start({{}, environment});
    const Result result = bundle.finish(pid);
    std::string options = "CreateJavaVM", logged;
    for (const auto& row : documentedOptions()) {
      const auto isNoted = [&](const std::string& mark) { return contains(row.second, mark); };
      std::string option = row.first;
      if (std::any_of(test.gone.begin(), test.gone.end(), isNoted)) continue;
      if (option == test.option) option = test.instead;
      option = replaced(replaced(option, "<install>", bin), "<logs>", bundle.logs);
      option = replaced(replaced(option, "<size>", "384"), "<pid>", std::to_string(pid));
      option = replaced(option, "<version>", KESTREL_VERSION);
      option = replaced(option, "<jars>", bin + "/../lib/app.jar");
      if (contains(option, "<TMPDIR>")) continue;
      options += (option.starts_with("-") ? " " : " @") + option;
      logged += option + "\n\t";
    }
    EXPECT_EQ(result.options, options);
    EXPECT_EQ(result.messages,
              " run Program arguments:  \n resolveJNICreateFunction Loading JLI library from " +
                  bin + "/../jre/Contents/Home/lib/libjli.dylib\n startJVM Using class path:  " +
                  bin + "/../lib/app.jar\n startJVM JVM Args: \n\t" + logged +
                  "\n startJVM Starting JVM\n startJVM Java Virtual Machine is created!\n"
                  " operator() JVM calling main\n operator() JVM main ended\n"
                  " operator() JVM started successfully\n");
  }
}

TEST(Launcher, HandsOnItsCommandLine) {
  const Bundle bundle;
  writeFile(bundle.lib / "b.jar", "");
  const std::string starts[][3] = {
      // argv[0], working directory and the install directory that comes of it
      {bundle.launcher, "/", bundle.bin},
      {"MacOS/kestrel", bundle.contents, "MacOS"},
      {"kestrel", bundle.bin, ""}};  // a bare name's bundle is looked for under the root
  for (const auto& [program, directory, bin] : starts) {
    const Result result =
        bundle.run({{"a  b", "", "größe"}, {}, program, directory}, bin.empty() ? 53 : 0);
    EXPECT_TRUE(result.messages.starts_with(" run Program arguments:  a  b  größe \n"));
    EXPECT_TRUE(contains(result.messages, " library from " + bin + "/../jre/Contents/"));
    if (bin.empty()) continue;
    EXPECT_TRUE(contains(result.options, " -Djava.class.path=" + bin + "/../lib/b.jar "));
    for (const std::string& s :
         {program, std::string("a  b"), std::string(), std::string("größe")}) {
      EXPECT_TRUE(contains(result.calls, "NewStringUTF(" + s + ")\n")) << s;
    }
  }
  const Result many = bundle.run({Strings(5000, "argument")});
  EXPECT_EQ(many.messages.find('\n'), sizeof " run Program arguments: " + 5000 * sizeof "argument");
  EXPECT_TRUE(contains(many.calls, "SetObjectArrayElement(5000)\nCallStaticIntMethod\n"));
}

TEST(Launcher, ListsTheJarsOfItsLibraryDirectory) {
  const Bundle bundle;
  const std::string dir = bundle.bin.string() + "/../lib/";
  EXPECT_FALSE(contains(bundle.run().messages, "collectJars"));  // an empty one is no fault
  for (const char* name : {"b.jar", "a.jar", "notes.txt", "A.JAR", ".jar"}) {
    writeFile(bundle.lib / name, "");
  }
  fs::create_directory(bundle.lib / "folder.jar");
  std::string expected;  // in the directory's own order
  for (const auto& entry : fs::directory_iterator(bundle.lib)) {
    const std::string name = entry.path().filename();
    if (name.ends_with(".jar")) expected += (expected.empty() ? "" : ":") + dir + name;
  }
  EXPECT_EQ(std::count(expected.begin(), expected.end(), ':'), 3);
  const Result result = bundle.run();
  EXPECT_TRUE(contains(result.options, " -Djava.class.path=" + expected + " "));
  expected = "\n startJVM Using class path:  " + replaced(expected, ":", "\n") + "\n";
  EXPECT_TRUE(contains(result.messages, expected));

  fs::remove_all(bundle.lib);
  const Result missing = bundle.run();
  EXPECT_TRUE(contains(missing.options, " -Djava.class.path= "));
  const std::string record =
      "\n collectJars Directory  " + dir + "  is missing or not accessible\n";
  EXPECT_TRUE(contains(missing.messages, record));

  // The override moves runtime and jars with it, and nobody checks it.
  const std::string elsewhere = "KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE=";
  const Result moved = bundle.run({{}, {elsewhere + "/none"}}, 53);
  EXPECT_TRUE(contains(moved.messages, " from /none/../jre/Contents/Home/lib/libjli.dylib\n"));
  bundle.run({{}, {elsewhere}});
}

TEST(LogDirectory, IsTheFirstThatTheEnvironmentNames) {
  const Bundle bundle;
  const std::string root = bundle.root, launcher = bundle.launcher;
  const std::string chosen = "KESTREL_NATIVE_LOG_DIR_OVERRIDE", test = "TEST_TMPDIR=" + root;
  fs::create_directories(bundle.root / "taken/kestrel-native.log");
  const std::pair<Strings, std::string> rows[] = {
      // and the directory under the root; none where none is usable
      {{chosen + "=" + root + "/new/deep", test + "/t"}, "new/deep"},
      {{chosen, test + "/t", "HOME=" + root}, "t/nativeLogs"},
      {{chosen, "HOME=" + root + "/home"}, "home/Library/Logs/Norvale/Kestrel-Dev"},
      {{chosen}, ""},
      {{chosen + "=", test + "/t2"}, ""},
      {{chosen + "=relative"}, ""},
      {{chosen + "=" + launcher}, ""},
      {{chosen + "=" + launcher + "/below"}, ""},
      {{chosen + "=" + root + "/taken"}, ""}};  // the log file's name is a folder there
  for (const auto& [environment, directory] : rows) {
    SCOPED_TRACE(environment[0]);
    const Result result =
        bundle.run({{}, environment, "", root, [] { umask(0); }}, directory.empty() ? 1 : 0);
    EXPECT_EQ(result.options.empty(), directory.empty());
    EXPECT_EQ(result.output, "");
    const fs::path log = root / fs::path(directory) / "kestrel-native.log";
    EXPECT_EQ(fs::exists(log), !directory.empty());
    for (fs::path made = directory; !made.empty(); made = made.parent_path()) {
      EXPECT_EQ(fs::status(root / made).permissions(), fs::perms(0700)) << made;
    }
  }
  EXPECT_FALSE(fs::exists(root + "/relative") || fs::exists(root + "/t2"));
}

}  // namespace
