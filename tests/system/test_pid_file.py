"""The PID file: what is believed and what is not, who may hold it up, whose it is at the end; and file size limits."""

import errno
import fcntl
import os
import pwd
import resource
import signal
import subprocess

from daemon_harness import (
    FAILED,
    GATED_HOOK,
    HOOK,
    START_FAILED,
    WatchTest,
    as_user,
    foreground_result,
    give_to_user,
    open_gate,
)
from harness import (
    FEATURES_DOCUMENT,
    PID_FILE,
    RUN,
    USER,
    Daemon,
    agent_environment,
    agent_path,
    agent_processes,
    has_user_switch,
    install_features,
    is_alive,
    preload,
    process_state,
    read_file,
    read_pid_file,
    run_agent,
    start_daemon,
    wait_for,
    write_file,
)

SPECIAL = "not a regular file"
LINKED = "a file with several names"
OTHERS = "another user's"

NOT_KILLED = ("FATAL", f"failed to kill daemon: {os.strerror(errno.EPERM)}")


def hold_lock(path):
    """Locks the file for reading, as long as this process lives."""
    stream = open(path)
    fcntl.lockf(stream, fcntl.LOCK_SH)
    return stream


class PidFileTest(WatchTest):
    """PidFileTest has the folder with the owner and mode that packaging provides."""

    def setUp(self):
        super().setUp()
        self.victim = self.start_process()
        if has_user_switch():
            os.chown(RUN, 0, pwd.getpwnam(USER).pw_gid)
            os.chmod(RUN, 0o1775)

    def start_process(self, *arguments, **keywords):
        """A process that waits for its end."""
        process = subprocess.Popen(arguments or ["sleep", "1000"], stdin=subprocess.PIPE, **keywords)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def assert_victim_lives(self):
        self.assertTrue(is_alive(self.victim.pid), "-k has killed a process that is not a daemon")


class ForeignFileTest(PidFileTest):
    def put_there(self, kind):
        """Puts something at the PID file's place, as the daemon's user could do. Returns what it is called."""
        named = f"{self.victim.pid}\n"
        if kind == "another user's":
            give_to_user(write_file(PID_FILE, named))
        elif kind == "pipe":
            os.mkfifo(PID_FILE)
        elif kind == "symbolic link":
            os.symlink(write_file(self.work_path("named"), named), PID_FILE)
        elif kind == "dangling link":
            os.symlink(self.work_path("nothing"), PID_FILE)
        elif kind == "hard link":
            os.link(write_file(RUN + "/named", named), PID_FILE)
        elif kind == "folder":
            os.mkdir(PID_FILE)
        return {"another user's": OTHERS, "hard link": LINKED}.get(kind, SPECIAL)

    def check(self, kind):
        reason = self.put_there(kind)
        before = os.lstat(PID_FILE)
        self.assert_failure(run_agent("-k"), NOT_KILLED)
        self.assert_victim_lives()
        self.assertEqual(os.lstat(PID_FILE).st_ino, before.st_ino)
        with Daemon() as daemon:
            removed = ("WARN", f"removed PID file {PID_FILE}, which was {reason}")
            self.assert_records(daemon.start_result, removed)
            self.assertEqual(read_pid_file(), daemon.pid)
            daemon.stop()
        self.assert_victim_lives()

    def test_file_of_another_user_is_removed(self):
        "A file of the daemon's user that names root's process: -k signals nobody, a start removes it with a WARN."
        self.require_user_switch()
        self.check("another user's")

    def test_pipe_is_removed(self):
        "A named pipe holds up neither -k nor a start, which removes it."
        self.check("pipe")

    def test_symbolic_link_is_removed(self):
        "A symbolic link is not followed: -k signals nobody, a start removes the link alone."
        self.check("symbolic link")
        self.assertEqual(read_file(self.work_path("named")), f"{self.victim.pid}\n".encode())

    def test_dangling_link_is_removed(self):
        "A symbolic link to nothing does not keep the daemon from starting."
        self.check("dangling link")

    def test_hard_link_is_removed(self):
        "A file with a second name is not believed, though root's: whoever may link cannot choose whom -k kills."
        self.check("hard link")
        self.assertEqual(read_file(RUN + "/named"), f"{self.victim.pid}\n".encode())

    def test_empty_folder_is_removed(self):
        "An empty folder in the file's place does not keep the daemon from starting."
        self.check("folder")

    def test_folder_that_is_not_empty_refuses_the_start(self):
        "A folder with something in it stays, and the start is refused with a record that names it."
        os.makedirs(PID_FILE + "/something")
        self.assert_failure(run_agent("-k"), NOT_KILLED)
        text = f"failed to remove PID file {PID_FILE}, which is {SPECIAL}: {os.strerror(errno.ENOTEMPTY)}"
        self.assert_failure(start_daemon(HOOK), ("FATAL", text))
        self.assertEqual(agent_processes(), [])
        self.assertEqual(self.runs(), 0)
        self.assertFalse(os.path.exists(FEATURES_DOCUMENT))

    def test_dead_process_of_another_user_is_not_believed(self):
        "A file of the daemon's user that names no living process is foreign, as nothing shows whose it was."
        self.require_user_switch()
        self.victim.kill()
        self.victim.wait()
        give_to_user(write_file(PID_FILE, f"{self.victim.pid}\n"))
        self.assert_failure(run_agent("-k"), NOT_KILLED)
        with Daemon() as daemon:
            self.assertEqual([record.level for record in daemon.start_result.records], ["WARN"])

    def test_empty_file_of_another_user_is_removed(self):
        "A file of the daemon's user without a number is foreign: it may not hold up a start."
        self.require_user_switch()
        give_to_user(write_file(PID_FILE, ""))
        self.assert_failure(run_agent("-k"), NOT_KILLED)
        with Daemon() as daemon:
            self.assertEqual([record.level for record in daemon.start_result.records], ["WARN"])
            daemon.stop()

    def test_file_that_the_caller_may_not_read_is_not_believed(self):
        "For a third user a file without the right to read it is foreign: the start that can't remove it is refused."
        self.require_user_switch()
        process = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{process.pid}\n"))
        os.chmod(PID_FILE, 0o600)
        nobody = pwd.getpwnam("nobody")
        third = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
        result = start_daemon(HOOK, arguments=["--no-switch-user"], **third)
        text = f"failed to remove PID file {PID_FILE}, which is {OTHERS}: {os.strerror(errno.EACCES)}"
        self.assert_failure(result, ("FATAL", text))

    def test_negative_number_names_no_process(self):
        "A negative number is not a process group: -k says that it is invalid, and a start replaces the file."
        group = self.start_process(start_new_session=True)
        for content in ("-1\n", f"-{group.pid}\n"):
            with self.subTest(content):
                write_file(PID_FILE, content)
                invalid = f"failed to kill daemon: {os.strerror(errno.EINVAL)}"
                self.assert_failure(run_agent("-k"), ("FATAL", invalid))
                write_file(PID_FILE, content)
                with Daemon() as daemon:
                    daemon.stop()
        self.assertTrue(is_alive(group.pid))


class OwnersFileTest(PidFileTest):
    def setUp(self):
        super().setUp()
        self.require_user_switch()

    def test_users_own_daemon_is_believed(self):
        "A file of an ordinary user that names that user's process is that user's daemon: a start refuses, -k ends it."
        process = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{process.pid}\n"))
        self.assert_failure(start_daemon(), ("FATAL", f"daemon already running with PID {process.pid}"))
        killer = self.start_process(agent_path(), "-k", env=agent_environment())  # waits until we have buried it
        self.assertEqual(process.wait(10), -signal.SIGTERM)
        self.assertEqual(killer.wait(10), 0)

    def test_users_own_daemon_is_ended_by_that_user(self):
        "An ordinary user's -k ends the process that the user's own file names."
        process = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{process.pid}\n"))
        killer = self.start_process(agent_path(), "-k", env=agent_environment(), **as_user())
        self.assertEqual(process.wait(10), -signal.SIGTERM)
        self.assertEqual(killer.wait(10), 0)

    def test_users_own_stale_file_is_replaced(self):
        "An ordinary user's own file that names a dead process is not foreign: a start replaces it without a record."
        self.victim.kill()
        self.victim.wait()
        give_to_user(write_file(PID_FILE, f"{self.victim.pid}\n"))
        with Daemon(arguments=["--no-switch-user"], **as_user()) as daemon:
            self.assert_records(daemon.start_result)
            self.assertEqual(read_pid_file(), daemon.pid)

    def test_lock_of_another_user_holds_up_nobody(self):
        "A file of the daemon's user with a lock on it is foreign: neither -k nor a start waits for the lock."
        holder = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{holder.pid}\n"))
        lock = hold_lock(PID_FILE)
        self.addCleanup(lock.close)
        self.assert_failure(run_agent("-k"), NOT_KILLED)
        with Daemon() as daemon:
            self.assertEqual([record.level for record in daemon.start_result.records], ["WARN"])
            daemon.stop()
        self.assertTrue(is_alive(holder.pid))

    def test_nobody_else_can_lock_the_daemons_file(self):
        "Other users cannot open the file of root's daemon, so that no lock of theirs holds up -k."
        script = "import fcntl, sys\nf = open(sys.argv[1])\nfcntl.lockf(f, fcntl.LOCK_SH)\nprint(flush=True)\ninput()"
        with Daemon() as daemon:
            reader = self.start_process(
                "/usr/bin/python3", "-c", script, PID_FILE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **as_user()
            )
            self.assertEqual(reader.stdout.readline(), b"", "another user holds a lock on the file")
            self.assertIn(b"PermissionError", reader.stderr.read())
            daemon.stop()

    def test_daemons_user_cannot_replace_the_file(self):
        "The daemon's user can neither remove nor rename the file of root's daemon, and publishes all the same."
        with Daemon() as daemon:
            command = f"rm -f {PID_FILE}; mv {PID_FILE} {RUN}/other; echo 1 > {PID_FILE}"
            subprocess.run(["sh", "-c", command], stderr=subprocess.DEVNULL, **as_user())
            self.assertEqual(read_pid_file(), daemon.pid)
            self.change(daemon, "a")
            daemon.stop()
        self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])


class FailingCallTest(PidFileTest):
    AGAIN = os.strerror(errno.EAGAIN)

    def test_file_that_cannot_be_secured_is_removed(self):
        "A PID file whose state cannot be kept, or that stays readable for others, fails the start and is not left."
        for function in ("lstat", "chmod"):
            with self.subTest(function):
                self.syslog.clear()
                failure = ("FATAL", f"could not create PID file: {self.AGAIN}")
                self.assert_start_fails(failure, env=preload(TEST_FAIL=function))
                self.assertEqual(os.listdir(RUN), [])

    def test_rights_that_cannot_be_given_up_kill_nobody(self):
        "Where -k cannot take the rights of the file's owner it signals nobody, not even the process that is named."
        self.require_user_switch()
        process = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{process.pid}\n"))
        result = run_agent("-k", env=preload(TEST_FAIL="setresuid"))
        self.assert_failure(result, ("FATAL", f"failed to kill daemon: {self.AGAIN}"))
        self.assertTrue(is_alive(process.pid))
        self.assertTrue(os.path.exists(PID_FILE))

    def test_file_whose_locks_are_unknown_is_not_believed(self):
        "A file of the daemon's user counts as locked where the system does not tell: -k signals nobody."
        self.require_user_switch()
        process = self.start_process(**as_user())
        give_to_user(write_file(PID_FILE, f"{process.pid}\n"))
        self.assert_failure(run_agent("-k", env=preload(TEST_FAIL="F_GETLK")), NOT_KILLED)
        self.assertTrue(is_alive(process.pid))


class RewrittenFileTest(PidFileTest):
    def test_file_that_was_written_since_is_spared(self):
        "A daemon leaves its PID file at its end if that was written again, by a second or by a nanosecond."
        for difference in (1_000_000_000, 1):
            with self.subTest(difference), Daemon() as daemon:
                written = os.stat(PID_FILE).st_mtime_ns
                os.utime(PID_FILE, ns=(written, written + difference))
                self.stop_and_wait(daemon)
                wait_for(lambda: not agent_processes(), "the end of the launcher")
                self.assertEqual(read_file(PID_FILE), f"{daemon.pid}\n".encode())
                os.unlink(PID_FILE)


class OutlivingLauncherTest(PidFileTest):
    def check(self, end):
        """A daemon dies by `end` while its hook runs; the next one keeps its PID file when the hook is through."""
        with Daemon(hook=GATED_HOOK) as first:
            self.wait_for_runs(1)
            (launcher,) = [pid for pid in first.launcher_pids() if os.getpgid(pid) == pid]
            end(first)
            wait_for(lambda: process_state(first.pid) is None, "the daemon's burial")
            self.assertTrue(is_alive(launcher))
            with Daemon(hook="true") as second:
                open_gate()
                wait_for(lambda: not is_alive(launcher), "the end of the first daemon's launcher")
                self.assertEqual(read_pid_file(), second.pid)
                again = start_daemon()
                self.assert_failure(again, ("FATAL", f"daemon already running with PID {second.pid}"))
                second.stop()
        self.assertFalse(os.path.exists(PID_FILE))

    def test_launcher_of_a_killed_daemon_spares_the_next_ones_file(self):
        "A launcher whose daemon was killed while a hook ran leaves the PID file of the next daemon alone."
        self.check(lambda daemon: daemon.signal(signal.SIGKILL))

    def test_launcher_of_a_daemon_stopped_twice_spares_the_next_ones_file(self):
        "So does the launcher of a daemon that a second SIGTERM has ended while it waited for the hook."

        def stop_twice(daemon):
            daemon.signal(signal.SIGTERM)
            self.wait_for_record(("INFO", "terminating on signal"))
            daemon.signal(signal.SIGTERM)

        self.check(stop_twice)


class SizeLimitTest(WatchTest):
    @staticmethod
    def limit(size):
        """Keywords for Popen: no file may become larger."""
        return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))}

    MANY = [f"feature-{number:04}" for number in range(100)]

    def test_pid_file_that_cannot_be_written_is_recorded(self):
        "Where no file may have a byte the start fails with the record on the PID file, and nothing is left."
        result = start_daemon(HOOK, **self.limit(0))
        self.assertEqual(result.status, 1, str(result))
        self.wait_for_record(START_FAILED)
        failure = ("FATAL", f"could not create PID file: {os.strerror(errno.EFBIG)}")
        self.assertEqual(self.records(), [failure, START_FAILED])
        self.assertEqual(os.listdir(RUN), [])

    def check_failed_publication(self, records):
        self.assertEqual(records[-1], FAILED)
        self.assertIn(os.strerror(errno.EFBIG), " ".join(text for _, text in records))
        self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])

    def test_document_that_becomes_too_large_ends_the_daemon_in_order(self):
        "A document over the limit is a failed write: records, the old document whole, no temporary file, no process."
        install_features("a")
        with Daemon(hook=HOOK, **self.limit(4096)) as daemon:
            before = daemon.document_bytes()
            install_features(*self.MANY)
            daemon.wait_until_gone()
            self.check_failed_publication(self.records(daemon.pid))
            self.assertEqual(daemon.document_bytes(), before)
            self.assertEqual(self.runs(), 1)

    def test_document_that_becomes_too_large_ends_the_foreground_daemon_in_order(self):
        "In the foreground too, with status 1."
        install_features("a")
        with Daemon(hook=HOOK, foreground=True, **self.limit(4096)) as daemon:
            daemon.wait_for_record("started")
            install_features(*self.MANY)
            result = foreground_result(daemon)
            self.assertEqual(result.status, 1, str(result))
            self.check_failed_publication([(record.level, record.text) for record in result.records])

    def test_hook_gets_the_default(self):
        "The hook's commands do not inherit that the signal is ignored."
        for foreground in (False, True):
            path = self.work_path(f"ignored-{foreground}")
            with self.subTest(foreground), Daemon(
                hook=f"grep SigIgn /proc/self/status > {path}", foreground=foreground
            ) as daemon:
                wait_for(lambda: os.path.exists(path) and read_file(path), "the hook's run")
                ignored = int(read_file(path).split()[1], 16)
                self.assertEqual(ignored >> (signal.SIGXFSZ - 1) & 1, 0)
                daemon.end()
