// What tools/log shows of logs and crash reports, with each awk of this machine.
#include <set>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

using Texts = std::vector<std::string>;

// Records of the process `pid`. A text with line breaks continues on further lines.
std::string records(const std::string& pid, const Texts& texts) {
  std::string log;
  for (const std::string& text : texts) {
    log += "1.2.3 " + pid + " 2026-11-23 03:00:00.400 INFO   ---- (native)                  f ";
    log += text + "\n";
  }
  return log;
}

struct LogReader : BundleFixture {
  void write(const std::string& file, const std::string& content) const {
    std::ofstream(root + "/" + file) << content;
  }

  // Runs tools/log with these arguments in $ROOT, with each awk. Returns what it prints, with each
  // run of blanks reduced to one.
  std::string read(const std::string& arguments) const {
    std::set<std::string> outputs;
    for (const std::string& awk : awks) {
      const std::string command = "AWK=" + awk + " exec \"$PROJECT/tools/log\" " + arguments;
      const std::string output = run("cd $ROOT; " + command).output;
      outputs.insert(std::regex_replace(output, std::regex(" {2,}"), " "));
    }
    EXPECT_EQ(outputs.size(), 1) << "awks differ: " << arguments;
    return *outputs.begin();
  }

  // The status and the outcome that the overview shows of a launch without arguments.
  std::string outcomeOf(const Texts& texts) const {
    write("logs/log", records("7", {"Program arguments:  "}) + records("7", texts));
    const std::string row = linesOf(read("logs/log")).back();
    return std::regex_replace(row, std::regex(".* 7 1.2.3 "), "");
  }

  const std::vector<std::string> awks =
      linesOf(outputOf("for awk in awk mawk gawk original-awk; do command -v $awk || true; done"));
};

TEST_F(LogReader, HasTheNamesAndStatusesOfTheDocumentation) {
  EXPECT_EQ(outputOf(R"(cd $ROOT
      awk -F ' *[|] *' '/^[1-5] [|]/ { print $3 ": " $2 }' "$PROJECT/tools/log" | sort -u >table
      awk '
        /^### / { name = substr($0, 5) }
        /^- Status: / {
          gsub(/^- Status: |;.*/, "")
          count = split($0, statuses, ", ")
          for (i = 1; i <= count; i++) print name ": " statuses[i]
        }' "$PROJECT/docs/troubleshooting.md" | sort -u >page
      grep -q 'Java out of memory: 134' table || echo 'the table was not read'
      diff table page || true)"),
            "");
}

TEST_F(LogReader, ReadsTheLogThatTheEnvironmentSelects) {
  for (const std::string folder :
       {"chosen", "test/nativeLogs", "home/Library/Logs/Norvale/Kestrel-Dev"}) {
    fs::create_directories(root + "/" + folder);
    write(folder + "/kestrel-native.log", records("7", {"Program arguments:  in " + folder}));
  }
  unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
  setenv("HOME", "home", 1);
  EXPECT_THAT(read(""), HasSubstr(" in home/Library/Logs/Norvale/Kestrel-Dev\n"));
  setenv("TEST_TMPDIR", "test", 1);
  EXPECT_THAT(read(""), HasSubstr(" in test/nativeLogs\n"));
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "chosen", 1);
  EXPECT_THAT(read(""), HasSubstr(" in chosen\n"));
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "", 1);  // set, so it counts
  EXPECT_EQ(read(""), "log: there is no file /kestrel-native.log\n");
}

TEST_F(LogReader, RefusesWrongArguments) {
  write("log", records("77", {"Program arguments:  "}));
  write("other", "not\na log\n");
  EXPECT_EQ(read("missing"), "log: there is no file missing\n");
  EXPECT_EQ(read("other"), "log: ./other contains no Kestrel log records\n");
  EXPECT_EQ(read("log 7"), "log: ./log has no launch with process ID 7\n");
  EXPECT_EQ(read("log other"), "log: too many arguments; see --help\n");
  EXPECT_EQ(read("--first"), "log: unknown option: --first; see --help\n");
  EXPECT_EQ(run("exec \"$PROJECT/tools/log\" $ROOT/other").ending, exited(1));
}

TEST_F(LogReader, ShowsTheCauseAndNotItsConsequence) {
  const std::string ended = "JVM main ended";
  const std::string failed = "Failed to initialize Kestrel JVM application: 300";
  const std::string threw = "Method ' main ' failed with exception!";
  // Output of the JVM that reads like a record is output.
  EXPECT_EQ(outcomeOf({"Starting JVM", "JVM:  JVM main ended", "JVM:  Cannot load  x"}),
            "- no exit: the JVM was starting");
  EXPECT_EQ(outcomeOf({ended, failed}), "44 main returned 300");
  EXPECT_EQ(outcomeOf({threw, ended, failed}), "108 main threw an exception");
  EXPECT_EQ(outcomeOf({"JVM: exit( -3 )", threw}), "253 System.exit(-3)");
  EXPECT_EQ(outcomeOf({"JVM: exit( 0 )", ended, "JVM started successfully"}), "0 System.exit(0)");
  EXPECT_EQ(outcomeOf({"JVM: exit( 143 )", ended}), "- two exits at once");
}

TEST_F(LogReader, ShowsTheWordsOfAJvmThatDoesNotStart) {
  const std::string start = "Starting JVM", abort = "JVM: abort()";
  const std::string error = "JVM:  Error occurred during initialization of VM";
  const std::string code1 = "Error creating VM: code= -1 . Exiting...\n";
  const std::string code6 = "Error creating VM: code= -6 . Exiting...\n";
  const std::string xlog = "JVM:  [0.1s][cds] No file\n";
  EXPECT_EQ(
      outcomeOf({start, "JVM:  Not this\n", error, "JVM:  \nNo agent", "JVM:  : x\n\nMore", abort}),
      "1 the JVM could not start: No agent: x");
  EXPECT_EQ(outcomeOf({error, "JVM:  No thread\n", abort, code1}),
            "53 the JVM could not be created: No thread");
  EXPECT_EQ(
      outcomeOf({start, "JVM:   \n", "JVM:  Server VM warning: ", "JVM:  \tToo large", code6}),
      "53 the JVM rejected an option: Too large");
  EXPECT_EQ(outcomeOf({start, xlog, code1}),
            "53 the JVM could not be created: [0.1s][cds] No file");
  EXPECT_EQ(outcomeOf({start, xlog, "JVM:  The reason\nMore", abort}),
            "1 the JVM could not start: The reason");
}

TEST_F(LogReader, ShowsTheFirstReasonOfTheLoader) {
  const std::string shown = "53 the runtime could not be loaded: ", failed = "Failed to start JVM";
  const std::string load = "Cannot load  /a (b)/x :  ";
  EXPECT_EQ(outcomeOf({load + "/a (b)/x: file too short", failed}), shown + "file too short");
  // Those of Macs.
  EXPECT_EQ(
      outcomeOf({load + "dlopen(/a (b)/x, 0x0001): tried: '/a (b)/x' (signature of '/a (b)/x' "
                        "(arm64) has no team), '/OS' (no such file), '/a (b)/x' (y)"}),
      shown + "signature of '/a (b)/x' (arm64) has no team");
  EXPECT_EQ(outcomeOf({load + "dlopen(/a (b)/x, 1): no suitable image found.  Did find:\n"
                              "\t/a (b)/x: no\n\tmore"}),
            shown + "no");
}

TEST_F(LogReader, ReadsTheCrashReportBesideTheLog) {
  const std::string memory = "JVM:  Aborting due to java.lang.OutOfMemoryError: ";
  const std::string abort = "JVM: abort()", report = "kestrel-error-7.log";
  write("logs/" + report, "#\n# A fatal error has been detected by the JVM:\n");
  EXPECT_EQ(outcomeOf({"Starting JVM", abort}), "134 the JVM crashed: " + report);
  EXPECT_EQ(outcomeOf({memory + "Metaspace", abort}),
            "134 class metadata limit reached: Metaspace");
  write("logs/" + report,
        "# A fatal error has been detected\n# CreateCoredumpOnCrash turned off, no core\n");
  EXPECT_EQ(outcomeOf({memory + "x", abort}), "1 Java out of memory: x");
  write("logs/" + report, "# There is insufficient memory for the JVM\n");
  EXPECT_EQ(outcomeOf({abort}), "1 the system ran out of memory: " + report);
  write("logs/" + report, "#\n\n# There is insufficient memory, far below the head\n");
  EXPECT_EQ(outcomeOf({"Starting JVM", "Java Virtual Machine is created!", abort}),
            "- the JVM crashed");
}

// The beginning of the log is cut off, two processes write in turn, one process ID is used twice,
// and the JVM writes its lines in pieces. The log was mailed, so that its lines end with CR LF.
TEST_F(LogReader, SeparatesLaunches) {
  const std::string text =
      "\tof a record that is cut off\n" + records("5", {"JVM:  words"}) + banner +
      records("6", {"Program arguments:  one \ntwo ", "JVM:  Server VM warning: ", "JVM:  Full"}) +
      records("66", {"Program arguments:  three ", "JVM:  not in", "JVM: exit( 3 )"}) +
      records("6", {"JVM:   thread dump:\n", "JVM:  \"main\"\n\tat a.b\n"}) + banner +
      records("6", {"Program arguments:  last ", "Starting JVM"});
  write("log", replaced(text, "\n", "\r\n"));
  EXPECT_EQ(read("log"), R"(log: ./log
time PID version status what happened arguments
2026-11-23 03:00:00 5 1.2.3 - no exit: still running, or killed ?
2026-11-23 03:00:00 6 1.2.3 - no exit: before the JVM started one \ntwo
2026-11-23 03:00:00 66 1.2.3 3 System.exit(3) three
2026-11-23 03:00:00 6 1.2.3 - no exit: the JVM was starting last
)");
  const std::string head = "log: ./log\ntime PID version status what happened arguments\n";
  const std::string last = R"(2026-11-23 03:00:00 6 1.2.3 - no exit: the JVM was starting last

f Program arguments: last 
f Starting JVM

See "no exit: the JVM was starting" in docs/troubleshooting.md.

)";
  EXPECT_EQ(read("--last log"), head + last);
  const std::string first =
      R"(2026-11-23 03:00:00 6 1.2.3 - no exit: before the JVM started one \ntwo

f Program arguments: one 
two 
f JVM: Server VM warning: 
f JVM: Full thread dump:
"main"
	at a.b

See "no exit: before the JVM started" in docs/troubleshooting.md.

)";
  EXPECT_EQ(read("6 log"), head + first + last);
}

TEST_F(LogReader, PrintsNothingThatATerminalObeys) {
  write("log", records("7", {"Program arguments:  \33[7m\302\233\177\n\1ö\t. "}));
  EXPECT_THAT(read("log --last"), HasSubstr(" started ?[7m??\\n?ö\t.\n\n"
                                            "f Program arguments: ?[7m??\n?ö\t. \n"));
}

TEST_F(LogReader, PrintsLongArguments) {
  const std::string arguments(9000, 'a');  // printf of mawk fails beyond 8 KiB
  write("log", records("7", {"Program arguments:  " + arguments}));
  EXPECT_TRUE(read("log").ends_with(" before the JVM started " + arguments + "\n"));
}

}  // namespace
