#!/usr/bin/env python3
"""What the watch daemon costs while nothing happens, and how quickly it answers a changed input.

    scripts/sandbox bench/latency.py FEATUREWATCH [OPTION ...]

The options go to the daemon beside -w and -x. Measured are resident memory and context switches of an idle daemon, then the
time from the rename of a new input file into place to the new document and to the start of the hook. A shell loop around
inotifywait that does the same job (wait, copy, rename, run the hook) is measured beside it in the same way.

The observer sleeps in poll() on an inotify descriptor, for the document's rename, and on a pipe that the hook writes a
byte to, and takes the time (in nanoseconds) when it wakes. Its own waking, usually below a tenth of a millisecond, is part
of every figure, of both candidates alike. "observer" in the result is its share without the waking: it renames a document
into place itself and takes note of that.

Exit status 1 if anything did not happen in time, or if the idle daemon woke up.
"""

import ctypes
import os
import random
import select
import signal
import subprocess
import sys
import tempfile
import time

INPUT = "/etc/orvanta/features.json"
DOCUMENT = "/run/featurewatch/tally-features.json"
PID_FILE = "/run/featurewatch/featurewatch.pid"

ROUNDS = 200
LIMIT_S = 10  # for anything to happen
SETTLE_S = 2  # after the start, before the idle window
IDLE_S = 20

IN_MOVED_TO = 0x80
INOTIFY_BUFFER = 65536


class Failure(Exception):
    pass


class Observer:
    """Tells when the document was renamed into place and when the hook ran."""

    def __init__(self, folder):
        self.pipe_path = os.path.join(folder, "hook")
        os.mkfifo(self.pipe_path)
        # Open for writing too, so that it never reads as ended between two hooks.
        self.pipe = os.open(self.pipe_path, os.O_RDWR | os.O_NONBLOCK)
        self.inotify = self._watch(os.path.dirname(DOCUMENT))
        self.poll = select.poll()
        self.poll.register(self.pipe, select.POLLIN)
        self.poll.register(self.inotify, select.POLLIN)

    @staticmethod
    def _watch(folder):
        libc = ctypes.CDLL(None, use_errno=True)
        descriptor = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if descriptor < 0 or libc.inotify_add_watch(descriptor, folder.encode(), IN_MOVED_TO) < 0:
            raise Failure(f"cannot watch {folder}: {os.strerror(ctypes.get_errno())}")
        return descriptor

    @property
    def hook_command(self):
        return f"echo >{self.pipe_path}"

    def drain(self):
        while ready := self.poll.poll(0):
            for descriptor, _ in ready:
                os.read(descriptor, INOTIFY_BUFFER)

    def wait(self, marker, want_hook=True):
        """The times at which a document that contains `marker` and the first hook from now on were seen, in ns."""
        document = None
        hook = None if want_hook else 0
        deadline = time.monotonic() + LIMIT_S
        while document is None or hook is None:
            ready = self.poll.poll(max(0, deadline - time.monotonic()) * 1000)
            now = time.monotonic_ns()
            if not ready:
                raise Failure(f"no {'document' if document is None else 'hook'} after {LIMIT_S} s")
            for descriptor, _ in ready:
                os.read(descriptor, INOTIFY_BUFFER)
                if descriptor == self.pipe:
                    hook = hook or now
                elif document is None and document_contains(marker):
                    document = now
        if want_hook and hook < document:
            raise Failure("a hook ran before its document was there")
        return document, hook


def document_contains(marker):
    with open(DOCUMENT, "rb") as file:
        return marker.encode() in file.read()


def write_aside(path, text):
    aside = path + ".new"
    with open(aside, "w") as file:
        file.write(text)
    return aside


def input_text(marker):
    return '{ "features": [ { "name": "video-wall", "params": { "outputs": 4 } }, { "name": "%s" } ] }\n' % marker


def install_input(marker):
    """Puts a new input into place in one step and returns the time just before that step, in ns."""
    aside = write_aside(INPUT, input_text(marker))
    start = time.monotonic_ns()
    os.rename(aside, INPUT)
    return start


# Candidates


class Daemon:
    name = "featurewatch"

    def __init__(self, command, observer):
        self.command = command
        self.observer = observer

    def start(self):
        install_input("first")
        # With its end the document is there.
        subprocess.run(
            [self.command[0], "-w", "-x", self.observer.hook_command, *self.command[1:]],
            check=True,
            stdin=subprocess.DEVNULL,
            timeout=LIMIT_S * 2,
        )
        if not document_contains("first"):
            raise Failure("the daemon has started without a document")
        with open(PID_FILE) as file:
            self.pid = int(file.read())

    def pids(self):
        return with_descendants(self.pid)

    def stop(self):
        subprocess.run([self.command[0], "-k"], check=True, timeout=LIMIT_S * 2)


class ShellLoop:
    name = "inotifywait loop"

    SCRIPT = """
        inotifywait --monitor --event moved_to --format %f "$1" | while read -r name; do
            [ "$name" = "$2" ] || continue
            cp "$1/$2" "$3.tmp"
            mv "$3.tmp" "$3"
            sh -c "$4"
        done
    """

    def __init__(self, observer):
        self.observer = observer

    def start(self):
        folder, name = os.path.split(INPUT)
        self.process = subprocess.Popen(
            ["sh", "-c", self.SCRIPT, "loop", folder, name, DOCUMENT, self.observer.hook_command],
            stdin=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        for line in self.process.stderr:
            if "Watches established" in line:
                return
        raise Failure("inotifywait did not start")

    def pids(self):
        return with_descendants(self.process.pid)

    def stop(self):
        os.killpg(self.process.pid, signal.SIGTERM)
        self.process.wait()


# What a process costs


def fields(path):
    with open(path) as file:
        return dict(line.rstrip("\n").split(":", 1) for line in file if ":" in line)


def number(text):
    return int(text.split()[0])


def with_descendants(pid):
    parents = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            parents[int(entry)] = number(fields(f"/proc/{entry}/status")["PPid"])
        except FileNotFoundError:
            pass  # ended meanwhile
    found = [pid]
    for parent in found:  # grows while it is walked
        found += sorted(child for child, its_parent in parents.items() if its_parent == parent)
    return found


def memory_kb(pid):
    rollup = fields(f"/proc/{pid}/smaps_rollup")
    return (number(fields(f"/proc/{pid}/status")["VmRSS"]), number(rollup["Pss"]), number(rollup["Private_Dirty"]))


def switches(pid):
    """Voluntary and other context switches of all threads of a process since its start."""
    counts = [0, 0]
    for task in os.listdir(f"/proc/{pid}/task"):
        status = fields(f"/proc/{pid}/task/{task}/status")
        counts[0] += number(status["voluntary_ctxt_switches"])
        counts[1] += number(status["nonvoluntary_ctxt_switches"])
    return counts


def report_idle(candidate):
    """Prints memory and switches of each process and returns the sum of the voluntary switches, the wake-ups."""
    time.sleep(SETTLE_S)
    pids = candidate.pids()
    before = {pid: switches(pid) for pid in pids}
    time.sleep(IDLE_S)
    wakeups = 0
    for pid in pids:
        voluntary, other = (after - first for after, first in zip(switches(pid), before[pid]))
        wakeups += voluntary
        print(
            "%-18s %-14s %8d %8d %14d %18d %12d"
            % (candidate.name, fields(f"/proc/{pid}/status")["Name"].strip(), *memory_kb(pid), voluntary, other)
        )
    if candidate.pids() != pids:
        raise Failure(f"{candidate.name}: processes came or went while idle")
    return wakeups


# How quickly it answers


def quantile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def report_latency(name, what, times_ns):
    print(
        "%-18s %-10s %10.3f %10.3f %10.3f"
        % (name, what, *(quantile(times_ns, share) / 1e6 for share in (0, 0.5, 0.99)))
    )


def measure_rounds(candidate, observer):
    documents = []
    hooks = []
    for number_of_round in range(ROUNDS):
        marker = f"round-{number_of_round}-of-{candidate.name.split()[0]}"
        time.sleep(random.uniform(0.005, 0.05))  # out of step with whatever ticks in the candidate
        observer.drain()
        start = install_input(marker)
        document, hook = observer.wait(marker)
        documents.append(document - start)
        hooks.append(hook - start)
    report_latency(candidate.name, "document", documents)
    report_latency(candidate.name, "hook", hooks)


def measure_observer(observer):
    """What the observer itself takes, without being woken."""
    times = []
    for number_of_round in range(ROUNDS):
        marker = f"observer-{number_of_round}"
        aside = write_aside(DOCUMENT, marker)
        observer.drain()
        start = time.monotonic_ns()
        os.rename(aside, DOCUMENT)
        times.append(observer.wait(marker, want_hook=False)[0] - start)
    report_latency("observer", "document", times)


def run(candidate, observer, measure):
    candidate.start()
    try:
        return measure(candidate)
    finally:
        candidate.stop()
        observer.drain()


def measure_all(command):
    wakeups = 0
    with tempfile.TemporaryDirectory() as folder:
        observer = Observer(folder)
        candidates = (Daemon(command, observer), ShellLoop(observer))

        print(f"Idle for {IDLE_S} s, kB")
        print(
            "%-18s %-14s %8s %8s %14s %18s %12s"
            % ("", "process", "VmRSS", "Pss", "Private_Dirty", "voluntary switches", "others")
        )
        for candidate in candidates:
            count = run(candidate, observer, report_idle)
            if isinstance(candidate, Daemon):
                wakeups = count

        print(f"\nRename of the input to ..., {ROUNDS} rounds, ms")
        print("%-18s %-10s %10s %10s %10s" % ("", "", "min", "median", "p99"))
        for candidate in candidates:
            run(candidate, observer, lambda started: measure_rounds(started, observer))
        measure_observer(observer)
    if wakeups != 0:
        raise Failure(f"the idle daemon woke up {wakeups} times")


def main():
    if len(sys.argv) < 2 or not os.path.isdir("/run/sandbox"):
        sys.exit("usage: scripts/sandbox bench/latency.py FEATUREWATCH [OPTION ...]")
    try:
        measure_all([os.path.abspath(sys.argv[1]), *sys.argv[2:]])
    except (Failure, OSError, subprocess.SubprocessError) as error:
        sys.exit(f"latency: {error}")


if __name__ == "__main__":
    main()
