// The list of options that the JVM is created with.
#ifndef KESTREL_JVM_JVM_OPTIONS_H_
#define KESTREL_JVM_JVM_OPTIONS_H_

#include <jni.h>

#include <string>
#include <vector>

// In the order in which the JVM reads them. Each `optionString` is a heap block of its own, made by
// to_c_str() and released by whoever owns the list, with free().
using JVMOptions = std::vector<JavaVMOption>;

// A copy of `s` on the heap, to be released with free(); null when there is no memory.
char* to_c_str(const std::string& s);

// An option without extra information. Takes over `s`, which may be null.
JavaVMOption makeOpt(char* s);

// Appends a copy of `text` as an option.
void addOption(JVMOptions& options, const std::string& text);

#endif  // KESTREL_JVM_JVM_OPTIONS_H_
