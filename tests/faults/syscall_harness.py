"""Helpers for runs in which one system call of the agent fails; they build on `daemon_harness`.

The tracer
    `Traced(arguments, fault)` runs the agent with syscall_fault.c, whose head says what a fault is and what is logged.
    Tracing goes on until the last process has ended. `traced.calls()` are the calls so far, `traced.is_hit()` says
    whether the fault has happened, `traced.ends()` how processes ended.

The cases
    `cases(calls)` makes a `Fault` of each call. What is left out says `SPARED`. `sample(cases)` picks as many of them
    as SYSCALL_FAULTS says, spread over all, or gives them all.
"""

import contextlib
import errno
import os
import resource
import subprocess
import tempfile
from dataclasses import dataclass

from harness import agent_environment, agent_path, read_file, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))
FOLDER = "/run/sandbox/syscall-fault"
TRACER = FOLDER + "/tracer"

STARTER, SESSION_LEADER, DAEMON, LAUNCHER = range(4)

# Calls that are never failed. Those of the first lines have no failure that this program could meet. Memory that is refused
# ends the process by GLib's own decision, and has tests of its own.
SPARED = {"exit", "exit_group", "rt_sigreturn", "futex", "restart_syscall", "set_robust_list", "rseq", "getpid"}
SPARED |= {"rt_sigaction", "rt_sigprocmask"}
SPARED |= {"brk", "mmap", "mprotect", "munmap", "mremap", "madvise"}

ERRORS = {
    "clone": errno.EAGAIN,
    "clone3": errno.EAGAIN,
    "connect": errno.ECONNREFUSED,
    "eventfd2": errno.EMFILE,
    "inotify_add_watch": errno.ENOSPC,
    "inotify_init1": errno.EMFILE,
    "kill": errno.EPERM,
    "openat": errno.EMFILE,
    "pipe2": errno.EMFILE,
    "setgroups": errno.EPERM,
    "setgid": errno.EPERM,
    "setuid": errno.EAGAIN,
    "socket": errno.EMFILE,
    "unlink": errno.EACCES,
    "wait4": errno.ECHILD,
    "write": errno.ENOSPC,
}


MOST_FILES = 256  # a daemon that cannot list its descriptors closes every number up to here, each with two traced stops


@dataclass(frozen=True)
class Fault:
    """Fault is one call of one process that fails."""

    process: int
    name: str
    number: int

    @property
    def error(self):
        return ERRORS.get(self.name, errno.EIO)

    def argument(self):
        return f"{self.process} {self.name} {self.number} {self.error}"

    def __str__(self):
        return f"process {self.process}: {self.name} #{self.number} {errno.errorcode[self.error]}"


def make_tracer():
    """Compiles the tracer once in each sandbox, with the system's own numbers of calls."""
    if os.path.exists(TRACER):
        return
    os.makedirs(FOLDER)
    names = os.path.join(FOLDER, "names.h")
    macros = subprocess.run(
        ["cc", "-E", "-dM", "-"], input="#include <sys/syscall.h>\n", capture_output=True, text=True, check=True
    )
    with open(names, "w") as stream:
        for line in macros.stdout.splitlines():
            _, name, value = (line.split(" ", 2) + [""] * 2)[:3]
            if name.startswith("__NR_") and value.isdigit():
                stream.write(f'NAME({value}, "{name[5:]}")\n')
    source = os.path.join(HERE, "syscall_fault.c")
    flags = ["-Wall", "-Wextra", "-Werror", "-O1", f'-DSYSCALL_NAMES="{names}"']
    subprocess.run(["cc", *flags, "-o", TRACER, source], check=True)


class Traced:
    """Traced is one run of the agent with the tracer, from its start until its last process has ended."""

    def __init__(self, arguments, fault=None):
        make_tracer()
        self._log = tempfile.NamedTemporaryFile(dir=FOLDER)
        self._output = tempfile.TemporaryFile()
        self._errors = tempfile.TemporaryFile()
        self.fault = fault
        self.process = subprocess.Popen(
            [TRACER, self._log.name, fault.argument() if fault else "-", agent_path(), *arguments],
            env=agent_environment(),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (MOST_FILES, MOST_FILES)),
            stdin=subprocess.DEVNULL,
            stdout=self._output,
            stderr=self._errors,
        )

    def _lines(self, kind):
        lines = read_file(self._log.name).decode().split("\n")[:-1]
        return [line.split()[1:] for line in lines if line.startswith(kind + " ")]

    def calls(self):
        """The calls so far that a fault may hit."""
        found = [Fault(int(process), name, int(number)) for process, name, number in self._lines("call")]
        return [call for call in found if call.process <= LAUNCHER and call.name not in SPARED]

    def is_hit(self):
        return bool(self._lines("fault"))

    def pid_of(self, process):
        """Its process id; None if it was never made."""
        return next((int(pid) for number, pid in self._lines("start") if int(number) == process), None)

    def ends(self):
        """The statuses of the processes that have ended; minus n where signal n did it."""
        return {int(process): int(status) for process, status in self._lines("end")}

    def wait_for_end(self, process=STARTER, limit=25):
        wait_for(lambda: process in self.ends(), f"the end of process {process}", limit)
        return self.ends()[process]

    def wait(self, limit=25):
        """Until all processes have ended."""
        self.process.wait(limit)

    def output(self):
        return read_file(f"/proc/self/fd/{self._output.fileno()}")

    def errors(self):
        return read_file(f"/proc/self/fd/{self._errors.fileno()}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(ProcessLookupError):
            self.process.kill()
        self.process.wait()
        for stream in (self._log, self._output, self._errors):
            stream.close()


def cases(calls):
    """Each call once, in the order in which they were first made."""
    return list(dict.fromkeys(calls))


def sample(found, few):
    """As many of the cases as SYSCALL_FAULTS says (a number, or "all"), else a few; evenly spread."""
    wanted = os.environ.get("SYSCALL_FAULTS", str(few))
    if wanted == "all" or int(wanted) >= len(found):
        return found
    step = len(found) / int(wanted)
    return [found[int((place + 0.5) * step)] for place in range(int(wanted))]
