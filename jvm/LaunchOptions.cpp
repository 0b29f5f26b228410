#include "jvm/LaunchOptions.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "logging/Logging.h"

namespace {

// Text that does not begin with a number, or a number beyond int, counts as 0 (any free port).
int toPort(const char* text) {
  try {
    return std::stoi(text);
  } catch (...) {
    return 0;
  }
}

}  // namespace

bool addArgsFileOptions(JVMOptions& options, const std::string& path) {
  if (path.empty()) return true;
  std::ifstream file(path);
  if (!file) {
    LOG_RECORD(ERROR, "startJVM") << "Unable to open jvm args file: " << path;
    return false;
  }
  for (std::string line; std::getline(file, line);) addOption(options, line);
  return true;
}

void addDebugPortOption(JVMOptions& options) {
  const char* value = std::getenv("NORVALED_DEBUG_PORT");
  if (value == nullptr || *value == '\0') return;

  const int port = toPort(value);
  std::string agent = "-agentlib:jdwp=transport=dt_socket,server=y,";
  if (port == 0) {
    agent += "suspend=n,address=*:0";
    LOG_RECORD(INFO, "startJVM") << "Enabling JDWP with suspend=n on any available port";
  } else {
    // A child process that inherits the variable must not wait for a debugger on the same port.
    setenv("NORVALED_DEBUG_PORT", "0", 1);
    agent += "suspend=y,address=*:" + std::to_string(port);
    LOG_RECORD(INFO, "startJVM") << "Enabling JDWP with suspend=y on port " << port;
  }
  addOption(options, agent);
}

void addEnvironmentOptions(JVMOptions& options) {
  const char* value = std::getenv("NORVALED_JVM_ARGS");
  if (value == nullptr || *value == '\0') return;

  LOG_RECORD(INFO, "startJVM") << "Adding JVM args from NORVALED_JVM_ARGS: " << value;
  std::istringstream words(value);
  for (std::string word; words >> word;) addOption(options, word);
}
