// Replaces the Objective-C runtime on Linux, where no class is ever registered and no object is
// ever autoreleased. What a test has to see is weak, as in RunLoop.cpp.
#include <objc/runtime.h>

extern "C" {

[[gnu::weak]] Class objc_lookUpClass(const char* /*name*/) { return nullptr; }

void* objc_autoreleasePoolPush() { return nullptr; }

void objc_autoreleasePoolPop(void* /*pool*/) {}

}  // extern "C"
