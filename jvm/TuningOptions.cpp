// Environment variables and the option groups that they switch:
//
//   KESTREL_AGGRESSIVE_OPTIMIZATIONS  on unless "0"   COMPILER_AND_METADATA; with G1 also G1_EXTRAS
//   KESTREL_GC_FORCE_SERIAL_GC        off unless "1"  SERIAL_GC, whatever the next one says
//   KESTREL_GC_FORCE_PARALLEL_GC      off unless "1"  PARALLEL_GC (G1_GC if neither is on)
//   KESTREL_GC_AGGRESSIVE_RECLAIM     on unless "0"   RECLAIM, with every collector
//   KESTREL_GC_MAX_PAUSE_MILLIS       100 unless set  the pause-time goal, with every collector
//
// Only the first character counts; words are not understood, on purpose: "false" leaves on what is
// on by default, and "true" leaves off what is off by default.
#include "jvm/TuningOptions.h"

#include <cstdlib>
#include <initializer_list>

namespace {

using OptionGroup = std::initializer_list<const char*>;

constexpr OptionGroup DESKTOP = {
    "-Dplume.metal.gpu.priority=integrated",
    "-Dapple.laf.useScreenMenuBar=true",
};
constexpr char MAX_HEAP[] = "-Xmx160m";
constexpr char INITIAL_HEAP[] = "-Xms8m";
constexpr OptionGroup BASE = {
    "-XX:+UnlockExperimentalVMOptions", "-XX:+CreateCoredumpOnCrash",   "-XX:MetaspaceSize=16m",
    "-XX:MinMetaspaceFreeRatio=10",     "-XX:MaxMetaspaceFreeRatio=10", "-XX:+UseCompressedOops",
    "-XX:+UseCompressedClassPointers",
};
constexpr OptionGroup COMPILER_AND_METADATA = {
    "-XX:CompressedClassSpaceSize=64m", "-XX:ReservedCodeCacheSize=64m",
    "-XX:+UseCodeCacheFlushing",        "-XX:CICompilerCount=2",
    "-XX:+UseCompactObjectHeaders",     "-XX:+UseStringDeduplication",
};
constexpr OptionGroup RENDERING = {
    "-Dplume.gpu.resourceCacheLimit=1M",
    "-Dplume.buffering=2",
};
constexpr OptionGroup SERIAL_GC = {"-XX:+UseSerialGC"};
constexpr OptionGroup PARALLEL_GC = {"-XX:+UseParallelGC", "-XX:ParallelGCThreads=2"};
constexpr OptionGroup G1_GC = {
    "-XX:+UseG1GC",
    "-XX:ParallelGCThreads=2",
    "-XX:ConcGCThreads=1",
};
constexpr OptionGroup G1_EXTRAS = {
    "-XX:SoftMaxHeapSize=128m",
    "-XX:G1PeriodicGCInterval=10000",
    "-XX:G1PeriodicGCSystemLoadThreshold=0",
};
constexpr OptionGroup RECLAIM = {
    "-XX:MinHeapFreeRatio=10",
    "-XX:MaxHeapFreeRatio=10",
    "-XX:-ShrinkHeapInSteps",
};

bool isOn(const char* value, bool byDefault) {
  if (value == nullptr) return byDefault;
  return byDefault ? value[0] != '0' : value[0] == '1';
}

void addGroup(JVMOptions& options, OptionGroup group) {
  for (const char* option : group) addOption(options, option);
}

void addCollector(JVMOptions& options, bool aggressiveOptimizations) {
  const char* forceSerial = std::getenv("KESTREL_GC_FORCE_SERIAL_GC");
  const char* forceParallel = std::getenv("KESTREL_GC_FORCE_PARALLEL_GC");
  if (isOn(forceSerial, false)) {
    addGroup(options, SERIAL_GC);
  } else if (isOn(forceParallel, false)) {
    addGroup(options, PARALLEL_GC);
  } else {
    addGroup(options, G1_GC);
    if (aggressiveOptimizations) addGroup(options, G1_EXTRAS);
  }
}

}  // namespace

void addTuningOptions(JVMOptions& options, std::string (*stackSizeOption)()) {
  addGroup(options, DESKTOP);
  options.insert(options.begin(), makeOpt(to_c_str(MAX_HEAP)));
  addOption(options, INITIAL_HEAP);
  addOption(options, stackSizeOption());
  addGroup(options, BASE);

  const bool aggressiveOptimizations = isOn(std::getenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS"), true);
  if (aggressiveOptimizations) addGroup(options, COMPILER_AND_METADATA);
  addGroup(options, RENDERING);
  addCollector(options, aggressiveOptimizations);
  if (isOn(std::getenv("KESTREL_GC_AGGRESSIVE_RECLAIM"), true)) addGroup(options, RECLAIM);

  // Passed on unchanged; the JVM rejects an invalid value.
  const char* maxPause = std::getenv("KESTREL_GC_MAX_PAUSE_MILLIS");
  addOption(options,
            std::string("-XX:MaxGCPauseMillis=") + (maxPause != nullptr ? maxPause : "100"));
}
