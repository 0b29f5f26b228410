// Where the application's jars and native libraries are, and how the JVM is told.
#ifndef KESTREL_JVM_CLASS_PATH_H_
#define KESTREL_JVM_CLASS_PATH_H_

#include <string>

#include "jvm/JVMOptions.h"

extern const char CLASSPATH_SEPARATOR[];
// Stands for the separator in the log, which thus shows one jar per line.
extern const char CLASSPATH_SEPARATOR_FOR_LOGS[];

// The class path of the jars in `dir`, which must end with a slash, in the directory's own order;
// the entries' types are not looked at. A directory that cannot be read is logged and gives the
// empty class path.
std::string collectJars(const std::string& dir);

bool endsWith(const std::string& s, const std::string& suffix);

// `s` with every `from` replaced by `to`, from left to right, never looking into what was put in.
// Unchanged when `from` is empty.
std::string string_replace(std::string s, const std::string& from, const std::string& to);

// Appends the class path and the properties that hold the library locations, and logs the class
// path.
void addClassPathOptions(JVMOptions& options);

#endif  // KESTREL_JVM_CLASS_PATH_H_
