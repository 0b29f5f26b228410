// Times whole programs side by side: every round starts each of them once, so that what else the
// machine does falls on all alike. Prints a Markdown table of medians.
//
//   measure ROUNDS STATUS NAME PROGRAM [ARG...] [-- NAME PROGRAM [ARG...]]...
//
// Each must end with the exit status STATUS. "To main" is the time from exec to the first byte on
// standard output, 0 where none comes. Ratios are to the first program's figures of the same round.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

enum { toMainMs, toExitMs, cpuMs, peakMiB, figures };

struct Program {
  char* name;
  std::vector<char*> command;
  std::vector<std::array<double, figures>> rounds;
};

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double milliseconds(const timeval& time) {
  return 1e3 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_usec);
}

std::array<double, figures> runOnce(const Program& program, int expectedStatus) {
  std::array<double, figures> result{};
  int ends[2];
  int status = pipe2(ends, O_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const Clock::time_point start = Clock::now();
  pid_t pid = 0;
  posix_spawn(&pid, program.command[0], &actions, nullptr, program.command.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  char buffer[4096];
  while (read(ends[0], buffer, sizeof buffer) > 0) {
    if (result[toMainMs] == 0) result[toMainMs] = msSince(start);
  }
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  result[toExitMs] = msSince(start);
  close(ends[0]);
  if (pid == 0 || !WIFEXITED(status) || WEXITSTATUS(status) != expectedStatus) {
    std::fprintf(stderr, "measure: %s did not end as it should\n", program.command[0]);
    std::exit(1);
  }
  result[cpuMs] = milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  result[peakMiB] = static_cast<double>(usage.ru_maxrss) / 1024;
  return result;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void printRow(const Program& program, const Program& first) {
  std::array<std::vector<double>, figures> values;
  std::array<std::vector<double>, figures> ratios;
  for (std::size_t round = 0; round < program.rounds.size(); ++round) {
    for (std::size_t figure = 0; figure < figures; ++figure) {
      const double value = program.rounds[round][figure];
      values[figure].push_back(value);
      ratios[figure].push_back(value / first.rounds[round][figure]);
    }
  }
  std::printf("| %s |", program.name);
  for (const auto& column : values) std::printf(" %.2f |", median(column));
  for (const auto figure : {toExitMs, cpuMs, peakMiB})
    std::printf(" %.3f |", median(ratios[figure]));
  std::puts("");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const int rounds = std::stoi(argv[1]);
  const int status = std::stoi(argv[2]);
  std::vector<Program> programs;
  for (char** word = argv + 3; word < argv + argc; ++word) {
    Program& program = programs.emplace_back(Program{*word, {}, {}});
    while (*++word != nullptr && std::string(*word) != "--") program.command.push_back(*word);
    program.command.push_back(nullptr);
  }
  for (const Program& program : programs) runOnce(program, status);  // warms the caches
  for (int round = 0; round < rounds; ++round) {
    for (Program& program : programs) program.rounds.push_back(runOnce(program, status));
  }
  std::puts(
      "| program | to main, ms | to exit, ms | CPU, ms | peak, MiB "
      "| exit ratio | CPU ratio | peak ratio |\n|---|---|---|---|---|---|---|---|");
  for (const Program& program : programs) printRow(program, programs[0]);
  return 0;
}
