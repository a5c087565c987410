"""Each TPM command of each kind of run is refused once, all others are carried out.

One method for each kind of run: it first compares the commands of a run without a fault with the table in `steps`, then
has the nth command refused, for each n.
"""

import re

from fault_harness import FaultTest
from steps import (
    FIRST_ATTESTED_REPORT,
    FIRST_INCREMENT,
    FIRST_REPORT,
    LATER_ATTESTED_REPORT,
    LATER_INCREMENT,
    LATER_INCREMENT_OVER_UNWRITTEN,
    LATER_INCREMENT_OVER_WRITTEN,
    LATER_REPORT,
    LATER_REPORT_WITH_NEW_AK,
)

REFUSED = 0x101
FAILED_FLUSH = re.compile(rf"TPM2 ctx 0x[0-9a-f]+ failed flush of resource 0x[0-9a-f]+: 0x{REFUSED:x}")


class SingleFaultTest(FaultTest):
    def check_without_fault(self, mode):
        self.start_for(mode)
        run = self.run_mode(mode)
        self.assert_report(run)
        self.assert_records(run.result, *mode.expected_records())
        self.assertEqual(run.result.other_lines, [], str(run))
        self.assert_order(run, mode.steps)
        self.assert_nothing_left(run, *mode.left())

    def check_fault(self, mode, n):
        step = mode.steps[n]
        self.start_for(mode)
        run = self.run_mode(mode, plan=[f"#{n + 1} fail {REFUSED}"])
        if step.goes_on:
            self.assert_report(run)
        else:
            self.assertEqual((run.status, run.result.stdout), (1, b""), str(run))
        self.assert_records(run.result, *mode.expected_records(n, REFUSED))
        if step.what.startswith("flush"):
            self.assertEqual(len(run.result.other_lines), 1, str(run))
            self.assertRegex(run.result.other_lines[0], FAILED_FLUSH)
        else:
            self.assertEqual(run.result.other_lines, [], str(run))
        self.assert_nothing_left(run, *mode.left(n))

    def check(self, mode):
        self.check_without_fault(mode)
        for n, step in enumerate(mode.steps):
            with self.subTest(f"#{n + 1} {step.what}"):
                self.check_fault(mode, n)

    def test_later_report_survives_or_reports_each_refusal(self):
        "A refused command of a later -d ends it with its record, or is warned of, and nothing is left in the TPM."
        self.check(LATER_REPORT)

    def test_later_attested_report_survives_or_reports_each_refusal(self):
        "The same for a later -d -A with key, challenge and nonce."
        self.check(LATER_ATTESTED_REPORT)

    def test_later_report_with_new_ak_survives_or_reports_each_refusal(self):
        "The same for a later -d -A with a nonce alone, which makes an AK and certifies with it."
        self.check(LATER_REPORT_WITH_NEW_AK)

    def test_later_increment_survives_or_reports_each_refusal(self):
        "The same for a later -R."
        self.check(LATER_INCREMENT)

    def test_increment_over_unwritten_left_over_survives_or_reports_each_refusal(self):
        "The same for a -R that finds the temporary index unwritten."
        self.check(LATER_INCREMENT_OVER_UNWRITTEN)

    def test_increment_over_written_left_over_survives_or_reports_each_refusal(self):
        "The same for a -R that finds the temporary index written."
        self.check(LATER_INCREMENT_OVER_WRITTEN)

    def test_first_report_survives_or_reports_each_refusal(self):
        "The same for a first -d; the copy of the EK that it made stays loaded once the EK is saved."
        self.check(FIRST_REPORT)

    def test_first_attested_report_survives_or_reports_each_refusal(self):
        "The same for a first -d -A with key, challenge and nonce."
        self.check(FIRST_ATTESTED_REPORT)

    def test_first_increment_survives_or_reports_each_refusal(self):
        "The same for a first -R."
        self.check(FIRST_INCREMENT)
