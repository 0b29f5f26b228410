// The native log: one text file per user, to which the launcher appends a record of each step.
//
// A record is written as one statement on a temporary builder, which LOG_RECORD begins:
//
//   LOG_RECORD(INFO, "startJVM") << "Starting JVM";
//
// Records written before initialize_logging() is called are silently dropped.
#ifndef KESTREL_LOGGING_LOGGING_H_
#define KESTREL_LOGGING_LOGGING_H_

#include <string>

// A log record under construction; its destructor emits it as one line.
//
// Records may be built on any thread. At most two are emitted at the same time; a third is silently
// dropped. No exception leaves the destructor: one raised inside ends the process.
class DumpLoggerBuilder {
 public:
  // The level is ignored, as intended: every record is emitted, and shown as INFO.
  enum LOG_LEVEL { DEBUG = 1, INFO = 2, WARN = 3, ERROR = 4 };

  explicit DumpLoggerBuilder(LOG_LEVEL /*level*/) {}
  DumpLoggerBuilder(const DumpLoggerBuilder&) = delete;
  DumpLoggerBuilder& operator=(const DumpLoggerBuilder&) = delete;
  ~DumpLoggerBuilder();

  // Each appends one blank, then the piece. A piece that already begins or ends with a blank
  // therefore gives a double blank, as intended.
  DumpLoggerBuilder& operator<<(const char* text);
  DumpLoggerBuilder& operator<<(const std::string& text);
  DumpLoggerBuilder& operator<<(int value);

  // Changes nothing; marks where the function name ends and the text begins.
  DumpLoggerBuilder& nop() { return *this; }

 private:
  std::string text_;
};

// Begins a record: its level and the name of the function that logs. The text follows piece by
// piece.
#define LOG_RECORD(level, function) \
  (DumpLoggerBuilder(DumpLoggerBuilder::level) << (function)).nop()

// Logs `message` at level ERROR, then calls exit(exitCode), which runs the exit handlers. May be
// called on any thread. The third parameter has no effect, as intended.
[[noreturn]] void reportFatalAndExit(const std::string& message, int exitCode, bool /*unused*/);

// Sets up the native log and appends its banner. Called once, before any other thread exists. If
// `console` is true, records go to standard error as well; false does not turn that off. If the log
// directory or the log file cannot be used, exits with status 1; that is reported nowhere, except
// on standard error if records go there.
void initialize_logging(bool console);

// The directory of the native log and of the JVM's crash files: the one that initialize_logging()
// chose or, before that call, the one that the environment selects (empty if it selects none).
// Never fails, never touches the file system, and is safe on any thread.
std::string getLogsHome();

namespace OSHelper {
// The id of this process.
int getPid();
}  // namespace OSHelper

#endif  // KESTREL_LOGGING_LOGGING_H_
