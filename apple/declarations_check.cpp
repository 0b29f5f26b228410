// What the launcher assumes about Apple's interfaces: compile-time checks of Apple's SDK where
// there is one, and of the replacement declarations in apple/include elsewhere.
#include <CoreFoundation/CoreFoundation.h>
#include <objc/runtime.h>

#include <type_traits>
#ifdef __OBJC__
#import <Foundation/Foundation.h>
#endif

#define SAME(declared, ...) static_assert(std::is_same_v<declared, __VA_ARGS__>)

SAME(Boolean, unsigned char);
SAME(CFIndex, signed long);
SAME(CFOptionFlags, unsigned long);
SAME(CFAbsoluteTime, double);
SAME(CFTimeInterval, double);
SAME(std::underlying_type_t<CFRunLoopRunResult>, int);
static_assert(kCFRunLoopRunFinished == 1 && kCFRunLoopRunStopped == 2);
static_assert(kCFRunLoopRunTimedOut == 3 && kCFRunLoopRunHandledSource == 4);
SAME(decltype(kCFAllocatorDefault), const CFAllocatorRef);
SAME(decltype(kCFRunLoopDefaultMode), const CFStringRef);
SAME(decltype(CFRelease), void(const void*));
SAME(decltype(CFRunLoopGetCurrent), CFRunLoopRef());
SAME(decltype(CFRunLoopAddTimer), void(CFRunLoopRef, CFRunLoopTimerRef, CFStringRef));
SAME(decltype(CFRunLoopRunInMode), CFRunLoopRunResult(CFStringRef, double, unsigned char));
SAME(decltype(CFRunLoopTimerCreate),
     CFRunLoopTimerRef(CFAllocatorRef, double, double, unsigned long, long,
                       void (*)(CFRunLoopTimerRef, void*), CFRunLoopTimerContext*));
SAME(decltype(objc_lookUpClass), Class(const char*));
#ifdef __OBJC__
SAME(NSUInteger, unsigned long);
SAME(decltype(NSProcessInfo.processInfo), NSProcessInfo*);
SAME(decltype(NSProcessInfo.processInfo.arguments), NSArray<NSString*>*);
SAME(decltype(@"".length), unsigned long);
SAME(decltype(@"".stringByDeletingLastPathComponent.fileSystemRepresentation), const char*);
#endif
