"""The injector and the harness around it: what they tell must be so, and a fault that did not happen must not pass."""

import os
import subprocess
from dataclasses import replace

from fault_harness import FLUSH_CONTEXT, GET_CAPABILITY, NONCE, RC_RETRY, FaultTest, faults_folder, parse_log
from harness import read_file, write_file
from tpm_harness import counter, handles, parse_report, tool, verify_attestation

GET_RANDOM = 0x17B


class InjectorTest(FaultTest):
    def setUp(self):
        super().setUp()
        self.tpm.start(self._fresh)

    def get_random(self, *plan, **env):
        """Runs `tpm2_getrandom` with the injector: its result and the commands, the last of them GetRandom."""
        log = self.work_path("log")
        if os.path.exists(log):
            os.unlink(log)
        environment = {
            "PATH": os.environ["PATH"],
            "LD_LIBRARY_PATH": faults_folder(),
            "TPM_FAULT_PLAN": write_file(self.work_path("plan"), "".join(rule + "\n" for rule in plan)),
            "TPM_FAULT_LOG": log,
            "TSS2_LOG": "all+NONE",
            **env,
        }
        result = subprocess.run(["tpm2_getrandom", "--hex", "4"], env=environment, capture_output=True, timeout=10)
        return result, parse_log(read_file(log)) if os.path.exists(log) else []

    def test_log_holds_each_command(self):
        "Each command is in the log with number, code, response code, time, sizes and bytes."
        result, commands = self.get_random()
        self.assertEqual((result.returncode, len(result.stdout)), (0, 8))
        last = commands[-1]
        self.assertEqual([command.number for command in commands], list(range(1, len(commands) + 1)))
        self.assertEqual((last.code, last.rc, last.size, last.action), (GET_RANDOM, 0, 16, None))
        self.assertEqual(last.data.hex(), "80010000000c0000017b0004")
        self.assertTrue(0 < last.microseconds < 1000000)

    def test_failing_command_never_reaches_the_tpm(self):
        "A command that is to fail never reaches the TPM; the caller gets the response code."
        result, commands = self.get_random("0x17b fail 0x9a2")
        self.assertEqual(result.returncode, 1)
        self.assertEqual((commands[-1].rc, commands[-1].size, commands[-1].microseconds), (0x9A2, 10, 0))

    def test_rule_takes_the_nth_command_or_a_range(self):
        "A rule takes the nth command with a code, or a range of them; the library sends a retried command again."
        _, commands = self.get_random(f"0x17b#2-3 fail {RC_RETRY}", f"0x17b#1 fail {RC_RETRY}")
        self.assertEqual([c.rc for c in commands if c.code == GET_RANDOM], [RC_RETRY] * 3 + [0])
        _, commands = self.get_random("#1 fail 0x101")
        self.assertEqual([(c.code, c.rc) for c in commands], [(GET_CAPABILITY, 0x101)])

    def test_altered_response_arrives_as_told(self):
        "A response arrives cut, shortened with its size field, or with bits turned over."
        for rule, size, rc, status in [
            ("cut 5", 5, None, 1),
            ("cut 12", 12, 0, None),
            ("cut 16", 16, 0, 0),
            ("shorten 14", 14, 0, None),
            ("answer", 0, None, 1),
            ("answer 8001000000", 5, None, 1),
        ]:
            with self.subTest(rule):
                result, commands = self.get_random("0x17b " + rule)
                self.assertEqual((commands[-1].size, commands[-1].rc), (size, rc))
                if status is not None:
                    self.assertEqual(result.returncode, status)
        result, commands = self.get_random("0x17b flip 8 0200ff")
        self.assertEqual((result.returncode, commands[-1].size, commands[-1].rc), (1, 16, 0x200))

    def test_lost_connection_fails_in_the_tcti(self):
        "A lost connection is a failure of the TCTI, before or after the TPM has done its work."
        for rule in ("lose", "lose-once", "lose-answer", "lose-answer-once"):
            with self.subTest(rule):
                result, commands = self.get_random("0x17b " + rule)
                self.assertEqual((result.returncode, commands[-1].rc, commands[-1].size), (1, 0xA000A, None))
                self.assertEqual(commands[-1].microseconds > 0, "answer" in rule)

    def test_process_dies_before_or_after_the_command(self):
        "The process dies before the command reaches the TPM, or with the response at hand; the log stays whole."
        for rule, rc in [("kill-before", None), ("kill-after", 0)]:
            with self.subTest(rule):
                result, commands = self.get_random("0x17b " + rule)
                self.assertEqual((result.returncode, commands[-1].rc, commands[-1].action), (-9, rc, rule))

    def test_shell_command_runs_before_the_command(self):
        "A shell command runs before the TPM gets the command, with the ordinary connection."
        result, commands = self.get_random("0x17b run tpm2_getrandom --hex 2 >random; echo ${TPM_FAULT_LOG-none} >env")
        self.assertEqual((result.returncode, commands[-1].rc), (0, 0))
        self.assertEqual(len(read_file("random")), 4)
        self.assertEqual(read_file("env"), b"none\n")

    def test_mistake_in_the_plan_ends_the_process(self):
        "A plan with a mistake, or a failing command in it, can't be taken for a run without a fault."
        for rule in ("nonsense", "0x17b", "0x17b explode", "#x fail 1", "0x17b run false"):
            with self.subTest(rule):
                result, _ = self.get_random(rule)
                self.assertEqual(result.returncode, 125)
                self.assertIn(b"tpm_fault: ", result.stderr)
        self.assertEqual(self.get_random(TPM_FAULT_PLAN="/nowhere")[0].returncode, 125)


class HarnessTest(FaultTest):
    def test_fault_that_does_not_happen_fails_the_test(self):
        "A plan that no command fits fails the test."
        self.start_provisioned()
        with self.assertRaisesRegex(AssertionError, "the fault did not happen"):
            self.run_agent("-d", plan=["#1000 lose"])

    def test_handles_left_in_the_tpm_are_counted(self):
        "The handles that the harness counts are those of tpm2_getcap, and flush_all leaves none."
        self.start_provisioned()
        tool("startauthsession", "--hmac-session", "-S", "session.ctx")
        tool("createprimary", "-Q", "-G", "ecc", "-c", "primary.ctx")
        self.run_agent("-d", plan=[f"0x{FLUSH_CONTEXT:x}#2 fail 0x101"])
        self.assertEqual(self.tpm.transients(), handles("transient"))
        self.assertEqual(self.tpm.sessions(), handles("loaded-session") + handles("saved-session"))
        self.assertEqual((len(self.tpm.transients()), len(self.tpm.sessions())), (1, 2))
        self.assertEqual(len(handles("saved-session")), 1)
        self.assertEqual(self.tpm.counter(), counter())
        self.tpm.flush_all()
        self.assertEqual(handles("transient") + handles("loaded-session") + handles("saved-session"), [])

    def test_report_check_refuses_what_differs(self):
        "The check of a report refuses another value, another nonce, another answer and a changed attestation."
        self.start_provisioned()
        run = self.run_agent("-d", "-A", self.context())
        self.assert_report(run)
        report = parse_report(run.result.stdout)
        changed = bytearray(report.attestation)
        changed[-60] ^= 1  # in the clock
        for spoilt in (
            replace(report, value=report.value + 1),
            replace(report, attestation=bytes(changed)),
            replace(report, ek=report.ak_public),
        ):
            with self.assertRaises(AssertionError):
                verify_attestation(spoilt, NONCE)
        with self.assertRaises(AssertionError):
            verify_attestation(report, NONCE + b"x")
        self.tpm.start(self._fresh)
        with self.assertRaises(AssertionError):
            self.assert_report(run)
