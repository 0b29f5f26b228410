// JVM options that a user or a developer adds at launch, without touching the application.
#ifndef KESTREL_JVM_LAUNCH_OPTIONS_H_
#define KESTREL_JVM_LAUNCH_OPTIONS_H_

#include <string>

#include "jvm/JVMOptions.h"

// Appends every line of the file as one option, byte for byte; the empty path means no file. False,
// after a record, when the file cannot be opened.
bool addArgsFileOptions(JVMOptions& options, const std::string& path);

// Appends the debugger agent if NORVALED_DEBUG_PORT asks for one, and logs it. A port to wait on is
// reset to "0" in the environment.
void addDebugPortOption(JVMOptions& options);

// Appends the options in NORVALED_JVM_ARGS, which white space separates.
void addEnvironmentOptions(JVMOptions& options);

#endif  // KESTREL_JVM_LAUNCH_OPTIONS_H_
