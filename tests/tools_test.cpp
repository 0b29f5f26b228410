// What supporters and packagers run: tools/log and tools/Bundle.java.
#include <array>
#include <sstream>

#include "tests/bundle_fixture.h"

using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::MatchesRegex;

namespace {

struct Tools : BundleFixture {
  Tools() { setenv("K", (bin + "/kestrel").c_str(), 1); }

  std::string outputOf(const std::string& line, int status = 0) {
    const Process process = run("cd $ROOT || exit; " + line);
    EXPECT_EQ(process.ending, exited(status)) << line << "\n" << process;
    return process.output;
  }
};
using Bundle = Tools;

// Each line of log_starts has the status, what happened, and the records after the arguments; "#"
// begins a line of the crash report, "~" stands for a line feed, PID for the process. The starts
// run at once, record by record in turn, after one whose beginning is cut off; the log was mailed.
TEST_F(Tools, LogTellsWhatHappened) {
  const std::string rest = " 2026-11-23 03:00:00.400 INFO   ---- (native)                  ";
  const std::string arguments(9000, 'a');  // more than mawk's printf takes
  std::string overview = R"(log: ./mailed
time PID version status what happened arguments
2026-11-23 03:00:00 11 1.2.3 - the JVM crashed ?
)";
  std::array<std::string, 12> rounds = {"cut\n1.2.3 11" + rest + "f JVM: abort()\n"};
  std::ifstream rows(PROJECT "/tests/log_starts");
  int process = 10;
  for (std::string row; std::getline(rows, row);) {
    const std::string pid = std::to_string(++process);
    const std::string head = "1.2.3 " + pid + rest;
    rounds[1] += head + "run Program arguments:  " + arguments + "\n\33[7m\302\233 \n";
    std::istringstream cells(replaced(replaced(row, "PID", pid), "~", "\n"));
    std::string status, what, record;
    std::getline(std::getline(cells, status, '|'), what, '|');
    overview += "2026-11-23 03:00:00 " + pid + " 1.2.3 " + status + " " + what + " ";
    overview += arguments + "\\n?[7m?\n";
    std::ofstream report(root + "/kestrel-error-" + pid + ".log");
    for (std::size_t round = 2; std::getline(cells, record, '|'); ++round) {
      if (record.starts_with("#"))
        report << record << "\n";
      else
        rounds[round] += head + "f " + record + "\n";
    }
  }
  std::ofstream mailed(root + "/mailed");
  for (const std::string& round : rounds) mailed << replaced(round, "\n", "\r\n") << std::flush;

  for (const std::string awk : {"awk", "mawk", "gawk", "original-awk"}) {
    if (outputOf("command -v " + awk + " || echo none") == "none\n") continue;
    const std::string read = "AWK=" + awk + " \"$PROJECT/tools/log\" ";
    EXPECT_EQ(outputOf(read + "mailed 2>&1 | sed 's/   */ /g'"), overview) << awk;
    EXPECT_THAT(outputOf(read + "13 mailed"), EndsWith(arguments + R"(
?[7m? 
f Starting JVM
f Java Virtual Machine is created!
f JVM:  Server VM warning: 
f JVM:  Full thread dump:
"main"
	at a.b

docs/troubleshooting.md, What happened: no end: running or killed

)")) << awk;
    const std::string last = outputOf("cp mailed logs/kestrel-native.log; " + read + "--last");
    EXPECT_THAT(last, HasSubstr("arguments\n2026-11-23 03:00:00       43")) << awk;
    for (const std::string words : {"$ROOT", "nosuch", "$K", "mailed 98", "mailed mailed"}) {
      EXPECT_THAT(outputOf(read + words, 1), MatchesRegex("log: [^\n]+\n")) << awk;
    }
  }
}

}  // namespace
