// A throw-away bundle with the scripted JVM as its Java runtime, and starts of the launcher in it.
#ifndef KESTREL_TESTS_BUNDLE_FIXTURE_H_
#define KESTREL_TESTS_BUNDLE_FIXTURE_H_

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>

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

struct Start {
  int status;          // as a shell tells it
  std::string pid;     // the launcher's, if the line ends with `exec $K`
  std::string output;  // on both standard output and standard error
  std::string log;     // see BundleFixture::readable()
};

class BundleFixture : public testing::Test {
 protected:
  BundleFixture() {
    clearEnvironment();
    for (const std::string& folder : {bin, lib, runtime, logs}) {
      std::filesystem::create_directories(folder);
    }
    std::filesystem::create_symlink(KESTREL_LAUNCHER, bin + "/kestrel");
    std::filesystem::create_symlink(SCRIPTED_JVM, runtime + "/libjli.dylib");
    setenv("ROOT", root.c_str(), 1);
    setenv("K", (bin + "/kestrel").c_str(), 1);
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
    setenv("SCRIPTED_JVM_CALLS", log.c_str(), 1);
  }

  ~BundleFixture() override { std::filesystem::remove_all(root); }

  // Runs a line of /bin/sh, which has $ROOT and the launcher, $K, and expects its exit status. What
  // earlier starts have logged is gone.
  Start start(const std::string& line, int status = 0) {
    std::filesystem::remove(log);
    const std::string script = "exec >$ROOT/output 2>&1\necho $$ >$ROOT/pid\n" + line;
    const int ended = std::system(script.c_str());
    Start start;
    start.status = WIFSIGNALED(ended) ? 128 + WTERMSIG(ended) : WEXITSTATUS(ended);
    std::ifstream(root + "/pid") >> start.pid;
    start.output = contentOf(root + "/output");
    start.log = readable(contentOf(log), start.pid);
    EXPECT_EQ(start.status, status) << line << "\n" << start.output << start.log;
    return start;
  }

  // A log from its last banner on: without the head of each record, which `pid` has written, and
  // with names, as docs/options.md has them, in the place of what varies.
  [[nodiscard]] std::string readable(std::string text, const std::string& pid) const {
    const std::string banner = "Logger initialized\n";
    const std::size_t begin = text.rfind(banner);
    if (begin != std::string::npos) text.erase(0, begin + banner.size());
    const std::regex head(VERSION " " + pid + R"( [-\d]+ [:.\d]+ INFO   ---- \(native\) {17})");
    text = std::regex_replace(text, head, "");
    text = replaced(text, bin, "<install>");
    text = replaced(text, logs, "<logs>");
    text = replaced(text, root, "<root>");
    text = replaced(text, "-" + pid + ".", "-<pid>.");
    return replaced(text, VERSION, "<version>");
  }

  const std::string root = [] {
    std::string name = std::filesystem::temp_directory_path() / "kestrel-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error(name + " cannot be made");
    return name;
  }();
  const std::string contents = root + "/Kestrel.app/Contents";
  const std::string bin = contents + "/MacOS";
  const std::string lib = contents + "/lib";
  const std::string runtime = contents + "/jre/Contents/Home/lib";
  const std::string logs = root + "/logs";
  const std::string log = logs + "/kestrel-native.log";

 private:
  // Leaves what finds commands, and what a caller has to set for his machine.
  static void clearEnvironment() {
    std::map<std::string, std::string> kept;
    for (const char* name : {"PATH", "KESTREL_AGGRESSIVE_OPTIMIZATIONS"}) {
      if (const char* value = std::getenv(name)) kept[name] = value;
    }
    environ[0] = nullptr;
    for (const auto& [name, value] : kept) setenv(name.c_str(), value.c_str(), 1);
  }
};

#endif  // KESTREL_TESTS_BUNDLE_FIXTURE_H_
