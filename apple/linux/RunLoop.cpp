// A small run loop for Linux with the behaviour that CoreFoundation documents: timers keep a mode
// alive, fire on the thread that runs it and end with it; a stop request ends one run.
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

// One lock for all loops and timers: they are few, and a timer may be invalidated from any thread.
namespace {

// Never destroyed: a loop may still wait when another thread ends the process.
// NOLINTBEGIN(cert-err58-cpp): without memory there is no start at all.
std::mutex& lock = *new std::mutex;
std::condition_variable& changed = *new std::condition_variable;
// NOLINTEND(cert-err58-cpp)

// CoreFoundation counts seconds from 2001-01-01 00:00:00 UTC.
constexpr double EPOCH_OFFSET = 978307200.0;
// The longest single wait, in seconds: the clock cannot express "never".
constexpr double LONGEST_WAIT = 3600.0;

}  // namespace

// NOLINTBEGIN(*-reserved-identifier,cert-dcl*): CoreFoundation names these types.
struct __CFRunLoopTimer {
  int references = 1;
  bool valid = true;
  CFAbsoluteTime fireDate = 0;
  CFTimeInterval interval = 0;
  CFRunLoopTimerCallBack callout = nullptr;
  void* info = nullptr;
};

struct __CFRunLoop {
  struct Entry {
    CFRunLoopTimerRef timer;
    CFRunLoopMode mode;
  };
  ~__CFRunLoop() {
    for (const Entry& entry : entries) CFRelease(entry.timer);
  }
  std::vector<Entry> entries;  // each holds a reference to its timer
  bool stopRequested = false;  // of the run that is under way, the innermost one
};
// NOLINTEND(*-reserved-identifier,cert-dcl*)

namespace {

// The lock is held by the caller of each of these.
void release(CFRunLoopTimerRef timer) {
  if (--timer->references == 0) delete timer;
}

void dropInvalidTimers(CFRunLoopRef loop) {
  auto dead = std::stable_partition(loop->entries.begin(), loop->entries.end(),
                                    [](const auto& entry) { return entry.timer->valid; });
  std::for_each(dead, loop->entries.end(), [](const auto& entry) { release(entry.timer); });
  loop->entries.erase(dead, loop->entries.end());
}

CFRunLoopTimerRef nextTimer(CFRunLoopRef loop, CFRunLoopMode mode) {
  CFRunLoopTimerRef next = nullptr;
  for (const auto& entry : loop->entries) {
    if (entry.mode != mode || !entry.timer->valid) continue;
    if (next == nullptr || entry.timer->fireDate < next->fireDate) next = entry.timer;
  }
  return next;
}

void fire(std::unique_lock<std::mutex>& held, CFRunLoopTimerRef timer) {
  if (timer->interval > 0) {
    // A late timer skips the dates it has missed.
    const double late = CFAbsoluteTimeGetCurrent() - timer->fireDate;
    timer->fireDate += timer->interval * (std::floor(late / timer->interval) + 1);
  } else {
    timer->valid = false;
  }
  ++timer->references;
  held.unlock();
  timer->callout(timer, timer->info);
  held.lock();
  release(timer);
}

// All that are due at this moment, the earliest first.
void fireDueTimers(std::unique_lock<std::mutex>& held, CFRunLoopRef loop, CFRunLoopMode mode) {
  const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
  for (CFRunLoopTimerRef timer = nextTimer(loop, mode); timer != nullptr && timer->fireDate <= now;
       timer = nextTimer(loop, mode)) {
    fire(held, timer);
  }
}

CFRunLoopRunResult runUntil(CFAbsoluteTime deadline, std::unique_lock<std::mutex>& held,
                            CFRunLoopRef loop, CFRunLoopMode mode) {
  if (nextTimer(loop, mode) == nullptr) return kCFRunLoopRunFinished;
  for (;;) {
    fireDueTimers(held, loop, mode);
    dropInvalidTimers(loop);
    const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
    if (now >= deadline) return kCFRunLoopRunTimedOut;
    if (loop->stopRequested) return kCFRunLoopRunStopped;
    CFRunLoopTimerRef timer = nextTimer(loop, mode);
    if (timer == nullptr) return kCFRunLoopRunFinished;
    const double wait = std::min({timer->fireDate - now, deadline - now, LONGEST_WAIT});
    if (wait > 0) changed.wait_for(held, std::chrono::duration<double>(wait));
  }
}

}  // namespace

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFStringRef>("kCFRunLoopDefaultMode");

// Timers are the only objects that callers here own.
void CFRelease(CFTypeRef object) {
  const std::lock_guard<std::mutex> held(lock);
  release(static_cast<CFRunLoopTimerRef>(const_cast<void*>(object)));
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

// Of the context only the info is taken; nobody here counts references to it.
CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef /*allocator*/, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags /*flags*/,
                                       CFIndex /*order*/, CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* context) {
  auto* timer = new __CFRunLoopTimer;
  timer->fireDate = fireDate;
  timer->interval = interval;
  timer->callout = callout;
  if (context != nullptr) timer->info = context->info;
  return timer;
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer) {
  const std::lock_guard<std::mutex> held(lock);
  timer->valid = false;
  changed.notify_all();
}

void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode mode) {
  const std::lock_guard<std::mutex> held(lock);
  for (const auto& entry : loop->entries) {
    if (entry.timer == timer && entry.mode == mode) return;
  }
  ++timer->references;
  loop->entries.push_back({timer, mode});
  changed.notify_all();
}

void CFRunLoopStop(CFRunLoopRef loop) {
  const std::lock_guard<std::mutex> held(lock);
  loop->stopRequested = true;
  changed.notify_all();
}

// There are no sources, only timers, so there is nothing to return after.
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean /*returnAfterSourceHandled*/) {
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  std::unique_lock<std::mutex> held(lock);
  // A timer may run the loop again: a stop request counts for the run in which it is made.
  const bool outerStopRequested = std::exchange(loop->stopRequested, false);
  const CFRunLoopRunResult result =
      runUntil(CFAbsoluteTimeGetCurrent() + seconds, held, loop, mode);
  loop->stopRequested = outerStopRequested;
  return result;
}

}  // extern "C"
