// The JVM options that say where the application's jars and native libraries are.
#ifndef KESTREL_JVM_CLASS_PATH_H_
#define KESTREL_JVM_CLASS_PATH_H_

#include <string>

#include "jvm/JVMOptions.h"

extern const char CLASSPATH_SEPARATOR[];
// Replaces the separator in the log, so that the log shows one jar per line.
extern const char CLASSPATH_SEPARATOR_FOR_LOGS[];

// Returns the class path of the jars in `dir`, which must end with a slash. The jars come in the
// directory's own order; every name that ends in ".jar" counts, and entries need not be files. An
// unreadable directory is logged and yields an empty class path.
std::string collectJars(const std::string& dir);

bool endsWith(const std::string& s, const std::string& suffix);

// Returns `s` with every `from` replaced by `to`, from left to right and without rescanning
// inserted text. An empty `from` changes nothing.
std::string string_replace(std::string s, const std::string& from, const std::string& to);

// Logs the class path, then appends it and the other properties that hold the paths of jars and
// libraries and the working directory.
void addClassPathOptions(JVMOptions& options);

#endif  // KESTREL_JVM_CLASS_PATH_H_
