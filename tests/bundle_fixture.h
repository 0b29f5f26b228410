// A temporary bundle whose Java runtime is the scripted JVM, and shell commands that run in it.
#ifndef KESTREL_TESTS_BUNDLE_FIXTURE_H_
#define KESTREL_TESTS_BUNDLE_FIXTURE_H_

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

inline std::string contentOf(const std::string& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t i = 0; (i = text.find(from, i)) != std::string::npos; i += to.size()) {
    text.replace(i, from.size(), to);
  }
  return text;
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The lines of `text` that match a regular expression somewhere.
inline std::string linesWith(const std::string& text, const std::string& expression) {
  std::string found;
  for (const std::string& line : linesOf(text)) {
    if (std::regex_search(line, std::regex(expression))) found += line + "\n";
  }
  return found;
}

// The text from `beginning` on, or all of it.
inline std::string since(const std::string& beginning, const std::string& text) {
  const std::size_t begin = text.find(beginning);
  return begin == std::string::npos ? text : text.substr(begin);
}

// The last line, or nothing.
inline std::string lastLine(const std::string& text) {
  const std::vector<std::string> lines = linesOf(text);
  return lines.empty() ? "" : lines.back();
}

// For texts of several lines: EXPECT_TRUE(isSameText(actual, expected)) shows only the lines that
// differ, where EXPECT_EQ would also print both texts as a whole, and take "-" for the actual one.
// The difference is GoogleTest's own.
inline testing::AssertionResult isSameText(const std::string& actual, const std::string& expected) {
  if (actual == expected) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << "the texts differ (- expected, + actual):\n"
         << testing::internal::edit_distance::CreateUnifiedDiff(linesOf(expected), linesOf(actual));
}

inline std::string exited(int status) { return "exited with status " + std::to_string(status); }
inline std::string killed(int signal) { return std::string("killed: ") + strsignal(signal); }

// A process that has ended.
struct Process {
  pid_t pid = 0;
  std::string ending;  // exited(STATUS) or killed(SIGNAL)
  std::string output;  // standard output and standard error
  std::string log;     // set by launch(): its records, and between them calls to the scripted JVM

  // For failure messages.
  friend std::ostream& operator<<(std::ostream& stream, const Process& process) {
    return stream << "output:\n" << process.output << "log:\n" << process.log;
  }
};

// NOLINTNEXTLINE(readability-redundant-declaration): Apple's headers do not declare it.
extern "C" char** environ;

class BundleFixture : public testing::Test {
 protected:
  // Tests start with an empty environment, except for the switch that an old JDK needs. A Mac has
  // no clearenv().
  BundleFixture() {
    const char* value = std::getenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS");
    static const std::string optimizations = value != nullptr ? value : "";
    environ[0] = nullptr;
    setenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS", optimizations.c_str(), 1);  // "" is as if unset
    setenv("PROJECT", PROJECT, 1);
    setenv("ROOT", root.c_str(), 1);
    setenv("BIN", bin.c_str(), 1);
    setenv("LIB", lib.c_str(), 1);
    setenv("LAUNCHER", (bin + "/kestrel").c_str(), 1);
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
    setenv("LOG", log.c_str(), 1);
    setenv("SCRIPT_CALLS", log.c_str(), 1);  // so that calls and records are in their true order
    setenv("MallocNanoZone", "0", 1);        // keeps the address sanitizer quiet on a Mac

    for (const std::string& folder : {bin, lib, runtime, logs}) {
      std::filesystem::create_directories(folder);
    }
    std::filesystem::create_symlink(KESTREL_LAUNCHER, bin + "/kestrel");
    std::filesystem::create_symlink(SCRIPTED_JVM, runtime + "/libjli.dylib");
  }
  ~BundleFixture() override { std::filesystem::remove_all(root); }

  // Runs a script with /bin/sh. $ROOT is the test's directory; $LAUNCHER, its folder $BIN
  // and $LIB are in the bundle; $LOG is the log; $PROJECT is the checkout. After `seconds`, the
  // process is killed by SIGALRM.
  Process run(const std::string& script, unsigned seconds = 300) const {
    const std::string outputFile = root + "/output";
    Process process;
    process.pid = fork();
    if (process.pid == 0) {
      const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(output, STDOUT_FILENO);
      dup2(output, STDERR_FILENO);
      close(output);
      alarm(seconds);
      execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
      _exit(127);
    }
    int waitStatus = 0;
    if (waitpid(process.pid, &waitStatus, 0) != process.pid) throw std::runtime_error("no child");
    process.ending =
        WIFSIGNALED(waitStatus) ? killed(WTERMSIG(waitStatus)) : exited(WEXITSTATUS(waitStatus));
    process.output = readable(contentOf(outputFile), process.pid);
    return process;
  }

  // Runs a script that ends with `exec $LAUNCHER`, and reads the log of this launch. The test ends
  // here if the launcher ends in another way.
  Process launch(const std::string& script, const std::string& ending = exited(0)) const {
    std::filesystem::remove(log);
    Process process = run(script, 20);
    process.log = readable(contentOf(log), process.pid);
    if (process.ending == ending) return process;
    std::ostringstream message;
    message << script << "\n" << process.ending << ", not " << ending << "\n" << process;
    throw std::runtime_error(message.str());
  }

  // The output of a script, each command of which has to succeed.
  std::string outputOf(const std::string& script) const {
    const Process process = run("set -e; " + script);
    EXPECT_EQ(process.ending, exited(0)) << script << "\n" << process;
    return process.output;
  }

  // What tools/log shows of the last launch: status and outcome, such as "0 main returned 0".
  std::string whatHappened() const {
    const std::string overview = outputOf("exec \"$PROJECT/tools/log\" $LOG");
    // Time, process ID, version, status, outcome; arguments, if any, after two blanks.
    const std::regex columns(".{19} +[0-9]+ +[^ ]+ +([^ ]+) +(.+?)(  .*)?\n");
    return std::regex_replace(linesWith(overview, "^[0-9]{4}-"), columns, "$1 $2");
  }

  // Replaces variable parts by the placeholders of docs/options.md, and strips the banner and the
  // record prefixes of the process.
  std::string readable(std::string text, pid_t process) const {
    const std::string pid = std::to_string(process);
    const std::regex prefix(VERSION " " + pid +
                            R"( .{23} INFO   ---- \(native\)                 )");
    text = replaced(std::regex_replace(text, prefix, ""), banner, "");
    text = replaced(replaced(text, bin, "<install>"), logs, "<logs>");
    return replaced(replaced(text, "-" + pid + ".", "-<pid>."), VERSION, "<version>");
  }

  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  const std::string root = [] {
    std::string name = "/tmp/kestrel-XXXXXX";  // scripts rely on a path without blanks
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error(name + " cannot be made");
    return std::filesystem::canonical(name).string();  // on a Mac /tmp is a link
  }();
  const std::string contents = root + "/Kestrel.app/Contents";
  const std::string bin = contents + "/MacOS";
  const std::string lib = contents + "/lib";
  const std::string runtime = contents + "/jre/Contents/Home/lib";
  const std::string logs = root + "/logs";
  const std::string log = logs + "/kestrel-native.log";
};

#endif  // KESTREL_TESTS_BUNDLE_FIXTURE_H_
