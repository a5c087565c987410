"""How many TPM commands a run costs, and what it does only once."""

from fault_harness import (
    CREATE_PRIMARY,
    EVICT_CONTROL,
    NV_DEFINE_SPACE,
    NV_INCREMENT,
    NV_READ,
    NV_UNDEFINE_SPACE,
    RC_RETRY,
    FaultTest,
)
from tpm_harness import COUNTER, TEMPORARY


class CommandCountTest(FaultTest):
    def assert_cost(self, run, limit):
        """Not counting the commands that a busy TPM asked to repeat."""
        self.assert_report(run)
        self.assertLessEqual(len([c for c in run.commands if c.rc != RC_RETRY]), limit, str(run))
        self.assertTrue(all(c.rc in (0, RC_RETRY) for c in run.commands), str(run))

    def assert_no_new_ek(self, run):
        self.assertEqual(run.of(CREATE_PRIMARY) + run.of(EVICT_CONTROL), [], str(run))

    def test_later_report_costs_15_commands(self):
        "A later -d costs at most 15 commands, makes no EK, and reads the counter once."
        self.start_provisioned()
        run = self.run_agent("-d")
        self.assert_cost(run, 15)
        self.assert_no_new_ek(run)
        self.assertEqual(len(run.of(NV_READ)), 1, str(run))
        self.assertEqual(len(run.of(NV_READ, COUNTER)), 1, str(run))
        self.assertEqual(run.of(NV_INCREMENT), [], str(run))

    def test_later_attested_report_costs_21_commands(self):
        "A later -d -A with key, challenge and nonce costs at most 21 commands and reads the counter once."
        self.start_provisioned()
        run = self.run_agent("-d", "-A", self.context())
        self.assert_cost(run, 21)
        self.assert_no_new_ek(run)
        self.assertEqual(len(run.of(NV_READ)), 1, str(run))

    def test_later_increment_costs_20_commands(self):
        "A later -R costs at most 20 commands, one cycle and one increment of the counter among them."
        self.start_provisioned()
        value = self.tpm.counter()
        run = self.run_agent("-R")
        self.assert_cost(run, 20)
        self.assert_no_new_ek(run)
        self.assertEqual(len(run.of(NV_INCREMENT, COUNTER)), 1, str(run))
        self.assert_cycles(run, 1)
        self.assertEqual(self.tpm.counter(), value + 1)

    def assert_cycles(self, run, count):
        cycle = [
            c.code
            for c in run.commands
            if c.operand == TEMPORARY and c.code in (NV_DEFINE_SPACE, NV_INCREMENT, NV_UNDEFINE_SPACE)
        ]
        self.assertEqual(cycle, [NV_DEFINE_SPACE, NV_INCREMENT, NV_UNDEFINE_SPACE] * count, str(run))
        self.assertFalse(self.tpm.exists(TEMPORARY))

    def test_first_increment_increments_twice(self):
        "A first -R increments the new counter twice, each time with a cycle before it."
        self.start_fresh()
        run = self.run_agent("-R")
        self.assert_report(run)
        self.assertEqual(len(run.of(NV_INCREMENT, COUNTER)), 2, str(run))
        self.assert_cycles(run, 2)

    def test_first_report_increments_once(self):
        "A first -d gives the new counter its value with one increment; the second run makes neither EK nor counter."
        self.start_fresh()
        first = self.run_agent("-d")
        self.assert_report(first)
        self.assertEqual(len(first.of(CREATE_PRIMARY)), 1, str(first))
        self.assertEqual(len(first.of(NV_INCREMENT, COUNTER)), 1, str(first))
        self.assert_cycles(first, 1)
        value = self.tpm.counter()
        second = self.run_agent("-d")
        self.assert_cost(second, 15)
        self.assert_no_new_ek(second)
        self.assertEqual(second.of(NV_DEFINE_SPACE), [], str(second))
        self.assertEqual(self.tpm.counter(), value)
