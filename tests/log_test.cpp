// tools/log on a hand-made log: its whole overview, one start in full, and what it refuses.
#include <regex>
#include <vector>

#include "tests/bundle_fixture.h"

using testing::HasSubstr, testing::MatchesRegex;

namespace {

// Each line of log_starts has the status, what happened, and the records after the arguments; "#"
// begins a line of the crash report, "~" stands for a line feed, PID for the process. The starts
// run at once, record by record in turn, after one whose beginning is cut off; the log was mailed.
struct Log : BundleFixture {
  Log() {
    std::vector<std::string> rounds(12);
    std::ifstream rows(PROJECT_FOLDER "/tests/log_starts");
    int process = 10;
    for (std::string row; std::getline(rows, row);) {
      const std::string pid = std::to_string(++process);
      row = replaced(replaced(row, "PID", pid), "~", "\n");
      const std::regex bar(" [|] ");
      const std::vector<std::string> cells(
          std::sregex_token_iterator(row.begin(), row.end(), bar, -1), {});
      overview += "2026-11-23 03:00:00       " + pid + "  1.2.3       ";
      overview += std::string(6 - cells[0].size(), ' ') + cells[0] + "  " + cells[1];
      overview.append(cells[1].size() < 36 ? 36 - cells[1].size() : 0, ' ')
          .append("  one\\n?[7m?\n");
      const std::string head =
          "1.2.3 " + pid + " 2026-11-23 03:00:00.400 INFO   ---- (native)                  ";
      rounds[1] += head + "run Program arguments:  one\n\33[7m\302\233 \n";
      for (std::size_t i = 2; i < cells.size(); ++i) {
        const bool isReport = cells[i].starts_with("#");
        if (!isReport) rounds[i] += head + "f " + cells[i] + "\n";
        std::ofstream report(logs + "/kestrel-error-" + pid + ".log", std::ios::app);
        if (isReport) report << cells[i] << "\n";
      }
    }
    std::string text =
        "cut\n1.2.3 9 2026-11-23 03:00:00.400 INFO   ---- (native)                  f JVM: "
        "abort()\n";
    for (const std::string& round : rounds) text += round;
    std::ofstream(logs + "/mailed") << replaced(text, "\n", "\r\n");
    setenv("READ", PROJECT_FOLDER "/tools/log", 1);
    setenv("LOG", (logs + "/mailed").c_str(), 1);
  }

  std::string overview = R"(log: <logs>/mailed
time                     PID  version     status  what happened                         arguments
2026-11-23 03:00:00        9  1.2.3            -  the JVM crashed                       ?
)";
};

TEST_F(Log, TellsWhatHappened) {
  for (const std::string awk : {"awk", "mawk", "gawk", "original-awk"}) {
    if (start("command -v " + awk + " || echo none").output == "none\n") continue;
    setenv("AWK", awk.c_str(), 1);
    EXPECT_EQ(start("\"$READ\" $LOG").output, overview) << awk;
    EXPECT_THAT(start("\"$READ\" 13 $LOG").output, HasSubstr(R"(

run Program arguments:  one
?[7m? 
f Starting JVM
f Java Virtual Machine is created!
f JVM:  Server VM warning: 
f JVM:  Full thread dump:
"main"
	at a.b

docs/troubleshooting.md, What happened: no end: running or killed
)")) << awk;
    EXPECT_THAT(start("\"$READ\" --last $LOG").output, HasSubstr("00       43  1.2.3")) << awk;
    for (const std::string words : {"$ROOT", "nosuch", "$K", "$LOG 98", "$LOG $LOG"}) {
      EXPECT_THAT(start("\"$READ\" " + words, 1).output, MatchesRegex("log: [^\n]+\n")) << awk;
    }
  }
}

}  // namespace
