// The CoreFoundation names that the launcher and its tests use, as Apple documents them, for builds
// without Apple's SDK. For C++ and Objective-C++ only.
#ifndef KESTREL_APPLE_COREFOUNDATION_H_
#define KESTREL_APPLE_COREFOUNDATION_H_

extern "C" {

typedef unsigned char Boolean;
typedef signed int SInt32;
typedef signed long CFIndex;
typedef unsigned long CFOptionFlags;
typedef double CFTimeInterval;          // seconds
typedef CFTimeInterval CFAbsoluteTime;  // seconds since 2001-01-01 00:00:00 UTC

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopTimer* CFRunLoopTimerRef;
typedef struct CFRunLoopTimerContext CFRunLoopTimerContext;
typedef CFStringRef CFRunLoopMode;

typedef enum CFRunLoopRunResult : SInt32 {
  kCFRunLoopRunFinished = 1,
  kCFRunLoopRunStopped = 2,
  kCFRunLoopRunTimedOut = 3,
  kCFRunLoopRunHandledSource = 4
} CFRunLoopRunResult;

typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef timer, void* info);

extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFRunLoopMode kCFRunLoopDefaultMode;

void CFRelease(CFTypeRef object);

// The calling thread's run loop.
CFRunLoopRef CFRunLoopGetCurrent(void);
// Runs the calling thread's loop for at most `seconds`; returns kCFRunLoopRunFinished at once if
// the mode has no timers or sources.
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean returnAfterSourceHandled);
void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode mode);

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                       CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* context);

}  // extern "C"

#endif  // KESTREL_APPLE_COREFOUNDATION_H_
