// The part of CoreFoundation's run loop that the launcher uses, for Linux: a timer that never fires
// keeps the loop alive until the time-out. There is one mode, and nothing else wakes or stops the
// loop.
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

// NOLINTBEGIN(*-reserved-identifier,cert-dcl*): CoreFoundation names these types.
struct __CFRunLoopTimer {
  int references = 1;
};

struct __CFRunLoop {
  ~__CFRunLoop() { std::for_each(timers.begin(), timers.end(), CFRelease); }
  std::vector<CFRunLoopTimerRef> timers;  // the loop holds a reference to each
};
// NOLINTEND(*-reserved-identifier,cert-dcl*)

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFStringRef>("kCFRunLoopDefaultMode");

// Timers are the only objects that callers here own.
void CFRelease(CFTypeRef object) {
  auto* timer = static_cast<CFRunLoopTimerRef>(const_cast<void*>(object));
  if (--timer->references == 0) delete timer;
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local __CFRunLoop loop;
  return &loop;
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef /*allocator*/, CFAbsoluteTime /*fireDate*/,
                                       CFTimeInterval /*interval*/, CFOptionFlags /*flags*/,
                                       CFIndex /*order*/, CFRunLoopTimerCallBack /*callout*/,
                                       CFRunLoopTimerContext* /*context*/) {
  return new __CFRunLoopTimer;
}

void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode /*mode*/) {
  ++timer->references;
  loop->timers.push_back(timer);
}

CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode /*mode*/, CFTimeInterval seconds,
                                      Boolean /*returnAfterSourceHandled*/) {
  if (CFRunLoopGetCurrent()->timers.empty()) return kCFRunLoopRunFinished;

  constexpr double LONGEST_SLEEP = 3600.0;  // a clock cannot count to the largest time-out
  while (seconds > 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(seconds, LONGEST_SLEEP)));
    seconds -= LONGEST_SLEEP;
  }
  return kCFRunLoopRunTimedOut;
}

}  // extern "C"
