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

// Only the first character of a variable counts. Words are not understood, as intended: "false"
// leaves on what is on by default, and "true" leaves off what is off by default.
bool isOnByDefault(const char* value) { return value == nullptr || value[0] != '0'; }
bool isForced(const char* value) { return value != nullptr && value[0] == '1'; }

void addGroup(JVMOptions& options, OptionGroup group) {
  for (const char* option : group) addOption(options, option);
}

void addCollector(JVMOptions& options, bool aggressiveOptimizations) {
  const char* forceSerial = std::getenv("KESTREL_GC_FORCE_SERIAL_GC");
  const char* forceParallel = std::getenv("KESTREL_GC_FORCE_PARALLEL_GC");
  if (isForced(forceSerial)) {
    addGroup(options, SERIAL_GC);
  } else if (isForced(forceParallel)) {
    addGroup(options, PARALLEL_GC);
  } else {
    addGroup(options, G1_GC);
    if (aggressiveOptimizations) addGroup(options, G1_EXTRAS);
  }
}

}  // namespace

void addTuningOptions(JVMOptions& options, const std::string& stackSizeOption) {
  addGroup(options, DESKTOP);
  options.insert(options.begin(), makeOpt(to_c_str(MAX_HEAP)));
  addOption(options, INITIAL_HEAP);
  addOption(options, stackSizeOption);
  addGroup(options, BASE);

  const bool aggressiveOptimizations =
      isOnByDefault(std::getenv("KESTREL_AGGRESSIVE_OPTIMIZATIONS"));
  if (aggressiveOptimizations) addGroup(options, COMPILER_AND_METADATA);
  addGroup(options, RENDERING);
  addCollector(options, aggressiveOptimizations);
  if (isOnByDefault(std::getenv("KESTREL_GC_AGGRESSIVE_RECLAIM"))) addGroup(options, RECLAIM);

  // Passed on unchanged; the JVM rejects an invalid value.
  const char* maxPause = std::getenv("KESTREL_GC_MAX_PAUSE_MILLIS");
  addOption(options,
            std::string("-XX:MaxGCPauseMillis=") + (maxPause != nullptr ? maxPause : "100"));
}
