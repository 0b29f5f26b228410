#include "platform/InstallDir.h"

#include <sys/stat.h>

#include <cstdlib>

std::string OS::getExecutableDirOverride() {
  const char* directory = std::getenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE");
  return directory != nullptr ? directory : "";
}

std::string OS::getApplicationInstallDir() {
  std::string directory = getExecutableDirOverride();
  if (directory.empty()) directory = getExecutableDir();
  return directory;
}

bool isDirectory(char* path) {
  struct stat status = {};
  // One bit, not the whole file type (S_ISDIR): other types that contain this bit must pass too.
  return stat(path, &status) == 0 && (status.st_mode & 0040000) != 0;
}
