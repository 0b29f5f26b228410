// Replaces CoreFoundation's run loop on Linux, where nothing needs it: it has finished at once.
// What a test has to see is weak, so that the test's own function takes its place.
#include <CoreFoundation/CoreFoundation.h>

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFStringRef>("kCFRunLoopDefaultMode");

void CFRelease(CFTypeRef /*object*/) {}

CFRunLoopRef CFRunLoopGetCurrent() { return nullptr; }

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef /*allocator*/, CFAbsoluteTime /*fireDate*/,
                                       CFTimeInterval /*interval*/, CFOptionFlags /*flags*/,
                                       CFIndex /*order*/, CFRunLoopTimerCallBack /*callout*/,
                                       CFRunLoopTimerContext* /*context*/) {
  return nullptr;
}

[[gnu::weak]] void CFRunLoopAddTimer(CFRunLoopRef /*loop*/, CFRunLoopTimerRef /*timer*/,
                                     CFRunLoopMode /*mode*/) {}

[[gnu::weak]] CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode /*mode*/,
                                                    CFTimeInterval /*seconds*/,
                                                    Boolean /*returnAfterSourceHandled*/) {
  return kCFRunLoopRunFinished;
}

}  // extern "C"
