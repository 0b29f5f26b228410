#import <Foundation/Foundation.h>

#include "platform/InstallDir.h"

// Built with automatic reference counting: the returned characters live as long as the string
// that the compiler retains and autoreleases on the way out.
const char* getExecutableDir() {
  NSString* program = NSProcessInfo.processInfo.arguments[0];
  NSString* directory = program.stringByDeletingLastPathComponent;
  // A bare name has no directory, and Foundation raises when an empty string is to be represented.
  return directory.length == 0 ? "" : directory.fileSystemRepresentation;
}
