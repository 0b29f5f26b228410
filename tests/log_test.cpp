// tools/log, run with each awk of this machine: what it shows of logs and crash reports.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using std::string_literals::operator""s;
using testing::EndsWith, testing::HasSubstr;

class LogReader : public testing::Test {
 protected:
  LogReader() {
    fs::current_path(root);
    setenv("LOG", PROJECT "/tools/log", 1);
    for (const char* name : {"KESTREL_NATIVE_LOG_DIR_OVERRIDE", "TEST_TMPDIR"}) unsetenv(name);
  }
  ~LogReader() override {
    fs::current_path("/");
    fs::remove_all(root);
  }

  static void write(const std::string& file, const std::string& content) {
    if (const fs::path folder = fs::path(file).parent_path(); !folder.empty()) {
      fs::create_directories(folder);
    }
    std::ofstream(file) << content;
  }

  static std::string contentOf(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  // Runs a line of /bin/sh, in which $LOG is the log reader. Returns standard output, with runs of
  // blanks as one, or standard error if the exit status is not 0.
  static std::string run(const std::string& line) {
    std::string first;
    for (const std::string awk : {"awk", "mawk", "gawk", "original-awk"}) {
      if (std::system(("command -v " + awk + " >found").c_str()) != 0) continue;
      setenv("AWK", awk.c_str(), 1);
      const int status = std::system(("{ " + line + "; } >output 2>errors").c_str());
      std::string output = contentOf(status == 0 ? "output" : "errors");
      output = std::regex_replace(output, std::regex(" {2,}"), " ");
      if (first.empty()) first = output;
      EXPECT_EQ(output, first) << "differs with " << awk << ": " << line;
    }
    return first;
  }

  // Records of one process. A text may go on in further lines.
  static std::string records(const std::string& pid, const std::vector<std::string>& texts) {
    std::string log;
    for (const std::string& text : texts) {
      log += "1.2.3 " + pid + " 2026-11-23 03:00:00.400 INFO   ---- (native)                  f ";
      log += text + "\n";
    }
    return log;
  }

  // Each line of `rows` is STATUS OUTCOME <- RECORD | RECORD ...: what the overview shows of a
  // launch with these records after its arguments and `end` after them. "~" stands for a line
  // break, PATH for a path; what begins with "#" is a line of the crash report.
  static void expectOutcomes(const std::string& rows, const std::string& end = "") {
    std::istringstream lines(rows);
    for (std::string row; std::getline(lines, row);) {
      row = std::regex_replace(row, std::regex("PATH"), "/a (b)/../lib/libjli.dylib");
      const std::size_t arrow = row.find(" <-");
      const std::string texts = row.substr(arrow + 3) + end;
      std::istringstream cells(std::regex_replace(texts, std::regex("~"), "\n"));
      cells >> std::ws;
      std::string log = records("7", {"Program arguments:  "}), report;
      for (std::string text; std::getline(cells, text, '|');) {
        if (text.starts_with("#")) {
          report += text + "\n";
        } else if (!text.empty()) {
          log += records("7", {text});
        }
      }
      write("log", log);
      write("kestrel-error-7.log", report);
      const std::string overview = run("$LOG log | sed -n 's/^.* 7 *1.2.3 *//p'");
      EXPECT_EQ(overview, row.substr(0, arrow) + "\n") << "for " << row;
    }
  }

  const std::string root = [] {
    std::string name = fs::temp_directory_path() / "kestrel-log-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
    return name;
  }();
};

// The statuses of each name, in the table of tools/log ("5 | 134 | Java out of memory | ...") or in
// the page ("### Java out of memory", then "- Status: 134, 3; ...").
std::map<std::string, std::set<std::string>> statusesIn(const std::string& file) {
  const std::regex row(R"([1-6] \| +([-N0-9]+) \| ([^|]*[^ |]) *\|.*)");
  const std::regex heading("### (.*)"), statusLine("- Status: ([^;]*).*"), status("[-N0-9]+");
  std::map<std::string, std::set<std::string>> statuses;
  std::ifstream lines(file);
  std::smatch match;
  std::string name;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, match, row)) {
      statuses[match[2]].insert(match[1]);
    } else if (std::regex_match(line, match, heading)) {
      name = match[1];
    } else if (std::regex_match(line, match, statusLine)) {
      const std::string list = match[1];
      statuses[name].insert(std::sregex_token_iterator(list.begin(), list.end(), status), {});
    }
  }
  return statuses;
}

TEST_F(LogReader, AgreesWithItsDocumentation) {
  auto table = statusesIn(PROJECT "/tools/log");
  auto page = statusesIn(PROJECT "/docs/troubleshooting.md");
  EXPECT_GT(table.size(), 20);
  for (const auto& [name, statuses] : table) EXPECT_EQ(page[name], statuses) << name;
  for (const auto& [name, statuses] : page) EXPECT_EQ(table[name], statuses) << name;
}

TEST_F(LogReader, HelpsInFull) {
  EXPECT_EQ(run("$LOG --help"), R"(Shows what happened in each launch of Kestrel, from its log.

 log [FILE] one line for each launch, oldest first
 log [FILE] PID the records of each launch with this process ID
 log [FILE] --last the records of the last launch

Without FILE, reads this user's log. Looks for crash reports in the log's directory.
Status "-": not known from the log. docs/troubleshooting.md explains each outcome.
Needs only sh and awk (AWK=... selects one).
)");
}

TEST_F(LogReader, ReadsTheLogOfTheUser) {
  const std::string home = "home/Library/Logs/Norvale/Kestrel-Dev";
  for (const std::string& folder : {home, "t/nativeLogs"s, "o"s, "nativeLogs"s}) {
    write(folder + "/kestrel-native.log", records("7", {"Program arguments:  in " + folder}));
  }
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE=$PWD/o TEST_TMPDIR=$PWD/t", "o"},
      {"TEST_TMPDIR=$PWD/t", "t/nativeLogs"},
      {"", home},
      {"KESTREL_NATIVE_LOG_DIR_OVERRIDE= TEST_TMPDIR=$PWD/t", "there is no file /kestrel-"},
      {"TEST_TMPDIR=", "there is no file /nativeLogs/kestrel-"},
  };
  for (const auto& [environment, folder] : rows) {
    EXPECT_THAT(run("HOME=$PWD/home " + environment + " $LOG"), HasSubstr(folder)) << environment;
  }
}

TEST_F(LogReader, RefusesWhatItCannotRead) {
  write("log", records("7", {"Program arguments:  "}));
  write("other", "not\na log\n");
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"missing", "there is no file missing"},
      {"/", "there is no file /"},
      {"other", "./other contains no Kestrel log records"},
      {"log 77", "./log has no launch with process ID 77"},
      {"log other", "too many arguments; see --help"},
      {"7 log --last", "too many arguments; see --help"},
      {"--lost", "unknown option: --lost; see --help"},
  };
  for (const auto& [arguments, message] : rows) {
    EXPECT_EQ(run("$LOG " + arguments), "log: " + message + "\n") << arguments;
  }
  fs::permissions("log", fs::perms::none);
  if (access("log", R_OK) == 0) GTEST_SKIP() << "root can read every file";
  EXPECT_EQ(run("$LOG log"), "log: log cannot be read\n");
}

TEST_F(LogReader, TellsTheOutcomeFromTheRecords) {
  expectOutcomes(R"(- no exit: before the JVM started <-
- no exit: the JVM was starting <- Starting JVM|JVM:  JVM main ended
- no exit: still running, or killed <- Starting JVM|Java Virtual Machine is created!
255 main returned a negative value <- JVM main ended
0 main returned 0 <- JVM main ended|JVM started successfully
0 main returned 1 <- JVM main ended|JVM exit after startup is set, exiting
44 main returned 300 <- JVM main ended|Failed to initialize Kestrel JVM application: 300
253 System.exit(-3) <- JVM: exit( -3 )|Method ' main ' failed with exception!
0 System.exit(0) <- JVM: exit( 0 )|JVM main ended|JVM started successfully
- two exits at once <- JVM: exit( 143 )|JVM main ended|JVM started successfully
129 terminated by a signal <- JVM: exit( 129 )
130 terminated by a signal <- JVM: exit( 130 )
143 terminated by a signal <- JVM: exit( 143 )
)");
}

TEST_F(LogReader, ShowsTheCauseRatherThanItsConsequences) {
  expectOutcomes(R"(103 attaching the thread failed <- Failed to attach native thread to JVM
105 the entry class cannot be loaded <- Failed to find  NativeLauncher  class
104 the entry class cannot be loaded <- Failed to find  NativeLauncher  class|)"
                 R"(Finding  NativeLauncher  class failed with exception!
106 the entry class has no such main <- Failed to find method ' main ' on  NativeLauncher
107 main could not start the application <- Failed to invoke method ' main ' on the  NativeLauncher
108 main threw an exception <- Method ' main ' failed with exception!
)",
                 "|JVM main ended|Failed to initialize Kestrel JVM application: 99");
  expectOutcomes(R"(53 the JVM could not be created <-
53 the runtime library has no JVM <- Failed to locate exported function to start VM
53 the options file cannot be read: x y <- Unable to open jvm args file:  x y
)",
                 "|Failed to start JVM");
}

TEST_F(LogReader, ShowsWhyTheJvmCouldNotStart) {
  const std::string error = "|JVM:  Error occurred during initialization of VM|";
  expectOutcomes(
      "1 the JVM could not start <- Starting JVM|JVM: abort()\n"
      "1 the JVM could not start: No agent: x <- Starting JVM|JVM:  Not this" +
      error + "JVM:  ~No agent|JVM:  : x~~More|JVM: abort()\n" +
      "53 the JVM could not be created: No thread <- Starting JVM" + error +
      "JVM:  No thread~|JVM: abort()|Error creating VM: code= -4 . Exiting...~\n" +
      R"(53 the JVM could not be created: -1 <- Error creating VM: code= -1 . Exiting...~
53 the JVM rejected an option <- Starting JVM|Error creating VM: code= -6 . Exiting...~
53 the JVM rejected an option: Too large <- Starting JVM|JVM:  Server VM warning: |JVM:  [0.1s]|)"
      "JVM:  [error]|JVM:  [cds]|JVM:   No file~|JVM:  Server VM warning: |"
      "JVM:  Too large~|Error creating VM: code= -6 . Exiting...~\n");
}

TEST_F(LogReader, ShowsTheFirstReasonOfTheLoader) {
  const std::string outcome = "\n53 the runtime could not be loaded: ";
  const std::string load = " <- Cannot load  PATH :  ";
  const std::string team = "signature of 'PATH' (arm64) has different Team IDs (x)";
  const std::string tried = "dlopen(PATH, 0x0001): tried: 'PATH' (";
  expectOutcomes(outcome.substr(1) + "file too short" + load + "PATH: file too short" +  // Linux
                     outcome + "libz.so: no such file" + load + "libz.so: no such file" + outcome +
                     "no such file" + load + tried + "no such file)" + outcome + team + load +
                     tried + team + "), '/OSPATH' (no such file), 'PATH' (" + team + ")" + outcome +
                     "image not found" + load + "dlopen(PATH, 1): image not found" + outcome +
                     "wrong architecture" + load + "dlopen(PATH, 1): no suitable image found.  " +
                     "Did find:~\tPATH: wrong architecture~\tPATH: other",
                 "|Failed to locate exported function to start VM|Failed to start JVM");
}

TEST_F(LogReader, ReadsTheCrashReportBesideTheLog) {
  expectOutcomes(R"(- the JVM crashed <- JVM: abort()
134 the JVM crashed: kestrel-error-7.log <- #|# A fatal error has been detected by|JVM: abort()
134 the JVM crashed: kestrel-error-7.log <- # A fatal error has been detected|)"
                 R"(Starting JVM|JVM: abort()
1 the system ran out of memory: kestrel-error-7.log <- # There is insufficient memory|JVM: abort()
- the JVM crashed <- #~end of the head|# There is insufficient memory|JVM: abort()
)");
  const std::string memory =
      " <- # A fatal error|JVM:  Aborting due to java.lang.OutOfMemoryError: ";
  expectOutcomes("134 Java out of memory: Java heap space" + memory + "Java heap space\n" +
                     "134 class metadata limit reached: Metaspace" + memory + "Metaspace\n" +
                     "1 Java out of memory: x" + memory + "x|# CreateCoredumpOnCrash turned off",
                 "|JVM: abort()");
}

// A log whose beginning was cut off, with two launches that write in turn and a third that has the
// PID of the first; the JVM writes its lines in pieces. It was mailed.
TEST_F(LogReader, SeparatesLaunches) {
  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  write("log",
        "\tof a record that is cut off\n" + records("5", {"JVM main ended"}) + banner +
            records("6", {"Program arguments:  one \ntwo ", "JVM:  Full"}) +
            records("77", {"Program arguments:  three ", "JVM:  not in"}) +
            records("6", {"JVM:   thread dump:\n", "JVM:  \"main\"\n\tat a.b\n"}) +
            records("77", {"JVM:   another\n", "JVM:  Server VM warning: ", "JVM: exit( 3 )"}) +
            banner + records("6", {"Program arguments:  last ", "Starting JVM"}));
  run("awk '{ printf \"%s\\r\\n\", $0 }' log >mailed");
  const std::string title = "time PID version status what happened arguments\n";
  const std::string first = "2026-11-23 03:00:00 5 1.2.3 255 main returned a negative value ?\n";
  const std::string six =
      "2026-11-23 03:00:00 6 1.2.3 - no exit: before the JVM started one \\ntwo\n";
  const std::string seven = "2026-11-23 03:00:00 77 1.2.3 3 System.exit(3) three\n";
  const std::string last = "2026-11-23 03:00:00 6 1.2.3 - no exit: the JVM was starting last\n";
  const std::string lastInFull = last + R"(
f Program arguments: last 
f Starting JVM

See "no exit: the JVM was starting" in docs/troubleshooting.md.

)";
  for (const std::string file : {"log", "mailed"}) {
    EXPECT_EQ(run("$LOG " + file), title + first + six + seven + last);
    EXPECT_EQ(run("$LOG --last " + file), title + lastInFull);
    EXPECT_EQ(run("$LOG 6 " + file), title + six + R"(
f Program arguments: one 
two 
f JVM: Full thread dump:
"main"
	at a.b

See "no exit: before the JVM started" in docs/troubleshooting.md.

)" + lastInFull);
    EXPECT_THAT(run("$LOG " + file + " 77"), HasSubstr(R"(
f JVM: not in another
Server VM warning: 
f JVM: exit( 3 )
)"));
  }
}

TEST_F(LogReader, PrintsLongArgumentsButNothingThatATerminalObeys) {
  const std::string arguments(9000, 'a');  // mawk's printf fails at 8192
  write("log", records("7", {"Program arguments:  " + arguments + "\33[7m\302\233\177\n\1ö\t "}));
  const std::string output = run("$LOG log --last");
  const std::string expected = "?[7m??\\n?ö\t\n\nf Program arguments: ";
  EXPECT_EQ(output.find(expected), output.find(arguments) + arguments.size());
  EXPECT_THAT(output, EndsWith(R"(a?[7m??
?ö	 

See "no exit: before the JVM started" in docs/troubleshooting.md.

)"));
}

}  // namespace
