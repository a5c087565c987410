"""The hook: the runs that a publication asks for, the launcher's records, and what the death of either process does."""

import errno
import os
import signal

from daemon_harness import (
    FAILED,
    GATED_HOOK,
    HOOK,
    RUNS,
    TERMINATING,
    WatchTest,
    foreground_result,
    launcher_of,
    open_gate,
    started,
    updated,
)
from harness import (
    WORK,
    Daemon,
    assert_never,
    check_features_document,
    install_features,
    is_alive,
    preload,
    read_file,
    wait_for,
)


class RunTest(WatchTest):
    def test_one_run_at_the_start(self):
        "The hook has one run at the start, after the document was published."
        with Daemon(hook=f"cp /run/featurewatch/tally-features.json {WORK}/seen; {HOOK}") as daemon:
            daemon.stop()
            self.assertEqual(read_file(WORK + "/seen"), daemon.document_bytes())
        self.assertEqual(self.runs(), 1)

    def test_each_run_sees_its_publication(self):
        "A run finds at least the document of the publication that asked for it, after each change."
        with Daemon(hook=f"cat /run/featurewatch/tally-features.json > {WORK}/seen; {HOOK}") as daemon:
            for number in range(1, 4):
                self.wait_for_runs(number)
                self.assertEqual(read_file(WORK + "/seen"), daemon.document_bytes())
                self.change(daemon, f"f{number}")

    def test_the_command_line_is_the_shells(self):
        "The hook is one command line for the shell, with quotes, variables and pipes."
        with Daemon(hook=f"echo \"a  'b' $((1 + 1))\" | tr a c > {WORK}/out") as daemon:
            daemon.stop()
        self.assertEqual(read_file(WORK + "/out"), b"c  'b' 2\n")

    def test_success_brings_no_record(self):
        "A hook that ends with status 0 leaves no record."
        with Daemon(hook=HOOK) as daemon:
            daemon.stop()
        self.assertEqual(self.records(), [updated(), started(daemon.pid), TERMINATING])

    def assert_survives(self, hook, text):
        with Daemon(hook=f"{HOOK}; {hook}") as daemon:
            launcher = launcher_of(daemon)
            self.change(daemon, "a")
            daemon.stop()
        self.assertEqual(self.runs(), 2)
        self.assertEqual(self.records(launcher), [("ERROR", text)] * 2)

    def test_exit_status_is_recorded(self):
        "A hook's exit status other than 0 brings a record, and the next change a further run."
        self.assert_survives("exit 3", "script exited with status 3")

    def test_starter_that_ignores_its_children(self):
        "A starter that left SIGCHLD ignored does not hide the hook's end, nor the launcher's at the stop."
        ignore = lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        with Daemon(hook=HOOK, foreground=True, preexec_fn=ignore) as daemon:
            os.kill(daemon.pid, signal.SIGTERM)
            result = foreground_result(daemon)
        self.assertEqual((result.status, [record for record in result.records if record.level == "ERROR"]), (0, []))

    def test_missing_command_is_recorded(self):
        "A command that does not exist is the shell's status 127, and the next change brings a further run."
        self.assert_survives("exec /none", "script exited with status 127")

    def test_death_by_signal_is_recorded(self):
        "A hook that a signal ended brings a record, and the next change a further run."
        self.assert_survives("kill -KILL $$", f"script terminated by signal {int(signal.SIGKILL)}")

    def test_stop_signal_of_the_hook_is_its_own(self):
        "SIGTERM and SIGINT have their default effect in the hook."
        for name, number in (("TERM", signal.SIGTERM), ("INT", signal.SIGINT)):
            with self.subTest(name), Daemon(hook=f"kill -{name} $$; sleep 1000") as daemon:
                self.wait_for_record(("ERROR", f"script terminated by signal {int(number)}"))
                daemon.stop()


class SurroundingsTest(WatchTest):
    def descriptors_in_hook(self):
        inherited = os.open(self.work_path("inherited"), os.O_RDWR | os.O_CREAT)
        self.addCleanup(os.close, inherited)
        with Daemon(hook=f"ls -l /proc/self/fd > {WORK}/list", pass_fds=[inherited]) as daemon:
            daemon.stop()
        found = {}
        for line in read_file(WORK + "/list").decode().splitlines():
            name, arrow, target = line.partition(" -> ")
            if arrow:
                found[int(name.split()[-1])] = target
        return found

    def test_descriptors(self):
        "The hook has its three standard streams and no other descriptor of ours."
        found = self.descriptors_in_hook()
        listed = [number for number, target in found.items() if target.startswith("/proc/")]
        self.assertEqual(len(listed), 1, found)
        del found[listed[0]]
        self.assertEqual(found, {0: "/dev/null", 1: WORK + "/list", 2: "/dev/null"})

    def test_standard_streams(self):
        "The hook's standard streams are /dev/null, also in the foreground."
        lines = "; ".join(f"readlink /proc/$$/fd/{number} >> {RUNS}" for number in (0, 2))
        hook = f"{lines}; exec 3>&1; readlink /proc/$$/fd/3 >> {RUNS}"
        for foreground in (False, True):
            with self.subTest(foreground), Daemon(hook=hook, foreground=foreground) as daemon:
                self.wait_for_runs(3)
                self.assertEqual(self.run_lines(), ["/dev/null"] * 3)
                os.unlink(RUNS)
                self.stop_and_wait(daemon)

    def test_output_goes_nowhere(self):
        "What a hook prints is neither on the foreground's standard error nor in syslog."
        with Daemon(hook=f"echo noise; echo noise >&2; {HOOK}", foreground=True) as daemon:
            self.wait_for_runs(1)
            daemon.wait_for_record("started")
            daemon.signal(signal.SIGTERM)
            result = foreground_result(daemon)
        self.assertEqual(result.status, 0)
        self.assertNotIn(b"noise", result.stderr)
        self.assertEqual(result.other_lines, [])


class QueueTest(WatchTest):
    def test_changes_during_a_run(self):
        "Three changes during one long run bring three further runs, one after the other."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            for name in ("a", "b", "c"):
                self.change(daemon, name)
            self.assertEqual(self.run_lines(), ["begin"])
            open_gate()
            self.wait_for_runs(8)
            daemon.stop()
        self.assertEqual(self.run_lines(), ["begin", "end"] * 4)

    def test_stop_waits_behind_the_queue(self):
        "A stop during a long run comes after all the runs that are still due."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            for name in ("a", "b", "c"):
                self.change(daemon, name)
            daemon.signal(signal.SIGTERM)
            self.wait_for_record(TERMINATING)
            assert_never(lambda: not daemon.is_running(), 0.2, "the daemon's end")
            open_gate()
            daemon.wait_until_gone()
        self.assertEqual(self.run_lines(), ["begin", "end"] * 4)

    def test_slow_hook_holds_up_nobody(self):
        "Forty changes during one long run are all published at once, and none of their runs is lost."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            for number in range(40):
                self.change(daemon, f"f{number}")
            self.assertEqual(self.run_lines(), ["begin"])
            open_gate()
            self.stop_and_wait(daemon)
        self.assertEqual(self.run_lines(), ["begin", "end"] * 41)


class DeathTest(WatchTest):
    def kill_launcher(self, daemon):
        launcher = launcher_of(daemon)
        os.kill(launcher, signal.SIGKILL)
        wait_for(lambda: not is_alive(launcher), "the launcher's end")

    def test_launcher_follows_a_killed_daemon(self):
        "When the daemon is killed, the launcher finds the pipe's end and leaves without a record."
        with Daemon(hook=HOOK) as daemon:
            launcher = launcher_of(daemon)
            self.wait_for_runs(1)
            daemon.signal(signal.SIGKILL)
            wait_for(lambda: not is_alive(launcher), "the launcher's end")
        self.assertEqual(self.records(launcher), [])

    def test_killed_daemons_runs_are_done(self):
        "Runs that were asked for before the daemon was killed are still done."
        with Daemon(hook=GATED_HOOK) as daemon:
            launcher = launcher_of(daemon)
            self.wait_for_runs(1)
            self.change(daemon, "a")
            daemon.signal(signal.SIGKILL)
            wait_for(lambda: not daemon.is_running(), "the daemon's end")
            self.assertTrue(is_alive(launcher))
            open_gate()
            daemon.wait_until_gone()
        self.assertEqual(self.run_lines(), ["begin", "end"] * 2)

    def test_document_outlives_a_killed_launcher(self):
        "With the launcher killed, the next change is still published whole; then the daemon ends."
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_runs(1)
            self.kill_launcher(daemon)
            install_features("a")
            daemon.wait_until_gone()
            self.assertEqual(daemon.names(), ["a"])
            self.assertFalse(os.path.exists(daemon.document_path + ".tmp"))
        self.assertEqual(self.runs(), 1)

    def foreground_without_launcher(self):
        """A daemon in the foreground that ignores SIGPIPE, as its starter did, and whose launcher was killed."""
        daemon = Daemon(hook=HOOK, foreground=True, restore_signals=False)
        self.addCleanup(daemon.end)
        daemon.wait_for_record("started")
        self.wait_for_runs(1)
        self.kill_launcher(daemon)
        return daemon

    QUIT_RECORDS = (
        ("ERROR", f"failed sending quit to script launcher: {os.strerror(errno.EPIPE)}"),
        ("ERROR", f"script launcher terminated by signal {int(signal.SIGKILL)}"),
    )

    def test_failed_signal_to_the_launcher_ends_the_daemon(self):
        "Where SIGPIPE is ignored, a launcher that is gone is recorded and the daemon ends with status 1."
        daemon = self.foreground_without_launcher()
        install_features("a")
        result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        records = [(record.level, record.text) for record in result.records]
        broken = ("ERROR", f"failed to signal script launcher: {os.strerror(errno.EPIPE)}")
        self.assertEqual(records[3:], [updated("a"), broken, FAILED, *self.QUIT_RECORDS])
        self.assertEqual(check_features_document(daemon.document_bytes()), daemon.document())
        self.assertEqual(daemon.names(), ["a"])

    def test_stop_with_a_dead_launcher(self):
        "A stop signal ends the daemon with status 0 though its launcher is gone, with a record of both facts."
        daemon = self.foreground_without_launcher()
        daemon.signal(signal.SIGTERM)
        result = foreground_result(daemon)
        self.assertEqual(result.status, 0, str(result))
        records = [(record.level, record.text) for record in result.records]
        self.assertEqual(records[2:], [TERMINATING, *self.QUIT_RECORDS])

    def test_command_cannot_be_run(self):
        "A launcher that cannot run the command records that and goes on; the daemon does not mind."
        with Daemon(hook=HOOK, env=preload(TEST_FAIL="system")) as daemon:
            launcher = launcher_of(daemon)
            self.change(daemon, "a")
            daemon.stop()
        failure = ("ERROR", f"failed to run script: {os.strerror(errno.EAGAIN)}")
        self.assertEqual(self.records(launcher), [failure] * 2)

    def test_launcher_without_its_name(self):
        "A launcher that cannot set its name records that and runs the hook all the same."
        with Daemon(hook=HOOK, env=preload(TEST_FAIL="prctl")) as daemon:
            launcher = launcher_of(daemon)
            daemon.stop()
        failure = ("ERROR", f"failed to set script launcher process name: {os.strerror(errno.EAGAIN)}")
        self.assertEqual(self.records(launcher), [failure])
        self.assertEqual(self.runs(), 1)
