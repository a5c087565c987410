// malloc_fault.c: loaded into the agent by tests; counts the allocations of each of its processes, and has one fail.
//
//   MALLOC_FAULT=PROCESS NUMBER   in that process (0 is the agent as it was started, its forks count in their order)
//                                 this allocation fails, counted from 1. May be left out
//   MALLOC_COUNTS=FILE            gets what is counted: a `struct counts`, as it is in memory. It must be there
//   MALLOC_PLACES=FILE            gets eight bytes for each allocation of process 0, equal where the callers are. It
//                                 must be there. May be left out
//
// Counting begins with `main`: what the libraries do before that is no concern of the agent. Programs that the agent
// runs are left alone, and so is the resolver: libc's keeps a lock when it finds no memory, and then waits for itself.
// Aligned allocations count too, as GLib makes its slices of them. The starter waits two seconds at most for the first
// word of its daemon, as many faults let there be none. OpenSSL 3.0 reads through null pointers when its initialisation
// found no memory: where that is the reason of a SIGSEGV it becomes a SIGABRT, which tells it from one of the agent's.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { PROCESSES = 8, LONGEST_WAIT = 2, FRAMES = 10 };

struct counts {
    unsigned hits;
    unsigned processes;
    unsigned allocations[PROCESSES];
};

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

static struct counts* counts;  // shared with the forks; null until they are counted
static unsigned process;
static unsigned fault_process = PROCESSES;
static unsigned fault_number;

static int places = -1;
static int is_resolving;

static void tell_place(void) {
    void* frames[FRAMES];
    const int count = backtrace(frames, FRAMES);
    uint64_t hash = 14695981039346656037u;  // FNV-1a
    for (int i = 2; i < count; ++i)
        hash = (hash ^ (uintptr_t)frames[i]) * 1099511628211u;
    if (write(places, &hash, sizeof hash) != sizeof hash)
        abort();
}

static int fails(void) {
    if (!counts || process >= PROCESSES || is_resolving)
        return 0;
    if (places != -1 && process == 0)
        tell_place();
    const unsigned number = __atomic_add_fetch(&counts->allocations[process], 1, __ATOMIC_RELAXED);
    if (process != fault_process || number != fault_number)
        return 0;
    __atomic_add_fetch(&counts->hits, 1, __ATOMIC_RELAXED);
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails() ? NULL : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    return fails() ? NULL : __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    void* const made = fails() ? NULL : __libc_memalign(alignment, size);
    if (!made)
        return ENOMEM;
    *block = made;
    return 0;
}

typedef int Resolve(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result);

int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result) {
    Resolve* resolve;
    *(void**)&resolve = dlsym(RTLD_NEXT, "getaddrinfo");  // ISO C has no cast for it
    is_resolving = 1;
    const int error = resolve(node, service, hints, result);
    is_resolving = 0;
    return error;
}

typedef int RetvalWait(int timeout);

int daemon_retval_wait(int timeout) {
    RetvalWait* wait;
    *(void**)&wait = dlsym(RTLD_NEXT, "daemon_retval_wait");
    return wait(timeout < LONGEST_WAIT ? timeout : LONGEST_WAIT);
}

static void enter_fork(void) {
    process = __atomic_add_fetch(&counts->processes, 1, __ATOMIC_RELAXED);
}

// map_counts must succeed: without it a test would see a run without a fault.
static struct counts* map_counts(void) {
    const char* const path = getenv("MALLOC_COUNTS");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file == -1 || ftruncate(file, sizeof(struct counts)) != 0)
        abort();
    void* const shared = mmap(NULL, sizeof(struct counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    const char* const fault = getenv("MALLOC_FAULT");
    if (shared == MAP_FAILED || (fault && sscanf(fault, "%u %u", &fault_process, &fault_number) != 2) ||
        pthread_atfork(NULL, NULL, enter_fork) != 0)
        abort();
    close(file);
    return shared;
}

static int open_places(void) {
    const char* const path = getenv("MALLOC_PLACES");
    if (!path)
        return -1;
    const int file = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file == -1)
        abort();
    return file;
}

// is_within returns whether the innermost function on the stack that is neither libc's nor from here is a library's.
static int is_within(const char* library) {
    void* frames[FRAMES];
    const int count = backtrace(frames, FRAMES);
    for (int i = 0; i < count; ++i) {
        Dl_info info;
        if (!dladdr(frames[i], &info))
            return 0;
        if (!strstr(info.dli_fname, "/libc.so") && !strstr(info.dli_fname, "malloc_fault"))
            return strstr(info.dli_fname, library) != NULL;
    }
    return 0;
}

static void end_by_segv(int number) {
    if (is_within("/libcrypto.so"))
        abort();
    signal(number, SIG_DFL);  // it happens again
}

typedef int Main(int argc, char** argv, char** environment);
typedef int StartMain(Main* main, int argc, char** argv, void (*init)(void), void (*fini)(void), void (*end)(void),
                      void* stack);

static Main* agent_main;

static int counted_main(int argc, char** argv, char** environment) {
    unsetenv("LD_PRELOAD");
    void* frame;
    backtrace(&frame, 1);  // it loads what it needs
    signal(SIGSEGV, end_by_segv);
    places = open_places();
    counts = map_counts();
    return agent_main(argc, argv, environment);
}

int __libc_start_main(Main* main, int argc, char** argv, void (*init)(void), void (*fini)(void), void (*end)(void),
                      void* stack) {
    StartMain* start;
    *(void**)&start = dlsym(RTLD_NEXT, "__libc_start_main");
    agent_main = main;
    return start(counted_main, argc, argv, init, fini, end, stack);
}
