"""The agent dies between two TPM commands: the next run mends what was left, and the counter only grows."""

import json

from fault_harness import NV_DEFINE_SPACE, NV_INCREMENT, NV_UNDEFINE_SPACE, FaultTest
from steps import (
    COUNTER_LATER,
    DEFINE_TEMPORARY,
    DELETE_TEMPORARY,
    FIRST_INCREMENT,
    INCREMENT,
    INCREMENT_COUNTER,
    INCREMENT_OVER_UNWRITTEN,
    INCREMENT_OVER_WRITTEN,
    INCREMENT_TEMPORARY,
    LATER_INCREMENT,
    LOOK_FOR_TEMPORARY,
    OPEN_LATER,
    REPORT,
)
from tpm_harness import COUNTER, TEMPORARY

BEFORE, AFTER = "kill-before", "kill-after"

# Where a later -R dies, how the next one increments, and by how much the counter has grown at its end.
DEATHS = [
    (LOOK_FOR_TEMPORARY, BEFORE, INCREMENT, 1),
    (LOOK_FOR_TEMPORARY, AFTER, INCREMENT, 1),
    (DEFINE_TEMPORARY, BEFORE, INCREMENT, 1),
    (DEFINE_TEMPORARY, AFTER, INCREMENT_OVER_UNWRITTEN, 1),
    (INCREMENT_TEMPORARY, BEFORE, INCREMENT_OVER_UNWRITTEN, 1),
    (INCREMENT_TEMPORARY, AFTER, INCREMENT_OVER_WRITTEN, 1),
    (DELETE_TEMPORARY, BEFORE, INCREMENT_OVER_WRITTEN, 1),
    (DELETE_TEMPORARY, AFTER, INCREMENT, 1),
    (INCREMENT_COUNTER, BEFORE, INCREMENT, 1),
    (INCREMENT_COUNTER, AFTER, INCREMENT, 2),
]


def place_of(mode, step):
    """The number of the command at which a run of this mode comes to the step for the last time."""
    return max(n for n, other in enumerate(mode.steps, 1) if (other.code, other.operand) == (step.code, step.operand))


class KilledTest(FaultTest):
    def die(self, which, when):
        """A run of -R that is killed at this command; its sessions are dropped afterwards."""
        run = self.run_agent("-R", plan=[f"{which} {when}"], may_die=True)
        self.assertEqual((run.status, run.commands[-1].action), (-9, when), str(run))
        if run.result.stdout:  # never half of it
            self.assertEqual(json.loads(run.result.stdout)["tpm2"]["tallyCounter"]["val"], self.tpm.counter())
        self.tpm.flush_all()
        return run

    def assert_mended(self, run, value):
        self.assert_report(run)
        self.assertEqual(self.tpm.counter(), value, str(run))
        self.assertFalse(self.tpm.exists(TEMPORARY), str(run))

    def check_death(self, step, when, increment, growth):
        self.start_provisioned()
        value = self.tpm.counter()
        last = self.die(f"#{place_of(LATER_INCREMENT, step)}", when).commands[-1]
        self.assertEqual((last.code, last.operand), (step.code, step.operand))
        run = self.run_agent("-R")
        self.assert_mended(run, value + growth)
        self.assert_no_records(run.result)
        self.assert_order(run, [*OPEN_LATER, *COUNTER_LATER, *increment, *REPORT])
        self.assert_nothing_left(run)

    def test_cycle_that_died_is_taken_over(self):
        "Whatever the cycle has left, the next -R takes an unwritten index over and removes a written one first."
        for step, when, increment, growth in DEATHS:
            with self.subTest(f"{when} {step.what}"):
                self.check_death(step, when, increment, growth)

    def check_first_run(self, when):
        for number, step in enumerate(FIRST_INCREMENT.steps, 1):
            with self.subTest(f"{when} #{number} {step.what}"):
                self.start_fresh()
                self.die(f"#{number}", when)
                before = self.tpm.counter()
                run = self.run_agent("-R")
                self.assert_mended(run, self.tpm.counter())
                self.assertTrue(self.tpm.exists(COUNTER))
                if before is None:
                    self.assertGreater(self.tpm.counter(), 0)
                else:
                    self.assertEqual(self.tpm.counter(), before + 1)

    def test_first_increment_that_died_before_a_command_is_made_good(self):
        "A first -R that dies before any of its commands is made good by the next."
        self.check_first_run(BEFORE)

    def test_first_increment_that_died_after_a_command_is_made_good(self):
        "A first -R that dies after any of its commands is made good by the next."
        self.check_first_run(AFTER)

    def test_runs_that_die_everywhere_never_leave_two_indices(self):
        "Runs that die at one place after the other never leave two indices, and the first whole run mends it all."
        self.start_provisioned()
        value = self.tpm.counter()
        self.die(f"0x{NV_DEFINE_SPACE:x}", AFTER)
        for _ in range(2):
            run = self.die(f"0x{NV_INCREMENT:x}", AFTER)
            self.assertTrue(self.tpm.is_written(TEMPORARY))
        self.assertEqual(len(run.of(NV_UNDEFINE_SPACE, TEMPORARY)), 1, str(run))
        self.assert_mended(self.run_agent("-R"), value + 1)
