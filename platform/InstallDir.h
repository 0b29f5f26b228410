// Where the launcher lives on disk. Every function may be called from any thread; none logs.
#ifndef KESTREL_PLATFORM_INSTALL_DIR_H_
#define KESTREL_PLATFORM_INSTALL_DIR_H_

#include <string>

// The directory part of the path by which the process was started, neither made absolute nor
// resolved: "/tmp/a" gives "/tmp", a bare name gives the empty string. The characters belong to
// the calling thread's autorelease pool (on a Mac) or are overwritten by its next call: copy them
// at once.
const char* getExecutableDir();

namespace OS {

// The value of KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE as it is, empty when unset.
std::string getExecutableDirOverride();

// The anchor of every path inside the bundle: the override if there is one, else the executable's
// directory. Not normalised, not checked, computed anew on every call.
std::string getApplicationInstallDir();

}  // namespace OS

// Whether `path` names a directory, links followed. Only the directory bit of the mode is looked
// at, on purpose, so a socket or a block device counts as well. The log's own test is stricter.
bool isDirectory(char* path);

#endif  // KESTREL_PLATFORM_INSTALL_DIR_H_
