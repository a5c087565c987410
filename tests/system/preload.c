// preload.c: loaded into the agent by tests, to cause what is otherwise hard to meet.
//
//   TEST_PERIOD=N          a timer of 3600 seconds becomes one of N seconds; all others stay
//   TEST_HOLD_RENAME=FILE  each rename waits until FILE is gone
//   TEST_FAIL=NAME         the function NAME fails at each call with errno EAGAIN; the last ones here can. That of GLib
//                          reports "no monitor left", inotify_add_watch has ENOSPC. With F_GETLK fcntl fails that asks
//                          for a lock
//   TEST_NV_VALUE=N        each read of eight bytes of the TPM's NV memory gives N, whatever the TPM said

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <unistd.h>

#define NEXT(type, name) ((type)dlsym(RTLD_NEXT, name))

typedef unsigned AddTimer(unsigned seconds, int (*function)(void*), void* data);
typedef int Rename(const char* from, const char* to);
typedef void* MonitorFile(void* file, int flags, void* cancellable, void** error);
typedef void SetError(void** error, unsigned domain, int code, const char* message);

unsigned g_timeout_add_seconds(unsigned seconds, int (*function)(void*), void* data) {
    const char* period = getenv("TEST_PERIOD");
    if (seconds == 3600 && period)
        seconds = (unsigned)atoi(period);
    return NEXT(AddTimer*, "g_timeout_add_seconds")(seconds, function, data);
}

int rename(const char* from, const char* to) {
    const char* hold = getenv("TEST_HOLD_RENAME");
    const struct timespec pause = {0, 5000000};
    while (hold && access(hold, F_OK) == 0)
        nanosleep(&pause, NULL);
    return NEXT(Rename*, "rename")(from, to);
}

typedef TSS2_RC ReadNV(ESYS_CONTEXT*, ESYS_TR, ESYS_TR, ESYS_TR, ESYS_TR, ESYS_TR, UINT16, UINT16,
                       TPM2B_MAX_NV_BUFFER**);

TSS2_RC Esys_NV_Read(ESYS_CONTEXT* context, ESYS_TR authorisation, ESYS_TR index, ESYS_TR session1, ESYS_TR session2,
                     ESYS_TR session3, UINT16 size, UINT16 offset, TPM2B_MAX_NV_BUFFER** data) {
    const TSS2_RC result =
        NEXT(ReadNV*, "Esys_NV_Read")(context, authorisation, index, session1, session2, session3, size, offset, data);
    const char* text = getenv("TEST_NV_VALUE");
    if (result == TSS2_RC_SUCCESS && text && (*data)->size == 8) {
        const unsigned long long value = strtoull(text, NULL, 10);
        for (int i = 0; i < 8; ++i)
            (*data)->buffer[i] = (BYTE)(value >> (56 - 8 * i));
    }
    return result;
}

static int fails(const char* name) {
    const char* failing = getenv("TEST_FAIL");
    if (!failing || strcmp(failing, name) != 0)
        return 0;
    errno = EAGAIN;
    return 1;
}

int daemon_reset_sigs(int except, ...) {
    return fails("daemon_reset_sigs") ? -1 : NEXT(int (*)(int, ...), "daemon_reset_sigs")(except);
}

int daemon_unblock_sigs(int except, ...) {
    return fails("daemon_unblock_sigs") ? -1 : NEXT(int (*)(int, ...), "daemon_unblock_sigs")(except);
}

int daemon_close_all(int except, ...) {
    return fails("daemon_close_all") ? -1 : NEXT(int (*)(int, ...), "daemon_close_all")(except);
}

int daemon_retval_init(void) {
    return fails("daemon_retval_init") ? -1 : NEXT(int (*)(void), "daemon_retval_init")();
}

int pipe2(int ends[2], int flags) {
    return fails("pipe2") ? -1 : NEXT(int (*)(int*, int), "pipe2")(ends, flags);
}

pid_t fork(void) {
    return fails("fork") ? -1 : NEXT(pid_t(*)(void), "fork")();
}

int initgroups(const char* user, gid_t group) {
    return fails("initgroups") ? -1 : NEXT(int (*)(const char*, gid_t), "initgroups")(user, group);
}

int setgid(gid_t group) {
    return fails("setgid") ? -1 : NEXT(int (*)(gid_t), "setgid")(group);
}

int setuid(uid_t user) {
    return fails("setuid") ? -1 : NEXT(int (*)(uid_t), "setuid")(user);
}

int setresuid(uid_t real, uid_t effective, uid_t saved) {
    if (fails("setresuid"))
        return -1;
    return NEXT(int (*)(uid_t, uid_t, uid_t), "setresuid")(real, effective, saved);
}

int chmod(const char* path, mode_t mode) {
    return fails("chmod") ? -1 : NEXT(int (*)(const char*, mode_t), "chmod")(path, mode);
}

int lstat(const char* path, struct stat* status) {
    return fails("lstat") ? -1 : NEXT(int (*)(const char*, struct stat*), "lstat")(path, status);
}

int fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void* argument = va_arg(list, void*);
    va_end(list);
    if (command == F_GETLK && fails("F_GETLK"))
        return -1;
    return NEXT(int (*)(int, int, ...), "fcntl")(fd, command, argument);
}

TSS2_RC Tss2_MU_TPM2B_PUBLIC_Marshal(TPM2B_PUBLIC const* area, uint8_t buffer[], size_t size, size_t* offset) {
    typedef TSS2_RC Marshal(TPM2B_PUBLIC const*, uint8_t*, size_t, size_t*);
    if (fails("Tss2_MU_TPM2B_PUBLIC_Marshal"))
        return TSS2_MU_RC_GENERAL_FAILURE;
    return NEXT(Marshal*, "Tss2_MU_TPM2B_PUBLIC_Marshal")(area, buffer, size, offset);
}

int prctl(int option, ...) {
    unsigned long arguments[4];
    va_list list;
    va_start(list, option);
    for (int i = 0; i < 4; ++i)
        arguments[i] = va_arg(list, unsigned long);
    va_end(list);
    if (fails("prctl"))
        return -1;
    return NEXT(int (*)(int, ...), "prctl")(option, arguments[0], arguments[1], arguments[2], arguments[3]);
}

void* g_file_monitor_file(void* file, int flags, void* cancellable, void** error) {
    if (fails("g_file_monitor_file")) {
        NEXT(SetError*, "g_set_error_literal")(error, 1, 0, "no monitor left");
        return NULL;
    }
    return NEXT(MonitorFile*, "g_file_monitor_file")(file, flags, cancellable, error);
}

int inotify_add_watch(int instance, const char* path, unsigned mask) {
    if (fails("inotify_add_watch")) {
        errno = ENOSPC;  // as when the user has no watch left
        return -1;
    }
    return NEXT(int (*)(int, const char*, unsigned), "inotify_add_watch")(instance, path, mask);
}

int system(const char* command) {
    return fails("system") ? -1 : NEXT(int (*)(const char*), "system")(command);
}
