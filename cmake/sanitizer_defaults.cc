// Run-time settings of the sanitizers, linked into every program of the
// DRAVNIK_SANITIZE build. ASAN_OPTIONS and UBSAN_OPTIONS still override them
// where the environment reaches the program.
//
// A finding exits with status 86, which no path of the programs uses: with
// the default status 1 a leak or overflow on an error path would look like
// the "clear message and exit status 1" the tests expect there.
//
// Deadly signals are left alone: a child that crashes must still die by its
// signal, since that is what its parent reports (and the tests check), and
// an unexpected crash fails a test as a signal just as well.

extern "C" {

// The sanitizer run-times look these up by name; they must stay visible.
__attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "exitcode=86:detect_leaks=1:strict_string_checks=1:"
         "detect_stack_use_after_return=1:check_initialization_order=1:"
         "handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
}

__attribute__((visibility("default"), used)) const char* __ubsan_default_options() {
  return "exitcode=86:print_stacktrace=1:halt_on_error=1:"
         "handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
}

}  // extern "C"
