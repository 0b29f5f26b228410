// What tools/log shows of logs and crash reports, with each awk of this machine.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Texts = std::vector<std::string>;

void write(const fs::path& file, const std::string& content) {
  if (file.has_parent_path()) fs::create_directories(file.parent_path());
  std::ofstream(file) << content;
}

std::string contentOf(const std::string& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Records of the process `pid`. A text with line breaks continues on further lines.
std::string records(const std::string& pid, const Texts& texts) {
  std::string log;
  for (const std::string& text : texts) {
    log += "1.2.3 " + pid + " 2026-11-23 03:00:00.400 INFO   ---- (native)                  f ";
    log += text + "\n";
  }
  return log;
}

// In a temporary directory, which is the current one.
class LogReader : public testing::Test {
 protected:
  LogReader() {
    setenv("LOG", PROJECT "/tools/log", 1);
    unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
    unsetenv("TEST_TMPDIR");
    fs::current_path(directory);
  }
  ~LogReader() override {
    fs::current_path("/");
    fs::remove_all(directory);
  }

  // Runs a line of /bin/sh, in which $LOG is the log reader, with each awk. Returns its standard
  // output, or its standard error if its exit status is not 0. Runs of blanks become one.
  static std::string run(const std::string& line) {
    std::string expected;
    for (const std::string& awk : awks()) {
      setenv("AWK", awk.c_str(), 1);
      const int status = std::system(("{ " + line + "\n} >output 2>errors").c_str());
      std::string output = contentOf(status == 0 ? "output" : "errors");
      output = std::regex_replace(output, std::regex(" {2,}"), " ");
      if (awk == awks().front()) expected = output;
      EXPECT_TRUE(output == expected) << awk << " differs from " << awks().front() << ": " << line;
    }
    return expected;
  }

  static const Texts& awks() {
    static const Texts found = [] {
      const int status = std::system(R"(for name in awk mawk gawk original-awk; do
            awk=$(command -v $name) && { readlink -f $awk || echo $awk; }
          done | sort -u >awks)");
      EXPECT_EQ(status, 0);
      std::istringstream lines(contentOf("awks"));
      return Texts(std::istream_iterator<std::string>(lines), {});
    }();
    return found;
  }

  // The status and the outcome that the overview shows of a launch without arguments.
  static std::string outcomeOf(const Texts& texts, const Texts& moreTexts = {}) {
    write("logs/log",
          records("7", {"Program arguments:  "}) + records("7", texts) + records("7", moreTexts));
    const std::string overview = run("$LOG logs/log | sed -n 's/^.* 7 *1.2.3 *//p'");
    return overview.substr(0, overview.find('\n'));
  }

  const std::string directory = [] {
    std::string name = fs::temp_directory_path() / "kestrel-log-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
    return name;
  }();
};

TEST_F(LogReader, HasTheNamesAndStatusesOfTheDocumentation) {
  EXPECT_EQ(run(R"(
      awk -F ' *[|] *' '/^[1-5] [|]/ { print $3 ": " $2 }' "$LOG" | sort -u >table
      awk '
        /^### / { name = substr($0, 5) }
        /^- Status: / {
          gsub(/^- Status: |;.*/, "")
          count = split($0, statuses, ", ")
          for (i = 1; i <= count; i++) print name ": " statuses[i]
        }' ')" PROJECT R"(/docs/troubleshooting.md' | sort -u >page
      diff table page || true)"),
            "");
  EXPECT_THAT(contentOf("table"), HasSubstr("Java out of memory: 134\n"));
}

TEST_F(LogReader, PrintsHelp) {
  EXPECT_EQ(run("$LOG --help"), R"(Shows what happened in each launch of Kestrel, from its log.

 log [FILE] one line for each launch, oldest first
 log [FILE] PID the records of each launch with this process ID
 log [FILE] --last the records of the last launch

Without FILE, reads this user's log. Looks for crash reports in the log's directory.
Status "-": not known from the log. docs/troubleshooting.md explains each outcome.
Needs only sh and awk (AWK=... selects one).
)");
}

TEST_F(LogReader, ReadsTheLogThatTheEnvironmentSelects) {
  for (const std::string folder :
       {"chosen", "test/nativeLogs", "home/Library/Logs/Norvale/Kestrel-Dev"}) {
    write(folder + "/kestrel-native.log", records("7", {"Program arguments:  in " + folder}));
  }
  setenv("HOME", "home", 1);
  EXPECT_THAT(run("$LOG"), HasSubstr(" in home/Library/Logs/Norvale/Kestrel-Dev\n"));
  setenv("TEST_TMPDIR", "test", 1);
  EXPECT_THAT(run("$LOG"), HasSubstr(" in test/nativeLogs\n"));
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "chosen", 1);
  EXPECT_THAT(run("$LOG"), HasSubstr(" in chosen\n"));
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "", 1);
  EXPECT_EQ(run("$LOG"), "log: there is no file /kestrel-native.log\n");
  unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
  setenv("TEST_TMPDIR", "", 1);
  EXPECT_EQ(run("$LOG"), "log: there is no file /nativeLogs/kestrel-native.log\n");
}

TEST_F(LogReader, RefusesWrongArguments) {
  write("log", records("77", {"Program arguments:  "}));
  write("other", "not\na log\n");
  EXPECT_EQ(run("$LOG missing"), "log: there is no file missing\n");
  EXPECT_EQ(run("$LOG other"), "log: ./other contains no Kestrel log records\n");
  EXPECT_EQ(run("$LOG log 7"), "log: ./log has no launch with process ID 7\n");
  EXPECT_EQ(run("$LOG log other"), "log: too many arguments; see --help\n");
  EXPECT_EQ(run("$LOG 77 log --last"), "log: too many arguments; see --help\n");
  EXPECT_EQ(run("$LOG --first"), "log: unknown option: --first; see --help\n");
}

TEST_F(LogReader, RefusesAFileThatItMayNotRead) {
  if (geteuid() == 0) GTEST_SKIP() << "root may read every file";
  write("log", records("7", {"Program arguments:  "}));
  fs::permissions("log", fs::perms::none);
  EXPECT_EQ(run("$LOG log"), "log: log cannot be read\n");
}

TEST_F(LogReader, ShowsHowFarALaunchCame) {
  EXPECT_EQ(outcomeOf({}), "- no exit: before the JVM started");
  EXPECT_EQ(outcomeOf({"Starting JVM", "JVM:  JVM main ended", "JVM:  Cannot load  x"}),
            "- no exit: the JVM was starting");
  EXPECT_EQ(outcomeOf({"Starting JVM", "Java Virtual Machine is created!"}),
            "- no exit: still running, or killed");
}

TEST_F(LogReader, ShowsHowMainOrTheApplicationEnded) {
  const std::string ended = "JVM main ended", success = "JVM started successfully";
  EXPECT_EQ(outcomeOf({ended}), "255 main returned a negative value");
  EXPECT_EQ(outcomeOf({ended, success}), "0 main returned 0");
  EXPECT_EQ(outcomeOf({ended, "JVM exit after startup is set, exiting"}), "0 main returned 1");
  EXPECT_EQ(outcomeOf({ended, "Failed to initialize Kestrel JVM application: 300"}),
            "44 main returned 300");
  EXPECT_EQ(outcomeOf({"JVM: exit( -3 )", "Method ' main ' failed with exception!"}),
            "253 System.exit(-3)");
  EXPECT_EQ(outcomeOf({"JVM: exit( 0 )", ended, success}), "0 System.exit(0)");
  EXPECT_EQ(outcomeOf({"JVM: exit( 143 )", ended}), "- two exits at once");
  for (const std::string status : {"129", "130", "143"}) {
    EXPECT_EQ(outcomeOf({"JVM: exit( " + status + " )"}), status + " terminated by a signal");
  }
}

TEST_F(LogReader, ShowsTheCauseAndNotItsConsequence) {
  const Texts mainFailed = {"JVM main ended", "Failed to initialize Kestrel JVM application: 99"};
  const std::string noClass = "Failed to find  NativeLauncher  class";
  EXPECT_EQ(outcomeOf({"Failed to attach native thread to JVM"}, mainFailed),
            "103 attaching the thread failed");
  EXPECT_EQ(
      outcomeOf({noClass, "Finding  NativeLauncher  class failed with exception!"}, mainFailed),
      "104 the entry class cannot be loaded");
  EXPECT_EQ(outcomeOf({noClass}, mainFailed), "105 the entry class cannot be loaded");
  EXPECT_EQ(outcomeOf({"Failed to find method ' main ' on  NativeLauncher"}, mainFailed),
            "106 the entry class has no such main");
  EXPECT_EQ(outcomeOf({"Failed to invoke method ' main ' on the  NativeLauncher"}, mainFailed),
            "107 main could not start the application");
  EXPECT_EQ(outcomeOf({"Method ' main ' failed with exception!"}, mainFailed),
            "108 main threw an exception");
  EXPECT_EQ(outcomeOf({"Failed to start JVM"}), "53 the JVM could not be created");
  EXPECT_EQ(outcomeOf({"Failed to locate exported function to start VM", "Failed to start JVM"}),
            "53 the runtime library has no JVM");
  EXPECT_EQ(outcomeOf({"Unable to open jvm args file:  x y", "Failed to start JVM"}),
            "53 the options file cannot be read: x y");
}

TEST_F(LogReader, ShowsTheWordsOfAJvmThatDoesNotStart) {
  const std::string start = "Starting JVM", abort = "JVM: abort()";
  const std::string error = "JVM:  Error occurred during initialization of VM";
  const std::string warning = "JVM:  Server VM warning: ";
  EXPECT_EQ(outcomeOf({start, abort}), "1 the JVM could not start");
  EXPECT_EQ(
      outcomeOf({start, "JVM:  Not this\n", error, "JVM:  \nNo agent", "JVM:  : x\n\nMore", abort}),
      "1 the JVM could not start: No agent: x");
  const Texts failed1 = {"Error creating VM: code= -1 . Exiting...\n", "Failed to start JVM"};
  const Texts failed6 = {"Error creating VM: code= -6 . Exiting...\n", "Failed to start JVM"};
  EXPECT_EQ(outcomeOf({start}, failed1), "53 the JVM could not be created: -1");
  EXPECT_EQ(outcomeOf({error, "JVM:  No thread\n", abort}, failed1),
            "53 the JVM could not be created: No thread");
  EXPECT_EQ(outcomeOf({start}, failed6), "53 the JVM rejected an option");
  EXPECT_EQ(outcomeOf({start, "JVM:   \n", warning, "JVM:  \tToo large"}, failed6),
            "53 the JVM rejected an option: Too large");
  const Texts xlog = {start, "JVM:  [0.1s]", "JVM:  [error]", "JVM:  [cds]", "JVM:   No file\n"};
  EXPECT_EQ(outcomeOf(xlog, failed1),
            "53 the JVM could not be created: [0.1s][error][cds] No file");
  EXPECT_EQ(outcomeOf(xlog, {"JVM:  The reason\nMore", abort}),
            "1 the JVM could not start: The reason");
}

TEST_F(LogReader, ShowsTheFirstReasonOfTheLoader) {
  const std::string path = "/a (b)/../lib/libjli.dylib";
  const auto reasonIn = [&path](const std::string& text) {
    return outcomeOf({"Cannot load  " + path + " :  " + text},
                     {"Failed to locate exported function to start VM", "Failed to start JVM"});
  };
  const std::string shown = "53 the runtime could not be loaded: ";
  EXPECT_EQ(reasonIn(path + ": file too short"), shown + "file too short");
  EXPECT_EQ(reasonIn("libz.so: no such file"), shown + "libz.so: no such file");
  // Those of Macs.
  const std::string dlopen = "dlopen(" + path + ", 0x0001): ", here = "'" + path + "' (";
  const std::string reason = "signature of '" + path + "' (arm64) has different Team IDs (x)";
  EXPECT_EQ(reasonIn(dlopen + "tried: " + here + "no such file)"), shown + "no such file");
  EXPECT_EQ(
      reasonIn(dlopen + "tried: " + here + reason + "), '/OS' (no such file), " + here + "y)"),
      shown + reason);
  EXPECT_EQ(reasonIn(dlopen + "image not found"), shown + "image not found");
  EXPECT_EQ(reasonIn(dlopen + "no suitable image found.  Did find:\n\t" + path + ": no\n\tmore"),
            shown + "no");
}

TEST_F(LogReader, TellsClassMetadataFromTheHeap) {
  const std::string aborting = "JVM:  Aborting due to java.lang.OutOfMemoryError: ";
  const std::string terminating = "JVM:  Terminating due to java.lang.OutOfMemoryError: ";
  const std::string heap = "Java heap space";
  EXPECT_EQ(outcomeOf({aborting + heap, "JVM: abort()"}), "134 Java out of memory: " + heap);
  EXPECT_EQ(outcomeOf({terminating + heap + "\n"}), "3 Java out of memory: " + heap);
  for (const std::string space : {"Metaspace", "Compressed class space"}) {
    const std::string shown = " class metadata limit reached: " + space;
    EXPECT_EQ(outcomeOf({aborting + space, "JVM: abort()"}), "134" + shown);
    EXPECT_EQ(outcomeOf({terminating + space + "\n"}), "3" + shown);
  }
}

TEST_F(LogReader, ReadsTheCrashReportBesideTheLog) {
  const std::string memory = "JVM:  Aborting due to java.lang.OutOfMemoryError: ";
  const std::string abort = "JVM: abort()", report = "kestrel-error-7.log";
  EXPECT_EQ(outcomeOf({"Starting JVM", "Java Virtual Machine is created!", abort}),
            "- the JVM crashed");
  write("logs/" + report, "#\n# A fatal error has been detected by the JVM:\n");
  EXPECT_EQ(outcomeOf({abort}), "134 the JVM crashed: " + report);
  EXPECT_EQ(outcomeOf({"Starting JVM", abort}), "134 the JVM crashed: " + report);
  EXPECT_EQ(outcomeOf({memory + "Java heap space", abort}),
            "134 Java out of memory: Java heap space");
  write("logs/" + report,
        "# A fatal error has been detected\n# CreateCoredumpOnCrash turned off, no core\n");
  EXPECT_EQ(outcomeOf({memory + "x", abort}), "1 Java out of memory: x");
  write("logs/" + report, "# There is insufficient memory for the JVM\n");
  EXPECT_EQ(outcomeOf({abort}), "1 the system ran out of memory: " + report);
  write("logs/" + report, "#\n\n# There is insufficient memory, far below the head\n");
  EXPECT_EQ(outcomeOf({abort}), "- the JVM crashed");
}

// The beginning of the log is cut off, two processes write in turn, one process ID is used twice,
// and the JVM writes its lines in pieces.
TEST_F(LogReader, SeparatesLaunches) {
  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  write("log", "\tof a record that is cut off\n" + records("5", {"JVM main ended"}) + banner +
                   records("6", {"Program arguments:  one \ntwo ", "JVM:  Full"}) +
                   records("66", {"Program arguments:  three ", "JVM:  not in"}) +
                   records("6", {"JVM:   thread dump:\n"}) +
                   records("66", {"JVM:   another\n", "JVM:  Server VM warning: ", "JVM:  next"}) +
                   records("66", {"JVM: exit( 3 )"}) +
                   records("6", {"JVM:  \"main\"\n\tat a.b\n"}) + banner +
                   records("6", {"Program arguments:  last ", "Starting JVM"}));
  const std::string title = "time PID version status what happened arguments\n";
  const std::string time = "2026-11-23 03:00:00 ";
  const std::string first = time + "6 1.2.3 - no exit: before the JVM started one \\ntwo\n";
  const std::string last = time + "6 1.2.3 - no exit: the JVM was starting last\n";
  const std::string overview = title + time + "5 1.2.3 255 main returned a negative value ?\n" +
                               first + time + "66 1.2.3 3 System.exit(3) three\n" + last;
  const std::string firstInFull = first + R"(
f Program arguments: one 
two 
f JVM: Full thread dump:
"main"
	at a.b

See "no exit: before the JVM started" in docs/troubleshooting.md.

)";
  const std::string lastInFull = last + R"(
f Program arguments: last 
f Starting JVM

See "no exit: the JVM was starting" in docs/troubleshooting.md.

)";
  run(R"(awk '{ printf "%s\r\n", $0 }' log >mailed)");
  for (const std::string file : {"log", "mailed"}) {
    EXPECT_EQ(run("$LOG " + file), overview);
    EXPECT_EQ(run("$LOG --last " + file), title + lastInFull);
    EXPECT_EQ(run("$LOG 6 " + file), title + firstInFull + lastInFull);
    EXPECT_THAT(run("$LOG " + file + " 66"), HasSubstr(R"(
f JVM: not in another
Server VM warning: 
f JVM: next
f JVM: exit( 3 )
)"));
  }
}

TEST_F(LogReader, PrintsNothingThatATerminalObeys) {
  write("log", records("7", {"Program arguments:  \33[7m\302\233\177\n\1ö\t. "}));
  EXPECT_THAT(run("$LOG log --last"), HasSubstr(" started ?[7m??\\n?ö\t.\n\n"
                                                "f Program arguments: ?[7m??\n?ö\t. \n"));
}

TEST_F(LogReader, PrintsLongArguments) {
  const std::string arguments(9000, 'a');  // printf of mawk fails beyond 8 KiB
  write("log", records("7", {"Program arguments:  " + arguments}));
  EXPECT_TRUE(run("$LOG log").ends_with(" before the JVM started " + arguments + "\n"));
}

}  // namespace
