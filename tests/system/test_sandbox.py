"""The sandbox itself: what it offers, what it passes on, and that nothing of it is left."""

import grp
import os
import pwd
import signal
import socket
import stat
import subprocess

from harness import USER, SandboxTest, is_alive, read_file, wait_for

SANDBOX = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts", "sandbox")
CANNOT_SET_UP = 77


class OfferTest(SandboxTest):
    def test_only_ordinary_devices_are_there(self):
        "/dev has the ordinary nodes and no TPM."
        self.syslog.close()
        names = "fd full null ptmx pts random shm stderr stdin stdout tty urandom zero".split()
        self.assertEqual(sorted(os.listdir("/dev")), names)
        for name in ("full", "null", "random", "urandom", "zero"):
            self.assertTrue(stat.S_ISCHR(os.stat("/dev/" + name).st_mode), name)
        with open("/dev/full", "wb", buffering=0) as full, self.assertRaises(OSError):
            full.write(b"x")

    def test_user_exists(self):
        "The user featurewatch has a group, is a member of a second one and owns /run/featurewatch."
        user = pwd.getpwnam(USER)
        self.assertEqual(grp.getgrgid(user.pw_gid).gr_name, USER)
        self.assertEqual(grp.getgrnam("orvanta").gr_mem, [USER])
        self.require_user_switch()
        status = os.stat("/run/featurewatch")
        self.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777), (user.pw_uid, user.pw_gid, 0o755))

    def test_folders_can_be_removed_and_made_again(self):
        "/etc/orvanta and /var/lib/orvanta are plain folders that may vanish and come back."
        for folder in ("/etc/orvanta", "/var/lib/orvanta"):
            os.rmdir(folder)
            self.assertFalse(os.path.exists(folder))
            os.mkdir(folder)

    def test_command_is_not_process_1(self):
        "The command runs beside a process 1 that does nothing, in a /proc that shows no others."
        self.assertNotEqual(os.getpid(), 1)
        self.assertEqual(read_file("/proc/1/comm"), b"sleep\n")
        self.assertLess(len([entry for entry in os.listdir("/proc") if entry.isdigit()]), 6)

    def test_network_is_empty_but_for_loopback(self):
        "Only the loopback interface is there, and it works."
        self.assertEqual(os.listdir("/sys/class/net"), ["lo"])
        with socket.create_server(("127.0.0.1", 0)) as server:
            socket.create_connection(server.getsockname(), 2).close()


class NestedTest(SandboxTest):
    """NestedTest starts a second sandbox inside of this one, as that shows it from outside."""

    def setUp(self):
        super().setUp()
        if self.run_inside("true").returncode == CANNOT_SET_UP:
            self.skipTest("this system allows no sandbox inside a sandbox")

    def run_inside(self, *command, options=(), sandbox=SANDBOX, **keywords):
        return subprocess.run(
            [sandbox, *options, "--", *command],
            input=keywords.pop("input", ""),
            capture_output=True,
            text=True,
            timeout=20,
            **keywords,
        )

    def start_inside(self, script):
        """Starts a shell and waits for its first line, which is handed back with the process."""
        process = subprocess.Popen(
            [SANDBOX, "sh", "-c", script], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True
        )
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process, process.stdout.readline().strip()

    def others(self):
        return {entry for entry in os.listdir("/proc") if entry.isdigit()}

    def test_exit_status_is_passed_on(self):
        "The sandbox ends with the command's status, 128 + n for a signal, 127 for no such command."
        for script, status in (("exit 0", 0), ("exit 7", 7), ("kill -KILL $$", 137), ("nothing-of-that-name", 127)):
            with self.subTest(script):
                self.assertEqual(self.run_inside("sh", "-c", script).returncode, status)

    def test_wrong_usage(self):
        "No command and an unknown option are refused with a message and status 2; --help explains."
        for arguments in ([], ["--"], ["--bogus", "true"]):
            result = subprocess.run([SANDBOX, *arguments], capture_output=True, text=True)
            with self.subTest(arguments):
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("sandbox: ", result.stderr)
        self.assertIn("usage:", subprocess.check_output([SANDBOX, "--help"], text=True))

    def test_options_of_the_command_stay(self):
        "Whatever follows the command's name goes to the command."
        result = self.run_inside("printf", "%s|", "--tpm", "--", "-h", "", "a b")
        self.assertEqual(result.stdout, "--tpm|--|-h||a b|")

    def test_folder_environment_and_mask_stay(self):
        "Current folder, environment, file creation mask and standard input are the caller's, from a relative path too."
        os.mkdir("sub")
        result = self.run_inside(
            "sh",
            "-c",
            "pwd; umask; env | sort; cat",
            sandbox=os.path.relpath(SANDBOX, "sub"),
            cwd="sub",
            env={"PATH": os.environ["PATH"], "MARK": "x y"},
            input="from outside\n",
            umask=0o027,
        )
        lines = [line for line in result.stdout.splitlines() if not line.startswith(("_=", "SHLVL=", "OLDPWD="))]
        folder = os.path.abspath("sub")
        expected = [folder, "0027", "MARK=x y", f"PATH={os.environ['PATH']}", f"PWD={folder}"]
        self.assertEqual(lines, [*expected, "from outside"])

    def test_signals_reach_the_command(self):
        "TERM, HUP and INT are passed on, and the command's own ending is the result."
        for name in ("TERM", "HUP", "INT"):
            with self.subTest(name):
                process, line = self.start_inside(f"trap 'exit 9' {name}; echo ready; while :; do sleep 0.01; done")
                self.assertEqual(line, "ready")
                process.send_signal(getattr(signal, f"SIG{name}"))
                self.assertEqual(process.wait(10), 9)

    def test_signal_dispositions_are_the_default(self):
        "The command is started with no signal ignored."
        process, line = self.start_inside("grep SigIgn: /proc/self/status")
        self.assertEqual(line, "SigIgn:\t0000000000000000")

    def test_what_is_left_running_is_killed(self):
        "When the command ends, what it has left in the background ends too, before the sandbox returns."
        before = self.others()
        script = "exec >/dev/null 2>&1; setsid sleep 1000 & trap '' TERM; sleep 1000 & exit 0"
        self.assertEqual(self.run_inside("sh", "-c", script).returncode, 0)
        self.assertEqual(self.others(), before)

    def test_killed_sandbox_leaves_nothing(self):
        "SIGKILL to the sandbox ends everything in it."
        before = self.others()
        process, line = self.start_inside("setsid sleep 1000 >/dev/null & echo ready; sleep 1000")
        self.assertEqual(line, "ready")
        self.assertTrue(is_alive(process.pid))
        process.kill()
        process.wait()
        wait_for(lambda: self.others() == before, "the end of all")

    def test_changes_stay_inside(self):
        "Files, mounts and users changed inside are as before outside."
        watched = ("/etc/passwd", "/proc/self/mounts", "/proc/cpuinfo")
        before = [read_file(path) for path in watched]
        made = ("/etc/orvanta/x", "/var/lib/orvanta/x", "/dev/x", "/run/x")
        script = "echo x >>/etc/passwd; echo x >/run/sandbox/cpuinfo; touch " + " ".join(made)
        result = self.run_inside("sh", "-ec", script)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual([read_file(path) for path in watched], before)
        for path in made:
            self.assertFalse(os.path.exists(path), path)

    def test_folders_are_empty_even_where_they_exist(self):
        "Files in the machine's own /etc/orvanta and /var/lib/orvanta are not seen inside."
        for folder in ("/etc/orvanta", "/var/lib/orvanta"):
            open(folder + "/mine", "w").close()
        self.assertEqual(self.run_inside("find", "/etc/orvanta", "/var/lib/orvanta", "-mindepth", "1").stdout, "")

    def test_sandboxes_run_side_by_side(self):
        "Two sandboxes at a time have each their own TPM and files."
        script = "echo $0 >/run/x; echo ready; read line; cat /run/x; tpm2_getcap handles-persistent"
        processes = []
        for name in ("one", "two"):
            process = subprocess.Popen(
                [SANDBOX, "--tpm", "sh", "-c", script, name],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                text=True,
            )
            self.addCleanup(process.communicate)
            self.addCleanup(process.kill)
            processes.append(process)
        self.assertEqual([process.stdout.readline() for process in processes], ["ready\n", "ready\n"])
        self.assertEqual([process.communicate("go\n", timeout=20)[0] for process in processes], ["one\n", "two\n"])
        self.assertEqual([process.returncode for process in processes], [0, 0])

    def test_tpm_answers_and_ends(self):
        "With --tpm a TPM 2.0 answers at the place where the TSS library looks, and ends with the sandbox."
        before = self.others()
        result = self.run_inside("tpm2_getcap", "properties-fixed", options=["--tpm"])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("TPM2_PT_FAMILY_INDICATOR", result.stdout)
        self.assertEqual(self.others(), before)
        self.assertNotEqual(self.run_inside("tpm2_getcap", "properties-fixed").returncode, 0)
