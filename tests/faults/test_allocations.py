"""Each allocation of the daemon, of its start and of the device report fails once, those of GLib and OpenSSL too.

A process may end then, by a signal of its own making (GLib and the C++ library abort), but nothing published may be
lost or broken, and what it left must not be in the way of the next one. Each method first runs without a fault, to know
how many there are; a report makes more than a hundred thousand, most of them in loops, and has one fail from each place.
SYSCALL_FAULTS says how many of them fail: a few in the ordinary tests, all in `scripts/campaign`.
"""

import contextlib
import os
import signal
import struct
import sys
import tempfile
import time
from dataclasses import dataclass

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

from daemon_harness import HOOK, RUNS, WatchTest, give_to_user
from fault_harness import FaultRun, FaultTest, faults_folder
from harness import (
    FEATURES_DOCUMENT,
    PID_FILE,
    RUN,
    Daemon,
    Result,
    SandboxTest,
    agent_processes,
    check_features_document,
    document_bytes,
    feature_names,
    install_features,
    is_alive,
    kill_agents,
    read_file,
    read_pid_file,
    run_agent,
    start_daemon,
    write_file,
)
from syscall_harness import DAEMON, LAUNCHER, SESSION_LEADER, STARTER, sample

ABORTS = (-signal.SIGABRT, -signal.SIGTRAP)  # GLib traps where it was built to
COUNTS = struct.Struct("10I")
NOTICED = 5.0  # seconds
ENDS = 10.0


@dataclass(frozen=True)
class AllocationFault:
    """AllocationFault is one allocation of one process that fails."""

    process: int
    number: int

    def __str__(self):
        return f"process {self.process}: allocation {self.number}"


class Counted(contextlib.ExitStack):
    """Counted is what a run with malloc_fault.c counts; `environment` loads that into the agent."""

    def __init__(self, fault=None):
        super().__init__()
        self._file = self.enter_context(tempfile.NamedTemporaryFile())
        self._places = self.enter_context(tempfile.NamedTemporaryFile())
        os.chmod(self._file.name, 0o666)
        library = os.path.join(faults_folder(), "libmalloc_fault.so")
        self.environment = {"LD_PRELOAD": library, "MALLOC_COUNTS": self._file.name}
        if fault:
            self.environment["MALLOC_FAULT"] = f"{fault.process} {fault.number}"

    def tell_places(self):
        self.environment["MALLOC_PLACES"] = self._places.name
        return self

    def _numbers(self):
        return COUNTS.unpack(read_file(self._file.name))

    def is_hit(self):
        return self._numbers()[0] > 0

    def faults(self, *processes):
        """One for each allocation of these processes."""
        numbers = self._numbers()[2:]
        return [AllocationFault(each, number + 1) for each in processes for number in range(numbers[each])]

    def places(self):
        """The first allocation of the starter from each place, that is, with each stack of calls."""
        first = {}
        for number, (place,) in enumerate(struct.iter_unpack("8s", read_file(self._places.name))):
            first.setdefault(place, AllocationFault(STARTER, number + 1))
        return list(first.values())


def wait_until(condition, limit):
    """Whether the condition came true."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


class AllocationTest(SandboxTest):
    def run_all(self, live, faults, few):
        """Has the sample of the faults happen, each in a life of its own."""
        chosen = sample(faults, few)
        hits = 0
        for fault in chosen:
            with self.subTest(str(fault)):
                hits += live(fault)
        print(f"{hits} of {len(chosen)} faults happened", flush=True)
        self.assertGreater(hits, 0.7 * len(chosen), "too many of the faults never happened")


class DaemonAllocationTest(AllocationTest, WatchTest):
    """DaemonAllocationTest leads a daemon's life: a start with the feature "old", a change, a stop; and one after that."""

    def live(self, fault=None):
        """One life. Returns whether the fault happened; without one, what was counted."""
        self.make_ready()
        with Counted(fault) as counted:
            start = start_daemon(HOOK, env=counted.environment, may_die=True)
            self.assertIn(start.status, (0, 1, *ABORTS), str(start))
            self.assertTrue(counted.is_hit() or start.status == 0, str(start))
            if start.status == 0:
                self.assertIn(self.published(), (["old"], []))
                self.change_unless_dead(read_pid_file(), counted)
            self.end()
            expected = [["old"], ["new"], []] if start.status == 0 else [["before"], ["old"], []]
            self.assertIn(self.published(), expected)
            result = counted.is_hit() if fault else counted.faults(STARTER, SESSION_LEADER, DAEMON, LAUNCHER)
        self.check_next_life()
        return result

    def make_ready(self):
        kill_agents()
        for path in (FEATURES_DOCUMENT, PID_FILE, RUNS):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        before = {"checkDate": "2026-01-01T00:00:00Z", "features": [{"name": "before", "source": "installed"}]}
        give_to_user(write_file(FEATURES_DOCUMENT, document_bytes(before)))
        install_features("old")
        self.syslog.clear()

    @staticmethod
    def published():
        return feature_names(check_features_document(read_file(FEATURES_DOCUMENT)))

    def change_unless_dead(self, pid, counted):
        """A change is published, by the next look at the latest, unless the daemon has ended."""
        install_features("new")
        is_done = lambda: self.published() == ["new"] or not is_alive(pid)
        if not wait_until(is_done, NOTICED):
            self.assertTrue(counted.is_hit(), "without a fault the change was not noticed")
            os.kill(pid, signal.SIGHUP)
            self.assertTrue(wait_until(is_done, NOTICED), f"the next look left {self.published()}")

    def end(self):
        """Ends what still runs: SIGTERM for the daemon, once its PID file is there, which may come after its starter's end."""
        told = set()

        def is_over():
            pid = read_pid_file()
            if pid and pid not in told and is_alive(pid):
                told.add(pid)
                os.kill(pid, signal.SIGTERM)
            return not agent_processes()

        self.assertTrue(wait_until(is_over, ENDS), f"still running: {agent_processes()}")

    def check_next_life(self):
        """The next daemon starts and publishes, whatever the last one left, and leaves nothing itself."""
        install_features("next")
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), ["next"])
            daemon.stop()
        self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])

    def test_no_failed_allocation_loses_the_document_or_blocks_the_next_start(self):
        "A failed allocation of the daemon's life ends it or is got over; the document is whole, the next start works."
        self.run_all(self.live, self.live(), few=6)


class ReportAllocationTest(AllocationTest, FaultTest):
    def run_counted(self, counted, fault=None):
        arguments = ("-d", "-A", self.context())
        result = run_agent(*arguments, env=counted.environment, may_die=True)
        self.check(Result(arguments, result.status, result.stdout, result.stderr), fault)
        self.tpm.flush_all()

    def live(self, fault):
        """An attested report with a fault, and one without. Returns whether the fault happened."""
        with Counted(fault) as counted:
            self.run_counted(counted, fault)
            hit = counted.is_hit()
        with Counted() as counted:
            self.run_counted(counted)
        return hit

    def check(self, result, fault):
        """No report, or a whole and right one, which the end of the libraries after it may still turn into a failure."""
        self.assertIn(result.status, (0, 1, *ABORTS), str(result))
        self.assertTrue(fault or result.status == 0, str(result))
        if result.status == 0:
            self.assert_report(FaultRun(result, [], [fault]))
        elif result.stdout:
            self.assertIn(result.status, ABORTS, str(result))
            self.assert_report(FaultRun(Result(result.arguments, 0, result.stdout, b""), [], [fault]))

    def test_no_failed_allocation_brings_a_wrong_report(self):
        "A failed allocation of -d -A brings no report or the right one, and the next report is right."
        self.start_provisioned()
        with Counted().tell_places() as counted:
            self.run_counted(counted)
            faults = counted.places()
        self.run_all(self.live, faults, few=6)


class CounterTest(AllocationTest):
    def plain(self, fault=None):
        with Counted(fault) as counted:
            result = run_agent(env=counted.environment, may_die=True)
            return result.status, counted.is_hit(), counted.faults(STARTER)

    def test_allocation_that_is_named_fails(self):
        "Plain mode makes the same allocations each time, and the one that is named fails, if there are so many."
        status, hit, faults = self.plain()
        self.assertEqual((status, hit), (0, False))
        self.assertGreater(len(faults), 100)
        self.assertEqual(self.plain()[2], faults)
        self.assertEqual(self.plain(AllocationFault(STARTER, len(faults) + 1))[:2], (0, False))
        self.assertTrue(self.plain(faults[-1])[1])
        self.assertEqual(self.plain(AllocationFault(DAEMON, 1))[:2], (0, False))
