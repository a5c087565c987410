"""Other clients of the TPM break the audit session's exclusivity: the agent tries again, and gives up in the end."""

import os
from itertools import pairwise

from fault_harness import (
    ACTIVATE_CREDENTIAL,
    GET_SESSION_AUDIT_DIGEST,
    NV_READ,
    RC_EXCLUSIVE,
    START_AUTH_SESSION,
    FaultTest,
    failed,
    faults_folder,
)
from harness import agent_environment, read_file

AUDIT_DIGEST = f"0x{GET_SESSION_AUDIT_DIGEST:x}"
OTHER_CLIENT = "run tpm2_getrandom 1 >/dev/null"
REFUSED = 0x101
MILLISECOND = 1000000
SHORTEST, LONGEST = 100, 1000


class ExclusiveTest(FaultTest):
    def setUp(self):
        super().setUp()
        self.start_provisioned()

    def certify(self, *plan, context=None, **env):
        """A report with certification; its sleeps take no time but are in `self.sleeps`, in nanoseconds."""
        log = self.work_path("sleeps")
        open(log, "w").close()
        sanitizer = ":".join(filter(None, [agent_environment().get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
        env["LD_PRELOAD"] = os.path.join(faults_folder(), "libsleep_log.so")
        env.update(SLEEP_LOG=log, ASAN_OPTIONS=sanitizer)
        run = self.run_agent("-d", "-A", context or self.context(), plan=plan, env=env)
        sleeps = [line.split() for line in read_file(log).decode().splitlines()]
        self.assertTrue(all(int(part) < 1000 * MILLISECOND for _, part in sleeps))
        self.sleeps = [int(seconds) * 1000 * MILLISECOND + int(part) for seconds, part in sleeps]
        return run

    def assert_attempts(self, run, count):
        """So many whole attempts, each a read and a digest, and a sleep of proper length before each but the first."""
        attempts = [c.code for c in run.commands if c.code in (NV_READ, GET_SESSION_AUDIT_DIGEST)]
        self.assertEqual(attempts, [NV_READ, GET_SESSION_AUDIT_DIGEST] * count, str(run))
        self.assertEqual(len(self.sleeps), count - 1, str(run))
        for nanoseconds in self.sleeps:
            self.assertEqual(nanoseconds % MILLISECOND, 0, nanoseconds)
            self.assertTrue(SHORTEST <= nanoseconds // MILLISECOND <= LONGEST, nanoseconds)

    def assert_certification_failed(self, run, text, rc):
        self.assert_failure(run.result, ("ERROR", failed(text, rc)), ("FATAL", "failed collecting device information"))
        self.assert_nothing_left(run)

    def test_tenth_attempt_counts_after_nine_refusals(self):
        "After nine refusals the tenth attempt counts: there is a report, and it covers a single read."
        run = self.certify(f"{AUDIT_DIGEST}#1-9 fail {RC_EXCLUSIVE}")
        self.assert_report(run)
        self.assert_no_records(run.result)
        self.assert_attempts(run, 10)
        self.assert_nothing_left(run)

    def test_ten_refusals_end_the_run(self):
        "After ten refusals the run ends with a record of ten tries."
        run = self.certify(f"{AUDIT_DIGEST} fail {RC_EXCLUSIVE}")
        self.assert_certification_failed(
            run,
            "failed to get audit session digest to certify read tally counter NV index after 10 tries",
            RC_EXCLUSIVE,
        )
        self.assert_attempts(run, 10)

    def test_no_retry_without_need(self):
        "When nobody disturbs there is one attempt and no sleep."
        run = self.certify()
        self.assert_report(run)
        self.assert_attempts(run, 1)

    def test_delays_are_drawn_again_in_each_run(self):
        "The delays are drawn again in each run and cover the range."
        drawn = []
        for _ in range(4):
            self.certify(f"{AUDIT_DIGEST} fail {RC_EXCLUSIVE}")
            self.assertGreater(len(set(self.sleeps)), 1)
            drawn.append(self.sleeps)
        self.assertTrue(all(before != after for before, after in pairwise(drawn)), drawn)
        milliseconds = [nanoseconds // MILLISECOND for sleeps in drawn for nanoseconds in sleeps]
        # The odds that 36 draws from 901 values all miss the lower or the upper half are 1 to 30 billion.
        self.assertLess(min(milliseconds), 550)
        self.assertGreaterEqual(max(milliseconds), 550)

    def test_interrupted_sleep_goes_on(self):
        "A sleep that a signal ends goes on for the time that remains."
        run = self.certify(f"{AUDIT_DIGEST}#1-3 fail {RC_EXCLUSIVE}", SLEEP_INTERRUPTED="1")
        self.assert_report(run)
        self.assertEqual(len(self.sleeps), 6)
        for begun, rest in zip(self.sleeps[::2], self.sleeps[1::2]):
            self.assertEqual(rest, begun // 3)

    def test_second_attempt_succeeds_after_another_clients_command(self):
        "A command of another client between read and digest makes the TPM refuse; the second attempt succeeds."
        run = self.certify(f"{AUDIT_DIGEST}#1 {OTHER_CLIENT}")
        self.assert_report(run)
        self.assertEqual([c.rc for c in run.of(GET_SESSION_AUDIT_DIGEST)], [RC_EXCLUSIVE, 0], str(run))
        self.assert_attempts(run, 2)
        self.assert_nothing_left(run)

    def test_other_client_that_never_stops_ends_the_run(self):
        "Another client that comes between each time makes the TPM refuse ten times, and the run ends."
        run = self.certify(f"{AUDIT_DIGEST} {OTHER_CLIENT}")
        self.assertEqual([c.rc for c in run.of(GET_SESSION_AUDIT_DIGEST)], [RC_EXCLUSIVE] * 10, str(run))
        self.assert_certification_failed(
            run,
            "failed to get audit session digest to certify read tally counter NV index after 10 tries",
            RC_EXCLUSIVE,
        )
        self.assert_attempts(run, 10)

    def test_other_client_before_the_read_does_no_harm(self):
        "Commands of another client before the read do no harm."
        run = self.certify(f"0x{NV_READ:x} {OTHER_CLIENT}", f"0x{ACTIVATE_CREDENTIAL:x} {OTHER_CLIENT}")
        self.assert_report(run)
        self.assert_attempts(run, 1)

    def test_other_code_ends_the_attempts(self):
        "Any other refusal ends the attempts, and the record counts those that were made."
        run = self.certify(f"{AUDIT_DIGEST}#1-2 fail {RC_EXCLUSIVE}", f"{AUDIT_DIGEST}#3 fail {REFUSED}")
        self.assert_certification_failed(
            run,
            "failed to get audit session digest to certify read tally counter NV index after 3 tries",
            REFUSED,
        )
        self.assert_attempts(run, 3)

    def test_failing_read_ends_the_attempts(self):
        "A failing read is not retried, in a later attempt either, whatever its code."
        for rc in (REFUSED, RC_EXCLUSIVE):
            with self.subTest(hex(rc)):
                run = self.certify(f"{AUDIT_DIGEST}#1 fail {RC_EXCLUSIVE}", f"0x{NV_READ:x}#2 fail {rc}")
                self.assert_certification_failed(
                    run, "failed to read tally counter NV index in audit session after 2 tries", rc
                )
                self.assertEqual(len(run.of(GET_SESSION_AUDIT_DIGEST)), 1, str(run))

    def test_exclusive_elsewhere_is_not_retried(self):
        "The same code from another command is a failure like any other."
        run = self.certify(f"0x{START_AUTH_SESSION:x}#1 fail {RC_EXCLUSIVE}")
        self.assert_certification_failed(run, "failed to create TPM2 session", RC_EXCLUSIVE)
        self.assertEqual(len(run.of(START_AUTH_SESSION)), 1, str(run))
        self.assertEqual(self.sleeps, [])
