// What tools/log shows of logs and crash reports, with each awk of this machine.
#include <set>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::EndsWith;

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
      const std::string command =
          "LC_ALL=C.UTF-8 AWK=" + awk + " exec \"$PROJECT/tools/log\" " + arguments;
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

  const std::string head = "log: ./log\ntime PID version status what happened arguments\n";
  const std::vector<std::string> awks =
      linesOf(outputOf("for awk in awk mawk gawk original-awk; do command -v $awk || true; done"));
};

TEST_F(LogReader, HasTheNamesAndStatusesOfTheDocumentation) {
  const std::string difference = outputOf(R"(cd $ROOT
      awk -F ' *[|] *' '/^[1-5] [|]/ { print $4 ": " $3 }' "$PROJECT/tools/log" | sort -u >table
      awk '
        /^### / { name = substr($0, 5) }
        /^- Status: / {
          gsub(/^- Status: |;.*/, "")
          count = split($0, statuses, ", ")
          for (i = 1; i <= count; i++) print name ": " statuses[i]
        }' "$PROJECT/docs/troubleshooting.md" | sort -u >page
      grep -q 'Java out of memory: 134' table || echo 'the table was not read'
      diff table page || true)");
  EXPECT_TRUE(isSameText(difference, ""));
}

TEST_F(LogReader, ReadsTheLogThatTheEnvironmentSelects) {
  for (const std::string folder :
       {"chosen", "test/nativeLogs", "home/Library/Logs/Norvale/Kestrel-Dev"}) {
    fs::create_directories(root + "/" + folder);
    write(folder + "/kestrel-native.log", records("7", {"Program arguments:  in " + folder}));
  }
  unsetenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE");
  setenv("HOME", "home", 1);
  EXPECT_THAT(linesOf(read("")).back(), EndsWith(" in home/Library/Logs/Norvale/Kestrel-Dev"));
  setenv("TEST_TMPDIR", "test", 1);
  EXPECT_THAT(linesOf(read("")).back(), EndsWith(" in test/nativeLogs"));
  setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", "chosen", 1);
  EXPECT_THAT(linesOf(read("")).back(), EndsWith(" in chosen"));
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
  const std::string succeeded = "JVM started successfully", terminated = "JVM: exit( 143 )";
  const std::string threw = "Method ' main ' failed with exception!";
  // Output of the JVM that reads like a record is output.
  EXPECT_EQ(outcomeOf({"Starting JVM", "JVM:  JVM main ended", "JVM:  Cannot load  x"}),
            "- no exit: the JVM was starting");
  EXPECT_EQ(outcomeOf({ended, failed}), "44 main returned 300");
  EXPECT_EQ(outcomeOf({threw, ended, failed}), "108 main threw an exception");
  EXPECT_EQ(outcomeOf({"JVM: exit( -3 )", threw}), "253 System.exit(-3)");
  EXPECT_EQ(outcomeOf({"JVM: exit( 0 )", ended, succeeded}), "0 System.exit(0)");
  EXPECT_EQ(outcomeOf({terminated, ended, succeeded}), "- two exits at once");
  EXPECT_EQ(outcomeOf({ended, succeeded, terminated}), "- two exits at once");
  EXPECT_EQ(outcomeOf({"Cannot load  /x :  No\n\tmore\n", "Failed to start JVM"}),
            "53 the runtime could not be loaded: /x : No\\n\tmore");
}

TEST_F(LogReader, ShowsWhyAJvmDoesNotStart) {
  const std::string start = "Starting JVM", abort = "JVM: abort()";
  const std::string options = "Adding JVM args from NORVALED_JVM_ARGS:  -Xa";
  const std::string error = "JVM:  Error occurred during initialization of VM\n";
  const std::string code1 = "Error creating VM: code= -1 . Exiting...\n";
  const std::string code6 = "Error creating VM: code= -6 . Exiting...\n";
  const std::string warning = "JVM:  OpenJDK 64-Bit Server VM warning: ";
  const std::string xlog = "JVM:  [0.1s]", xlogEnd = "JVM:  [cds] No file\n";
  EXPECT_EQ(
      outcomeOf({start, "JVM:  Not this\n", error, "JVM:  \nNo agent", "JVM:  : x\n\nMore", abort}),
      "1 the JVM could not start: No agent: x");
  EXPECT_EQ(outcomeOf({error, "JVM:  No thread\n", abort, code1}),
            "53 the JVM could not be created: No thread");
  EXPECT_EQ(
      outcomeOf({options, start, warning, "JVM:   \n", xlog, xlogEnd, "JVM:  \tToo large", code6}),
      "53 the JVM rejected an option: Too large");
  EXPECT_EQ(outcomeOf({options, start, xlog, xlogEnd, code1}),
            "53 the JVM could not be created: NORVALED_JVM_ARGS=-Xa");
  EXPECT_EQ(outcomeOf({start, warning, code6}), "53 the JVM rejected an option");
  EXPECT_EQ(outcomeOf({start, "JVM:  No module\n", abort}), "1 the JVM could not start: No module");
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
      "\tof a record that is cut off\n" + records("5", {"JVM:  words"}) +
      records("6", {"Program arguments:  one \ntwo ",
                    "JVM:  OpenJDK 64-Bit Server VM warning: ", "JVM:  Full"}) +
      records("66", {"Program arguments:  three "}) + banner +
      records("66", {"JVM:  not in", "JVM: exit( 3 )"}) +
      records("6", {"JVM:   thread dump:\n", "JVM:  \"main\"\n\tat a.b\n", "x"}) + banner +
      records("6", {"Program arguments:  last ", "Starting JVM"});
  write("log", replaced(text, "\n", "\r\n"));
  EXPECT_TRUE(isSameText(read("log"),
                         head +
                             R"(2026-11-23 03:00:00 5 1.2.3 - no exit: still running, or killed ?
2026-11-23 03:00:00 6 1.2.3 - no exit: before the JVM started one \ntwo
2026-11-23 03:00:00 66 1.2.3 3 System.exit(3) three
2026-11-23 03:00:00 6 1.2.3 - no exit: the JVM was starting last
)"));
  const std::string last = R"(2026-11-23 03:00:00 6 1.2.3 - no exit: the JVM was starting last

f Program arguments: last 
f Starting JVM

See "no exit: the JVM was starting" in docs/troubleshooting.md.

)";
  EXPECT_TRUE(isSameText(read("--last log"), head + last));
  const std::string first =
      R"(2026-11-23 03:00:00 6 1.2.3 - no exit: before the JVM started one \ntwo

f Program arguments: one 
two 
f JVM: OpenJDK 64-Bit Server VM warning: 
f JVM: Full thread dump:
"main"
	at a.b
f x

See "no exit: before the JVM started" in docs/troubleshooting.md.

)";
  EXPECT_TRUE(isSameText(read("6 log"), head + first + last));
}

// One of the bytes is not UTF-8.
TEST_F(LogReader, PrintsNothingThatATerminalObeys) {
  write("log", records("7", {"Program arguments:  \33[7m\302\233\177\n\1ö\t\377. "}));
  const std::string row = "2026-11-23 03:00:00 7 1.2.3 - no exit: before the JVM started ";
  EXPECT_TRUE(isSameText(read("log"), head + row + "?[7m??\\n?ö\t\377.\n"));
  EXPECT_EQ(linesOf(read("7 log")).at(4), "f Program arguments: ?[7m??");
}

}  // namespace
