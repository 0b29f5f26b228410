// The Objective-C runtime names that the launcher uses, as Apple documents them, for builds without
// Apple's SDK. For C++ and Objective-C++ only.
#ifndef KESTREL_APPLE_OBJC_RUNTIME_H_
#define KESTREL_APPLE_OBJC_RUNTIME_H_

typedef struct objc_class* Class;

// Returns the class with this name, or nil if none is registered.
extern "C" Class objc_lookUpClass(const char* name);

#endif  // KESTREL_APPLE_OBJC_RUNTIME_H_
