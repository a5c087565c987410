"""Each system call of the daemon, of its start and of the device report fails once; all others are made.

Each method first runs without a fault, to know the calls, then has one after the other fail. SYSCALL_FAULTS says how
many of them: a few in the ordinary tests, all in `scripts/campaign`.
"""

import errno
import os
import signal
import sys
import time
from unittest import mock

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

from daemon_harness import HOOK, RUNS, WatchTest, give_to_user, instant, replace_unnoticed, unmount
from fault_harness import FaultRun, FaultTest
from harness import (
    FEATURES_DOCUMENT,
    INSTALLED_FEATURES,
    PID_FILE,
    RUN,
    Daemon,
    Result,
    SandboxTest,
    agent_processes,
    check_features_document,
    check_for_crash,
    daemon_arguments,
    document_bytes,
    feature_names,
    install_features,
    is_alive,
    read_file,
    split_stderr,
    write_file,
)
from syscall_harness import DAEMON, LAUNCHER, STARTER, Fault, Traced, cases, sample

DOCUMENT_NAME = os.path.basename(FEATURES_DOCUMENT)

# GLib ends the process, with a line on standard error alone, when one of these fails that it cannot do without.
GLIB_ABORTS = (-signal.SIGTRAP, -signal.SIGABRT)
GLIB_NEEDS = {"clone3", "eventfd2", "fcntl", "inotify_init1", "read"}

NOTICED_BY_ITSELF = 3.5  # seconds; a timer is up to one late
NOTICED_BY_A_LOOK = 5.0
ENDS_BY_ITSELF = 3.0


def check_hits(hits, faults):
    """Few calls may depend on the moment; a number then names none, and the run is one without a fault."""
    print(f"{hits} of {faults} faults happened", flush=True)
    if hits < 0.7 * faults:
        raise AssertionError("too many of the faults never happened")


class DaemonTest(WatchTest):
    """DaemonTest leads a daemon's life: a start with the feature "old", an event, a stop, and a life after that."""

    def check(self, phase, event, names=("old",), few=12):
        """Lives once without a fault, then with one call of this phase failing after the other."""
        self.event, self.names, self.hidden = event, list(names), False
        found = sample(cases(self.live()[phase]), few)
        hits = 0
        for fault in found:
            with self.subTest(str(fault)):
                hits += self.live(fault)
        check_hits(hits, len(found))

    def live(self, fault=None):
        """One life. Returns the calls of each phase; with a fault, whether it happened."""
        self.make_ready()
        with Traced(daemon_arguments(HOOK), fault) as traced:
            status = traced.wait_for_end()
            pid = traced.pid_of(DAEMON)
            marks = [len(traced.calls())]
            if status == 0 and is_alive(pid):
                self.check_event(traced, pid)
            marks.append(len(traced.calls()))
            if pid and not (status != 0 and self.ends_by_itself(pid)):
                self.stop_traced(traced, pid)
            traced.wait()
            self.check_end(traced, status)
            calls = traced.calls()
            hit = traced.is_hit()
        self.check_next_life()
        phases = {"start": calls[: marks[0]], "event": calls[marks[0] : marks[1]], "stop": calls[marks[1] :]}
        return hit if fault else phases

    @staticmethod
    def ends_by_itself(pid):
        """Whether the process ends soon: after SIGTERM, or because its start has failed."""
        deadline = time.monotonic() + ENDS_BY_ITSELF
        while is_alive(pid) and time.monotonic() < deadline:
            time.sleep(0.005)
        return not is_alive(pid)

    def stop_traced(self, traced, pid):
        """One SIGTERM, or a second if the fault hit the write by which GLib wakes itself up for the first."""
        if is_alive(pid):
            os.kill(pid, signal.SIGTERM)
        if not self.ends_by_itself(pid):
            self.assertEqual((traced.is_hit(), traced.fault and traced.fault.name), (True, "write"), "SIGTERM was lost")
            os.kill(pid, signal.SIGTERM)

    def show_installed_features(self):
        if self.hidden:
            unmount(INSTALLED_FEATURES)
        self.hidden = False

    def make_ready(self):
        self.show_installed_features()
        for path in (FEATURES_DOCUMENT, PID_FILE, RUNS):
            if os.path.lexists(path):
                os.unlink(path)
        before = [{"name": "before", "source": "installed"}]
        give_to_user(
            write_file(FEATURES_DOCUMENT, document_bytes({"checkDate": "2026-01-01T00:00:00Z", "features": before}))
        )
        soon = {"name": "soon", "validFrom": instant(int(time.time()) + 2)}
        install_features("old", *([soon] if self.event is DaemonTest.wait_for_timer else []))
        self.syslog.clear()

    def published(self):
        return feature_names(check_features_document(read_file(FEATURES_DOCUMENT)))

    def becomes_published(self, pid, limit):
        """Whether the document comes to list the names; not if the daemon ends before."""
        deadline = time.monotonic() + limit
        while self.published() != self.names:
            if not is_alive(pid) or time.monotonic() > deadline:
                return False
            time.sleep(0.005)
        return True

    def check_event(self, traced, pid):
        """What the event asks for is published; where the fault hid the event, by the daemon's next look."""
        if self.published() == []:
            self.assertIn("ERROR", [level for level, _ in self.records()], "the features are missing without a record")
        else:
            self.assertIn(self.published(), (["old"], self.names))
        self.event(self, pid)
        if self.becomes_published(pid, NOTICED_BY_ITSELF):
            return
        if not traced.is_hit() and self.becomes_published(pid, NOTICED_BY_A_LOOK):
            return
        self.assertTrue(traced.is_hit(), "without a fault the event was not noticed")
        if is_alive(pid):
            os.kill(pid, signal.SIGHUP)
            noticed = self.becomes_published(pid, NOTICED_BY_A_LOOK)
            self.assertTrue(noticed or not is_alive(pid), f"the next look left {self.published()}")

    def check_end(self, traced, status):
        """A whole document, old or new; status and records right; no process, temporary file or PID file is left."""
        self.show_installed_features()
        self.assertEqual(agent_processes(), [])
        expected = [["old"], self.names] if status == 0 else [["before"], ["old"], []]
        self.assertIn(self.published(), expected)
        self.assertEqual([name for name in os.listdir(RUN) if name not in (DOCUMENT_NAME, *self.excused(traced))], [])
        lines = traced.errors().decode(errors="replace").splitlines() + [r.text for r in self.syslog.records()]
        ends = traced.ends()
        deaths = {process: end for process, end in ends.items() if end < 0 and process <= LAUNCHER}
        if deaths and not self.is_excused_death(traced, status, lines):
            self.fail(f"died by a signal: {deaths}, {lines}")
        if not deaths and (status != 0 or ends.get(DAEMON, 0) != 0):
            self.assertTrue(any("FATAL" in line for line in lines), f"nobody says why: {lines}")

    @staticmethod
    def is_excused_death(traced, status, lines):
        """The daemon ends by a broken pipe if its launcher, or its starter, has ended first with a record."""
        ends = traced.ends()
        if ends[DAEMON] == -signal.SIGPIPE:
            return status != 0 or (ends[LAUNCHER] != 0 and any("script launcher" in line for line in lines))
        return ends[DAEMON] in GLIB_ABORTS and traced.fault.process == DAEMON and traced.fault.name in GLIB_NEEDS

    @staticmethod
    def excused(traced):
        """What may be left: the file whose removal is what failed."""
        fault = traced.fault
        if fault is None:
            return ()
        if fault.name == "unlink" or fault.process == LAUNCHER:
            return (os.path.basename(PID_FILE), DOCUMENT_NAME + ".tmp")
        return ()

    def check_next_life(self):
        """The next daemon starts as if nothing had been, and leaves nothing."""
        install_features("next")
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), ["next"])
            self.assert_records(daemon.start_result)
            daemon.stop()
        self.assertEqual(os.listdir(RUN), [DOCUMENT_NAME])

    # --- events ---

    def nothing(self, _):
        pass

    def change(self, _):
        install_features("new")

    def recheck(self, pid):
        replace_unnoticed("new")
        self.hidden = True
        os.kill(pid, signal.SIGHUP)

    def wait_for_timer(self, _):
        """The feature "soon", which `make_ready` has installed, becomes valid."""

    def test_start_survives_or_reports_each_failed_call(self):
        "A failed call of a start fails it with a record, or is got over; nothing is left, and the next start works."
        self.check("start", DaemonTest.nothing)

    def test_change_survives_or_reports_each_failed_call(self):
        "A failed call after a change ends the daemon with a record, or the next look publishes the change."
        self.check("event", DaemonTest.change, ["new"])

    def test_recheck_survives_or_reports_each_failed_call(self):
        "A failed call after SIGHUP ends the daemon with a record, or the next look publishes what has changed."
        self.check("event", DaemonTest.recheck, ["new"])

    def test_timer_survives_or_reports_each_failed_call(self):
        "A failed call of a timer's look ends the daemon with a record, or the next look publishes what is due."
        self.check("event", DaemonTest.wait_for_timer, ["old", "soon"], few=4)

    def test_stop_survives_each_failed_call(self):
        "A failed call of the stop keeps neither the daemon nor its launcher, and the next start works."
        self.check("stop", DaemonTest.nothing)


class ReportTest(FaultTest):
    def report(self, fault=None):
        """An attested report. Returns its calls; with a fault, whether it happened."""
        arguments = ("-d", "-A", self.context())
        self.syslog.clear()
        with Traced(arguments, fault) as traced:
            traced.wait()
            result = Result(arguments, traced.ends()[STARTER], traced.output(), traced.errors())
            check_for_crash(result)
            calls, hit = traced.calls(), traced.is_hit()
        run = FaultRun(result, [], [fault])
        if result.status == 0:
            self.assert_report(run)
        else:
            self.assertTrue(fault, str(run))
            self.assertEqual((result.status, result.stdout), (1, b""), str(run))
            lines = result.stderr.decode(errors="replace").splitlines() + self.syslog.texts()
            self.assertTrue(any("FATAL" in line for line in lines), str(run))
        self.tpm.flush_all()
        return hit if fault else calls

    def test_report_survives_or_reports_each_failed_call(self):
        "A failed call of -d -A refuses the report with a record, or the report is right; the next one is right."
        self.start_provisioned()
        found = sample(cases(self.report()), few=20)
        hits = 0
        for fault in found:
            with self.subTest(str(fault)):
                hits += self.report(fault)
                self.report()
        check_hits(hits, len(found))


class TracerTest(SandboxTest):
    def run_plain(self, fault=None):
        """Plain mode: its status, whether the fault happened, the texts of its records, and its calls."""
        with Traced([], fault) as traced:
            traced.wait()
            records = [record.text for record in split_stderr(traced.errors())[0]]
            return traced.ends(), traced.is_hit(), records, traced.calls()

    def test_fault_hits_the_call_that_it_names(self):
        "The call that is named fails with its error, and what follows is what the agent makes of that."
        ends, hit, records, calls = self.run_plain()
        self.assertEqual((ends, hit, records), ({STARTER: 0}, False, []))
        first_write = Fault(STARTER, "write", 1)
        self.assertIn(first_write, calls)
        ends, hit, records, _ = self.run_plain(first_write)
        text = f"failed to write the features document: {os.strerror(errno.ENOSPC)}"
        self.assertEqual((ends, hit, records), ({STARTER: 1}, True, [text]))

    def test_fault_that_is_not_reached_does_not_happen(self):
        "A call that is not made so often does not fail, and neither does the same call of another process."
        for fault in (Fault(STARTER, "write", 2), Fault(DAEMON, "write", 1)):
            ends, hit, records, _ = self.run_plain(fault)
            self.assertEqual((ends, hit, records), ({STARTER: 0}, False, []))

    def test_calls_are_the_same_in_each_run(self):
        "Two runs make the same calls, so that a number names the same call in the next run."
        self.assertEqual(self.run_plain()[3], self.run_plain()[3])

    def test_sample_is_spread_over_all_cases(self):
        "A sample has its number of cases, from all over; `all` and more than there are mean every case."
        found = list(range(100))
        for wanted, expected in (("4", [12, 37, 62, 87]), ("all", found), ("1000", found)):
            with mock.patch.dict(os.environ, SYSCALL_FAULTS=wanted):
                self.assertEqual(sample(found, few=2), expected)
