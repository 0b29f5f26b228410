// A throw-away bundle with the scripted JVM as its Java runtime, and starts of the launcher in it.
#ifndef KESTREL_TESTS_BUNDLE_FIXTURE_H_
#define KESTREL_TESTS_BUNDLE_FIXTURE_H_

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
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

extern "C" char** environ;  // which Apple's headers leave out

class BundleFixture : public testing::Test {
 protected:
  BundleFixture() {
    // Of the surroundings only the switch that an old JDK needs is to reach a start.
    const char* optimizations = std::getenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS");
    environ[0] = nullptr;
    if (optimizations != nullptr) setenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS", optimizations, 1);
    for (const std::string& folder : {bin, lib, runtime, logs}) {
      std::filesystem::create_directories(folder);
    }
    std::filesystem::create_symlink(KESTREL_LAUNCHER, bin + "/kestrel");
    std::filesystem::create_symlink(SCRIPTED_JVM, runtime + "/libjli.dylib");
    setenv("ROOT", root.c_str(), 1);
    setenv("K", (bin + "/kestrel").c_str(), 1);
    setenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.c_str(), 1);
    setenv("SCRIPT_CALLS", log.c_str(), 1);
  }
  ~BundleFixture() override { std::filesystem::remove_all(root); }

  // Runs a line of /bin/sh, mostly one that ends with `exec $K`, the launcher, and expects its exit
  // status. $ROOT is the folder of it all. Gives the log of this start alone; leaves its `output`.
  std::string start(const std::string& line, int status = 0) {
    std::filesystem::remove(log);
    const int waitStatus = std::system(("exec >$ROOT/output 2>&1; echo $$; " + line).c_str());
    output = contentOf(root + "/output");
    const std::string pid = output.substr(0, output.find('\n'));
    output = readable(output.substr(pid.size() + 1), pid);
    std::string records = readable(contentOf(log), pid);
    EXPECT_EQ(waitStatus, W_EXITCODE(status, 0))
        << WEXITSTATUS(waitStatus) << " of " << line << "\n"
        << output << records;
    return records;
  }

  // With names, as docs/options.md has them, in the place of what varies, and without the banner
  // and the heads of records that the process `pid` has written.
  [[nodiscard]] std::string readable(std::string text, const std::string& pid) const {
    const std::regex head(VERSION " " + pid + R"( .{23} INFO   ---- \(native\)                 )");
    text = replaced(std::regex_replace(text, head, ""), banner, "");
    text = replaced(replaced(text, bin, "<install>"), logs, "<logs>");
    return replaced(replaced(text, "-" + pid + ".", "-<pid>."), VERSION, "<version>");
  }

  const std::string banner = "\n\n==========================================\nLogger initialized\n";
  const std::string root = [] {
    std::string name = "/tmp/kestrel-XXXXXX";  // no blank in it
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error(name + " cannot be made");
    return name;
  }();
  const std::string contents = root + "/Kestrel.app/Contents";
  const std::string bin = contents + "/MacOS";
  const std::string lib = contents + "/lib";
  const std::string runtime = contents + "/jre/Contents/Home/lib";
  const std::string logs = root + "/logs";
  const std::string log = logs + "/kestrel-native.log";
  std::string output;  // standard output and standard error
};

#endif  // KESTREL_TESTS_BUNDLE_FIXTURE_H_
