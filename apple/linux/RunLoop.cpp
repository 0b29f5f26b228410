// A run loop for Linux that behaves as CoreFoundation documents it, for one thread, one mode and
// timers that fire once. A timer keeps the loop alive until it has fired.
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

// NOLINTBEGIN(*-reserved-identifier,cert-dcl*): CoreFoundation names these types.
struct __CFRunLoopTimer {
  int references;
  bool valid;
  CFAbsoluteTime fireDate;
  CFRunLoopTimerCallBack callout;
};

struct __CFRunLoop {
  ~__CFRunLoop() {
    for (const __CFRunLoopTimer* timer : timers) CFRelease(timer);
  }
  std::vector<CFRunLoopTimerRef> timers;  // it holds a reference to each
  bool stopRequested = false;
};
// NOLINTEND(*-reserved-identifier,cert-dcl*)

namespace {

// CoreFoundation counts seconds from 2001-01-01 00:00:00 UTC.
constexpr double EPOCH_OFFSET = 978307200.0;

void waitUntil(CFAbsoluteTime date) {
  constexpr double LONGEST_SLEEP = 3600.0;  // no clock can count to "never"
  for (double left; (left = date - CFAbsoluteTimeGetCurrent()) > 0;) {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(left, LONGEST_SLEEP)));
  }
}

// The valid timer that fires first, or null; those that are no longer valid leave the loop.
CFRunLoopTimerRef nextTimer(std::vector<CFRunLoopTimerRef>& timers) {
  const auto ended = std::partition(timers.begin(), timers.end(),
                                    [](const __CFRunLoopTimer* timer) { return timer->valid; });
  std::for_each(ended, timers.end(), CFRelease);
  timers.erase(ended, timers.end());
  const auto next = std::min_element(timers.begin(), timers.end(),
                                     [](const __CFRunLoopTimer* a, const __CFRunLoopTimer* b) {
                                       return a->fireDate < b->fireDate;
                                     });
  return next != timers.end() ? *next : nullptr;
}

}  // namespace

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFStringRef>("kCFRunLoopDefaultMode");

// Timers are the only objects that callers here own.
void CFRelease(CFTypeRef object) {
  auto* timer = static_cast<CFRunLoopTimerRef>(const_cast<void*>(object));
  if (--timer->references == 0) delete timer;
}

CFAbsoluteTime CFAbsoluteTimeGetCurrent() {
  const std::chrono::duration<double> sinceEpoch =
      std::chrono::system_clock::now().time_since_epoch();
  return sinceEpoch.count() - EPOCH_OFFSET;
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local __CFRunLoop loop;
  return &loop;
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef /*allocator*/, CFAbsoluteTime fireDate,
                                       CFTimeInterval /*interval*/, CFOptionFlags /*flags*/,
                                       CFIndex /*order*/, CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* /*context*/) {
  return new __CFRunLoopTimer{1, true, fireDate, callout};
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer) { timer->valid = false; }

void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode /*mode*/) {
  ++timer->references;
  loop->timers.push_back(timer);
}

void CFRunLoopStop(CFRunLoopRef loop) { loop->stopRequested = true; }

CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode /*mode*/, CFTimeInterval seconds,
                                      Boolean /*returnAfterSourceHandled*/) {
  __CFRunLoop& loop = *CFRunLoopGetCurrent();
  const CFAbsoluteTime deadline = CFAbsoluteTimeGetCurrent() + seconds;
  loop.stopRequested = false;
  while (CFRunLoopTimerRef timer = nextTimer(loop.timers)) {
    waitUntil(std::min(timer->fireDate, deadline));
    if (timer->fireDate > deadline) return kCFRunLoopRunTimedOut;
    timer->valid = false;
    timer->callout(timer, nullptr);
    if (loop.stopRequested) return kCFRunLoopRunStopped;
  }
  return kCFRunLoopRunFinished;
}

}  // extern "C"
