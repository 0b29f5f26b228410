// A throw-away bundle around the real launcher, and starts of it as a process.
#ifndef KESTREL_TESTS_BUNDLE_H_
#define KESTREL_TESTS_BUNDLE_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

inline std::string readFile(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const fs::path& path, const std::string& s) { std::ofstream(path) << s; }

inline bool contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

// All from `start` on; empty when `text` lacks it.
inline std::string from(const std::string& text, const std::string& start) {
  return contains(text, start) ? text.substr(text.find(start)) : "";
}

// What the lines behind a log's last banner say, without version, process, time and level.
inline std::string messagesOf(const std::string& log) {
  const std::string banner = "Logger initialized\n", tag = " INFO   ---- (native)                 ";
  if (!contains(log, banner)) return "";
  std::istringstream lines(log.substr(log.rfind(banner) + banner.size()));
  std::string messages;
  for (std::string line; std::getline(lines, line);) {
    messages += (contains(line, tag) ? from(line, tag).substr(tag.size()) : line) + "\n";
  }
  return messages;
}

struct Start {
  Strings arguments = {};
  Strings environment = {};  // "NAME=value", or "NAME" to have it unset
  std::string program = {};  // argv[0]; the launcher's absolute path if empty
  std::string directory = ".";
  std::function<void()> beforeExec = [] {};
};

struct Result {
  std::string output, log, messages;
  std::string calls;    // of the scripted JVM behind its creation, one a line
  std::string options;  // its creation: a word, then each option behind a blank, hooks with an "@"
};

// Leaves nothing in the environment that steers the launcher or a JVM, but for what `changes` say.
inline void setEnvironment(const Strings& changes) {
  std::istringstream names(
      "HOME TEST_TMPDIR TMPDIR JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS NORVALED_JVM_ARGS "
      "NORVALED_DEBUG_PORT KESTREL_GC_FORCE_SERIAL_GC KESTREL_GC_FORCE_PARALLEL_GC "
      "KESTREL_GC_AGGRESSIVE_RECLAIM KESTREL_GC_MAX_PAUSE_MILLIS "
      "KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE");
  Strings all(std::istream_iterator<std::string>(names), {});
  all.insert(all.end(), changes.begin(), changes.end());
  for (const std::string& change : all) {
    const std::string name = change.substr(0, change.find('='));
    unsetenv(name.c_str());
    if (name != change) setenv(name.c_str(), change.c_str() + name.size() + 1, 1);
  }
}

class Bundle {
 public:
  // `runtimeLibrary` becomes the bundle's libjli.dylib.
  explicit Bundle(const std::string& runtimeLibrary = SCRIPTED_JVM) {
    for (const fs::path& folder : {bin, lib, jli.parent_path()}) fs::create_directories(folder);
    fs::permissions(root, fs::perms(0755));  // some starts are another user's
    fs::copy_file(LAUNCHER, launcher);
    fs::create_symlink(runtimeLibrary, jli);
  }
  ~Bundle() { fs::remove_all(root); }

  // The process id.
  int start(const Start& how) const {
    const int pid = fork();
    if (pid != 0) return pid;
    Strings environment = ownEnvironment();
    environment.insert(environment.end(), how.environment.begin(), how.environment.end());
    setEnvironment(environment);
    Strings command = {how.program.empty() ? launcher.string() : how.program};
    command.insert(command.end(), how.arguments.begin(), how.arguments.end());
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);

    const int output = open((root / "output").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (chdir(how.directory.c_str()) != 0) _exit(126);
    how.beforeExec();
    execv(launcher.c_str(), argv.data());
    _exit(127);
  }

  // `expected` is the exit status, or 128 and the number of the signal that kills the process.
  Result finish(int pid, int expected = 0) const {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), expected);
    const std::string text = readFile(log), calls = readFile(root / "calls");
    fs::remove(root / "calls");
    return {readFile(root / "output"), text, messagesOf(text),
            from(calls, "\n").substr(calls.empty() ? 0 : 1), calls.substr(0, calls.find('\n'))};
  }

  Result run(const Start& how = {}, int expected = 0) const { return finish(start(how), expected); }

  Strings ownEnvironment() const {
    return {"SCRIPTED_JVM_CALLS=" + (root / "calls").string(),
            "KESTREL_NATIVE_LOG_DIR_OVERRIDE=" + logs.string()};
  }

  const fs::path root = [] {
    std::string name = fs::temp_directory_path() / "kestrel-XXXXXX";
    return fs::path(mkdtemp(name.data()));
  }();
  const fs::path contents = root / "Kestrel.app/Contents";
  const fs::path bin = contents / "MacOS", launcher = bin / "kestrel", lib = contents / "lib";
  const fs::path jli = contents / "jre/Contents/Home/lib/libjli.dylib";
  const fs::path logs = root / "logs", log = logs / "kestrel-native.log";
};

#endif  // KESTREL_TESTS_BUNDLE_H_
