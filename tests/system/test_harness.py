"""The helpers themselves: what is dead must be called dead and what is wrong must be called wrong."""

import ctypes
import os
import signal
import subprocess
import sys
import syslog
import time
import unittest
from unittest import mock

import harness
from harness import (
    Daemon,
    Record,
    SandboxTest,
    Syslog,
    agent_environment,
    assert_never,
    check_features_document,
    document_bytes,
    install_features,
    is_alive,
    is_watching,
    parse_syslog,
    process_state,
    processes_of,
    read_file,
    run_agent,
    set_cpuinfo,
    split_stderr,
    wait_for,
    wait_until_watching,
    write_file,
)

HERE = os.path.dirname(os.path.abspath(__file__))


class StandInTest(SandboxTest):
    """StandInTest has shell scripts take the agent's place."""

    def setUp(self):
        super().setUp()
        patch = mock.patch.dict(os.environ)
        patch.start()
        self.addCleanup(patch.stop)

    def stand_in(self, *lines):
        path = write_file(self.work_path("agent"), "\n".join(["#!/bin/sh", *lines, ""]))
        os.chmod(path, 0o755)
        os.environ["FEATUREWATCH"] = path
        return path


class RunTest(StandInTest):
    def test_status_output_and_records_are_told_apart(self):
        "A result holds exit status, standard output, records and other lines of one run."
        errors = ("echo '10:20:30.123 WARN: take care' >&2", "echo 'ERROR:tcti:x.c: no' >&2")
        self.stand_in("echo out $#", *errors, "exit 3")
        result = run_agent("-a", "b c")
        self.assertEqual((result.status, result.stdout), (3, b"out 2\n"))
        self.assertEqual(result.records, [Record("WARN", "take care")])
        self.assertEqual(result.records[0].time, "10:20:30.123")
        self.assertEqual(result.other_lines, ["ERROR:tcti:x.c: no"])

    def test_hanging_agent_is_killed_and_fails(self):
        "A run beyond its limit fails and leaves no process."
        self.stand_in("echo $$ > pid", "exec sleep 1000")
        with self.assertRaisesRegex(AssertionError, "still running"):
            run_agent(limit=0.3)
        self.assertFalse(is_alive(int(read_file("pid"))))

    def test_death_by_signal_fails(self):
        "A run that a signal ends fails unless the test expects that."
        self.stand_in("kill -SEGV $$")
        with self.assertRaisesRegex(AssertionError, "SIGSEGV"):
            run_agent()
        self.assertEqual(run_agent(may_die=True).status, -signal.SIGSEGV)

    def test_sanitizer_report_fails(self):
        "A sanitizer's report on standard error fails a run whatever its status."
        for line in ("==1==ERROR: AddressSanitizer: x", "a.cpp:1:2: runtime error: y", "==1==ERROR: LeakSanitizer: z"):
            self.stand_in(f"echo '{line}' >&2")
            with self.subTest(line), self.assertRaisesRegex(AssertionError, "fault"):
                run_agent()

    def test_agent_gets_no_variable_of_ours(self):
        "The agent's environment holds nothing of ours but what silences the TSS library, and what a test adds."
        self.stand_in("env")
        os.environ.update(HARNESS_OWN="1", LANG="x", TZ="UTC", ASAN_OPTIONS="a=1")
        lines = run_agent(env={"ADDED": "2"}).stdout.decode().splitlines()
        names = {line.split("=")[0] for line in lines} - {"PWD", "_", "SHLVL", "OLDPWD"}
        self.assertEqual(names, {"PATH", "TZ", "ASAN_OPTIONS", "TSS2_LOG", "ADDED"})
        self.assertNotIn("FEATUREWATCH", agent_environment())

    def test_missing_binary_fails(self):
        "Without FEATUREWATCH, or with a name that is not a file, a run fails."
        os.environ["FEATUREWATCH"] = self.work_path("nothing")
        with self.assertRaises(FileNotFoundError):
            run_agent()
        del os.environ["FEATUREWATCH"]
        with self.assertRaisesRegex(AssertionError, "FEATUREWATCH"):
            run_agent()


class RecordTest(unittest.TestCase):
    def test_stderr_lines(self):
        "Only lines of exactly the record form count as records."
        rows = [
            (b"01:02:03.004 FATAL: x: y\n", [Record("FATAL", "x: y")], []),
            (b"FATAL: \n", [Record("FATAL", "")], []),
            (b"1:02:03.004 FATAL: x\n", [], ["1:02:03.004 FATAL: x"]),
            (b"01:02:03,004 FATAL: x\n", [], ["01:02:03,004 FATAL: x"]),
            (b"WARNING:esys:a.c:1:f() no\n", [], ["WARNING:esys:a.c:1:f() no"]),
            (b"FATAL x\nINFO: y", [Record("INFO", "y")], ["FATAL x"]),
            (b"INFO: \xc3\xbc\xff\n", [Record("INFO", "ü\udcff")], []),
            (b"\n", [], [""]),
            (b"", [], []),
        ]
        for data, records, others in rows:
            with self.subTest(data):
                self.assertEqual(split_stderr(data), (records, others))

    def test_syslog_datagrams(self):
        "A datagram is taken apart into facility, severity, ident, process id and text."
        record = parse_syslog(b"<28>Nov  1 10:20:30 featurewatch[12]: WARN  a: [b]\n")
        self.assertEqual((record.facility, record.severity, record.ident, record.pid), (3, 4, "featurewatch", 12))
        self.assertEqual(record.text, "WARN  a: [b]")
        self.assertIsNone(parse_syslog(b"<30>Nov 21 10:20:30 x: y").pid)
        for wrong in (b"", b"text", b"<30>x: y", b"<>Nov 21 10:20:30 x: y"):
            with self.subTest(wrong), self.assertRaises(AssertionError):
                parse_syslog(wrong)


class SyslogTest(SandboxTest):
    def log(self, *texts):
        syslog.openlog("sample", syslog.LOG_PID, syslog.LOG_DAEMON)
        for text in texts:
            syslog.syslog(syslog.LOG_WARNING, text)
        syslog.closelog()

    def test_everything_sent_before_the_call_is_there(self):
        "A thousand records in a row neither block the sender nor get lost."
        self.log(*(f"text {i}" for i in range(1000)))
        records = self.syslog.records()
        self.assertEqual([record.text for record in records], [f"text {i}" for i in range(1000)])
        self.assertEqual({(r.facility, r.severity, r.ident, r.pid) for r in records}, {(3, 4, "sample", os.getpid())})

    def test_absent_record_is_reported_absent(self):
        "Waiting for a record that does not come fails and shows what came."
        self.log("one")
        self.assertEqual(self.syslog.wait_for_text("on").text, "one")
        with self.assertRaisesRegex(AssertionError, "two.*one"):
            self.syslog.wait_for_text("two", limit=0.1)

    def test_clear_forgets(self):
        "After clear only new records are there."
        self.log("one")
        self.syslog.clear()
        self.log("two")
        self.assertEqual(self.syslog.texts(), ["two"])

    def test_next_one_takes_over(self):
        "After one is closed, a new one at the same place gets the records."
        self.syslog.close()
        self.syslog = Syslog()
        self.addCleanup(self.syslog.close)
        self.log("one")
        self.assertEqual(self.syslog.texts(), ["one"])


class ProcessTest(SandboxTest):
    def test_dead_process_is_reported_dead(self):
        "A process is alive, then a zombie, then gone; only the first counts as alive."
        process = subprocess.Popen(["sleep", "1000"])
        self.assertTrue(is_alive(process.pid))
        process.kill()
        wait_for(lambda: process_state(process.pid) == "Z", "the zombie")
        self.assertFalse(is_alive(process.pid))
        process.wait()
        self.assertIsNone(process_state(process.pid))
        self.assertFalse(is_alive(process.pid))

    def test_orphan_is_reaped(self):
        "Process 1 of the sandbox takes over what a dead parent leaves and reaps it."
        output = subprocess.check_output(["sh", "-c", "sleep 1000 >/dev/null & echo $!"])
        orphan = int(output)
        wait_for(lambda: b"PPid:\t1\n" in read_file(f"/proc/{orphan}/status"), "the new parent")
        os.kill(orphan, signal.SIGKILL)
        wait_for(lambda: process_state(orphan) is None, "the orphan's end")

    def test_processes_of_a_file(self):
        "Processes are found by the file that they run, dead ones not."
        sleep = "/usr/bin/sleep"
        before = processes_of(sleep)
        process = subprocess.Popen([sleep, "1000"])
        wait_for(lambda: process.pid in processes_of(sleep), "the process")
        self.assertEqual(processes_of(sleep), sorted([*before, process.pid]))
        process.kill()
        process.wait()
        self.assertEqual(processes_of(sleep), before)


class DaemonTest(StandInTest):
    def test_start_with_failure_fails(self):
        "A starting command with a status other than 0 is not a started daemon."
        self.stand_in("exit 1")
        with self.assertRaisesRegex(AssertionError, "did not start"):
            Daemon()

    def test_start_without_pid_file_fails(self):
        "A starting command that says success but leaves no PID file is not a started daemon."
        self.stand_in("exit 0")
        with self.assertRaisesRegex(AssertionError, "no PID file"):
            Daemon()

    def test_dead_daemon_is_reported_dead(self):
        "A PID file that names a dead process is not a running daemon."
        self.stand_in("sh -c 'echo $$' > /run/featurewatch/featurewatch.pid")
        with Daemon() as daemon:
            self.assertFalse(daemon.is_running())

    def test_running_daemon_is_reported_running(self):
        "A daemon is running until it ends; waiting for its end fails before."
        self.stand_in("sleep 1000 >/dev/null 2>&1 &", "echo $! > /run/featurewatch/featurewatch.pid")
        with Daemon() as daemon:
            self.assertTrue(daemon.is_running())
            with self.assertRaisesRegex(AssertionError, "the daemon's end"):
                daemon.wait_until_gone(limit=0.1)
            daemon.signal(signal.SIGTERM)
            daemon.wait_until_gone()
            self.assertFalse(daemon.is_running())

    def test_foreground_daemon_shows_records_and_status(self):
        "A daemon in the foreground shows its records while it runs and its status at its end."
        self.stand_in("trap 'exit 5' TERM", "echo '01:02:03.004 INFO: up' >&2", "while :; do sleep 0.01; done")
        with Daemon(foreground=True, watched=None) as daemon:
            self.assertEqual(daemon.wait_for_record("up"), Record("INFO", "up"))
            with self.assertRaisesRegex(AssertionError, "a record with 'down'"):
                daemon.wait_for_record("down", limit=0.1)
            self.assertTrue(daemon.is_running())
            daemon.signal(signal.SIGTERM)
            self.assertEqual(daemon.wait(), 5)
            self.assertFalse(daemon.is_running())

    def test_watch_is_told_from_no_watch(self):
        "A process counts as watching a folder only while it has an inotify watch on that very folder."
        libc = ctypes.CDLL(None)
        descriptor = libc.inotify_init()
        self.addCleanup(os.close, descriptor)
        self.assertFalse(is_watching(os.getpid(), "/etc/orvanta"))
        in_create = 0x100
        libc.inotify_add_watch(descriptor, b"/var/lib/orvanta", in_create)
        self.assertFalse(is_watching(os.getpid(), "/etc/orvanta"))
        libc.inotify_add_watch(descriptor, b"/etc/orvanta", in_create)
        self.assertTrue(is_watching(os.getpid(), "/etc/orvanta"))
        wait_until_watching(os.getpid(), "/var/lib/orvanta")

    def test_end_ends_a_foreground_daemon(self):
        "Leaving the block ends a daemon that ignores SIGTERM."
        self.stand_in("trap '' TERM", "while :; do sleep 0.01; done")
        with Daemon(foreground=True, watched=None) as daemon:
            pass
        self.assertFalse(daemon.is_running())

    def test_starting_command_gets_mode_hook_and_path(self):
        "The starting command gets -w, the hook as one argument and the document's path."
        self.stand_in('for a; do echo "[$a]"; done > arguments', "exit 1")
        with self.assertRaises(AssertionError):
            Daemon(hook="a b", document="/x", arguments=["-s", "--no-switch-user"])
        self.assertEqual(read_file("arguments"), b"[-w]\n[-s]\n[--no-switch-user]\n[-x]\n[a b]\n[-o]\n[/x]\n")


class DocumentTest(unittest.TestCase):
    GOOD = (
        '{"checkDate":"2026-01-02T03:04:05Z",'
        '"features":[{"name":"a","source":"installed"},{"name":"b","source":"granted"}]}\n'
    )

    def test_right_document_is_accepted(self):
        "A features document of the published form is taken and parsed."
        self.assertEqual(len(check_features_document(self.GOOD.encode())["features"]), 2)

    def test_wrong_document_is_called_wrong(self):
        "Each single departure from the published form is found."
        changes = [
            ("}\n", "}"),
            ("}\n", "}\n\n"),
            ("}\n", ""),
            ("05Z", "05"),
            ("05Z", "05.000Z"),
            ('"2026-01-02T03:04:05Z"', "5"),
            ("checkDate", "date"),
            ('"checkDate"', '"a":1,"checkDate"'),
            ('"features":[', '"features":5,"x":['),
            ('"name":"a"', '"name":"c"'),
            ('"name":"a"', '"name":"b"'),
            ('"name":"a"', '"name":""'),
            ('"name":"a",', ""),
            ('"name":"a","source":"installed"', '"source":"installed","name":"a"'),
            ("installed", "found"),
            ("granted", ""),
            ('"name":"a"', '"extra":1,"name":"a"'),
            ('{"name":"a","source":"installed"}', "null"),
            ('"a"', '"\udcff"'),
        ]
        for old, new in changes:
            wrong = self.GOOD.replace(old, new)
            self.assertNotEqual(wrong, self.GOOD)
            with self.subTest(wrong), self.assertRaises(AssertionError):
                check_features_document(wrong.encode("utf-8", "surrogateescape"))
        with self.assertRaises(AssertionError):
            check_features_document(b"")

    def test_document_bytes(self):
        "Documents are laid out with tabs, one member a line, in the order of their bytes."
        value = {"b": {}, "a": [1, 2.5, "x\n\x1f\x7f/\\ü"], "Z": None, "ab": []}
        expected = (
            '{\n\t"Z": null,\n\t"a": [\n\t\t1,\n\t\t2.5,\n\t\t"x\\n\\u001F\x7f/\\\\ü"\n\t],\n'
            '\t"ab": [ ],\n\t"b": { }\n}\n'
        )
        self.assertEqual(document_bytes(value).decode(), expected)


class WaitingTest(unittest.TestCase):
    def test_wait_for(self):
        "Waiting gives the first true value, and fails with its text at the limit."
        values = iter([0, None, "third"])
        self.assertEqual(wait_for(lambda: next(values), "x"), "third")
        started = time.monotonic()
        with self.assertRaisesRegex(AssertionError, "the impossible"):
            wait_for(lambda: False, "the impossible", limit=0.1)
        self.assertLess(time.monotonic() - started, 5)

    def test_assert_never(self):
        "Watching fails as soon as the thing happens."
        assert_never(lambda: False, 0.05, "x")
        with self.assertRaisesRegex(AssertionError, "the event"):
            assert_never(lambda: True, 5, "the event")


class FileTest(SandboxTest):
    def test_files_are_replaced_whole(self):
        "Writing gives a new file under the old name and leaves nothing beside it."
        path = self.work_path("file")
        write_file(path, "one")
        first = os.stat(path).st_ino
        with open(path) as reader:
            write_file(path, b"two")
            self.assertEqual(reader.read(), "one")
        self.assertNotEqual(os.stat(path).st_ino, first)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o644)
        self.assertEqual(os.listdir("."), ["file"])
        self.assertEqual(read_file(write_file(path, {"a": "ü"})), b'{"a": "\\u00fc"}')

    def test_cpuinfo_changes(self):
        "What a test writes is what /proc/cpuinfo shows, even if it is shorter than before."
        self.assertEqual(read_file("/proc/cpuinfo"), harness.DEFAULT_CPUINFO.encode())
        set_cpuinfo("Serial : 1\n")
        self.assertEqual(read_file("/proc/cpuinfo"), b"Serial : 1\n")

    def test_each_test_starts_clean(self):
        "The next set-up removes what a test left in the appliance's folders."
        install_features("a", serial="s")
        os.makedirs("/var/lib/orvanta/sub/sub")
        write_file("/run/featurewatch/x", "")
        set_cpuinfo("")
        self.syslog.close()
        self.setUp()
        for folder in ("/etc/orvanta", "/var/lib/orvanta", "/run/featurewatch", "."):
            self.assertEqual(os.listdir(folder), [], folder)
        self.assertEqual(read_file("/proc/cpuinfo"), harness.DEFAULT_CPUINFO.encode())


class RunnerTest(SandboxTest):
    SAMPLE = """
import unittest
class T(unittest.TestCase):
    def test_pass(self): pass
    def test_fail(self): self.fail("no")
    def test_error(self): raise OSError
    def test_skip(self): self.skipTest("no hands")
    def test_skip_in_subtest(self):
        with self.subTest(): self.skipTest("no feet")
    def test_fail_in_subtest(self):
        with self.subTest(): self.fail("no")
    @unittest.expectedFailure
    def test_expected(self): self.fail("no")
"""

    def run_one(self, name, folder=harness.WORK):
        write_file(self.work_path("sample.py"), self.SAMPLE)
        return subprocess.run(
            [sys.executable, os.path.join(HERE, "run_test.py"), folder, name],
            capture_output=True,
            text=True,
            timeout=20,
        )

    def test_exit_status_tells_the_outcome(self):
        "The runner exits with 0 for a pass, 77 for a skip and 1 for anything else, an unknown test among it."
        rows = [
            ("sample.T.test_pass", 0),
            ("sample.T.test_fail", 1),
            ("sample.T.test_error", 1),
            ("sample.T.test_skip", 77),
            ("sample.T.test_skip_in_subtest", 77),
            ("sample.T.test_fail_in_subtest", 1),
            ("sample.T.test_expected", 1),
            ("sample.T.test_unknown", 1),
            ("sample.U.test_pass", 1),
            ("nothing.T.test_pass", 1),
            ("sample.T", 1),
            ("sample", 1),
            ("", 1),
        ]
        for name, status in rows:
            with self.subTest(name):
                self.assertEqual(self.run_one(name).returncode, status)

    def test_folder_decides_whose_test_runs(self):
        "The module comes from the given folder, a relative path too; the helpers are found from there."
        self.assertEqual(self.run_one("sample.T.test_pass", ".").returncode, 0)
        os.mkdir("elsewhere")
        self.assertEqual(self.run_one("sample.T.test_pass", "elsewhere").returncode, 1)
        other_sample = "from harness import SandboxTest\n" + self.SAMPLE.replace("test_pass", "test_x")
        write_file("elsewhere/sample.py", other_sample)
        self.assertEqual(self.run_one("sample.T.test_x", "elsewhere").returncode, 0)

    def test_skip_tells_its_reason(self):
        "The reason of a skip is on standard output."
        self.assertIn("skipped: no hands", self.run_one("sample.T.test_skip").stdout)

    def test_list_has_every_test(self):
        "The list names each test method of each file once, this one among them."
        output = subprocess.check_output([sys.executable, os.path.join(HERE, "list_tests.py"), HERE], text=True)
        names = output.splitlines()
        self.assertIn("test_harness.RunnerTest.test_list_has_every_test", names)
        self.assertEqual(len(names), len(set(names)))
        methods = 0
        for entry in os.listdir(HERE):
            if entry.startswith("test_") and entry.endswith(".py"):
                with open(os.path.join(HERE, entry)) as source:
                    methods += sum(line.startswith("    def test_") for line in source)
        self.assertEqual(len(names), methods - self.SAMPLE.count("    def test_"))
        self.assertTrue(all(name.count(".") == 2 for name in names))
