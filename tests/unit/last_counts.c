// last_counts.c: linked into the test programs of a build that records what they run. A process that ends itself by
// _exit, abort or a signal writes its counts first: else what only such a process runs would count as never run.
//
// The definitions are weak, so that a test may have its own.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

extern void __gcov_dump(void);

__attribute__((weak, noreturn)) void _exit(int status) {
    __gcov_dump();
    void (*real)(int);
    *(void**)&real = dlsym(RTLD_NEXT, "_exit");  // ISO C has no cast for it
    real(status);
    __builtin_unreachable();
}

__attribute__((weak, noreturn)) void abort(void) {
    __gcov_dump();
    void (*real)(void);
    *(void**)&real = dlsym(RTLD_NEXT, "abort");
    real();
    __builtin_unreachable();
}

__attribute__((weak)) int raise(int number) {
    __gcov_dump();
    int (*real)(int);
    *(void**)&real = dlsym(RTLD_NEXT, "raise");
    return real(number);
}
