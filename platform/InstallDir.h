// Where the launcher is on disk. All functions may be called on any thread; none of them logs.
#ifndef KESTREL_PLATFORM_INSTALL_DIR_H_
#define KESTREL_PLATFORM_INSTALL_DIR_H_

#include <string>

// The directory part of the path by which the process was started, neither made absolute nor
// resolved: "/tmp/a" gives "/tmp", a bare name gives the empty string. Copy the characters at once:
// on a Mac they belong to the calling thread's autorelease pool, elsewhere the thread's next call
// overwrites them.
const char* getExecutableDir();

namespace OS {

// The unchanged value of KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE; empty if it is unset.
std::string getExecutableDirOverride();

// The directory from which every path inside the bundle is built: the override unless it is empty,
// else the executable's directory. Neither normalised nor checked; computed again on every call.
std::string getApplicationInstallDir();

}  // namespace OS

// Returns whether `path` names a directory, following links. Checks only the directory bit of the
// mode, as intended, so a socket or a block device counts as well. The log's own check is stricter.
bool isDirectory(char* path);

#endif  // KESTREL_PLATFORM_INSTALL_DIR_H_
