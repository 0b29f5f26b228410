// Times whole programs side by side and prints a Markdown table of medians. Each round runs every
// program once, so that other load affects all of them equally.
//
//   measure ROUNDS STATUS NAME PROGRAM [ARG...] [-- NAME PROGRAM [ARG...]]...
//
// Each program must exit with STATUS. "To main" is the time until the first byte on standard
// output; it is 0 if there is no output. Ratios are to the first program's figures in the same
// round.
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

enum Figure { TO_MAIN_MS, TO_EXIT_MS, CPU_MS, PEAK_MIB, FIGURE_COUNT };
using Figures = std::array<double, FIGURE_COUNT>;

struct Program {
  char* name;
  std::vector<char*> command;   // ends with a null pointer
  std::vector<Figures> rounds;  // one for each round
};

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "measure: %s\n", message.c_str());
  std::exit(1);
}

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double milliseconds(const timeval& time) {
  return 1e3 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_usec);
}

struct Child {
  pid_t pid;
  Clock::time_point started;
};

// Starts the program with `output` as its standard output and without standard error.
Child start(const Program& program, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  Child child{0, Clock::now()};
  const int error = posix_spawn(&child.pid, program.command[0], &actions, nullptr,
                                program.command.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) fail(std::string("cannot start ") + program.command[0]);
  return child;
}

Figures runOnce(const Program& program, int expectedStatus) {
  Figures figures{};
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("cannot create a pipe");
  const auto [readEnd, writeEnd] = ends;

  const Child child = start(program, writeEnd);
  close(writeEnd);
  char buffer[4096];
  while (read(readEnd, buffer, sizeof buffer) > 0) {
    if (figures[TO_MAIN_MS] == 0) figures[TO_MAIN_MS] = millisecondsSince(child.started);
  }
  int status = 0;
  rusage usage{};
  wait4(child.pid, &status, 0, &usage);
  figures[TO_EXIT_MS] = millisecondsSince(child.started);
  close(readEnd);

  if (!WIFEXITED(status) || WEXITSTATUS(status) != expectedStatus) {
    fail(std::string(program.command[0]) + " did not exit with " + std::to_string(expectedStatus));
  }
  figures[CPU_MS] = milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  figures[PEAK_MIB] = static_cast<double>(usage.ru_maxrss) / 1024;
  return figures;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double medianFigure(const Program& program, int figure) {
  std::vector<double> values;
  for (const Figures& round : program.rounds) values.push_back(round[figure]);
  return median(values);
}

double medianRatio(const Program& program, const Program& first, int figure) {
  std::vector<double> ratios;
  for (std::size_t round = 0; round < program.rounds.size(); ++round) {
    ratios.push_back(program.rounds[round][figure] / first.rounds[round][figure]);
  }
  return median(ratios);
}

void printTable(const std::vector<Program>& programs) {
  std::puts(
      "| program | to main, ms | to exit, ms | CPU, ms | peak, MiB "
      "| exit ratio | CPU ratio | peak ratio |");
  std::puts("|---|---|---|---|---|---|---|---|");
  for (const Program& program : programs) {
    std::printf("| %s |", program.name);
    for (int figure = 0; figure < FIGURE_COUNT; ++figure) {
      std::printf(" %.2f |", medianFigure(program, figure));
    }
    for (const Figure figure : {TO_EXIT_MS, CPU_MS, PEAK_MIB}) {
      std::printf(" %.3f |", medianRatio(program, programs[0], figure));
    }
    std::puts("");
  }
}

// The programs in `words`, which "--" separates.
std::vector<Program> parsePrograms(const std::vector<char*>& words) {
  std::vector<Program> programs;
  std::size_t i = 0;
  while (i < words.size()) {
    Program program{words[i], {}, {}};
    ++i;
    while (i < words.size() && std::string(words[i]) != "--") {
      program.command.push_back(words[i]);
      ++i;
    }
    if (program.command.empty()) fail(std::string("no program for ") + program.name);
    program.command.push_back(nullptr);
    programs.push_back(program);
    ++i;  // the "--"
  }
  return programs;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) fail("usage: measure ROUNDS STATUS NAME PROGRAM [ARG...] [-- ...]");
  const int rounds = std::stoi(argv[1]);
  if (rounds < 1) return 2;
  const int status = std::stoi(argv[2]);
  const std::vector<char*> words(argv + 3, argv + argc);
  std::vector<Program> programs = parsePrograms(words);

  for (const Program& program : programs) runOnce(program, status);  // fills the caches
  for (int round = 0; round < rounds; ++round) {
    for (Program& program : programs) program.rounds.push_back(runOnce(program, status));
  }
  printTable(programs);
  return 0;
}
