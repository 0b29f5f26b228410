// The list of options that the JVM is created with.
#ifndef KESTREL_JVM_JVM_OPTIONS_H_
#define KESTREL_JVM_JVM_OPTIONS_H_

#include <jni.h>

#include <string>
#include <vector>

// The options in the order in which the JVM reads them. Each `optionString` is a separate heap
// block from to_c_str(), which the owner of the list releases with free().
using JVMOptions = std::vector<JavaVMOption>;

// Returns a copy of `s` on the heap, to be released with free(), or null if memory runs out.
char* to_c_str(const std::string& s);

// Makes an option without extra information. Takes ownership of `s`, which may be null.
JavaVMOption makeOpt(char* s);

// Appends a copy of `text` as an option.
void addOption(JVMOptions& options, const std::string& text);

#endif  // KESTREL_JVM_JVM_OPTIONS_H_
