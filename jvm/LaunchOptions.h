// JVM options that a user or a developer adds at launch, without changing the application.
#ifndef KESTREL_JVM_LAUNCH_OPTIONS_H_
#define KESTREL_JVM_LAUNCH_OPTIONS_H_

#include <string>

#include "jvm/JVMOptions.h"

// Appends every line of the file as one option, byte for byte; an empty path means no file. If the
// file cannot be opened, logs that and returns false.
bool addArgsFileOptions(JVMOptions& options, const std::string& path);

// Appends the debugger agent if NORVALED_DEBUG_PORT asks for one, and logs that. If the JVM will
// wait on a port, the variable is then set to "0" for child processes.
void addDebugPortOption(JVMOptions& options);

// Appends the options in NORVALED_JVM_ARGS, separated by white space; quotes have no meaning.
void addEnvironmentOptions(JVMOptions& options);

#endif  // KESTREL_JVM_LAUNCH_OPTIONS_H_
