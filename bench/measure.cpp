// Times whole programs side by side: every round starts each of them once, so that what else the
// machine does falls on all alike. Prints a Markdown table of medians.
//
//   measure ROUNDS STATUS NAME PROGRAM [ARG...] [-- NAME PROGRAM [ARG...]]...
//
// Each must end with the exit status STATUS.
//
// "to main" is the time from exec to the first byte on standard output, 0 where none comes. Ratios
// are those of the CPU time and peak memory to the first program's, taken round by round.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Sample {
  double toMainMs, toExitMs, cpuMs, peakKiB;
};

struct Program {
  std::string name;
  std::vector<char*> command;
  std::vector<Sample> samples;
};

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double milliseconds(const timeval& time) {
  return 1e3 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_usec);
}

Sample runOnce(const Program& program, int expectedStatus) {
  int ends[2];
  if (pipe(ends) != 0) std::exit(1);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);

  Sample sample{};
  const Clock::time_point start = Clock::now();
  pid_t pid = 0;
  if (posix_spawn(&pid, program.command[0], &actions, nullptr, program.command.data(), environ)) {
    std::fprintf(stderr, "measure: cannot start %s\n", program.command[0]);
    std::exit(1);
  }
  close(ends[1]);
  char buffer[4096];
  while (read(ends[0], buffer, sizeof buffer) > 0) {
    if (sample.toMainMs == 0) sample.toMainMs = msSince(start);
  }
  rusage usage{};
  int status = 0;
  wait4(pid, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != expectedStatus) {
    std::fprintf(stderr, "measure: %s did not end as it should\n", program.command[0]);
    std::exit(1);
  }
  sample.toExitMs = msSince(start);
  sample.cpuMs = milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  sample.peakKiB = static_cast<double>(usage.ru_maxrss);
  close(ends[0]);
  posix_spawn_file_actions_destroy(&actions);
  return sample;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + std::ssize(values) / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The median over all rounds of what `value` makes of a sample and the first program's in that
// round.
template <typename Value>
double medianOf(const Program& program, const Program& first, Value value) {
  std::vector<double> values;
  for (std::size_t i = 0; i < program.samples.size(); ++i) {
    values.push_back(value(program.samples[i], first.samples[i]));
  }
  return median(values);
}

std::vector<Program> parse(char** words) {
  std::vector<Program> programs;
  while (*words != nullptr) {
    Program program{*words, {}, {}};
    ++words;
    while (*words != nullptr && std::string(*words) != "--") program.command.push_back(*words++);
    if (*words != nullptr) ++words;
    program.command.push_back(nullptr);
    programs.push_back(program);
  }
  return programs;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const int rounds = std::stoi(argv[1]);
  const int status = std::stoi(argv[2]);
  std::vector<Program> programs = parse(argv + 3);
  for (const Program& program : programs) runOnce(program, status);  // warms the caches
  for (int round = 0; round < rounds; ++round) {
    for (Program& program : programs) program.samples.push_back(runOnce(program, status));
  }
  std::puts(
      "| program | to main, ms | to exit, ms | CPU, ms | peak, MiB | CPU ratio | peak ratio |");
  std::puts("|---|---|---|---|---|---|---|");
  for (const Program& program : programs) {
    const auto of = [&](auto value) { return medianOf(program, programs[0], value); };
    std::printf("| %s | %.2f | %.2f | %.2f | %.2f | %.3f | %.3f |\n", program.name.c_str(),
                of([](const Sample& s, const Sample&) { return s.toMainMs; }),
                of([](const Sample& s, const Sample&) { return s.toExitMs; }),
                of([](const Sample& s, const Sample&) { return s.cpuMs; }),
                of([](const Sample& s, const Sample&) { return s.peakKiB / 1024; }),
                of([](const Sample& s, const Sample& first) { return s.cpuMs / first.cpuMs; }),
                of([](const Sample& s, const Sample& first) { return s.peakKiB / first.peakKiB; }));
  }
  return 0;
}
