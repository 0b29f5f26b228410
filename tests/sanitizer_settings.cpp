// Settings for the sanitizers, linked into every program that is built with them.
// NOLINTBEGIN(*-reserved-identifier,cert-dcl*): The sanitizers call these names.
extern "C" {

// The C library protects its time zone by a lock that the thread sanitizer does not see.
const char* __tsan_default_suppressions() { return "called_from_lib:libc.so.6"; }

// How long a program waits at its exit for races in other threads; the default is a second.
const char* __tsan_default_options() { return "atexit_sleep_ms=100"; }

}  // extern "C"
// NOLINTEND(*-reserved-identifier,cert-dcl*)
