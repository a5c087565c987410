"""The daemon's control: its start and what the starting command reports, PID file, rights, surroundings and stop."""

import errno
import os
import pwd
import shutil
import signal
import subprocess
import syslog
import time
from unittest import mock

from daemon_harness import (
    FIRST_FAILED,
    GATED_HOOK,
    HOOK,
    START_FAILED,
    TERMINATING,
    WatchTest,
    as_user,
    descriptors_of,
    fill_disk,
    flags_of,
    foreground_result,
    launcher_of,
    mount,
    open_folder,
    open_gate,
    small_disk,
    started,
    status_of,
    unmount,
    updated,
)
from harness import (
    FEATURES_DOCUMENT,
    INSTALLED_FEATURES,
    PID_FILE,
    RUN,
    USER,
    WORK,
    Daemon,
    agent_environment,
    agent_path,
    agent_processes,
    assert_never,
    check_features_document,
    daemon_arguments,
    feature_names,
    install_features,
    preload,
    process_state,
    program_of,
    read_file,
    read_pid_file,
    run_agent,
    start_daemon,
    wait_for,
    write_file,
)


def error_text(number):
    return os.strerror(number)


class StartTest(WatchTest):
    def test_success_is_silent(self):
        "A start that succeeds prints nothing and logs the list and its PID to syslog, in this order."
        install_features("b", "a")
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual((daemon.start_result.stdout, daemon.start_result.stderr), (b"", b""))
            self.wait_for_record(started(daemon.pid))
            self.assertEqual(self.records(), [updated("a", "b"), started(daemon.pid)])

    def test_command_returns_only_when_the_document_exists(self):
        "While the first publication is held up the starting command waits; when it ends with 0 the document is there."
        hold = write_file(self.work_path("hold"), "")
        environment = agent_environment(**preload(TEST_HOLD_RENAME=hold))
        command = subprocess.Popen([agent_path(), *daemon_arguments()], env=environment)
        wait_for(lambda: os.path.exists(FEATURES_DOCUMENT + ".tmp"), "the temporary file", limit=20)
        assert_never(lambda: command.poll() is not None, 0.4, "the starting command's end")
        self.assertFalse(os.path.exists(FEATURES_DOCUMENT))
        os.unlink(hold)
        self.assertEqual(command.wait(20), 0)
        check_features_document(read_file(FEATURES_DOCUMENT))

    def test_document_is_there_at_once_each_time(self):
        "In five starts the document exists in the instant in which the command returns."
        for _ in range(5):
            with Daemon() as daemon:
                check_features_document(read_file(FEATURES_DOCUMENT))
                self.stop_and_wait(daemon)
            os.unlink(FEATURES_DOCUMENT)

    def test_command_gives_up_after_ten_seconds(self):
        "When no status comes within 10 seconds the command fails, while the daemon goes on and publishes in the end."
        hold = write_file(self.work_path("hold"), "")
        environment = preload(TEST_HOLD_RENAME=hold)
        begin = time.monotonic()
        result = run_agent(*daemon_arguments(), env=environment, limit=30)
        self.assertGreaterEqual(time.monotonic() - begin, 9.5)
        self.assert_failure(result, ("FATAL", "failed to receive status from forked daemon"))
        os.unlink(hold)
        wait_for(lambda: os.path.exists(FEATURES_DOCUMENT), "the document")
        check_features_document(read_file(FEATURES_DOCUMENT))
        self.wait_for_record(started(read_pid_file()))
        self.assert_success(run_agent("-k"))

    def test_modes_do_not_depend_on_the_callers_mask(self):
        "The document has mode 0644, the PID file 0600, whatever file creation mask the starting command has."
        for mask in (0o000, 0o077, 0o777):
            with self.subTest(oct(mask)), Daemon(umask=mask) as daemon:
                self.assertEqual(os.stat(FEATURES_DOCUMENT).st_mode & 0o7777, 0o644)
                self.assertEqual(os.stat(PID_FILE).st_mode & 0o7777, 0o600)
                daemon.stop()

    def test_document_belongs_to_the_daemons_user(self):
        "The document is the user featurewatch's."
        self.require_user_switch()
        with Daemon():
            entry = pwd.getpwnam(USER)
            found = os.stat(FEATURES_DOCUMENT)
            self.assertEqual((found.st_uid, found.st_gid), (entry.pw_uid, entry.pw_gid))

    def test_second_start_is_refused(self):
        "With a daemon running a second start fails, names its PID, forks nothing and leaves the first alone."
        with Daemon() as daemon:
            before = (daemon.document_bytes(), read_file(PID_FILE), agent_processes())
            result = start_daemon(HOOK)
            self.assert_failure(result, ("FATAL", f"daemon already running with PID {daemon.pid}"))
            self.assertEqual((daemon.document_bytes(), read_file(PID_FILE), agent_processes()), before)
            self.assertEqual(self.runs(), 0)
            daemon.stop()

    def test_restart_after_stop(self):
        "A stopped daemon can be started again, with a new PID file and document."
        install_features("first")
        with Daemon(hook=HOOK) as daemon:
            daemon.stop()
            first = daemon.pid
        install_features("second")
        with Daemon(hook=HOOK) as daemon:
            self.assertNotEqual(daemon.pid, first)
            self.assertEqual(daemon.names(), ["second"])
            daemon.stop()
        self.assertEqual(self.runs(), 2)

    def test_ignored_and_blocked_signals_are_reset(self):
        "A starting command with its signals ignored and blocked still gives a daemon that stops on SIGTERM."

        def shut_out():
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)
            signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())

        with Daemon(preexec_fn=shut_out) as daemon:
            self.assertEqual(status_of(daemon.pid, "SigBlk"), ["0" * 16])
            self.recheck(daemon)
            daemon.stop()

    def test_relative_document_path_is_taken_from_the_root(self):
        "The daemon works in /, so a relative path for the document starts there."
        folder = open_folder("folder")
        with Daemon(document=os.path.relpath(folder, "/") + "/doc.json", cwd="/usr") as daemon:
            check_features_document(read_file(folder + "/doc.json"))
            daemon.stop()

    def test_logging_takes_nothing_from_folder_or_environment(self):
        "Started by root, the daemon writes no file that a log configuration in its folder or its environment names."
        appender = "org.apache.log4j.FileAppender"
        properties = f"log4j.rootLogger=DEBUG, A\nlog4j.appender.A={appender}\nlog4j.appender.A.File={WORK}/taken\n"
        properties += "log4j.appender.A.layout=org.apache.log4j.SimpleLayout\n"
        xml = f"""<?xml version="1.0"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
<appender name="A" class="{appender}"><param name="File" value="{WORK}/taken"/>
<layout class="org.apache.log4j.SimpleLayout"/></appender>
<root><level value="DEBUG"/><appender-ref ref="A"/></root></log4j:configuration>"""
        write_file(self.work_path("log4cxx.properties"), properties)
        write_file(self.work_path("log4cxx.xml"), xml)
        for name in ("log4cxx.properties", "log4cxx.xml"):
            with self.subTest(name), Daemon(env={"LOG4CXX_CONFIGURATION": self.work_path(name)}) as daemon:
                daemon.stop()
        self.assertEqual(sorted(os.listdir(WORK)), ["log4cxx.properties", "log4cxx.xml"])


class FailedStartTest(WatchTest):
    def test_start_without_a_hook_fails(self):
        "Without -x the start fails, because there is no launcher; nothing is published."
        self.assert_start_fails(("FATAL", "script launcher was not started"), FIRST_FAILED, hook=None)
        self.assertFalse(os.path.exists(FEATURES_DOCUMENT))

    def test_start_without_a_hook_fails_in_the_foreground(self):
        "In the foreground too a start without -x fails with status 1 and the same records."
        result = run_agent(*daemon_arguments(None, arguments=["--no-daemon"]))
        self.assert_failure(result, ("FATAL", "script launcher was not started"), FIRST_FAILED)

    def test_start_fails_without_the_user(self):
        "Without a user featurewatch the start fails, GLib's critical record in syslog says why."
        self.require_user_switch()
        lines = read_file("/etc/passwd").splitlines(keepends=True)
        write_file("/etc/passwd", b"".join(line for line in lines if not line.startswith(b"featurewatch:")))
        self.assert_failed_start(run_agent("-w", "-x", HOOK))
        (line,) = self.plain_lines()
        self.assertEqual(line.text, "failed switching to user 'featurewatch': no such user")
        self.assertEqual((line.facility * 8, line.severity, line.ident), (syslog.LOG_DAEMON, syslog.LOG_ERR, USER))
        self.assertFalse(os.path.exists(FEATURES_DOCUMENT))

    def test_ordinary_user_cannot_start_the_daemon(self):
        "An ordinary user cannot start the daemon: the switch fails, and the start with it."
        self.require_user_switch()
        self.assert_start_fails(**as_user())
        (line,) = self.plain_lines()
        self.assertEqual(line.text, f"failed switching to user 'featurewatch': {error_text(errno.EPERM)}")
        self.assertEqual((line.facility * 8, line.severity), (syslog.LOG_DAEMON, syslog.LOG_ERR))

    def test_ordinary_user_can_run_it_without_a_switch(self):
        "With --no-switch-user an ordinary user can run the daemon."
        self.require_user_switch()
        with Daemon(arguments=["--no-switch-user"], **as_user()) as daemon:
            self.assertEqual(status_of(launcher_of(daemon), "Uid"), [str(pwd.getpwnam(USER).pw_uid)] * 4)
            daemon.stop()

    def test_start_fails_if_the_documents_folder_is_missing(self):
        "A missing folder of the document fails the start; the record names the temporary file."
        self.assert_start_fails(
            updated(),
            ("ERROR", f"failed to open {WORK}/none/doc.json.tmp: {error_text(errno.ENOENT)}"),
            FIRST_FAILED,
            document=f"{WORK}/none/doc.json",
        )

    def test_start_fails_if_the_documents_folder_is_not_writable(self):
        "A folder that only root may write fails the start, as the daemon writes with its own rights."
        self.require_user_switch()
        self.assert_start_fails(
            updated(),
            ("ERROR", f"failed to open {WORK}/doc.json.tmp: {error_text(errno.EACCES)}"),
            FIRST_FAILED,
            document=f"{WORK}/doc.json",
        )

    def test_start_fails_if_a_folder_has_the_documents_name(self):
        "A folder in the document's place fails the start and stays; the temporary file is removed."
        folder = open_folder("folder")
        os.mkdir(folder + "/doc.json")
        self.assert_start_fails(
            updated(),
            ("ERROR", f"failed to update features file: {error_text(errno.EISDIR)}"),
            FIRST_FAILED,
            document=folder + "/doc.json",
        )
        self.assertEqual(os.listdir(folder), ["doc.json"])
        self.assertEqual(os.listdir(folder + "/doc.json"), [])

    def test_start_fails_on_a_full_disk(self):
        "A full disk fails the start; the old document stays and the temporary file is removed."
        disk = small_disk("disk")
        write_file(disk + "/doc.json", "old")
        fill_disk(disk)
        self.assert_start_fails(
            updated(),
            ("ERROR", f"failed to write {disk}/doc.json.tmp: {error_text(errno.ENOSPC)}"),
            FIRST_FAILED,
            document=disk + "/doc.json",
        )
        self.assertEqual(sorted(os.listdir(disk)), ["doc.json", "filler"])
        self.assertEqual(read_file(disk + "/doc.json"), b"old")

    AGAIN = error_text(errno.EAGAIN)

    def test_failure_before_the_fork(self):
        "A system call that fails before the fork, or in it, gives one record on standard error and status 1."
        for function, text in (
            ("daemon_reset_sigs", f"failed to reset and unblock signals: {self.AGAIN}"),
            ("daemon_unblock_sigs", f"failed to reset and unblock signals: {self.AGAIN}"),
            ("daemon_retval_init", "failed to initialize for forking"),
            ("fork", f"failed to fork: {self.AGAIN}"),
        ):
            with self.subTest(function):
                self.assert_failure(start_daemon(env=preload(TEST_FAIL=function)), ("FATAL", text))
                self.assertEqual(agent_processes(), [])
        self.assertEqual(os.listdir(RUN), [])

    def test_failure_to_close_descriptors(self):
        "A daemon that cannot close what it inherited does not start."
        failure = ("FATAL", f"failed to close unneeded file descriptors: {self.AGAIN}")
        self.assert_start_fails(failure, env=preload(TEST_FAIL="daemon_close_all"))

    def test_no_pipe_for_the_launcher(self):
        "Without the launcher's pipe the start fails with a record of each level."
        self.assert_start_fails(
            ("ERROR", f"failed to create script launcher pipe: {self.AGAIN}"),
            ("FATAL", "failed to start script launcher"),
            env=preload(TEST_FAIL="pipe2"),
        )

    def test_no_process_for_the_launcher(self):
        "Where no process can be made a daemon in the foreground fails with a record of each level."
        self.assert_failure(
            run_agent(*daemon_arguments(arguments=["--no-daemon"]), env=preload(TEST_FAIL="fork")),
            ("ERROR", f"failed to fork script launcher: {self.AGAIN}"),
            ("FATAL", "failed to start script launcher"),
        )

    NOT_WATCHED = ("FATAL", f"failed to watch {INSTALLED_FEATURES}: no monitor left")

    def assert_published_once(self):
        """The document and one run of the hook are all that is left."""
        self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])
        self.assertEqual(feature_names(check_features_document(read_file(FEATURES_DOCUMENT))), ["a"])
        self.assertEqual(self.runs(), 1)

    def test_input_that_cannot_be_watched(self):
        "When an input cannot be watched the start fails after the first publication, and no process is left."
        install_features("a")
        self.assert_failure(start_daemon(HOOK, env=preload(TEST_FAIL="g_file_monitor_file")), START_FAILED)
        wait_for(lambda: not agent_processes(), "the end of all processes")
        records = self.records()
        records.remove(START_FAILED)
        self.assertEqual(records, [updated("a"), self.NOT_WATCHED, FIRST_FAILED])
        self.assert_published_once()

    def test_input_that_cannot_be_watched_in_foreground(self):
        "In the foreground too a start fails when an input cannot be watched."
        install_features("a")
        arguments = daemon_arguments(HOOK, arguments=["--no-daemon"])
        result = run_agent(*arguments, env=preload(TEST_FAIL="g_file_monitor_file"))
        self.assert_failure(result, updated("a"), self.NOT_WATCHED, FIRST_FAILED)
        self.assertEqual(agent_processes(), [])
        self.assert_published_once()

    def test_each_step_of_the_switch_can_fail(self):
        "When groups, group or user cannot be changed, the start fails with GLib's record and nothing is published."
        self.require_user_switch()
        for function in ("initgroups", "setgid", "setuid"):
            with self.subTest(function):
                self.syslog.clear()
                self.assert_start_fails(env=preload(TEST_FAIL=function))
                texts = [line.text for line in self.plain_lines()]
                self.assertEqual(texts, [f"failed switching to user 'featurewatch': {self.AGAIN}"])
        self.assertEqual(os.listdir(RUN), [])


class PidFileTest(WatchTest):
    def test_pid_file_holds_the_process_id(self):
        "The PID file holds the daemon's process id and a line feed."
        with Daemon() as daemon:
            self.assertEqual(read_file(PID_FILE), b"%d\n" % daemon.pid)
            self.assertTrue(os.path.samefile(program_of(daemon.pid), agent_path()))

    def test_pid_file_is_removed_at_the_end(self):
        "However the daemon is stopped, its PID file goes and the document stays."
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number), Daemon() as daemon:
                self.stop_and_wait(daemon, number)
                self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])

    def test_killed_daemons_launcher_removes_it(self):
        "When the daemon alone is killed, its launcher ends and removes the PID file."
        with Daemon() as daemon:
            daemon.signal(signal.SIGKILL)
            daemon.wait_until_gone()
            self.assertFalse(os.path.exists(PID_FILE))

    def test_stale_pid_file_is_taken_over(self):
        "A PID file that names a dead process does not keep the next daemon from starting."
        with Daemon() as daemon:
            for pid in (launcher_of(daemon), daemon.pid):
                os.kill(pid, signal.SIGKILL)
            daemon.wait_until_gone()
            wait_for(lambda: process_state(daemon.pid) is None, "the daemon's burial")
            self.assertEqual(read_pid_file(), daemon.pid)
        with Daemon() as second:
            self.assertNotEqual(second.pid, daemon.pid)
            second.stop()

    def test_garbage_in_the_pid_file_is_replaced(self):
        "A PID file without a number does not keep the daemon from starting."
        for garbage in ("garbage\n", "12 34\n", "x" * 100000):
            with self.subTest(garbage[:8]):
                write_file(PID_FILE, garbage)
                with Daemon() as daemon:
                    self.stop_and_wait(daemon)

    def test_living_process_counts_as_the_daemon(self):
        "A PID file that names any living process refuses the start."
        write_file(PID_FILE, f"{os.getpid()}\n")
        self.assert_failure(start_daemon(), ("FATAL", f"daemon already running with PID {os.getpid()}"))
        self.assertEqual(read_pid_file(), os.getpid())

    def test_process_0_counts_as_the_daemon(self):
        "A PID file that is empty or says 0 refuses the start, and stays."
        for content in ("", "0\n"):
            with self.subTest(content):
                write_file(PID_FILE, content)
                self.assert_failure(start_daemon(), ("FATAL", "daemon already running with PID 0"))
                self.assertEqual(read_file(PID_FILE), content.encode())
                self.assertEqual(os.listdir(RUN), [os.path.basename(PID_FILE)])

    def assert_cannot_be_created(self, number):
        result = start_daemon(HOOK, document=open_folder("folder") + "/doc.json")
        self.assert_failure(result, START_FAILED)
        failure = ("FATAL", f"could not create PID file: {error_text(number)}")
        self.wait_for_record(failure)
        self.assertEqual(sorted(self.records()), sorted([failure, START_FAILED]))
        self.assertGreater(len(self.plain_lines()), 0, "libdaemon says something too")
        self.assertEqual({line.ident for line in self.syslog.records()}, {"featurewatch"}, self.syslog.records())
        self.assertEqual(os.listdir(self.work_path("folder")), [])

    def test_start_fails_if_the_pid_files_folder_is_missing(self):
        "Without a folder for the PID file the start fails and nothing is published."
        os.rmdir(RUN)
        self.assert_cannot_be_created(errno.ENOENT)

    def test_start_fails_if_the_pid_files_folder_is_not_writable(self):
        "With a PID file folder that cannot be written the start fails and nothing is published."
        mount("-t", "tmpfs", "-o", "ro", "closed", RUN)
        self.addCleanup(unmount, RUN)
        self.assert_cannot_be_created(errno.EROFS)


class StopTest(WatchTest):
    def test_kill_stops_the_daemon(self):
        "-k ends daemon and launcher, prints nothing and gives status 0; the document stays."
        with Daemon(hook=HOOK) as daemon:
            document = daemon.document_bytes()
            result = daemon.stop()
            self.assertEqual((result.stdout, result.stderr), (b"", b""))
            self.assertEqual(daemon.document_bytes(), document)
            self.assertEqual(self.records(daemon.pid), [updated(), started(daemon.pid), TERMINATING])
            self.assertEqual(self.runs(), 1)

    def test_kill_fails_where_no_daemon_runs(self):
        "-k fails where no daemon runs."
        result = run_agent("-k")
        self.assert_failure(result, ("FATAL", f"failed to kill daemon: {error_text(errno.ENOENT)}"))

    def test_kill_fails_on_a_stale_pid_file(self):
        "-k fails where the PID file names a process that is gone."
        process = subprocess.Popen(["true"])
        process.wait()
        write_file(PID_FILE, f"{process.pid}\n")
        result = run_agent("-k")
        self.assert_failure(result, ("FATAL", f"failed to kill daemon: {error_text(errno.ESRCH)}"))

    def test_kill_spares_the_group_of_process_0(self):
        "-k fails where the PID file is empty or says 0, and does not signal the process group that it runs in."
        for content in ("", "0\n"):
            write_file(PID_FILE, content)
            result = run_agent("-k")
            self.assert_failure(result, ("FATAL", f"failed to kill daemon: {error_text(errno.ESRCH)}"))

    def test_kill_gives_up_after_five_seconds(self):
        "-k fails when a hook holds up the daemon's end for more than 5 seconds; the daemon still ends in order."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            begin = time.monotonic()
            result = run_agent("-k", limit=20)
            self.assertGreaterEqual(time.monotonic() - begin, 4.5)
            self.assert_failure(result, ("FATAL", f"failed to kill daemon: {error_text(errno.ETIME)}"))
            self.assertTrue(daemon.is_running())
            open_gate()
            daemon.wait_until_gone()
        self.assertEqual(self.run_lines(), ["begin", "end"])
        self.assertFalse(os.path.exists(PID_FILE))

    def test_both_stop_signals_end_it_with_status_0(self):
        "SIGTERM and SIGINT end a daemon with one record, in the foreground with status 0."
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number), Daemon(foreground=True) as daemon:
                wait_for(lambda: os.path.exists(FEATURES_DOCUMENT), "the document")
                daemon.wait_for_record("started")
                daemon.signal(number)
                result = foreground_result(daemon)
                self.assertEqual(result.status, 0, str(result))
                self.assertEqual(result.records[-1].text, TERMINATING[1])
                os.unlink(FEATURES_DOCUMENT)

    def test_stop_waits_for_the_hook(self):
        "SIGTERM while a hook runs: the daemon waits for it, even if SIGINT comes in between."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            daemon.signal(signal.SIGTERM)
            self.wait_for_record(TERMINATING)
            daemon.signal(signal.SIGINT)
            assert_never(lambda: not daemon.is_running(), 0.3, "the daemon's end")
            open_gate()
            daemon.wait_until_gone()
        self.assertEqual(self.run_lines(), ["begin", "end"])
        self.assertEqual(self.count(TERMINATING), 1)

    def test_second_stop_signal_finds_its_source_gone(self):
        "A second SIGTERM may end the waiting daemon at once, but loses neither the document nor a run."
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            self.change(daemon, "a")
            daemon.signal(signal.SIGTERM)
            self.wait_for_record(TERMINATING)
            daemon.signal(signal.SIGTERM)
            open_gate()
            daemon.wait_until_gone()
            self.assertEqual(daemon.names(), ["a"])
        self.assertEqual(self.run_lines(), ["begin", "end"] * 2)
        self.assertEqual(self.count(TERMINATING), 1)

    def test_stop_right_after_the_start_is_orderly(self):
        "Ten daemons stopped in the instant of their start end in order, each with one run of its hook."
        for _ in range(10):
            with Daemon(hook=HOOK) as daemon:
                self.stop_and_wait(daemon)
        self.assertEqual(self.runs(), 10)
        self.assertFalse(os.path.exists(PID_FILE))


class RightsTest(WatchTest):
    def setUp(self):
        super().setUp()
        self.require_user_switch()

    def assert_switched(self, pid):
        entry = pwd.getpwnam(USER)
        self.assertEqual(status_of(pid, "Uid"), [str(entry.pw_uid)] * 4)
        self.assertEqual(status_of(pid, "Gid"), [str(entry.pw_gid)] * 4)
        self.assertEqual(
            sorted(status_of(pid, "Groups")), sorted(str(group) for group in os.getgrouplist(USER, entry.pw_gid))
        )
        for rights in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            self.assertEqual(int(status_of(pid, rights)[0], 16), 0, rights)

    def test_daemon_gives_up_root(self):
        "Real, effective, saved user and group, the other groups and all capabilities are the user featurewatch's."
        with Daemon(extra_groups=[0, 1, 2]) as daemon:
            self.assert_switched(daemon.pid)
            self.assertGreater(len(status_of(daemon.pid, "Groups")), 1)

    def test_foreground_switches_too(self):
        "--no-daemon alone still switches the user; the launcher keeps root."
        with Daemon(foreground=True) as daemon:
            daemon.wait_for_record("started")
            self.assert_switched(daemon.pid)
            self.assertEqual(status_of(launcher_of(daemon), "Uid"), ["0"] * 4)

    def test_no_switch_keeps_the_starters_rights(self):
        "With --no-switch-user the daemon stays what the starter was, in the foreground and in the background."
        for foreground in (False, True):
            with self.subTest(foreground), Daemon(arguments=["--no-switch-user"], foreground=foreground) as daemon:
                wait_for(lambda: os.path.exists(FEATURES_DOCUMENT), "the document")
                self.assertEqual(status_of(daemon.pid, "Uid"), ["0"] * 4)
                self.assertEqual(status_of(daemon.pid, "Gid"), ["0"] * 4)
                self.assertEqual(os.stat(FEATURES_DOCUMENT).st_uid, 0)
                daemon.end()

    def test_launcher_and_hook_keep_root(self):
        "The launcher and the commands it runs keep the starting user's rights."
        with Daemon(hook="id -u > /run/test/id; touch /etc/orvanta/made-by-hook") as daemon:
            self.assertEqual(status_of(launcher_of(daemon), "Uid"), ["0"] * 4)
            self.assertEqual(status_of(launcher_of(daemon), "Gid"), ["0"] * 4)
            daemon.stop()
        self.assertEqual(read_file("/run/test/id"), b"0\n")
        self.assertEqual(os.stat("/etc/orvanta/made-by-hook").st_uid, 0)


class SurroundingsTest(WatchTest):
    def open_inheritable(self):
        """A file that stays open in the starting command."""
        descriptor = os.open(self.work_path("inherited"), os.O_RDWR | os.O_CREAT)
        self.addCleanup(os.close, descriptor)
        return descriptor

    def test_session_folder_mask_and_parent(self):
        "The daemon has a session of its own, no terminal, works in / with mask 022 and belongs to process 1."
        with Daemon(umask=0o077, cwd="/usr") as daemon:
            wait_for(lambda: status_of(daemon.pid, "PPid") == ["1"], "the starting command's end")
            self.assertEqual(os.readlink(f"/proc/{daemon.pid}/cwd"), "/")
            self.assertEqual(status_of(daemon.pid, "Umask"), ["0022"])
            self.assertNotEqual(os.getsid(daemon.pid), os.getsid(0))
            terminal = read_file(f"/proc/{daemon.pid}/stat").rpartition(b")")[2].split()[4]
            self.assertEqual(terminal, b"0")

    def test_launcher_is_the_daemons_child(self):
        "There is exactly one launcher, a child of the daemon, under its own name."
        with Daemon() as daemon:
            launcher = launcher_of(daemon)
            wait_for(lambda: read_file(f"/proc/{launcher}/comm") == b"featurewatch-x\n", "the launcher's name")
            wait_for(lambda: daemon.launcher_pids() == [launcher], "the hook's end")

    def test_daemon_keeps_no_descriptor_of_the_starter(self):
        "The daemon's standard streams are /dev/null and nothing of the starting command is open in it."
        with Daemon(pass_fds=[self.open_inheritable()]) as daemon:
            self.wait_for_record(started(daemon.pid))
            found = descriptors_of(daemon.pid)
            self.assertEqual([found.pop(number) for number in range(3)], ["/dev/null"] * 3)
            kinds = [target.partition(":")[0] for target in found.values()]
            self.assertLessEqual(set(kinds), {"pipe", "socket", "anon_inode"}, found)
            self.assertEqual(kinds.count("pipe"), 1, found)

    def test_launcher_keeps_no_descriptor_of_the_starter(self):
        "The launcher's streams are /dev/null, it reads one pipe, and nothing it has open would pass to the hook."
        with Daemon(pass_fds=[self.open_inheritable()]) as daemon:
            self.wait_for_record(started(daemon.pid))
            launcher = launcher_of(daemon)
            found = descriptors_of(launcher)
            self.assertEqual([found.pop(number) for number in range(3)], ["/dev/null"] * 3)
            self.assertLessEqual({target.partition(":")[0] for target in found.values()}, {"pipe", "socket"}, found)
            flags = [flags_of(launcher, number) for number in found]
            self.assertTrue(all(flag & os.O_CLOEXEC for flag in flags), found)
            self.assertEqual([flag & os.O_ACCMODE for flag in flags].count(os.O_RDONLY), 1, found)

    def test_hook_pipe_keeps_packets_apart(self):
        "The daemon's end of the pipe is a packet pipe, closed in commands, and the same pipe that the launcher reads."
        with Daemon() as daemon:
            self.wait_for_record(started(daemon.pid))
            pipes = [(n, target) for n, target in descriptors_of(daemon.pid).items() if target.startswith("pipe:")]
            ((number, pipe),) = pipes
            expected = os.O_WRONLY | os.O_DIRECT | os.O_CLOEXEC
            self.assertEqual(flags_of(daemon.pid, number) & (os.O_ACCMODE | expected), expected)
            self.assertIn(pipe, descriptors_of(launcher_of(daemon)).values())


class ForegroundTest(WatchTest):
    def test_no_fork_and_no_pid_file(self):
        "With --no-daemon the started process is the watch itself, and there is no PID file."
        with Daemon(hook=HOOK, foreground=True) as daemon:
            daemon.wait_for_record("started")
            self.assertEqual(status_of(daemon.pid, "PPid"), [str(os.getpid())])
            self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])
            daemon.signal(signal.SIGTERM)
            result = foreground_result(daemon)
            self.assertEqual(result.status, 0, str(result))
            self.assert_records(result, updated(), started(daemon.pid), TERMINATING)
        self.assertEqual(self.runs(), 1)

    def test_running_daemon_does_not_matter(self):
        "A watch in the foreground asks for no PID file, so another daemon may run."
        with Daemon() as daemon, Daemon(foreground=True, document=open_folder("folder") + "/doc.json") as second:
            second.wait_for_record("started")
            second.signal(signal.SIGTERM)
            self.assertEqual(foreground_result(second).status, 0)
            self.assertEqual(read_pid_file(), daemon.pid)

    def test_syslog_has_no_pid(self):
        "In the foreground the system's logger was not opened, so its records carry the program's name and no PID."
        with Daemon(foreground=True) as daemon:
            daemon.wait_for_record("started")
            name = os.path.basename(agent_path())
            self.assertEqual({(line.ident, line.pid) for line in self.syslog.records()}, {(name, None)})

    def test_failed_switch_is_on_standard_error(self):
        "GLib's own handler reports a failed switch on standard error, and nothing of it reaches syslog."
        self.require_user_switch()
        result = run_agent(*daemon_arguments(HOOK, arguments=["--no-daemon"]), **as_user())
        self.assertEqual((result.status, result.records), (1, []), str(result))
        expected = f"failed switching to user 'featurewatch': {error_text(errno.EPERM)}"
        self.assertEqual([line.endswith(expected) for line in result.other_lines if "CRITICAL" in line], [True])
        self.assertEqual(self.syslog.records(), [])
        self.assertEqual(self.runs(), 0)

    def test_interrupt_of_the_whole_group(self):
        "Ctrl-C, a SIGINT to the whole foreground group, ends the watch with status 0; all its hook's runs are done."
        with Daemon(hook=GATED_HOOK, foreground=True, start_new_session=True) as daemon:
            self.wait_for_runs(1)
            self.change(daemon, "a")
            os.killpg(daemon.pid, signal.SIGINT)
            daemon.wait_for_record(TERMINATING[1])
            open_gate()
            result = foreground_result(daemon)
        self.assertEqual(result.status, 0, str(result))
        self.assertEqual([record.level for record in result.records if record.level != "INFO"], [], str(result))
        self.assertEqual(self.run_lines(), ["begin", "end"] * 2)


class SyslogTest(WatchTest):
    def test_records_carry_identity_process_and_facility(self):
        "Each record of the daemon and its launcher carries featurewatch, the sender's PID and the facility daemon."
        with Daemon(hook="exit 3") as daemon:
            launcher = launcher_of(daemon)
            daemon.stop()
        senders = {}
        for line in self.syslog.records():
            self.assertEqual((line.ident, line.facility * 8), ("featurewatch", syslog.LOG_DAEMON), line)
            senders.setdefault(line.pid, []).append(line.severity)
        self.assertEqual(senders, {daemon.pid: [syslog.LOG_INFO] * 3, launcher: [syslog.LOG_ERR]})

    def test_identity_is_not_the_files_name(self):
        "Daemon and launcher call themselves featurewatch in syslog whatever the name of their executable file is."
        other = self.work_path("other-name")
        shutil.copy(agent_path(), other)
        with mock.patch.dict(os.environ, FEATUREWATCH=other), Daemon(hook="exit 3") as daemon:
            self.stop_and_wait(daemon)
        self.assertEqual({line.ident for line in self.syslog.records()}, {"featurewatch"}, self.syslog.records())
        self.assertIn(("ERROR", "script exited with status 3"), self.records())

    def test_records_before_the_fork_go_to_both_places(self):
        "A record of the starting command goes to standard error in both forms, and to syslog with its own PID."
        write_file(PID_FILE, f"{os.getpid()}\n")
        command = subprocess.Popen(
            [agent_path(), *daemon_arguments()], env=agent_environment(), stderr=subprocess.PIPE, text=True
        )
        errors = command.communicate()[1].splitlines()
        text = f"daemon already running with PID {os.getpid()}"
        self.assertRegex(errors[0], rf"^\d\d:\d\d:\d\d\.\d\d\d FATAL: {text}$")
        self.assertIn(f"featurewatch[{command.pid}]: FATAL orv.featurewatch     - {text}", errors)
        (line,) = self.syslog.records()
        self.assertEqual((line.ident, line.pid, line.facility * 8), ("featurewatch", command.pid, syslog.LOG_DAEMON))
