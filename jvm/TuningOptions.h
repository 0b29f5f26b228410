// The JVM's memory, compiler and garbage-collector policy.
#ifndef KESTREL_JVM_TUNING_OPTIONS_H_
#define KESTREL_JVM_TUNING_OPTIONS_H_

#include <string>

#include "jvm/JVMOptions.h"

// Adds the policy to `options`: the maximum heap size at the front, so that a user's -Xmx overrides
// it, and everything else at the end, with `stackSizeOption` after the initial heap size. Reads
// each of its environment variables once.
void addTuningOptions(JVMOptions& options, const std::string& stackSizeOption);

#endif  // KESTREL_JVM_TUNING_OPTIONS_H_
