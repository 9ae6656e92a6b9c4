// Linked into every executable of the sanitizer builds (make test-asan, make test-tsan): the options the runtimes
// read at start when the environment names none. The tests start our programs (sprelio, sprelio-server) with an
// environment of their own, so the Makefile's variables would not reach them; these defaults do.
// SPRELIO_SANITIZER_DIR is the folder of the suppression files, set on the compiler's command line.
#ifndef SPRELIO_SANITIZER_DIR
#error "SPRELIO_SANITIZER_DIR must name tests/sanitizers"
#endif

extern "C" {

const char* __asan_default_options() {
    return "detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1";
}

const char* __lsan_default_options() { return "suppressions=" SPRELIO_SANITIZER_DIR "/lsan.supp:print_suppressions=0"; }

const char* __ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }

const char* __tsan_default_options() {
    // The system libraries (libpulse, cpp-httplib, libcurl) are not instrumented: their own atomics and lock-free
    // hand-offs are invisible, so the copies they make would look like races. Their locks still count, and our
    // code, callbacks on their threads included, is checked in full.
    return "suppressions=" SPRELIO_SANITIZER_DIR
           "/tsan.supp:ignore_noninstrumented_modules=1:halt_on_error=1:second_deadlock_stack=1";
}

} // extern "C"
