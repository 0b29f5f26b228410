#import <Foundation/Foundation.h>

#include "platform/InstallDir.h"

// Built with automatic reference counting. The returned characters live as long as the string,
// which the compiler retains and autoreleases before the function returns.
const char* getExecutableDir() {
  NSString* program = NSProcessInfo.processInfo.arguments[0];
  NSString* directory = program.stringByDeletingLastPathComponent;
  // A bare name has no directory, and fileSystemRepresentation raises for an empty string.
  return directory.length == 0 ? "" : directory.fileSystemRepresentation;
}
