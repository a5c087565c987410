"""Log records as they arrive on standard error and in syslog, and what must have no influence on them."""

import os
import signal
import subprocess
import time

from harness import (
    FEATURES_DOCUMENT,
    INSTALLED_FEATURES,
    PID_FILE,
    Daemon,
    SandboxTest,
    agent_environment,
    agent_path,
    check_features_document,
    install_features,
    read_file,
    run_agent,
    start_daemon,
    wait_for,
    wait_until_watching,
    write_file,
)
from tpm_harness import PreparedTpmTest, parse_report

DAEMON_FACILITY = 3
EMERGENCY, ERROR, WARNING, INFO = 0, 3, 4, 6
REFUSED = "Unsupported / incorrect option: "


def in_shell(redirections, *arguments, **keywords):
    """Runs the agent with some descriptors closed or redirected by a shell, as in '2>&-'."""
    script = f'exec "$0" "$@" {redirections}'
    return run_agent("-c", script, agent_path(), *arguments, program="/bin/sh", **keywords)


class FormatTest(PreparedTpmTest):
    def three_levels(self, *options):
        """One run each with a WARN, an ERROR and a FATAL record."""
        install_features("", "good")
        warned = run_agent(*options)
        write_file(INSTALLED_FEATURES, "{")
        failed = run_agent(*options)
        refused = run_agent(*options, "foo")
        return warned, failed, refused

    def test_record_on_standard_error(self):
        "A record is one line: time of day with milliseconds, blank, level, colon, blank, text."
        for result, level in zip(self.three_levels(), ("WARN", "ERROR", "FATAL")):
            with self.subTest(level):
                self.assertRegex(result.stderr, rb"\A\d\d:\d\d:\d\d\.\d{3} " + level.encode() + rb": [^\n]+\n\Z")

    def test_time_is_the_local_time(self):
        "The time of a record is now, in the local time zone."
        for zone in ("UTC", "AAA-9", "BBB+3:30"):
            with self.subTest(zone):
                before = time.time()
                stamp = run_agent("foo", env={"TZ": zone}).records[0].time
                after = time.time()
                shift = {"UTC": 0, "AAA-9": 9 * 3600, "BBB+3:30": -(3 * 3600 + 1800)}[zone]
                hours, minutes, seconds = stamp.split(":")
                told = int(hours) * 3600 + int(minutes) * 60 + float(seconds)
                since_before = (told - (int(before * 1000) / 1000 + shift)) % 86400
                self.assertLessEqual(since_before, after - before + 0.001)

    def test_silent_mode_keeps_fatal_records_only(self):
        "With -s only FATAL records are left, on standard error without a time."
        warned, failed, refused = self.three_levels("-s")
        self.assertEqual((warned.stderr, failed.stderr), (b"", b""))
        self.assertEqual(refused.stderr, b"FATAL: " + REFUSED.encode() + b"foo\n")
        self.assertEqual(self.syslog.texts(), [f"FATAL orv.featurewatch     - {REFUSED}foo"])

    def test_record_in_syslog(self):
        "The same record goes to syslog: facility DAEMON, its level's priority, level, logger and text in columns."
        results = self.three_levels()
        rows = [("WARN ", WARNING), ("ERROR", ERROR), ("FATAL", EMERGENCY)]
        records = self.syslog.records()
        self.assertEqual(len(records), 3, self.syslog.datagrams())
        for result, record, (level, severity) in zip(results, records, rows):
            with self.subTest(level):
                self.assertEqual((record.facility, record.severity), (DAEMON_FACILITY, severity))
                self.assertEqual((record.ident, record.pid), ("featurewatch", None))
                self.assertRegex(record.text, rf"\A{level} orv\.\S+ *- ")
                self.assertEqual(len(record.text.split(" - ")[0]), len("FATAL") + 1 + 20)
                self.assertTrue(record.text.endswith(" - " + result.records[0].text), record.text)
        self.assertEqual(records[2].text, f"FATAL orv.featurewatch     - {REFUSED}foo")

    def test_info_records_are_shown_and_debug_records_are_not(self):
        "The daemon's INFO records reach standard error and syslog; nothing logs at DEBUG."
        install_features("video-wall")
        with Daemon(foreground=True, arguments=["--no-switch-user"]) as daemon:
            record = daemon.wait_for_record("features list updated: ")
            self.assertEqual((record.level, record.text), ("INFO", "features list updated: video-wall"))
            logged = self.syslog.wait_for_text("features list updated: ")
            self.assertEqual(logged.text, "INFO  orv.featurewatch     - features list updated: video-wall")
            self.assertEqual((logged.facility, logged.severity), (DAEMON_FACILITY, INFO))
            daemon.signal(signal.SIGTERM)
            self.assertEqual(daemon.wait(), 0)
            self.assertNotIn("DEBUG", {record.level for record in daemon.stderr_records()})
        self.assertFalse([text for text in self.syslog.texts() if text.startswith("DEBUG")])

    def test_daemon_logs_under_its_identity(self):
        "The daemon's syslog records carry the name featurewatch and its process id."
        with Daemon(arguments=["--no-switch-user"]) as daemon:
            record = self.syslog.wait_for_text("started with PID")
            self.assertEqual(record.text, f"INFO  orv.featurewatch     - featurewatch started with PID {daemon.pid}")
            self.assertEqual((record.ident, record.pid), ("featurewatch", daemon.pid))
            self.assertEqual(daemon.start_result.stderr, b"")
        self.assertEqual({record.ident for record in self.syslog.records()}, {"featurewatch"})

    def test_failed_start_is_logged_by_the_starting_command(self):
        "The starting command shows the failure of its daemon on standard error and in syslog."
        result = start_daemon(document="/run/featurewatch/missing/document", arguments=["--no-switch-user"])
        self.assertEqual((result.status, result.stdout), (1, b""), str(result))
        self.assert_records(result, ("FATAL", "forked daemon failed (1)"))
        self.syslog.wait_for_text("FATAL orv.featurewatch     - failed to write initial status")
        self.syslog.wait_for_text("FATAL orv.featurewatch     - forked daemon failed (1)")

    def test_successful_runs_log_nothing(self):
        "A report and a features document come without any record."
        for arguments in ([], ["-d"], ["-R"], ["-h"], ["-s"]):
            result = run_agent(*arguments)
            self.assertEqual((result.status, result.stderr), (0, b""))
        self.assertEqual(self.syslog.datagrams(), [])


class ForeignConfigurationTest(PreparedTpmTest):
    """ForeignConfigurationTest leaves log4cxx configurations where that library looks by itself."""

    PROPERTIES = """log4j.rootLogger=DEBUG, F
log4j.appender.F=org.apache.log4j.FileAppender
log4j.appender.F.File=/run/test/written.log
log4j.appender.F.layout=org.apache.log4j.SimpleLayout
"""
    XML = """<?xml version="1.0" encoding="UTF-8" ?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
<appender name="F" class="org.apache.log4j.FileAppender"><param name="file" value="/run/test/written.log"/>
<layout class="org.apache.log4j.SimpleLayout"/></appender>
<root><priority value="debug"/><appender-ref ref="F"/></root>
</log4j:configuration>
"""

    def check_runs(self, env=None):
        before = sorted(os.listdir("."))
        result = run_agent("foo", env=env)
        self.assertEqual(result.status, 1)
        self.assertRegex(result.stderr, rb"\A\d\d:\d\d:\d\d\.\d{3} FATAL: Unsupported / incorrect option: foo\n\Z")
        self.assertEqual(run_agent("-d", env=env).stderr, b"")
        with Daemon(arguments=["--no-switch-user"], env=env) as daemon:
            self.syslog.wait_for_text(f"started with PID {daemon.pid}")
            daemon.stop()
        with Daemon(arguments=["--no-switch-user"], env=env, foreground=True) as daemon:
            daemon.wait_for_record("features list updated")
        self.assertEqual(sorted(os.listdir(".")), before)

    def test_files_in_the_current_folder_configure_nothing(self):
        "A logging configuration in the current folder is not read."
        files = {"log4cxx.properties": self.PROPERTIES, "log4cxx.xml": self.XML, "log4j.xml": self.XML}
        for name, content in files.items():
            with self.subTest(name):
                write_file(name, content)
                self.check_runs()
                os.unlink(name)

    def test_environment_configures_nothing(self):
        "A logging configuration that the environment names is not read."
        for name, content in (("mine.properties", self.PROPERTIES), ("mine.xml", self.XML)):
            with self.subTest(name):
                path = write_file(self.work_path(name), content)
                self.check_runs({"LOG4CXX_CONFIGURATION": path, "log4j.configuration": path})

    def test_broken_files_in_the_current_folder_do_no_harm(self):
        "A logging configuration that could not even be read changes nothing either."
        write_file("log4cxx.xml", "<")
        self.check_runs({"LOG4CXX_CONFIGURATION": "/nonexistent.xml", "LOG4CXX_DEBUG": "1", "log4j.debug": "true"})


class TextTest(SandboxTest):
    LOCALES = [
        {},
        {"LANG": "C"},
        {"LC_ALL": "C"},
        {"LC_ALL": "POSIX"},
        {"LC_ALL": "C.UTF-8"},
        {"LC_ALL": "de_DE.ISO-8859-1"},
        {"LC_ALL": "ja_JP.SJIS"},
        {"LANG": "de_DE.UTF-8", "LC_NUMERIC": "de_DE"},
        {"LC_CTYPE": "nonsense"},
        {"LC_ALL": ""},
    ]

    def test_text_is_unchanged_in_every_locale(self):
        "Text in UTF-8 arrives byte by byte, on standard error and in syslog, whatever the locale."
        text = "für é 日本 😀 \u0301 \u00ff"
        for locale in self.LOCALES:
            with self.subTest(locale):
                self.syslog.clear()
                result = run_agent(text, env=locale)
                expected = f" FATAL: {REFUSED}{text}\n".encode()
                self.assertTrue(result.stderr.endswith(expected), str(result))
                self.assertEqual(self.syslog.texts(), [f"FATAL orv.featurewatch     - {REFUSED}{text}"])

    def test_system_messages_are_not_translated(self):
        "The system's own error texts are English in every locale."
        for locale in self.LOCALES:
            with self.subTest(locale):
                result = run_agent("-k", env={**locale, "LANGUAGE": "de:fr"})
                self.assert_records(result, ("FATAL", "failed to kill daemon: No such file or directory"))

    def test_numbers_do_not_depend_on_the_locale(self):
        "A fraction in a document has a point in every locale."
        install_features({"name": "a", "params": {"rate": 0.5}})
        for locale in self.LOCALES:
            with self.subTest(locale):
                self.assertIn(b'"rate": 0.5\n', run_agent(env=locale).stdout)

    def test_long_record_is_whole(self):
        "A record far longer than any buffer is whole on standard error, and in syslog in numbered pieces."
        text = "0123456789" * 600
        result = run_agent(text)
        self.assert_records(result, ("FATAL", REFUSED + text))
        pieces = self.syslog.texts()
        joined = ""
        for number, piece in enumerate(pieces, 1):
            mark = f"({number}/{len(pieces)})"
            self.assertTrue(piece.endswith(mark), piece[-20:])
            joined += piece.removesuffix(mark)
        self.assertEqual(joined, f"FATAL orv.featurewatch     - {REFUSED}{text}\n")


class ClosedDescriptorTest(PreparedTpmTest):
    def usage(self):
        return run_agent("-h").stdout

    def test_closed_standard_error(self):
        "With standard error closed the runs do the same, and no record strays into anything else."
        result = in_shell("2>&-", "foo")
        self.assertEqual((result.status, result.stdout), (1, self.usage()))
        self.assertEqual(self.syslog.texts(), [f"FATAL orv.featurewatch     - {REFUSED}foo"])
        install_features("", "good")
        result = in_shell("2>&-")
        self.assertEqual(result.status, 0)
        check_features_document(result.stdout)
        result = in_shell("2>&-", "-d")
        self.assertEqual(result.status, 0)
        parse_report(result.stdout)

    def test_all_descriptors_closed(self):
        "With all three standard descriptors closed a run ends in order."
        install_features("", "good")
        for arguments in ([], ["-d"], ["-h"], ["foo"], ["-k"], ["-d", "-A", "missing"]):
            with self.subTest(arguments):
                result = in_shell("<&- >&- 2>&-", *arguments)
                self.assertIn(result.status, (0, 1))

    def test_records_stay_out_of_the_published_document(self):
        "A daemon started with closed descriptors publishes a whole document and no record in it."
        install_features("", "good")
        for redirections in ("2>&-", ">&- 2>&-", "<&- >&- 2>&-", "<&-"):
            with self.subTest(redirections):
                result = in_shell(redirections, "-w", "-x", "true", "--no-switch-user", limit=20)
                self.assertEqual(result.status, 0, str(result))
                document = check_features_document(read_file(FEATURES_DOCUMENT))
                self.assertEqual([feature["name"] for feature in document["features"]], ["good"])
                self.assertRegex(read_file(PID_FILE), rb"\A\d+\n\Z")
                self.assertEqual(run_agent("-k").status, 0)
                os.unlink(FEATURES_DOCUMENT)

    def test_foreground_daemon_with_closed_standard_error(self):
        "The daemon in the foreground lives on without standard error, and its document stays clean."
        install_features("", "good")
        process = subprocess.Popen(
            ["/bin/sh", "-c", 'exec "$0" -w -x true --no-daemon --no-switch-user <&- >&- 2>&-', agent_path()],
            env=agent_environment(),
        )
        try:
            wait_for(lambda: os.path.exists(FEATURES_DOCUMENT), "the document")
            check_features_document(read_file(FEATURES_DOCUMENT))
            wait_until_watching(process.pid)
            install_features("", "better")
            wait_for(lambda: b"better" in read_file(FEATURES_DOCUMENT), "the new document")
            check_features_document(read_file(FEATURES_DOCUMENT))
            process.terminate()
            self.assertEqual(process.wait(10), 0)
        finally:
            process.kill()
            process.wait()

    def test_full_standard_error(self):
        "A standard error that takes nothing does not change the outcome."
        result = in_shell("2>/dev/full", "foo")
        self.assertEqual((result.status, result.stdout), (1, self.usage()))

    def test_without_syslog(self):
        "Where nobody listens at /dev/log the runs do the same."
        self.syslog.close()
        self.assert_records(run_agent("foo"), ("FATAL", REFUSED + "foo"))
        install_features("good")
        with Daemon(arguments=["--no-switch-user"]) as daemon:
            self.assertEqual(daemon.names(), ["good"])
            daemon.stop()
