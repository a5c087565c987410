"""Helpers for system tests: the built agent, run as a user would, with real files, signals and records.

Where the tests run
    Inside `scripts/sandbox --tpm`, one sandbox for each test. There /etc/orvanta, /var/lib/orvanta, /run and
    /proc/cpuinfo may be written freely; outside nothing here may run, and `SandboxTest` refuses to. FEATUREWATCH names
    the agent's binary.

A test
    Derive from `SandboxTest`. `setUp` gives a clean appliance: no input files, the default /proc/cpuinfo, an empty
    /run/featurewatch and work folder, and `self.syslog`, which holds the records sent to /dev/log. `tearDown` ends
    agent processes that are still there. Each test method opens with one line: the property that it proves.

        class ReportTest(SandboxTest):
            def test_serial_is_reported(self):
                "The serial number of /proc/cpuinfo is the report's serial."
                set_cpuinfo("Serial\\t\\t: 12ab\\n")
                result = run_agent("-d")
                self.assert_success(result)
                self.assertEqual(json.loads(result.stdout)["serial"], "12ab")

One run
    `run_agent("-d", ...)` waits for the end, with a limit, and gives a `Result`: `status` (minus n when signal n ended
    it), `stdout`, `stderr` (bytes), `records` (what the agent logged on standard error, as `Record`s) and `other_lines`
    (what else is there: the agent's lines that are no records, and of the TSS library, if asked to speak). The agent's
    environment is `agent_environment()`, never ours. It keeps the TSS library silent, which writes lines of its own at
    each failed call and each connection that it tries in vain; `env={"TSS2_LOG": "all+ERROR"}` lets it speak.

The daemon
    `with Daemon(hook="touch /run/hooked") as daemon:` runs `featurewatch -w -x ...`, asserts that the command came back
    with status 0 and at the end kills what still runs. In between:
        daemon.pid                what the PID file says
        daemon.is_running()       whether that process lives (a zombie does not)
        daemon.launcher_pids()    the agent processes beside it
        daemon.document()         the features document, parsed, after a check of its form
        daemon.signal(SIGHUP)
        daemon.stop()             `featurewatch -k`, asserts status 0 and that all its processes are gone
        daemon.wait_until_gone()
    `Daemon(..., foreground=True)` runs it with --no-daemon instead and waits until it watches /etc/orvanta:
    `daemon.process` is the Popen, `daemon.stderr_records()` what it has logged so far and `daemon.wait()` gives its
    exit status. `start_daemon(...)` is the bare starting command, for starts that are to fail.

Waiting
    Never sleep. `wait_for(condition, "what is awaited")` polls until the condition returns something true, hands that
    back, and fails with the text after the limit. `assert_never(condition, seconds, what)` is for what must NOT happen.

Input files
    `write_file(path, text or bytes or an object for JSON)` puts it there with a rename, as a careful writer does.
    `set_cpuinfo(text)`, `install_features(...)`.

Documents
    `document_bytes(value)` gives the exact bytes in which the agent prints a value; `check_features_document(bytes)`
    fails unless it is a features document in every respect, and returns the object.
"""

import contextlib
import json
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from dataclasses import dataclass, field

HERE = os.path.dirname(os.path.abspath(__file__))

CPUINFO_BEHIND = "/run/sandbox/cpuinfo"
DEFAULT_SERIAL = "0000abcd"
DEFAULT_CPUINFO = f"processor\t: 0\n\nHardware\t: appliance\nSerial\t\t: {DEFAULT_SERIAL}\n"

ETC = "/etc/orvanta"
IDENTIFIERS = ETC + "/identifiers"
INSTALLED_FEATURES = ETC + "/features.json"
RUN = "/run/featurewatch"
FEATURES_DOCUMENT = RUN + "/tally-features.json"
PID_FILE = RUN + "/featurewatch.pid"
WORK = "/run/test"
USER = "featurewatch"

LEVELS = ("DEBUG", "INFO", "WARN", "ERROR", "FATAL")
DEFAULT_LIMIT = 10.0
SLOWNESS = float(os.environ.get("TEST_SLOWNESS", "1"))  # how many times as long everything may take: under an emulator


# --- waiting ----------------------------------------------------------------------------------------------------------


def wait_for(condition, what, limit=DEFAULT_LIMIT):
    """Calls `condition` until it returns something true, which is handed back; fails after `limit` seconds."""
    deadline = time.monotonic() + limit * SLOWNESS
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {limit} s: {what}")
        time.sleep(0.005)


def assert_never(condition, seconds, what):
    """Watches for `seconds` that `condition` stays false."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            raise AssertionError(f"happened: {what}")
        time.sleep(0.005)


# --- files ------------------------------------------------------------------------------------------------------------


def as_bytes(content):
    """Bytes as they are, text as UTF-8, anything else as JSON."""
    if isinstance(content, bytes):
        return content
    if not isinstance(content, str):
        content = json.dumps(content)
    return content.encode("utf-8")


def write_file(path, content):
    """Writes beside `path` and renames over it, so that a reader never sees half of it. Returns the path."""
    descriptor, temporary = tempfile.mkstemp(dir=os.path.dirname(path), prefix=".writing-")
    with os.fdopen(descriptor, "wb") as stream:
        stream.write(as_bytes(content))
    os.chmod(temporary, 0o644)
    os.rename(temporary, path)
    return path


def read_file(path):
    with open(path, "rb") as stream:
        return stream.read()


def set_cpuinfo(text):
    """Changes what /proc/cpuinfo shows. In place, as the file is bound there."""
    with open(CPUINFO_BEHIND, "wb") as stream:
        stream.write(as_bytes(text))


def install_features(*features, serial=None):
    """Writes the installed features (input 0): dictionaries, or names alone."""
    entries = [{"name": entry} if isinstance(entry, str) else entry for entry in features]
    content = {"features": entries}
    if serial is not None:
        content["serial"] = serial
    return write_file(INSTALLED_FEATURES, content)


def empty_folder(path):
    os.makedirs(path, exist_ok=True)
    for entry in os.scandir(path):
        if entry.is_dir(follow_symlinks=False):
            shutil.rmtree(entry.path)
        else:
            os.unlink(entry.path)


# --- records ----------------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Record:
    """Record is one line of the agent on standard error; `time` is empty in silent mode."""

    level: str
    text: str
    time: str = field(default="", compare=False)


RECORD_LINE = re.compile(rb"(?:(\d\d:\d\d:\d\d\.\d{3}) )?(DEBUG|INFO|WARN|ERROR|FATAL): (.*)", re.DOTALL)


def decode(data):
    """Text that keeps every byte, also those that are no UTF-8."""
    return data.decode("utf-8", "surrogateescape")


def split_stderr(data):
    """Returns the agent's records and the other lines. Those of the TSS library have no blank after their first colon."""
    records, others = [], []
    for line in data.split(b"\n")[: None if not data.endswith(b"\n") else -1] if data else []:
        match = RECORD_LINE.fullmatch(line)
        if match:
            stamp, level, text = match.groups()
            records.append(Record(decode(level), decode(text), decode(stamp or b"")))
        else:
            others.append(decode(line))
    return records, others


@dataclass(frozen=True)
class SyslogRecord:
    """SyslogRecord is one datagram on /dev/log, as the C library composes it. `pid` is None when it carries none."""

    facility: int
    severity: int
    ident: str
    pid: int | None
    text: str
    raw: bytes


SYSLOG_DATAGRAM = re.compile(
    rb"<(\d+)>([A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d) ([^\[:]*)(?:\[(\d+)\])?: (.*?)[\n\0]*", re.DOTALL
)


def parse_syslog(raw):
    match = SYSLOG_DATAGRAM.fullmatch(raw)
    if not match:
        raise AssertionError(f"not a syslog datagram: {raw!r}")
    priority, _, ident, pid, text = match.groups()
    facility, severity = divmod(int(priority), 8)
    return SyslogRecord(facility, severity, decode(ident), int(pid) if pid else None, decode(text), raw)


class Syslog:
    """Syslog stands in for the system's logger: it binds /dev/log and keeps what arrives.

    A thread empties the socket, as a full one would hold up the sender. `records` empties it too, so it gives
    everything that was sent before the call.
    """

    def __init__(self, path="/dev/log"):
        self._path = path
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        self._socket.bind(path)
        os.chmod(path, 0o666)
        self._lock = threading.Lock()
        self._datagrams = []
        self._closing = False
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _drain(self):
        with self._lock, contextlib.suppress(BlockingIOError):
            while True:
                datagram = self._socket.recv(1 << 18, socket.MSG_DONTWAIT)
                if datagram:
                    self._datagrams.append(datagram)

    def _serve(self):
        while not self._closing:
            self._socket.recv(1, socket.MSG_PEEK)
            self._drain()

    def datagrams(self):
        self._drain()
        with self._lock:
            return list(self._datagrams)

    def records(self, ident=None):
        parsed = [parse_syslog(datagram) for datagram in self.datagrams()]
        return [record for record in parsed if ident is None or record.ident == ident]

    def texts(self):
        return [record.text for record in self.records()]

    def wait_for_text(self, part, limit=DEFAULT_LIMIT):
        """Returns the first record whose text contains `part`."""
        return wait_for(
            lambda: next((record for record in self.records() if part in record.text), None),
            f"a syslog record with {part!r}, got only {self.texts()}",
            limit,
        )

    def clear(self):
        self._drain()
        with self._lock:
            self._datagrams.clear()

    def close(self):
        if self._closing:
            return
        self._closing = True
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._socket.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self._path)


# --- processes --------------------------------------------------------------------------------------------------------


def agent_path():
    path = os.environ.get("FEATUREWATCH")
    if not path:
        raise AssertionError("FEATUREWATCH does not name the agent's binary")
    return os.path.abspath(path)


def process_state(pid):
    """The state letter of /proc/PID/stat, or None if there is no such process."""
    try:
        stat = read_file(f"/proc/{pid}/stat")
    except (FileNotFoundError, ProcessLookupError):
        return None
    return stat[stat.rindex(b")") + 2 :][:1].decode()


def is_alive(pid):
    """Whether the process runs. A dead one that nobody has waited for does not."""
    return process_state(pid) not in (None, "Z", "X")


def program_of(pid):
    """A path of the file that the process runs; under an emulator, of the program that this was given."""
    path = f"/proc/{pid}/exe"
    if os.path.basename(os.readlink(path)).startswith("qemu-"):
        words = read_file(f"/proc/{pid}/cmdline").split(b"\0")
        return decode(words[1]) if len(words) > 1 else path  # an ending process has no words any more
    return path


def processes_of(executable):
    """The living processes that run this file, by process id."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        with contextlib.suppress(OSError):
            if os.path.samefile(program_of(entry), executable) and is_alive(int(entry)):
                found.append(int(entry))
    return sorted(found)


def agent_processes():
    return processes_of(agent_path())


def is_watching(pid, folder):
    """Whether the process has an inotify watch on this folder: a change that comes earlier causes no event."""
    status = os.stat(folder)
    device = os.major(status.st_dev) << 20 | os.minor(status.st_dev)
    wanted = f"ino:{status.st_ino:x} sdev:{device:x} ".encode()
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        for entry in os.listdir(f"/proc/{pid}/fdinfo"):
            lines = read_file(f"/proc/{pid}/fdinfo/{entry}").splitlines()
            if any(line.startswith(b"inotify wd:") and wanted in line for line in lines):
                return True
    return False


def wait_until_watching(pid, folder=ETC):
    """For a daemon in the foreground, whose start nobody reports. `featurewatch -w` returns only after that point."""
    wait_for(lambda: is_watching(pid, folder), f"a watch on {folder}")


def kill_agents():
    """Ends every agent process of this sandbox and waits until they are gone."""
    for pid in agent_processes():
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    wait_for(lambda: not agent_processes(), "the end of the agent's processes")


def has_user_switch():
    """Whether this sandbox knows more than one user, so that the agent can become another."""
    if not os.geteuid() == 0:
        return False
    wanted = pwd.getpwnam(USER).pw_uid
    for line in read_file("/proc/self/uid_map").splitlines():
        first, _, count = (int(word) for word in line.split())
        if first <= wanted < first + count:
            return True
    return False


PASSED_ON = re.compile(r"PATH|TZ|[A-Z]*SAN_OPTIONS|LLVM_PROFILE_FILE|GCOV_\w+")


def agent_environment(**changes):
    """What the agent gets: search path, settings of sanitizers and coverage, a silent TSS library, and `changes`."""
    environment = {name: value for name, value in os.environ.items() if PASSED_ON.fullmatch(name)}
    environment["TSS2_LOG"] = "all+NONE"
    environment.update(changes)
    return environment


def preload(folder=WORK, **settings):
    """The environment that loads preload.c into the agent, with these settings."""
    library = os.path.join(folder, "preload.so")
    if not os.path.exists(library):
        source = os.path.join(HERE, "preload.c")
        compiler = os.environ.get("CC", "cc")
        subprocess.run([compiler, "-Wall", "-Wextra", "-shared", "-fPIC", "-o", library, source, "-ldl"], check=True)
    sanitizer = ":".join(filter(None, [agent_environment().get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
    return {"LD_PRELOAD": library, "ASAN_OPTIONS": sanitizer, **settings}


@dataclass
class Result:
    """Result is the outcome of one run. `status` is minus n if signal n ended the run."""

    arguments: tuple
    status: int
    stdout: bytes
    stderr: bytes

    @property
    def records(self):
        return split_stderr(self.stderr)[0]

    @property
    def other_lines(self):
        return split_stderr(self.stderr)[1]

    def __str__(self):
        return (
            f"featurewatch {list(self.arguments)}\n  status {self.status}\n"
            f"  stdout {self.stdout[-2000:]!r}\n  stderr {self.stderr[-4000:]!r}"
        )


def check_for_crash(result):
    """Fails on a death by signal and on a sanitizer's report, which no run may end with."""
    for mark in (b"AddressSanitizer", b"LeakSanitizer", b"ThreadSanitizer", b"runtime error:", b"terminate called"):
        if mark in result.stderr:
            raise AssertionError(f"the agent has a fault:\n{result}")
    if result.status < 0:
        raise AssertionError(f"ended by {signal.Signals(-result.status).name}:\n{result}")


def run_agent(*arguments, env=None, limit=DEFAULT_LIMIT, may_die=False, program=None, stdout=None, **popen):
    """Runs the agent to its end and gives the `Result`.

    `env` adds to its environment. `stdout` may be a file of the caller's, the result's is empty then. More keywords go
    to `subprocess.Popen` (`cwd`, `user`, ...). A run that goes beyond `limit` is killed and fails; so does one that
    ends by a signal or with a sanitizer's report, the former unless `may_die`. Standard error goes to a file, so a
    daemon that keeps it open holds up nobody.
    """
    with tempfile.TemporaryFile() as errors, tempfile.TemporaryFile() as output:
        process = subprocess.Popen(
            [program or agent_path(), *arguments],
            env=agent_environment(**(env or {})),
            stdin=popen.pop("stdin", subprocess.DEVNULL),
            stdout=output if stdout is None else stdout,
            stderr=popen.pop("stderr", errors),
            **popen,
        )
        try:
            timed_out = False
            process.wait(limit * SLOWNESS)
        except subprocess.TimeoutExpired:
            timed_out = True
            process.kill()
            process.wait()
        output.seek(0)
        errors.seek(0)
        result = Result(arguments, process.returncode, output.read(), errors.read())
    if timed_out:
        raise AssertionError(f"still running after {limit} s:\n{result}")
    if not (may_die and result.status < 0):
        check_for_crash(result)
    return result


# --- documents --------------------------------------------------------------------------------------------------------

JSON_ESCAPES = {'"': '\\"', "\\": "\\\\", "\b": "\\b", "\f": "\\f", "\n": "\\n", "\r": "\\r", "\t": "\\t"}


def quoted(text):
    """A string as the agent's documents write it: only what must be escaped is."""
    return '"' + "".join(JSON_ESCAPES.get(c, f"\\u{ord(c):04X}" if c < " " else c) for c in text) + '"'


def document_text(value, depth=0):
    """A value as the agent's documents write it: tabs, one member or element a line, members by the order of bytes."""
    if isinstance(value, bool) or value is None:
        return json.dumps(value)
    if isinstance(value, (int, float)):
        return f"{value:.16g}"
    if isinstance(value, str):
        return quoted(value)
    if isinstance(value, dict):
        members = sorted(value.items(), key=lambda item: item[0].encode("utf-8", "surrogateescape"))
        parts = [quoted(key) + ": " + document_text(member, depth + 1) for key, member in members]
        brackets = "{}"
    else:
        parts = [document_text(element, depth + 1) for element in value]
        brackets = "[]"
    if not parts:
        return brackets[0] + " " + brackets[1]
    inner, outer = "\n" + "\t" * (depth + 1), "\n" + "\t" * depth
    return brackets[0] + inner + ("," + inner).join(parts) + outer + brackets[1]


def document_bytes(value):
    """A whole document: the value and one newline."""
    return (document_text(value) + "\n").encode("utf-8", "surrogateescape")


CHECK_DATE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")


def check_features_document(data):
    """Parses a features document (bytes) and fails unless it has exactly the published form. Returns the object."""
    try:
        text = data.decode("utf-8")
        document = json.loads(text)
    except ValueError as error:
        raise AssertionError(f"no JSON document ({error}): {data!r}") from None

    def demand(condition, what):
        if not condition:
            raise AssertionError(f"{what}: {data!r}")

    demand(text.endswith("}\n") and not text.endswith("\n\n"), "not one object and one newline")
    demand(isinstance(document, dict), "not an object")
    demand(list(document) == ["checkDate", "features"], "other members than checkDate and features, in this order")
    demand(isinstance(document["checkDate"], str) and CHECK_DATE.fullmatch(document["checkDate"]), "wrong checkDate")
    demand(isinstance(document["features"], list), "features is no list")
    names = []
    for feature in document["features"]:
        demand(isinstance(feature, dict), "a feature is no object")
        demand(isinstance(feature.get("name"), str) and feature["name"], "a feature has no name")
        demand(feature.get("source") in ("installed", "granted"), "a feature has a wrong source")
        demand(list(feature) == sorted(feature, key=str.encode), "members out of order")
        demand(set(feature) <= {"name", "source", "params", "validFrom", "validUntil"}, "unknown member")
        names.append(feature["name"].encode())
    demand(names == sorted(set(names)), "names out of order or twice")
    return document


def feature_names(document):
    return [feature["name"] for feature in document["features"]]


# --- the daemon -------------------------------------------------------------------------------------------------------


def daemon_arguments(hook="true", document=None, arguments=()):
    given = ["-w", *arguments]
    if hook is not None:
        given += ["-x", hook]
    if document is not None:
        given += ["-o", document]
    if not has_user_switch() and "--no-switch-user" not in given:
        given.append("--no-switch-user")
    return given


def start_daemon(hook="true", document=None, arguments=(), **keywords):
    """Runs the starting command `featurewatch -w` and gives its `Result`; a daemon may run then, or not."""
    keywords.setdefault("limit", 20)
    return run_agent(*daemon_arguments(hook, document, arguments), **keywords)


def read_pid_file():
    try:
        text = read_file(PID_FILE)
    except FileNotFoundError:
        return None
    return int(text) if text.strip().isdigit() else None


class Daemon:
    """Daemon is one watch daemon, from its start to its end; the module's head says how to use it.

    `hook` is the command line for -x (None leaves -x out), `document` the path for -o, `arguments` what else to pass.
    Where only one user exists --no-switch-user is added. In the foreground it counts as started once it watches the
    folder `watched`, or at once with None.
    """

    def __init__(self, hook="true", document=None, arguments=(), foreground=False, watched=ETC, **keywords):
        self.document_path = document or FEATURES_DOCUMENT
        self.process = None
        self.pid = None
        self._errors = None
        if foreground:
            self._start_in_foreground(daemon_arguments(hook, document, ["--no-daemon", *arguments]), keywords)
            ended = lambda: self.process.poll() is not None
            ready = lambda: not watched or is_watching(self.pid, watched)
            wait_for(lambda: ended() or ready(), f"a watch on {watched}, or the end")
        else:
            self.start_result = start_daemon(hook, document, arguments, **keywords)
            if self.start_result.status != 0:
                raise AssertionError(f"the daemon did not start:\n{self.start_result}")
            self.pid = read_pid_file()
            if self.pid is None:
                raise AssertionError("the daemon has no PID file")

    def _start_in_foreground(self, arguments, keywords):
        self._errors = tempfile.TemporaryFile()
        env = agent_environment(**(keywords.pop("env", None) or {}))
        self.process = subprocess.Popen(
            [agent_path(), *arguments],
            env=env,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=self._errors,
            **keywords,
        )
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def is_running(self):
        if self.process:
            self.process.poll()
        return is_alive(self.pid)

    def launcher_pids(self):
        """The agent processes other than the daemon itself; the hook launcher is the only one there may be."""
        return [pid for pid in agent_processes() if pid != self.pid]

    def document_bytes(self):
        return read_file(self.document_path)

    def document(self):
        return check_features_document(self.document_bytes())

    def names(self):
        return feature_names(self.document())

    def wait_for_names(self, *names, limit=DEFAULT_LIMIT):
        """Waits until the document lists exactly these names. Every document read meanwhile must be well-formed."""
        wait_for(lambda: self.names() == list(names), f"a document with {names}", limit)

    def stderr_records(self):
        """What a daemon in the foreground has logged so far. Opens the file again: the daemon shares its position."""
        data = read_file(f"/proc/self/fd/{self._errors.fileno()}")
        return split_stderr(data)[0]

    def wait_for_record(self, part, limit=DEFAULT_LIMIT):
        return wait_for(
            lambda: next((record for record in self.stderr_records() if part in record.text), None),
            f"a record with {part!r}",
            limit,
        )

    def signal(self, number):
        os.kill(self.pid, number)

    def wait(self, limit=DEFAULT_LIMIT):
        """The exit status of a daemon in the foreground."""
        return self.process.wait(limit * SLOWNESS)

    def wait_until_gone(self, limit=DEFAULT_LIMIT):
        """Until neither the daemon nor its launcher lives."""
        wait_for(lambda: not self.is_running() and not self.launcher_pids(), "the daemon's end", limit)

    def stop(self):
        """Ends it with `featurewatch -k` and waits until its processes are gone."""
        result = run_agent("-k")
        if result.status != 0:
            raise AssertionError(f"the daemon was not stopped:\n{result}")
        self.wait_until_gone()
        return result

    def end(self):
        """Whatever state it is in: afterwards it does not run."""
        kill_agents()
        if self.process:
            self.process.kill()
            self.process.wait()
        if self._errors:
            self._errors.close()
            self._errors = None


# --- tests ------------------------------------------------------------------------------------------------------------


class SandboxTest(unittest.TestCase):
    """SandboxTest is the base of all system tests: each starts with a clean appliance, in the work folder."""

    maxDiff = 2000

    def setUp(self):
        if not os.path.exists(CPUINFO_BEHIND):
            raise AssertionError("run me with scripts/sandbox, not on a real machine")
        for folder in (ETC, "/var/lib/orvanta", RUN, WORK):
            empty_folder(folder)
        set_cpuinfo(DEFAULT_CPUINFO)
        os.chdir(WORK)
        self.syslog = Syslog()
        self.addCleanup(self.syslog.close)
        self.addCleanup(kill_agents)

    def work_path(self, name):
        return os.path.join(WORK, name)

    def require_user_switch(self):
        if not has_user_switch():
            self.skipTest("only one user exists in this sandbox: it was not started by root")

    def assert_success(self, result):
        self.assertEqual(result.status, 0, str(result))

    def assert_failure(self, result, *records):
        """Status 1, nothing on standard output, and exactly these records: pairs of level and text."""
        self.assertEqual(result.status, 1, str(result))
        self.assertEqual(result.stdout, b"", str(result))
        self.assert_records(result, *records)

    def assert_records(self, result, *records):
        self.assertEqual([(record.level, record.text) for record in result.records], list(records), str(result))

    def assert_no_records(self, result):
        self.assert_records(result)
