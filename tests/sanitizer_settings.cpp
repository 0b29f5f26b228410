// Settings of the sanitizers; built into each program that is checked.
extern "C" {

// The options of a JVM that was not created stay allocated, on purpose.
const char* __lsan_default_suppressions() { return "leak:KestrelJVMHost::startJVM"; }

// The C library guards its time zone by a lock that the sanitizer does not see.
const char* __tsan_default_suppressions() { return "called_from_lib:libc.so.6"; }

// How long an end waits for other threads' races; by default a second for each program.
const char* __tsan_default_options() { return "atexit_sleep_ms=100"; }

}  // extern "C"
