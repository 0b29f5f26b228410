// The Foundation names that the launcher uses, as Apple documents them, for builds without Apple's
// SDK. For Objective-C only.
#ifndef KESTREL_APPLE_FOUNDATION_H_
#define KESTREL_APPLE_FOUNDATION_H_

typedef unsigned long NSUInteger;

#define NS_RETURNS_INNER_POINTER __attribute__((objc_returns_inner_pointer))

__attribute__((objc_root_class))
@interface NSObject
@end

@interface NSString : NSObject
@property(readonly) NSUInteger length;
@property(readonly, copy) NSString* stringByDeletingLastPathComponent;
// Raises an exception for an empty string. The characters are inside the string, which automatic
// reference counting would release too early without this attribute.
@property(readonly) const char* fileSystemRepresentation NS_RETURNS_INNER_POINTER;
@end

@interface NSArray<__covariant ObjectType> : NSObject
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)index;
@end

@interface NSProcessInfo : NSObject
@property(class, readonly, strong) NSProcessInfo* processInfo;
@property(readonly, copy) NSArray<NSString*>* arguments;
@end

#endif  // KESTREL_APPLE_FOUNDATION_H_
