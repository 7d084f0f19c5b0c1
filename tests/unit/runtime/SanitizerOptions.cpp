// The runtime layer never joins its threads, so for the thread sanitizer each one that ended is a leak.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name that the sanitizer asks for
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "report_thread_leaks=0";
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
