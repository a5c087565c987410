"""The PID file against a daemon that was taken over, which may do what its user may in the folder of the file: nobody
else's process is harmed, nothing hangs, and a start works or names the file."""

import os
import signal
import stat
import subprocess
import sys

from boot_harness import (
    AGENT,
    RUN,
    UNIT,
    BootTest,
    command,
    document,
    is_active,
    main_pid,
    messages,
    systemctl,
    user_id,
    wait_until_inactive,
)
from daemon_harness import status_of
from harness import PID_FILE, USER, is_alive, processes_of, read_file, wait_for

NOT_PERMITTED = "failed to kill daemon: Operation not permitted"
LIMIT = 30  # seconds, in which nothing may hang


class AttackTest(BootTest):
    """AttackTest has two processes that nobody may harm, one of root's and one of an ordinary user's."""

    def setUp(self):
        super().setUp()
        self.victims = [self.process("sleep", "1000"), self.process("sleep", "1000", user="nobody", group="nogroup")]

    def process(self, *arguments, **keywords):
        process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, **keywords)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def as_daemon(self, script, status=0):
        """Runs Python as the daemon's user, with what the attacks use: `os`, and the file's path as `path`."""
        text = f"import os; path = {PID_FILE!r}\n{script}"
        return command(sys.executable, "-c", text, status=status, user=USER, group=USER)

    def hold_lock(self, mode):
        """Has a process of the daemon's user open the file with this mode and hold a lock on it, if it can."""
        script = f"""
import fcntl, time
try:
    stream = open({PID_FILE!r}, {mode!r})
    fcntl.lockf(stream, fcntl.LOCK_SH if {mode!r} == "r" else fcntl.LOCK_EX)
except PermissionError:
    pass
print("ready", flush=True)
time.sleep(1000)
"""
        holder = self.process(sys.executable, "-c", script, user=USER, group=USER, stdout=subprocess.PIPE, text=True)
        self.addCleanup(holder.stdout.close)
        self.assertEqual(holder.stdout.readline(), "ready\n")

    def assert_unharmed(self):
        for victim in self.victims:
            self.assertIsNone(victim.poll(), "a foreign process was ended")

    def kill(self, status):
        return command("featurewatch", "-k", status=status, limit=LIMIT)


class StoppedTest(AttackTest):
    """StoppedTest attacks while no daemon runs, so that the file is the attacker's to make."""

    def setUp(self):
        super().setUp()
        systemctl("stop", UNIT)

    def assert_refused_and_started(self):
        """A stop by hand refuses the file; a start removes it with a record and works, or names it."""
        self.assertIn(NOT_PERMITTED, self.kill(status=1))
        self.assert_unharmed()
        self.assert_started()

    def assert_started(self):
        systemctl("start", UNIT, status=None, limit=LIMIT)
        self.assert_unharmed()
        told = [text for text in messages() if PID_FILE in text]
        if is_active():
            self.assertTrue(any(text.startswith("WARN") for text in told), told)
            self.assertTrue(stat.S_ISREG(os.lstat(PID_FILE).st_mode))
            self.assertEqual(read_file(PID_FILE).decode().strip(), str(main_pid()))
            document()
            self.kill(status=0)
        else:
            self.assertTrue(any(text.startswith("FATAL") for text in told), told)
        systemctl("stop", UNIT, limit=2 * LIMIT)

    def test_file_with_a_foreign_process(self):
        "A file of the daemon's user that names a process of somebody else's is refused."
        for victim in self.victims:
            with self.subTest(victim.args):
                self.as_daemon(f"open(path, 'w').write('{victim.pid}\\n')")
                self.assert_refused_and_started()

    def test_file_with_odd_numbers(self):
        "A file that names all processes, a group, or nothing at all harms nobody and keeps no start from working."
        for text in ("-1", "0", "1", "", "x", "99999999999999999999"):
            with self.subTest(text):
                self.as_daemon(f"open(path, 'w').write({text!r})")
                self.kill(status=1)
                self.assert_unharmed()
                systemctl("start", UNIT, limit=LIMIT)
                self.assert_unharmed()
                systemctl("stop", UNIT, limit=LIMIT)

    def test_pipe(self):
        "A named pipe is refused, and neither a stop nor a start waits for its other end."
        self.as_daemon("os.mkfifo(path, 0o666)")
        self.assert_refused_and_started()

    def test_folder(self):
        "A folder is refused, empty or not."
        for content in ("", "os.mkdir(path + '/full')"):
            with self.subTest(content):
                self.as_daemon(f"os.mkdir(path)\n{content}")
                self.assert_refused_and_started()
                command("rm", "-rf", PID_FILE)

    def test_symbolic_link(self):
        "A symbolic link is refused, and what it points to is neither read, nor changed, nor removed."
        for target in ("/root/target", "/root/missing", "/dev/zero"):
            with self.subTest(target):
                if target.endswith("target"):
                    command("sh", "-c", f"echo {self.victims[0].pid} >{target}")
                self.as_daemon(f"os.symlink({target!r}, path)")
                self.assert_refused_and_started()
                self.assertEqual(os.path.exists(target), not target.endswith("missing"))
        self.assertEqual(read_file("/root/target").decode().strip(), str(self.victims[0].pid))

    def test_hard_link(self):
        "A file with a second name is refused, and keeps its content under that."
        self.as_daemon(
            f"open({RUN!r} + '/other', 'w').write('{self.victims[1].pid}')\nos.link({RUN!r} + '/other', path)"
        )
        self.assert_refused_and_started()
        self.assertEqual(read_file(RUN + "/other").decode(), str(self.victims[1].pid))

    def test_locked_file(self):
        "A file on which its maker holds a lock keeps neither a stop nor a start waiting."
        self.as_daemon(f"open(path, 'w').write('{self.victims[0].pid}')")
        self.hold_lock("r+")
        self.assert_refused_and_started()


class RunningTest(AttackTest):
    """RunningTest attacks while the daemon runs, so that the file is root's."""

    def test_the_file_stays_roots(self):
        "The daemon's user can neither read, write, remove, rename nor replace the file."
        for script in (
            "open(path)",
            "open(path, 'r+')",
            "os.unlink(path)",
            "os.rename(path, path + '.old')",
            f"open({RUN!r} + '/new', 'w').write('1'); os.rename({RUN!r} + '/new', path)",
            "os.link(path, path + '.link')",
        ):
            with self.subTest(script):
                self.assertIn("PermissionError", self.as_daemon(script, status=1))
        self.assertEqual(read_file(PID_FILE).decode().strip(), str(main_pid()))
        self.assertEqual(stat.S_IMODE(os.lstat(PID_FILE).st_mode) & 0o077, 0)

    def test_folder_cannot_be_replaced(self):
        "The daemon's user cannot put another folder in the place of the one with the file."
        for script in ("os.rename(os.path.dirname(path), '/run/elsewhere')", "os.chmod(os.path.dirname(path), 0o777)"):
            with self.subTest(script):
                self.assertIn("PermissionError", self.as_daemon(script, status=1))

    def test_lock_of_a_reader(self):
        "A process of the daemon's user that tries to hold a lock on the file keeps no stop from working."
        self.hold_lock("r")
        self.kill(status=0)
        self.assert_unharmed()
        wait_until_inactive()
        self.assertFalse(os.path.lexists(PID_FILE))

    def test_lock_of_a_reader_and_another_start(self):
        "Nor does it keep a start from telling that the daemon runs, nor systemd from a restart."
        self.hold_lock("r")
        text = command("featurewatch", "-w", "-x", "true", status=1, limit=LIMIT)
        self.assertIn("daemon already running with PID", text)
        systemctl("restart", UNIT, limit=LIMIT)
        self.assertTrue(is_active())


class SuccessorTest(AttackTest):
    """SuccessorTest starts daemons by hand, as systemd would end a launcher that outlives its daemon."""

    def setUp(self):
        super().setUp()
        systemctl("stop", UNIT)
        self.addCleanup(command, "featurewatch", "-k", status=None)

    def start(self, hook):
        command("featurewatch", "-w", "-x", hook, limit=LIMIT)
        return int(read_file(PID_FILE))

    def test_launcher_spares_the_file_of_a_successor(self):
        "A launcher that outlives its killed daemon leaves the PID file of the next one alone."
        gate = RUN + "/gate"
        daemon = self.start(f"until [ -e {gate} ]; do sleep 0.02; done")
        [launcher] = [pid for pid in processes_of(AGENT) if status_of(pid, "PPid") == [str(daemon)]]
        os.kill(daemon, signal.SIGKILL)
        wait_for(lambda: not os.path.exists(f"/proc/{daemon}"), "the end of the daemon")  # a zombie still holds its id
        successor = self.start("true")
        with open(gate, "w"):
            pass
        wait_for(lambda: not is_alive(launcher), "the end of the first launcher")
        self.assertEqual(int(read_file(PID_FILE)), successor)
        self.kill(status=0)
        self.assertFalse(os.path.lexists(PID_FILE))
        self.assert_unharmed()

    def test_own_file_of_the_user(self):
        "A daemon that was started without root, by its user alone, is still ended by root."
        start = ["featurewatch", "-w", "-x", "true", "--no-switch-user"]
        command(*start, user=USER, group=USER, limit=LIMIT)
        daemon = int(read_file(PID_FILE))
        self.assertEqual(os.lstat(PID_FILE).st_uid, user_id())
        self.kill(status=0)
        self.assertFalse(is_alive(daemon))
