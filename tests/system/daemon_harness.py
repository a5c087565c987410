"""What the tests of the watch daemon share, beyond `harness`: its records in syslog, its hook, its processes, faults.

Records
    In daemon mode all records go to syslog. `self.records(pid)` gives those of the agent's own loggers as pairs of
    level and text, `self.plain_lines()` what came without the layout of our records (GLib's and libdaemon's lines).

The hook
    `HOOK` adds a line to a file at each run; `self.runs()` counts them. `GATED_HOOK` writes "begin", waits for
    `open_gate()` and writes "end", so a test decides how long a run takes. A stopped daemon has done all its runs: stop
    it, then count.

Barriers
    What must NOT follow from an event is looked for after a later event that takes the same way: `self.recheck(daemon)`
    (SIGHUP) for signals and timers, a further change of the same input for file events.
"""

import calendar
import contextlib
import json
import os
import pwd
import re
import shutil
import signal
import subprocess
import threading
import time

from harness import (
    FEATURES_DOCUMENT,
    INSTALLED_FEATURES,
    PID_FILE,
    SLOWNESS,
    USER,
    WORK,
    Result,
    SandboxTest,
    agent_processes,
    check_features_document,
    check_for_crash,
    feature_names,
    has_user_switch,
    install_features,
    read_file,
    start_daemon,
    wait_for,
)

RUNS = WORK + "/runs"
GATE = WORK + "/gate"
HOOK = f"echo run >> {RUNS}"
GATED_HOOK = f"echo begin >> {RUNS}; until [ -e {GATE} ]; do sleep 0.02; done; echo end >> {RUNS}"

UNCHANGED = ("INFO", "features list unchanged")
REQUESTED = ("INFO", "requested to recheck all features")
TERMINATING = ("INFO", "terminating on signal")
FAILED = ("FATAL", "terminating on failure to update features")
FIRST_FAILED = ("FATAL", "failed to write initial status")
START_FAILED = ("FATAL", "forked daemon failed (1)")


def updated(*names):
    return ("INFO", "features list updated: " + ", ".join(names))


def started(pid):
    return ("INFO", f"featurewatch started with PID {pid}")


def modified(path=INSTALLED_FEATURES):
    return ("INFO", f"features input {path} was modified")


def scheduled(seconds):
    return ("INFO", f"features check scheduled in {seconds} seconds")


# --- records ----------------------------------------------------------------------------------------------------------

LEVEL_AND_TEXT = re.compile(r"(DEBUG|INFO |WARN |ERROR|FATAL) orv\.featurewatch     - (.*)", re.DOTALL)


def own_record(record):
    """Level and text of a syslog record in our layout, else None."""
    match = LEVEL_AND_TEXT.fullmatch(record.text)
    return (match[1].rstrip(), match[2]) if match else None


# --- instants ---------------------------------------------------------------------------------------------------------

INSTANT = "%Y-%m-%dT%H:%M:%SZ"


def instant(seconds):
    """Seconds since the epoch in the form of checkDate."""
    return time.strftime(INSTANT, time.gmtime(seconds))


def soon(seconds):
    """The whole second that comes so many seconds from now, or later where everything takes longer."""
    return int(time.time() + seconds * SLOWNESS)


def seconds_of(text):
    return calendar.timegm(time.strptime(text, INSTANT))


# --- files and mounts -------------------------------------------------------------------------------------------------


def write_in_place(path, content):
    """Overwrites the file's bytes, which must be as many as before, with a single write."""
    descriptor = os.open(path, os.O_WRONLY)
    assert os.fstat(descriptor).st_size == len(content)
    os.write(descriptor, content)
    os.close(descriptor)


def open_folder(name):
    """A new folder in the work folder that every user may write."""
    path = os.path.join(WORK, name)
    os.mkdir(path)
    os.chmod(path, 0o777)
    return path


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def unmount(path):
    subprocess.run(["umount", path], check=True)


def small_disk(name):
    """A new folder on a file system of its own with room for two small files."""
    path = open_folder(name)
    mount("-t", "tmpfs", "-o", f"size={2 * os.sysconf('SC_PAGE_SIZE')},mode=777", "small", path)
    return path


def fill_disk(folder):
    with open(os.path.join(folder, "filler"), "wb", buffering=0) as filler, contextlib.suppress(OSError):
        while True:
            filler.write(bytes(1024))


def remove_folder(path):
    if os.path.ismount(path):
        unmount(path)
    shutil.rmtree(path)


def replace_unnoticed(*names):
    """Changes the installed features without a file event: another file is mounted over them."""
    other = os.path.join(WORK, "unnoticed.json")
    with open(other, "w") as stream:
        json.dump({"features": [{"name": name} for name in names]}, stream)
    mount("--bind", other, INSTALLED_FEATURES)


# --- processes --------------------------------------------------------------------------------------------------------


def status_of(pid, field):
    """The words after a field's name in /proc/PID/status."""
    for line in read_file(f"/proc/{pid}/status").decode().splitlines():
        name, _, value = line.partition(":")
        if name == field:
            return value.split()
    raise AssertionError(f"no {field} in the status of {pid}")


def launcher_of(daemon):
    """The process id of the daemon's hook launcher, once it is one: it may not have run since the fork."""

    def find():
        for pid in daemon.launcher_pids():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                leads_its_group = os.getpgid(pid) == pid
                if leads_its_group and status_of(pid, "PPid") == [str(daemon.pid)]:
                    return pid
        return None

    return wait_for(find, "the daemon's launcher")


def descriptors_of(pid):
    """What each open descriptor of a process refers to."""
    folder = f"/proc/{pid}/fd"
    found = {}
    for entry in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):
            found[int(entry)] = os.readlink(f"{folder}/{entry}")
    return found


def flags_of(pid, descriptor):
    """The open flags of a process's descriptor, O_CLOEXEC among them."""
    return int(read_file(f"/proc/{pid}/fdinfo/{descriptor}").split()[3], 8)


def as_user():
    """Keywords for Popen: the process runs as the user featurewatch, with none of root's rights."""
    entry = pwd.getpwnam(USER)
    return {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": []}


def give_to_user(path):
    """Makes the user featurewatch the owner of a file, where there is that user."""
    if has_user_switch():
        entry = pwd.getpwnam(USER)
        os.chown(path, entry.pw_uid, entry.pw_gid, follow_symlinks=False)


def foreground_result(daemon):
    """Waits for the end of a daemon in the foreground; returns its `Result`. A crash or a sanitizer's report fails."""
    status = daemon.wait()
    result = Result((), status, b"", read_file(f"/proc/self/fd/{daemon._errors.fileno()}"))
    check_for_crash(result)
    return result


def open_gate():
    with open(GATE, "w"):
        pass


class DocumentReader:
    """DocumentReader reads the document over and over while it is entered and keeps the names in each version.

    Leaving it fails if one of them was not a whole document; `versions` are the lists of names, each change once.
    """

    def __init__(self, path=FEATURES_DOCUMENT):
        self._path = path
        self._stopping = False
        self._error = None
        self._thread = threading.Thread(target=self._read_all)
        self.reads = 0
        self.versions = []

    def _read_all(self):
        last = None
        try:
            while not self._stopping:
                data = read_file(self._path)
                self.reads += 1
                if data != last:
                    last = data
                    self._keep(feature_names(check_features_document(data)))
        except (OSError, AssertionError) as error:
            self._error = error

    def _keep(self, names):
        if not self.versions or self.versions[-1] != names:
            self.versions.append(names)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stopping = True
        self._thread.join()
        if self._error:
            raise AssertionError(f"a reader saw: {self._error}")


# --- tests ------------------------------------------------------------------------------------------------------------


class WatchTest(SandboxTest):
    """WatchTest is the base of the daemon's tests."""

    def records(self, pid=None):
        """The agent's records in syslog, or those of one process."""
        found = [own_record(record) for record in self.syslog.records() if pid is None or record.pid == pid]
        return [pair for pair in found if pair]

    def plain_lines(self):
        return [record for record in self.syslog.records() if not own_record(record)]

    def count(self, record):
        return self.records().count(record)

    def wait_for_record(self, record, count=1, limit=15):
        wait_for(lambda: self.count(record) >= count, f"{count} times {record}", limit)

    def runs(self):
        """How often HOOK has run."""
        return len(self.run_lines())

    def run_lines(self):
        try:
            return read_file(RUNS).decode().splitlines()
        except FileNotFoundError:
            return []

    def wait_for_runs(self, count, limit=15):
        wait_for(lambda: self.runs() >= count, f"{count} runs of the hook", limit)

    def recheck(self, daemon):
        """Asks for a recheck and waits until it has found whether the list changed; the document comes after that."""
        before = self.count(REQUESTED)
        daemon.signal(signal.SIGHUP)
        self.wait_for_record(REQUESTED, before + 1)

        def is_done():
            records = self.records(daemon.pid)
            last = len(records) - 1 - records[::-1].index(REQUESTED)
            return any(text.startswith("features list ") for _, text in records[last:])

        wait_for(is_done, "the end of the recheck")

    def change(self, daemon, *features):
        """Installs these features and waits until the document lists their names."""
        install_features(*features)
        names = [feature["name"] if isinstance(feature, dict) else feature for feature in features]
        daemon.wait_for_names(*names, limit=15)

    def stop_and_wait(self, daemon, number=signal.SIGTERM):
        daemon.signal(number)
        daemon.wait_until_gone(limit=20)

    def assert_failed_start(self, result, *records):
        """The forked daemon failed with these records, the starting command with its one; nothing is left."""
        self.assert_failure(result, START_FAILED)
        wait_for(lambda: not agent_processes(), "the end of all processes")
        logged = self.records()
        self.assertEqual(logged.count(START_FAILED), 1)
        logged.remove(START_FAILED)
        self.assertEqual(logged, list(records))
        self.assertFalse(os.path.exists(PID_FILE))
        self.assertEqual(self.runs(), 0)

    def assert_start_fails(self, *records, hook=HOOK, **keywords):
        """Starts the daemon, which must fail with these records."""
        self.assert_failed_start(start_daemon(hook, **keywords), *records)
