// syscall_fault.c: runs a program and its forks, counts their system calls, and has one of them fail.
//
//   syscall_fault LOG FAULT COMMAND [ARGUMENT ...]
//
// FAULT is "-" or "PROCESS NAME NUMBER ERRNO": in that process (0 is COMMAND, its forks count in their order) the call
// NAME, when it is made for the NUMBERth time, is not made and fails with ERRNO; a `close` is made, as a failing close
// does close. What a process runs by exec is neither counted nor hit. Counting begins with the first fcntl(0, F_GETFD),
// the agent's own first call: what the loader does before is no concern of the agent.
//
// LOG gets a line for each event:
//   start PROCESS PID             of a fork
//   call PROCESS NAME NUMBER      before each call
//   fault PROCESS NAME NUMBER     the one that fails
//   end PROCESS STATUS            the exit status, or minus the number of the signal
//
// It ends after the last process, with status 0. If it is killed, so are they. SYSCALL_NAMES, a header made from the
// system's own, holds NAME(number, "name"), for each call.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef __x86_64__
#error "the registers of this machine are not known here"
#endif

enum { CALLS = 512, PROCESSES = 64, TASKS = 256 };

static const char* const names[CALLS] = {
#define NAME(number, text) [number] = text,
#include SYSCALL_NAMES
#undef NAME
};

struct task {
    pid_t id;
    int process;     // -1 until its parent's event has told
    int is_stopped;  // its first stop, which belongs to the tracing, was seen
    int result;      // what the current call is to return, if not 0
};

static struct task tasks[TASKS];
static int task_count;
static int process_count = 1;
static unsigned numbers[PROCESSES][CALLS];
static int is_counting;
static FILE* log_file;

static int fault_process = -1;
static char fault_name[64];
static unsigned fault_number;
static int fault_errno;

static struct task* find_task(pid_t id) {
    for (int i = 0; i < task_count; ++i)
        if (tasks[i].id == id)
            return &tasks[i];
    if (task_count == TASKS)
        abort();
    tasks[task_count] = (struct task){id, -1, 0, 0};
    return &tasks[task_count++];
}

static void forget_task(struct task* task) {
    *task = tasks[--task_count];
}

static void set_register(const struct task* task, size_t offset, long value) {
    ptrace(PTRACE_POKEUSER, task->id, offset, value);
}

static void enter_call(struct task* task, const struct __ptrace_syscall_info* info) {
    const unsigned long call = info->entry.nr;
    if (call == __NR_fcntl && info->entry.args[0] == 0 && info->entry.args[1] == F_GETFD)
        is_counting = 1;
    if (!is_counting || call >= CALLS || !names[call] || task->process >= PROCESSES)
        return;
    const unsigned number = ++numbers[task->process][call];
    fprintf(log_file, "call %d %s %u\n", task->process, names[call], number);
    if (task->process != fault_process || number != fault_number || strcmp(names[call], fault_name) != 0)
        return;
    fprintf(log_file, "fault %d %s %u\n", task->process, names[call], number);
    task->result = -fault_errno;
    if (strcmp(fault_name, "close") != 0)
        set_register(task, offsetof(struct user_regs_struct, orig_rax), -1);
}

static void leave_call(struct task* task) {
    if (task->result != 0)
        set_register(task, offsetof(struct user_regs_struct, rax), task->result);
    task->result = 0;
}

static void stop_at_call(struct task* task) {
    struct __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, task->id, sizeof info, &info) <= 0)
        return;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
        enter_call(task, &info);
    else if (info.op == PTRACE_SYSCALL_INFO_EXIT)
        leave_call(task);
}

// go_on lets the task run to its next call, with a signal or 0.
static void go_on(const struct task* task, int signal) {
    ptrace(PTRACE_SYSCALL, task->id, 0, signal);
}

static void add_child(const struct task* parent, int event) {
    unsigned long id = 0;
    ptrace(PTRACE_GETEVENTMSG, parent->id, 0, &id);
    const int process = event == PTRACE_EVENT_CLONE ? parent->process : process_count++;
    struct task* child = find_task((pid_t)id);
    child->process = process;
    if (event != PTRACE_EVENT_CLONE)
        fprintf(log_file, "start %d %lu\n", process, id);
    if (child->is_stopped)  // it came before the event, and waits
        go_on(child, 0);
}

static void stopped(struct task* task, int status) {
    const int event = status >> 16;
    const int signal = WSTOPSIG(status);
    if (signal == SIGSTOP && !task->is_stopped) {
        task->is_stopped = 1;
        if (task->process >= 0)
            go_on(task, 0);
    } else if (event == PTRACE_EVENT_EXEC && task->process != 0) {
        ptrace(PTRACE_DETACH, task->id, 0, 0);
        forget_task(task);
    } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
        add_child(task, event);
        go_on(task, 0);
    } else if (signal == (SIGTRAP | 0x80)) {
        stop_at_call(task);
        go_on(task, 0);
    } else {
        go_on(task, event == 0 ? signal : 0);
    }
}

static void end_task(struct task* task, int status) {
    int is_last = 1;
    for (int i = 0; i < task_count; ++i)
        is_last &= tasks[i].id == task->id || tasks[i].process != task->process;
    if (is_last)
        fprintf(log_file, "end %d %d\n", task->process, WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
    forget_task(task);
}

static void trace(void) {
    int status = 0;
    for (pid_t id; (id = waitpid(-1, &status, __WALL)) > 0;) {
        struct task* task = find_task(id);
        if (WIFSTOPPED(status))
            stopped(task, status);
        else
            end_task(task, status);
    }
}

int main(int argc, char** argv) {
    if (argc < 4)
        return 2;
    log_file = fopen(argv[1], "ae");
    if (!log_file || (strcmp(argv[2], "-") != 0 &&
                      sscanf(argv[2], "%d %63s %u %d", &fault_process, fault_name, &fault_number, &fault_errno) != 4))
        return 2;
    setvbuf(log_file, NULL, _IOLBF, BUFSIZ);
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, 0, 0);
        raise(SIGSTOP);
        execv(argv[3], argv + 3);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        return 2;
    *find_task(child) = (struct task){child, 0, 1, 0};
    ptrace(PTRACE_SETOPTIONS, child, 0,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC |
               PTRACE_O_EXITKILL);
    go_on(find_task(child), 0);
    trace();
    return 0;
}
