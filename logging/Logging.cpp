#include "logging/Logging.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace {

// Written once by initialize_logging(), before any other thread exists; only read afterwards.
// Buffers and not strings: the JVM's threads may still log when exit() destroys static objects.
char logPrefix[1024] = "NOT INITIALIZED";
char logFile[2048] = "";
char logsDir[2048] = "";
bool logsDirInitialized = false;
bool isFileLoggingEnabled = false;
bool isConsoleLoggingEnabled = false;

// The number of records being emitted now. The spelling is intended.
std::atomic<std::int32_t> massage_handler_logging{0};

// Every record shows this level, whatever its own.
constexpr char LINE_TAG[] = " INFO   ---- (native)                 ";
constexpr char BANNER[] =
    "\n\n"
    "==========================================\n"
    "Logger initialized\n";

std::string format_log_message(const std::string& message) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  tzset();  // localtime_r alone may keep the first line's time zone
  localtime_r(&now, &local);
  char timeText[100];
  const std::size_t length = std::strftime(timeText, sizeof timeText, "%F %T", &local);
  // Not milliseconds but the last three digits of the Unix time in seconds, as intended.
  std::snprintf(timeText + length, sizeof timeText - length, ".%03d",
                static_cast<std::int32_t>(now) % 1000);

  return std::string(logPrefix) + timeText + LINE_TAG + message + "\n";
}

bool write_message_to_file(const std::string& line) {
  // The stream's buffer holds the whole line, which is therefore appended in one write: processes
  // that share the log do not mix their lines.
  const std::size_t size = line.size() + 1;
  const auto buffer = std::unique_ptr<char[]>(new char[size]);
  std::FILE* file = std::fopen(logFile, "a");
  if (file == nullptr) file = std::fopen(logFile, "w");
  if (file == nullptr) return false;
  std::setvbuf(file, buffer.get(), _IOFBF, size);
  std::fputs(line.c_str(), file);
  std::fclose(file);
  return true;
}

bool message_handler_from_console(const std::string& line) {
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  return true;
}

void message_handler_impl(const std::string& message) {
  const std::string line = format_log_message(message);
  if (isFileLoggingEnabled) write_message_to_file(line);
  if (isConsoleLoggingEnabled) message_handler_from_console(line);
}

// Admits two records at a time and drops a third, whether from another thread or re-entrant.
void logMessage(const std::string& message) {
  if (massage_handler_logging.fetch_add(1) <= 1) message_handler_impl(message);
  massage_handler_logging.fetch_sub(1);
}

// Compares the whole file type, unlike isDirectory(): a socket or block device, which shares the
// directory bit, cannot hold a log.
bool isExistingDirectory(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Returns whether `path` is absolute and names a directory. Creates the directory and its parents
// where they are missing, with access for the owner only.
bool validateAndCreateLogsDir(const std::string& path) {
  if (path.empty() || path[0] != '/') return false;
  if (isExistingDirectory(path)) return true;

  constexpr mode_t OWNER_ONLY = 0700;
  // A parent may exist already or be impossible to create; only the final check decides.
  for (std::size_t i = path.find('/', 1); i != std::string::npos; i = path.find('/', i + 1)) {
    mkdir(path.substr(0, i).c_str(), OWNER_ONLY);
  }
  if (mkdir(path.c_str(), OWNER_ONLY) != 0 && errno != EEXIST) return false;
  return isExistingDirectory(path);
}

}  // namespace

DumpLoggerBuilder::~DumpLoggerBuilder() { logMessage(text_); }

DumpLoggerBuilder& DumpLoggerBuilder::operator<<(const char* text) {
  text_.append(1, ' ').append(text);
  return *this;
}

DumpLoggerBuilder& DumpLoggerBuilder::operator<<(const std::string& text) {
  text_.append(1, ' ').append(text);
  return *this;
}

DumpLoggerBuilder& DumpLoggerBuilder::operator<<(int value) {
  return *this << std::to_string(value);
}

void reportFatalAndExit(const std::string& message, int exitCode, bool /*unused*/) {
  LOG_RECORD(ERROR, "reportFatalAndExit") << message;
  std::exit(exitCode);
}

void initialize_logging(bool console) {
  if (console) isConsoleLoggingEnabled = true;

  // snprintf truncates what does not fit.
  const std::string prefix = KESTREL_VERSION " " + std::to_string(OSHelper::getPid()) + " ";
  std::snprintf(logPrefix, sizeof logPrefix, "%s", prefix.c_str());

  const std::string directory = getLogsHome();
  if (directory.empty() || !validateAndCreateLogsDir(directory)) {
    reportFatalAndExit("Invalid or inaccessible log directory: " + directory, 1, false);
  }
  std::snprintf(logsDir, sizeof logsDir, "%s", directory.c_str());
  std::snprintf(logFile, sizeof logFile, "%s", (directory + "/kestrel-native.log").c_str());
  logsDirInitialized = true;

  isFileLoggingEnabled = write_message_to_file(BANNER);
  if (!isFileLoggingEnabled) {
    reportFatalAndExit(std::string("Failed to open log file for writing: ") + logFile, 1, true);
  }
}

std::string getLogsHome() {
  if (logsDirInitialized) return logsDir;
  // Presence alone decides: a variable that is set to an empty value counts as set.
  if (const char* directory = std::getenv("KESTREL_NATIVE_LOG_DIR_OVERRIDE")) return directory;
  if (const char* directory = std::getenv("TEST_TMPDIR")) {
    return std::string(directory) + "/nativeLogs";
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr) return "";  // initialize_logging() rejects it as an invalid directory
  return std::string(home) + "/Library/Logs/Norvale/" + "Kestrel-Dev";
}

int OSHelper::getPid() { return getpid(); }
