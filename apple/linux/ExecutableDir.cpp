// Finds the executable's directory on Linux, by the rules of Foundation.
#include <cerrno>
#include <string>

#include "platform/InstallDir.h"

namespace {

// Like NSString's stringByDeletingLastPathComponent: repeated slashes count as one, a trailing
// slash is ignored, and the root is its own parent.
std::string deleteLastPathComponent(const std::string& path) {
  std::string tidy;
  for (const char c : path) {
    if (c != '/' || tidy.empty() || tidy.back() != '/') tidy += c;
  }
  if (tidy.size() > 1 && tidy.back() == '/') tidy.pop_back();

  const std::size_t slash = tidy.rfind('/');
  if (slash == std::string::npos) return "";
  return tidy.substr(0, slash == 0 ? 1 : slash);
}

}  // namespace

const char* getExecutableDir() {
  thread_local std::string directory;
  // The C library keeps the first element of the command line here, exactly as it was given.
  directory = deleteLastPathComponent(program_invocation_name);
  return directory.c_str();  // NOLINT(clang-analyzer-cplusplus.InnerPointer): the string stays
}
