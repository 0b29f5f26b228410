// The Objective-C runtime names that the launcher uses, as Apple documents them, for builds without
// Apple's SDK.
#ifndef KESTREL_APPLE_OBJC_RUNTIME_H_
#define KESTREL_APPLE_OBJC_RUNTIME_H_

typedef struct objc_class* Class;

#ifdef __cplusplus
extern "C" {
#endif

// The class of that name, or nil when none is registered.
Class objc_lookUpClass(const char* name);

#ifdef __cplusplus
}
#endif

#endif  // KESTREL_APPLE_OBJC_RUNTIME_H_
