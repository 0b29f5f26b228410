// Replaces the Objective-C runtime on Linux, where no class is ever registered and no object is
// ever autoreleased.
#include <objc/runtime.h>

extern "C" {

Class objc_lookUpClass(const char* /*name*/) { return nullptr; }

void* objc_autoreleasePoolPush() {
  static char pool;
  return &pool;
}

void objc_autoreleasePoolPop(void* /*pool*/) {}

}  // extern "C"
