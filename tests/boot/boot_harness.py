"""Helpers for tests in a booted Debian with the packages installed: the unit as systemd runs it, hooks, the journal.

Where the tests run
    Inside `tests/boot/boot`, one boot for each test, or under autopkgtest, one after the other in one machine. They
    change units, accounts and packages freely, and refuse to run anywhere else.

A test
    Derive from `BootTest`. The device is as it was installed and booted: the daemon runs, nothing is in /etc/orvanta
    but what the package ships. Each test method opens with one line: the property that it proves.

The unit
    `systemctl(...)` runs it and fails on a status other than 0; `unit("MainPID")` is a property of the unit,
    `main_pid()` the daemon, `launcher_pid()` its launcher. `change("a", "b")` installs these features and waits for
    the document. `messages()` is what the unit has in the journal, `add_hook`, `add_drop_in` do what they say.
"""

import contextlib
import glob
import json
import os
import pwd
import shutil
import subprocess
import unittest

os.environ.setdefault("FEATUREWATCH", "/usr/sbin/featurewatch")

from daemon_harness import status_of
from harness import (
    ETC,
    FEATURES_DOCUMENT,
    RUN,
    USER,
    check_features_document,
    empty_folder,
    feature_names,
    install_features,
    processes_of,
    read_file,
    wait_for,
)

AGENT = os.environ["FEATUREWATCH"]
UNIT = "featurewatch.service"
GRANTS = "/var/lib/orvanta"
HOOKS = ETC + "/changed.d"
EXAMPLES = "/usr/share/doc/featurewatch/examples"
UNITS = "/etc/systemd/system"
DROP_INS = f"{UNITS}/{UNIT}.d"
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PACKAGES = "/srv/packages"


# --- commands ---------------------------------------------------------------------------------------------------------


def command(*arguments, status=0, limit=60, **keywords):
    """Runs a command, which must end with this status (None: any), and returns what it printed on both streams."""
    result = subprocess.run(
        arguments,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=limit,
        **keywords,
    )
    text = result.stdout.decode("utf-8", "surrogateescape")
    if status is not None and result.returncode != status:
        raise AssertionError(f"{arguments}: status {result.returncode} instead of {status}\n{text}")
    return text


def systemctl(*arguments, **keywords):
    return command("systemctl", *arguments, **keywords)


def unit(name, of=UNIT):
    """A property of a unit."""
    return systemctl("show", "--property", name, "--value", of).strip()


def is_active():
    return unit("ActiveState") == "active"


def main_pid():
    return int(unit("MainPID"))


def launcher_pid():
    """The child of the daemon that runs the hook."""

    def find():
        daemon = main_pid()
        for pid in processes_of(AGENT):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                if status_of(pid, "PPid") == [str(daemon)]:
                    return pid
        return None

    return wait_for(find, "the hook's launcher")


def wait_until_active(but=0):
    """Waits until the unit has a running daemon, another one than the process `but`; returns its id."""
    return wait_for(lambda: is_active() and main_pid() not in (0, but) and main_pid(), "a running daemon", 20)


def wait_until_inactive():
    wait_for(lambda: unit("ActiveState") in ("inactive", "failed"), "the end of the unit", 40)


JOURNAL_MARK = "/run/journal-mark"  # where the test begins in the journal, on a machine that had others before it


def entries(**fields):
    """The journal's entries with these fields, oldest first."""
    command("journalctl", "--sync")
    options = ["--output=json", "--all", "--quiet"]
    if os.path.exists(JOURNAL_MARK):
        options.append("--after-cursor=" + read_file(JOURNAL_MARK).decode())
    found = [json.loads(line) for line in command("journalctl", *options).splitlines()]
    # Not by matches of journalctl's own: with those it leaves out the first entry after a cursor.
    return [entry for entry in found if all(entry.get(name) == str(value) for name, value in fields.items())]


def mark_journal():
    command("journalctl", "--sync")
    last = json.loads(command("journalctl", "--output=json", "--lines=1"))
    write(JOURNAL_MARK, last["__CURSOR"])


def messages():
    """What the unit's processes have written to the journal."""
    return [entry["MESSAGE"] for entry in entries(_SYSTEMD_UNIT=UNIT)]


def record(level, text):
    """A record of the agent as it lies in the journal."""
    return f"{level:5} orv.featurewatch     - {text}"


# --- the device -------------------------------------------------------------------------------------------------------


def document():
    return check_features_document(read_file(FEATURES_DOCUMENT))


def names():
    return feature_names(document())


def change(*features):
    """Installs these features by a rename and waits until the document lists them, and only them."""
    install_features(*features)
    wait_for(lambda: names() == list(features), f"a document with {features}", 15)


def write(path, text, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as stream:
        stream.write(text)
    os.chmod(path, mode)


def add_hook(name, text):
    """Puts a shell script into the hook's folder."""
    write(os.path.join(HOOKS, name), "#!/bin/bash\n" + text, 0o755)


def add_drop_in(text, of=UNIT):
    write(f"{UNITS}/{of}.d/test.conf", text)
    systemctl("daemon-reload")


def copy_example(name, folder):
    os.makedirs(folder, exist_ok=True)
    return shutil.copy(os.path.join(EXAMPLES, name), folder)


def lines_of(path):
    """The lines of a file that may not be there."""
    try:
        return read_file(path).decode().splitlines()
    except FileNotFoundError:
        return []


def user_id(name=USER):
    return pwd.getpwnam(name).pw_uid


def mode_of(path):
    """Permission bits, owner and group of a file."""
    status = os.stat(path)
    return status.st_mode & 0o7777, status.st_uid, status.st_gid


def processes():
    """The agent's processes, whatever started them."""
    return processes_of(AGENT)


def restore():
    """Brings a device that has seen other tests back to the state after its installation."""
    for path in glob.glob(f"{UNITS}/featurewatch*.d"):
        shutil.rmtree(path)
    systemctl("daemon-reload")
    systemctl("stop", UNIT)
    for path in (f"{ETC}/features.json", f"{ETC}/features.pem", f"{ETC}/identifiers"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
    for entry in os.scandir(HOOKS):
        if entry.name != "README":
            os.unlink(entry.path)
    for folder in (RUN, GRANTS):
        empty_folder(folder)
    systemctl("reset-failed")
    mark_journal()
    add_hook("first", f"touch {RUN}/first")
    systemctl("start", UNIT)
    wait_for(lambda: os.path.exists(RUN + "/first"), "the run of the hook at the start")
    os.unlink(f"{HOOKS}/first")
    os.unlink(f"{RUN}/first")


def may_be_changed():
    """Whether this is a container of tests/boot/boot, or the test bed of autopkgtest."""
    if "AUTOPKGTEST_TMP" in os.environ:
        return True
    kind = command("systemd-detect-virt", "--container", status=None).strip()
    return kind == "systemd-nspawn" and os.path.exists("/root/boot-test")


class BootTest(unittest.TestCase):
    """BootTest is the base of all tests of the booted device."""

    maxDiff = 4000

    def setUp(self):
        if not may_be_changed():
            raise AssertionError("run me with tests/boot/boot, not on a real machine")
        if "AUTOPKGTEST_TMP" in os.environ:
            restore()
        self.addCleanup(self._tell)

    def _tell(self):
        """After a failure: what the journal and the unit's state were."""
        failed = self._outcome.result.failures + self._outcome.result.errors
        if any(test is self for test, _ in failed):
            print(command("systemctl", "status", "--no-pager", UNIT, status=None))
            print(command("journalctl", "--no-pager", "--lines=80", status=None))
