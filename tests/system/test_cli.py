"""The command line: the scan, the rules for combinations, the choice of the run mode, usage lines and exit statuses."""

import contextlib
import itertools
import json
import os

from harness import (
    FEATURES_DOCUMENT,
    PID_FILE,
    Daemon,
    check_features_document,
    install_features,
    kill_agents,
    read_file,
    run_agent,
    start_daemon,
    write_file,
)
from tpm_harness import PreparedTpmTest, counter, parse_report

UNSUPPORTED = "Unsupported / incorrect option: "
INVALID_COMBINATION = "invalid option combination"

FIXED_USAGE = {
    1: "-s: silent mode, do not log anything",
    3: "-A file: use attestation context in file to certify device info",
    5: "-w: watch mode, dump features to watch file then daemonize and keep the information up to date",
    6: "-o: path to features info file in watch mode, default: /run/featurewatch/tally-features.json",
    7: "-x cmdline: some command line to run when features change in watch mode",
    8: "-k: kill a running daemon and exit",
    9: "--no-daemon: do not daemonize",
    10: "--no-switch-user: run as the current user, do not switch user",
    11: "-h: Print this page",
}


class CliTest(PreparedTpmTest):
    def setUp(self):
        super().setUp()
        self.counter = counter()

    def assert_usage(self, data):
        self.assertTrue(data.endswith(b"\n"))
        lines = data.decode().split("\n")[:-1]
        self.assertEqual(len(lines), 12)
        self.assertIn("featurewatch", lines[0])
        self.assertEqual({number: lines[number] for number in FIXED_USAGE}, FIXED_USAGE)
        self.assertRegex(lines[2], r"^-d: .*print.* device info")
        self.assertRegex(lines[4], r"^-R: .*increment.* tally counter .*TPM.*unconditional.*impl.*-d")

    def assert_plain_mode(self, result):
        self.assert_success(result)
        self.assertEqual(result.stderr, b"", str(result))
        check_features_document(result.stdout)

    def assert_report(self, result):
        """A report, with the counter as it was."""
        self.assert_success(result)
        self.assertEqual(json.loads(result.stdout)["serial"], "0000abcd", str(result))
        self.assertEqual(result.stderr, b"", str(result))
        report = parse_report(result.stdout)
        self.assertEqual(report.attestation is not None, "-A" in result.arguments[:-1], str(result))
        self.assertEqual((report.value, counter()), (self.counter, self.counter), str(result))

    def assert_increment_mode(self, result):
        """A report, with the counter incremented by one."""
        self.counter += 1
        self.assert_report(result)

    def assert_invalid_combination(self, result):
        self.assert_failure(result, ("FATAL", INVALID_COMBINATION))

    def assert_kill_failed(self, result):
        self.assert_failure(result, ("FATAL", "failed to kill daemon: No such file or directory"))

    def assert_daemon_started(self, result, document=FEATURES_DOCUMENT):
        self.assert_success(result)
        self.assertEqual(result.stdout, b"", str(result))
        check_features_document(read_file(document))
        self.assertTrue(os.path.exists(PID_FILE))
        kill_agents()
        os.unlink(document)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(PID_FILE)  # a launcher that found its daemon dead has removed it

    def assert_unsupported(self, result, argument):
        self.assertEqual(result.status, 1, str(result))
        self.assert_records(result, ("FATAL", UNSUPPORTED + argument))
        self.assert_usage(result.stdout)


class UsageTest(CliTest):
    def test_help_prints_usage_and_succeeds(self):
        "-h prints exactly the usage lines on standard output, logs nothing and ends with status 0."
        result = run_agent("-h")
        self.assert_success(result)
        self.assert_usage(result.stdout)
        self.assertEqual(result.stderr, b"")
        self.assertEqual(self.syslog.datagrams(), [])

    def test_help_acts_in_the_middle_of_the_scan(self):
        "-h wins over everything after it and over every rule about what comes before it."
        for arguments in (
            ["-h", "foo"],
            ["-d", "-w", "-k", "-h"],
            ["-A", "missing", "-h"],
            ["-w", "-o", "", "-h", "-d"],
            ["--bogus", "-", "-h"],
            ["-s", "-h"],
            ["-R", "-h"],
        ):
            with self.subTest(arguments):
                result = run_agent(*arguments)
                self.assert_success(result)
                self.assert_usage(result.stdout)
                self.assertEqual(result.stderr, b"")
        self.assertEqual(self.syslog.datagrams(), [])

    def test_help_names_the_default_path_whatever_o_says(self):
        "The usage line of -o names the built-in path though another was given before."
        self.assert_usage(run_agent("-o", "/elsewhere", "-h").stdout)

    def test_usage_after_an_error_goes_to_standard_output(self):
        "After a bad argument the usage lines are on standard output and the one record on standard error."
        result = run_agent("foo")
        self.assert_unsupported(result, "foo")
        self.assertEqual(result.stderr.count(b"\n"), 1)
        self.assertEqual(result.stdout, run_agent("-h").stdout)


class ScanTest(CliTest):
    def test_no_argument_is_plain_mode(self):
        "Without arguments the features document goes to standard output."
        install_features("video-wall")
        result = run_agent()
        self.assert_plain_mode(result)
        self.assertIn(b'"video-wall"', result.stdout)

    def test_unknown_option_is_dropped(self):
        "An unknown option has no effect and causes no message."
        for option in ("--bogus", "-z", "--help", "-D", "-S", "--", "---", "-\xe9", "--no-daemonize", "--no-switch"):
            with self.subTest(option):
                self.assert_plain_mode(run_agent(option))

    def test_options_are_whole_words(self):
        "Joined letters and options with '=' are unknown options."
        for option in "-dw -d- -dk -kw -hh -h=1 -ofile -o=file --output=x -Afile -Rd -sfoo".split() + ["-d ", "-d\n"]:
            with self.subTest(option):
                self.assert_plain_mode(run_agent(option))
        self.assert_unsupported(run_agent(" -d"), " -d")

    def test_lone_dash_is_dropped(self):
        "A lone dash is the same as no argument."
        self.assert_plain_mode(run_agent("-"))
        self.assert_report(run_agent("-", "-d", "-"))

    def test_first_argument_without_dash_is_reported(self):
        "The first argument without a dash ends the scan and is reported; unknown options before it are not."
        rows = [
            (["foo"], "foo"),
            (["foo", "-h"], "foo"),
            (["foo", "bar"], "foo"),
            (["--bogus", "foo"], "foo"),
            (["-d", "foo", "-w"], "foo"),
            (["-d", "-w", "foo"], "foo"),
            (["-w", "foo"], "foo"),
            (["-k", "foo"], "foo"),
            (["-A", "a", "b"], "b"),
            (["-o", "a", "b"], "b"),
            (["-x", "a", "b"], "b"),
            (["--no-daemon", "5"], "5"),
            (["-w", "-o", "", "d"], "d"),
        ]
        for arguments, argument in rows:
            with self.subTest(arguments):
                self.assert_unsupported(run_agent(*arguments), argument)
        self.assertEqual(os.listdir("/run/featurewatch"), [])

    def test_empty_argument_ends_the_scan(self):
        "An empty argument is a bad argument, shown as empty text."
        self.assert_unsupported(run_agent(""), "")
        self.assert_unsupported(run_agent("-d", "", "-h"), "")

    def test_argument_is_shown_unchanged(self):
        "Percent signs, blanks, a line feed, other alphabets and great length do not change the shown argument."
        for argument in ("%s%n%1000000d", "a b\tc", "für 日本 😀", "x" * 100000):
            with self.subTest(argument[:20]):
                self.assert_unsupported(run_agent(argument), argument)
        result = run_agent("first\nsecond")
        self.assertTrue(result.stderr.endswith(b"option: first\nsecond\n"), str(result))

    def test_argument_that_is_no_utf8_does_no_harm(self):
        "An argument with bytes that are no UTF-8 is refused like any other."
        for argument in (b"foo\xff", b"\xc3", b"\xed\xa0\x80", b"a\x01b"):
            with self.subTest(argument):
                result = run_agent(argument)
                self.assertEqual(result.status, 1, str(result))
                self.assert_usage(result.stdout)
                self.assertIn(b" FATAL: Unsupported / incorrect option: ", result.stderr)

    def test_value_options_take_any_next_argument(self):
        "-A, -o and -x take the next argument whatever it looks like."
        self.assert_failure(
            run_agent("-d", "-A", "-d"),
            ("ERROR", "failed to open -d"),
            ("FATAL", "failed collecting device information"),
        )
        self.assert_failure(
            run_agent("-d", "-A", "-h"),
            ("ERROR", "failed to open -h"),
            ("FATAL", "failed collecting device information"),
        )
        self.assert_plain_mode(run_agent("-o", "-h"))
        self.assert_plain_mode(run_agent("-x", "-d"))
        self.assert_plain_mode(run_agent("-x", "-A"))
        self.assert_plain_mode(run_agent("-o", "-w", "-x", "-k"))
        self.assert_report(run_agent("-x", "-w", "-o", "-k", "-d"))

    def test_value_options_without_value_are_dropped(self):
        "-A, -o and -x as the last argument have no effect."
        for option in ("-A", "-o", "-x"):
            with self.subTest(option):
                self.assert_plain_mode(run_agent(option))
                self.assert_report(run_agent("-d", option))
                self.assert_kill_failed(run_agent("-k", option))

    def test_watch_with_o_standing_last_keeps_the_default_path(self):
        "-w with -o and no value publishes at the default path."
        self.assert_daemon_started(start_daemon(hook="true", arguments=["-x", "true"]))
        arguments = ["-w", "-x", "true", "--no-switch-user", "-o"]
        self.assert_daemon_started(run_agent(*arguments, limit=20))

    def test_later_value_replaces_the_earlier(self):
        "Of two -A the second counts, and so for -o."
        context = write_file(self.work_path("context"), {"cbData": "second"})
        result = run_agent("-d", "-A", "missing", "-A", context)
        self.assert_report(result)
        self.assertEqual(json.loads(result.stdout)["cbData"], "second")
        self.assert_failure(
            run_agent("-d", "-A", context, "-A", "missing"),
            ("ERROR", "failed to open missing"),
            ("FATAL", "failed collecting device information"),
        )
        other = "/run/featurewatch/other.json"
        self.assert_daemon_started(start_daemon(arguments=["-o", "", "-o", other]), other)
        self.assert_invalid_combination(run_agent("-w", "-o", other, "-o", ""))

    def test_later_hook_replaces_the_earlier(self):
        "Of two -x the second is run."
        hooks = [f"touch {self.work_path(name)}" for name in ("first", "second")]
        with Daemon(hook=hooks[1], arguments=["-x", hooks[0], "--no-switch-user"]) as daemon:
            daemon.stop()
        self.assertEqual(os.listdir("."), ["second"])

    def test_flags_may_be_repeated(self):
        "A flag given twice is the same as given once."
        self.assert_report(run_agent("-d", "-d"))
        self.assert_kill_failed(run_agent("-k", "-k"))
        self.assert_increment_mode(run_agent("-R", "-R"))
        result = run_agent("-s", "-s", "foo")
        self.assertEqual(result.stderr, b"FATAL: " + UNSUPPORTED.encode() + b"foo\n")

    def test_ten_thousand_unknown_options_are_dropped(self):
        "Ten thousand dropped options are dropped."
        self.assert_plain_mode(run_agent(*["--bogus"] * 10000))


class CombinationTest(CliTest):
    """CombinationTest goes through every combination of the options that take part in a rule or choose a mode."""

    CHOICES = [
        ("-d",),
        ("-R",),
        ("-w",),
        ("-k",),
        ("-A", "context"),
        ("-o", "document"),
        ("-o", "empty"),
    ]

    def setUp(self):
        super().setUp()
        self.document = "/run/featurewatch/mine.json"
        self.values = {
            "context": write_file(self.work_path("context"), {"cbData": "x"}),
            "document": self.document,
            "empty": "",
        }

    def combinations(self):
        """All sets of CHOICES, with at most one -o."""
        for bits in itertools.product((False, True), repeat=len(self.CHOICES)):
            chosen = [choice for bit, choice in zip(bits, self.CHOICES) if bit]
            if sum(choice[0] == "-o" for choice in chosen) < 2:
                yield chosen

    def expected(self, chosen):
        names = {choice[0] for choice in chosen}
        report = bool(names & {"-d", "-R"})
        if report + ("-w" in names) + ("-k" in names) > 1:
            return "invalid"
        if "-A" in names and not report:
            return "invalid"
        if "-w" in names and ("-o", "empty") in chosen:
            return "invalid"
        if "-k" in names:
            return "kill"
        if "-w" in names:
            return "watch"
        return "increment" if "-R" in names else "report" if report else "plain"

    def check(self, chosen):
        arguments = [self.values.get(word, word) for choice in chosen for word in choice]
        outcome = self.expected(chosen)
        result = run_agent("-x", "true", "--no-switch-user", *arguments, limit=20)
        if outcome == "watch":
            document = self.document if ("-o", "document") in chosen else FEATURES_DOCUMENT
            self.assert_daemon_started(result, document)
        else:
            checks = {
                "invalid": self.assert_invalid_combination,
                "kill": self.assert_kill_failed,
                "increment": self.assert_increment_mode,
                "report": self.assert_report,
                "plain": self.assert_plain_mode,
            }
            checks[outcome](result)
        self.assertEqual(os.listdir("/run/featurewatch"), [])
        return outcome

    def check_all(self, order):
        outcomes = []
        for chosen in self.combinations():
            with self.subTest(chosen):
                outcomes.append(self.check(order(chosen)))
        self.assertEqual(len(outcomes), 96)
        self.assertEqual(
            {name: outcomes.count(name) for name in outcomes},
            {"invalid": 70, "kill": 3, "watch": 2, "report": 6, "increment": 12, "plain": 3},
        )

    def test_every_combination_runs_its_mode_or_is_refused(self):
        "Each combination of -d -R -w -k -A -o (an empty path too) runs its mode, or is refused without usage lines."
        self.check_all(lambda chosen: chosen)

    def test_order_of_the_options_makes_no_difference(self):
        "The order of the options makes no difference."
        self.check_all(lambda chosen: list(reversed(chosen)))

    def test_other_options_take_part_in_no_rule(self):
        "--no-daemon, --no-switch-user, -x, -o and -s go with every mode."
        extra = ["--no-daemon", "--no-switch-user", "-x", "foo", "-o", ""]
        self.assert_plain_mode(run_agent(*extra))
        self.assert_report(run_agent(*extra, "-d"))
        self.assert_kill_failed(run_agent(*extra, "-k"))
        self.assert_increment_mode(run_agent(*extra, "-R"))
        self.assert_plain_mode(run_agent(*extra, "-s"))

    def test_empty_context_path_counts_as_given(self):
        "-A with an empty path is a given -A."
        self.assert_invalid_combination(run_agent("-A", ""))
        self.assert_failure(
            run_agent("-d", "-A", ""),
            ("ERROR", "failed to open "),
            ("FATAL", "failed collecting device information"),
        )

    def test_silent_refusal_still_shows_its_record(self):
        "With -s a refused combination still gives its FATAL record and status 1."
        result = run_agent("-s", "-w", "-k")
        self.assertEqual((result.status, result.stdout), (1, b""))
        self.assertEqual(result.stderr, b"FATAL: invalid option combination\n")

    def test_refused_kill_stops_no_daemon(self):
        "A refused combination with -k leaves a running daemon alone; -k alone stops it."
        with Daemon(arguments=["--no-switch-user"]) as daemon:
            for arguments in (["-k", "-d"], ["-k", "-R"], ["-k", "-w"], ["-k", "-A", "x"], ["-k", "foo"]):
                with self.subTest(arguments):
                    self.assertEqual(run_agent(*arguments).status, 1)
            self.assertTrue(daemon.is_running())
            result = daemon.stop()
            self.assertEqual((result.stdout, result.stderr), (b"", b""))

    def test_plain_mode_writes_no_file(self):
        "Neither plain mode nor the report writes a file or runs the hook, whatever -o and -x say."
        before = sorted(os.listdir("."))
        for arguments in ([], ["-d"]):
            run_agent(*arguments, "-o", self.work_path("out"), "-x", f"touch {self.work_path('hooked')}")
            self.assertEqual(sorted(os.listdir(".")), before)
            self.assertEqual(os.listdir("/run/featurewatch"), [])
