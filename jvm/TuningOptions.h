// The JVM's memory, compiler and garbage-collector policy.
#ifndef KESTREL_JVM_TUNING_OPTIONS_H_
#define KESTREL_JVM_TUNING_OPTIONS_H_

#include <string>

#include "jvm/JVMOptions.h"

// Adds the policy to `options`: the heap ceiling at the front, so that one from the user's sources
// comes later and wins, all the rest at the end. `stackSizeOption` makes the thread stack size's.
// Reads each of its environment switches once.
void addTuningOptions(JVMOptions& options, std::string (*stackSizeOption)());

#endif  // KESTREL_JVM_TUNING_OPTIONS_H_
