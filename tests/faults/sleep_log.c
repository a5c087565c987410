// sleep_log.c: loaded into the agent (LD_PRELOAD), it takes the waiting out of nanosleep and logs what was asked for.
//
//   SLEEP_LOG=FILE         one line for each call is added to it: seconds, nanoseconds
//   SLEEP_INTERRUPTED=1    every other call, from the first, ends with EINTR and leaves a third of the time

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int nanosleep(const struct timespec* wanted, struct timespec* remaining) {
    static int calls = 0;
    FILE* log = fopen(getenv("SLEEP_LOG"), "a");
    if (!log)
        abort();
    fprintf(log, "%lld %ld\n", (long long)wanted->tv_sec, wanted->tv_nsec);
    fclose(log);
    if (!getenv("SLEEP_INTERRUPTED") || calls++ % 2 == 1)
        return 0;
    const long long rest = (wanted->tv_sec * 1000000000LL + wanted->tv_nsec) / 3;
    if (remaining) {
        remaining->tv_sec = (time_t)(rest / 1000000000);
        remaining->tv_nsec = (long)(rest % 1000000000);
    }
    errno = EINTR;
    return -1;
}
