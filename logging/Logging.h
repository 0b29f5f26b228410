// The native log: one text file per user to which the launcher appends all that it does.
//
// A record is written as one statement on a temporary builder, which LOG_RECORD begins:
//
//   LOG_RECORD(INFO, "startJVM") << "Starting JVM";
//
// Before initialize_logging() has run no sink is on and records vanish.
#ifndef KESTREL_LOGGING_LOGGING_H_
#define KESTREL_LOGGING_LOGGING_H_

#include <string>

// A log record under construction; its destructor emits it as one line.
//
// Records may be built on any thread. At most two are emitted at the same moment, a third is
// dropped without trace. No exception leaves the destructor: one raised inside ends the process.
class DumpLoggerBuilder {
 public:
  // Every record is emitted and shown as INFO whatever its level, which is dropped on purpose.
  enum LOG_LEVEL { DEBUG = 1, INFO = 2, WARN = 3, ERROR = 4 };

  // cppcheck-suppress noExplicitConstructor; on purpose
  DumpLoggerBuilder(LOG_LEVEL /*level*/) {}
  DumpLoggerBuilder(const DumpLoggerBuilder&) = delete;
  DumpLoggerBuilder& operator=(const DumpLoggerBuilder&) = delete;
  ~DumpLoggerBuilder();

  // Each appends one blank, then the piece. Pieces with blanks of their own at an end thus show
  // two in a row, on purpose.
  DumpLoggerBuilder& operator<<(const char* text);
  DumpLoggerBuilder& operator<<(const std::string& text);
  DumpLoggerBuilder& operator<<(int value);

  // Changes nothing; marks where the function name ends and the text begins.
  DumpLoggerBuilder& nop() { return *this; }

 private:
  std::string text_;
};

// Begins a record with its level and the name of the function that logs; its text follows piece by
// piece.
#define LOG_RECORD(level, function) \
  (DumpLoggerBuilder(DumpLoggerBuilder::level) << (function)).nop()

// Logs `message` at ERROR, then ends the process with exit(exitCode): exit handlers run. It may be
// called from any thread. The third parameter, false where the log directory cannot be used, has
// no effect, on purpose.
[[noreturn]] void reportFatalAndExit(const std::string& message, int exitCode, bool);

// Sets up the native log and appends the start banner. Called once, before any other thread
// exists. `console` adds standard error as a second sink; false leaves that as it is. Ends the
// process with status 1 when the log directory or the log file cannot be used; nothing has been
// written anywhere then, unless the console sink is on.
void initialize_logging(bool console);

// The directory of the native log, which also takes the JVM's crash files: the one that
// initialize_logging() chose, before that the one the environment selects (empty when it selects
// none). Never fails, never touches the file system, and is safe on any thread.
std::string getLogsHome();

namespace OSHelper {
// The id of this process.
int getPid();
}  // namespace OSHelper

#endif  // KESTREL_LOGGING_LOGGING_H_
