// A throw-away bundle around the real launcher, and starts of it as a process.
#ifndef KESTREL_TESTS_BUNDLE_H_
#define KESTREL_TESTS_BUNDLE_H_

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

inline std::string readFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

inline bool contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

// All from `start` on; empty when `text` lacks it.
inline std::string from(const std::string& text, const std::string& start) {
  const std::size_t found = text.find(start);
  return found == std::string::npos ? "" : text.substr(found);
}

// What the lines behind a log's last banner say, without version, process, time and level.
inline std::string messagesOf(const std::string& log) {
  const std::string banner = "Logger initialized\n";
  const std::string tag = " INFO   ---- (native)                 ";
  const std::size_t start = log.rfind(banner);
  if (start == std::string::npos) return "";
  std::istringstream lines(log.substr(start + banner.size()));
  std::string messages;
  for (std::string line; std::getline(lines, line);) {
    messages += contains(line, tag) ? from(line, tag).substr(tag.size()) : line;
    messages += "\n";
  }
  return messages;
}

struct Start {
  Strings arguments = {};
  Strings environment = {};  // "NAME=value", or "NAME" to have it unset
  std::string program = {};  // argv[0]; the launcher's absolute path if empty
  std::string directory = {};
  std::function<void()> beforeExec = [] {};
};

struct Result {
  int status;  // 128 and the signal's number for a process killed by one
  std::string output, log, messages;
  std::string calls;    // of the scripted JVM behind its creation, one a line
  std::string options;  // that it was created with, a blank before each, hooks with an "@"
};

class Bundle {
 public:
  // `runtimeLibrary` becomes the bundle's libjli.dylib.
  explicit Bundle(const std::string& runtimeLibrary = SCRIPTED_JVM) {
    for (const fs::path& folder : {bin, lib, jli.parent_path()}) fs::create_directories(folder);
    fs::permissions(root, fs::perms(0755));  // some starts are another user's
    fs::create_symlink(LAUNCHER, launcher);
    fs::create_symlink(runtimeLibrary, jli);
  }
  ~Bundle() { fs::remove_all(root); }

  // The process id. Of this process's own environment only what tools need is handed on.
  int start(const Start& how) const {
    std::map<std::string, std::string> variables = {{"KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs},
                                                    {"SCRIPTED_JVM_CALLS", root / "calls"}};
    for (const char* name : {"PATH", "ASAN_OPTIONS", "KESTREL_AGGRESSIVE_OPTIMIZATIONS"}) {
      if (const char* value = std::getenv(name)) variables[name] = value;
    }
    for (const std::string& change : how.environment) {
      const std::size_t sign = change.find('=');
      variables.erase(change.substr(0, sign));
      if (sign != std::string::npos) variables[change.substr(0, sign)] = change.substr(sign + 1);
    }
    Strings strings = {how.program.empty() ? launcher.string() : how.program};
    strings.insert(strings.end(), how.arguments.begin(), how.arguments.end());
    const std::size_t argc = strings.size();
    for (const auto& [name, value] : variables) strings.push_back(name + "=" + value);
    std::vector<char*> argv, envp;
    for (std::size_t i = 0; i < strings.size(); ++i) {
      (i < argc ? argv : envp).push_back(strings[i].data());
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    const int pid = fork();
    if (pid != 0) return pid;
    const int output = open((root / "output").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (!how.directory.empty() && chdir(how.directory.c_str()) != 0) _exit(126);
    how.beforeExec();
    execve(launcher.c_str(), argv.data(), envp.data());
    _exit(127);
  }

  Result finish(int pid) const {
    int status = 0;
    waitpid(pid, &status, 0);
    const std::string text = readFile(log), calls = readFile(root / "calls");
    fs::remove(root / "calls");
    const std::size_t created = calls.find('\n');
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            readFile(root / "output"),
            text,
            messagesOf(text),
            created == std::string::npos ? "" : calls.substr(created + 1),
            calls.substr(0, created)};
  }

  Result run(const Start& how = {}) const { return finish(start(how)); }

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
