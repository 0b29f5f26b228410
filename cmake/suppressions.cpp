// What the sanitizers are not to report; built into each program that is checked.
extern "C" {

// The options of a JVM that was not created stay allocated, on purpose.
const char* __lsan_default_suppressions() { return "leak:KestrelJVMHost::startJVM"; }

// The C library guards its time zone by a lock that the sanitizer does not see.
const char* __tsan_default_suppressions() { return "called_from_lib:libc.so.6"; }

}  // extern "C"
