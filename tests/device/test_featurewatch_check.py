"""featurewatch-check: the state, the one line and the figures, with the daemon and documents of every kind."""

import os
import re
import shutil
import signal
import subprocess
import time

from daemon_harness import GATED_HOOK, HOOK, WatchTest, as_user, instant, launcher_of, open_gate
from harness import FEATURES_DOCUMENT, WORK, Daemon, install_features, is_alive, wait_for, write_file

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../device/featurewatch-check")
CHECK = WORK + "/featurewatch-check"  # where every user reaches it
OK, WARNING, CRITICAL, UNKNOWN = range(4)
WORDS = ("OK", "WARNING", "CRITICAL", "UNKNOWN")


def document(*names, age=0):
    return {"checkDate": instant(time.time() - age), "features": [{"name": name} for name in names]}


class CheckTest(WatchTest):
    """CheckTest has a daemon, whose document a test may replace: the daemon looks at its inputs, never at that."""

    def setUp(self):
        super().setUp()
        shutil.copy(SOURCE, CHECK)
        install_features("video-wall", "signage")
        self.daemon = Daemon(hook=HOOK)
        self.addCleanup(self.daemon.end)

    def check(self, *arguments, env=None):
        """Runs the plugin as an ordinary user; returns its state and its text, after a look at the form of its line."""
        result = subprocess.run(
            [CHECK, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env, timeout=20, **as_user()
        )
        self.assertEqual(result.stderr, b"")
        line = result.stdout.decode()
        self.assertRegex(line, r"\AFEATUREWATCH [A-Z]+: [^\n]+\n\Z")
        self.assertEqual(line.split()[1], WORDS[result.returncode] + ":")
        return result.returncode, line.split(": ", 1)[1].rstrip("\n")

    def assert_state(self, state, text, *arguments):
        found = self.check(*arguments)
        self.assertEqual((found[0], found[1].split(" | ")[0]), (state, text))

    def publish(self, content):
        write_file(FEATURES_DOCUMENT, content)


class FineTest(CheckTest):
    def test_line_of_a_daemon_at_work(self):
        "With the daemon at work the state is OK, and the line has the number of features, the date and the figures."
        state, text = self.check()
        self.assertEqual(state, OK)
        date = self.daemon.document()["checkDate"]
        form = rf"2 features, document of {date} \| features=2;;;0 age=\d+s;;"
        self.assertRegex(text, rf"\A{form}\Z")

    def test_one_feature_none_and_the_figures(self):
        "The noun follows the number, and the limit of the age is among the figures."
        self.publish(document("a"))
        self.assertRegex(self.check("--max-age", "0600")[1], r"\A1 feature, .* \| features=1;;;0 age=\d+s;;0600\Z")
        self.publish(document())
        self.assertRegex(self.check()[1], r"\A0 features, .* \| features=0;;;0 age=\d+s;;\Z")

    def test_features_that_are_there(self):
        "Features that are active are no reason for another state, in either form of the option."
        self.assertEqual(self.check("--feature", "video-wall", "--feature=signage")[0], OK)

    def test_names_of_every_kind(self):
        "A name is compared as it is: one that looks like an option, with blanks, quotes or letters beyond ASCII."
        names = ["-n", "--args", "a b", 'it\'s "so"', "\\n", "$HOME", "Größe", "a|b"]
        self.publish(document(*names))
        for name in names:
            with self.subTest(name):
                self.assertEqual(self.check("--feature", name)[0], OK)
                self.assertEqual(self.check("--feature", name + "x")[0], CRITICAL)

    def test_old_document_is_fine_without_a_limit(self):
        "Without --max-age a document of any age is fine."
        self.publish(document("a", age=10**9))
        self.assertEqual(self.check()[0], OK)

    def test_running_hook_is_fine(self):
        "The state is OK while the hook runs."
        self.daemon.stop()
        with Daemon(hook=GATED_HOOK) as daemon:
            self.wait_for_runs(1)
            self.assertEqual(self.check()[0], OK)
            open_gate()
            daemon.stop()


class TroubleTest(CheckTest):
    def test_stopped_daemon(self):
        "A daemon that is stopped is critical, though its document is still there."
        self.daemon.stop()
        self.assertTrue(os.path.exists(FEATURES_DOCUMENT))
        self.assert_state(CRITICAL, "the daemon is not running")

    def test_killed_daemon(self):
        "A daemon that was killed is critical, though its PID file is still there."
        self.daemon.signal(signal.SIGKILL)
        self.daemon.wait_until_gone()
        self.assert_state(CRITICAL, "the daemon is not running")

    def test_halted_daemon(self):
        "A daemon that was halted does no work: critical."
        self.daemon.signal(signal.SIGSTOP)
        self.assert_state(CRITICAL, "the daemon is not running")
        self.daemon.signal(signal.SIGCONT)

    def test_another_users_process_of_that_name(self):
        "A process of the same name that another user runs is not the daemon."
        self.daemon.stop()
        other = Daemon(hook=HOOK, arguments=["--no-switch-user"])
        self.addCleanup(other.end)
        self.assert_state(CRITICAL, "the daemon is not running")

    def test_no_document(self):
        "A daemon without its document is critical."
        os.unlink(FEATURES_DOCUMENT)
        self.assert_state(CRITICAL, f"no document at {FEATURES_DOCUMENT}")

    def test_unreadable_document(self):
        "A document that the plugin's user cannot read counts as none."
        self.publish(document("a"))
        os.chmod(FEATURES_DOCUMENT, 0)
        os.chown(FEATURES_DOCUMENT, 0, 0)
        self.assert_state(CRITICAL, f"no document at {FEATURES_DOCUMENT}")

    def test_documents_that_are_not_whole(self):
        "A document that is empty, cut off, twice there or of another form is critical."
        good = document("a")
        date = good["checkDate"]
        for content in (
            "",
            "\0",
            '{"checkDate": "' + date + '", "features": [',
            f"{good} {good}".replace("'", '"'),
            [],
            7,
            {"features": []},
            {"checkDate": date},
            {"checkDate": 7, "features": []},
            {"checkDate": "yesterday", "features": []},
            {"checkDate": date, "features": {}},
            {"checkDate": date, "features": ["a"]},
            {"checkDate": date, "features": [{"name": 1}]},
        ):
            with self.subTest(content):
                self.publish(content)
                self.assert_state(CRITICAL, "the document is not whole")

    def test_missing_features(self):
        "Each feature that is missing is named, and is critical."
        date = self.daemon.document()["checkDate"]
        text = f"missing: x, y; 2 features, document of {date}"
        self.assert_state(CRITICAL, text, "--feature", "x", "--feature", "signage", "--feature", "y")

    def test_names_cannot_forge_the_line(self):
        "A missing name with a line feed or a bar neither ends the line nor begins the figures."
        state, text = self.check("--feature", "a\nb|c")
        self.assertEqual(state, CRITICAL)
        self.assertTrue(text.startswith("missing: a?b?c; "), text)
        self.assertEqual(text.count("|"), 1)

    def test_too_old(self):
        "A document older than --max-age is critical, one of just that age is fine."
        self.publish(document("a", age=1000))
        state, text = self.check("--max-age", "900")
        self.assertEqual(state, CRITICAL)
        self.assertRegex(text, r"\Athe document is 100\d s old, more than 900; 1 feature, ")
        self.assertEqual(self.check("--max-age", "1100")[0], OK)

    def test_date_ahead_of_the_clock(self):
        "A document dated ahead of the clock is a warning, as its features were judged by a wrong clock."
        self.publish(document("a", age=-1000))
        state, text = self.check()
        self.assertEqual(state, WARNING)
        self.assertRegex(text, r"\Athe document is dated \d+ s ahead of the clock; 1 feature, ")
        self.publish(document("a", age=-30))
        self.assertEqual(self.check()[0], OK)

    def test_launcher_that_is_gone(self):
        "A daemon whose launcher was killed is a warning."
        launcher = launcher_of(self.daemon)
        os.kill(launcher, signal.SIGKILL)
        wait_for(lambda: not is_alive(launcher), "the launcher's end")
        text = "no process runs the hook, the next change restarts the daemon; "
        state, found = self.check()
        self.assertEqual((state, found[: len(text)]), (WARNING, text))

    def test_the_worst_state_counts(self):
        "Of several troubles the worst is the state, and all are told."
        self.publish(document("a", age=-1000))
        state, text = self.check("--feature", "x")
        self.assertEqual(state, CRITICAL)
        self.assertRegex(text, r"\Amissing: x; the document is dated \d+ s ahead of the clock; 1 feature, ")


class UsageTest(CheckTest):
    def test_wrong_usage(self):
        "Whatever is not an option with its value is unknown, and told in one line."
        for arguments in (
            ["--feature"],
            ["--feature", ""],
            ["--feature="],
            ["--max-age"],
            ["--max-age", ""],
            ["--max-age", "-1"],
            ["--max-age", "1h"],
            ["--max-age=1.5"],
            ["--maxage", "1"],
            ["--feature", "video-wall", "signage"],
            ["--"],
            ["-f"],
            [""],
            ["a\nb|c"],
        ):
            with self.subTest(arguments):
                state, text = self.check(*arguments)
                self.assertEqual(state, UNKNOWN)
                self.assertTrue(text.endswith("; see featurewatch-check --help"), text)
                self.assertNotIn("|", text)

    def test_help(self):
        "--help prints the usage and ends with UNKNOWN, so that nobody monitors with it by mistake."
        for option in ("--help", "-h"):
            result = subprocess.run([CHECK, option], stdout=subprocess.PIPE, timeout=20)
            self.assertEqual(result.returncode, UNKNOWN)
            self.assertTrue(result.stdout.startswith(b"usage: featurewatch-check "))

    def test_missing_tools(self):
        "Without jq or pgrep the state is unknown, and the line names what is missing."
        for tool in ("jq", "pgrep"):
            folder = self.work_path("without-" + tool)
            os.mkdir(folder)
            os.chmod(folder, 0o755)
            for name in {"jq", "pgrep", "cat", "date", "tr", "sh"} - {tool}:
                os.symlink(f"/usr/bin/{name}", f"{folder}/{name}")
            state, text = self.check(env={"PATH": folder})
            self.assertEqual((state, text), (UNKNOWN, f"{tool} is not installed"))

    def test_any_locale(self):
        "The line is the same in every locale."
        for locale in ("C", "C.UTF-8", "tr_TR.UTF-8"):
            environment = {"PATH": os.environ["PATH"], "LC_ALL": locale}
            self.assertIsNotNone(re.match(r"2 features, ", self.check(env=environment)[1]))
