"""tools/fleet and the agent on a software TPM: the life of a device, as docs/fleet.md has it, and a counter rolled back."""

import json
import os
import shutil
import subprocess

from fleet_support import FLEET, FleetTest, failed_checks
from harness import IDENTIFIERS, SandboxTest, run_agent, write_file
from test_attest_end_to_end import IDENTIFIER_LINES, QUIET, replace_tpm
from tpm_harness import TPM_STATE, start_tpm, stop_tpm

STATE = os.path.join(TPM_STATE, "tpm2-00.permall")


def with_tpm_off(action):
    stop_tpm()
    action()
    start_tpm()


class LifeTest(SandboxTest, FleetTest):
    def setUp(self):
        SandboxTest.setUp(self)
        FleetTest.setUp(self)
        write_file(IDENTIFIERS, IDENTIFIER_LINES)

    def attest(self, *options):
        """One round with the device; returns the verdict."""
        context = self.write("context.json", self.fleet("challenge", "--serial", self.serial, "--cb-data", "ü").output)
        result = run_agent("-d", *options, "-A", context)
        self.assert_success(result)
        return self.verify(result.stdout)

    def enrol_agent(self):
        report = run_agent("-d")
        self.assert_success(report)
        self.serial = json.loads(report.stdout)["serial"]
        self.fleet("enrol", "--report", self.write("report.json", report.stdout), "--first-contact")

    def test_typed_as_documented(self):
        "The commands as a user types them, from the factory to retirement."
        script = """set -e
            "$FEATUREWATCH" -d > report.json
            tpm2_readpublic -Q -c 0x8101000A -f pem -o ek.pem
            digest=$(openssl pkey -pubin -in ek.pem -outform DER | sha256sum | cut -d ' ' -f 1)
            printf '0000abcd,%s,lobby\\n' "$digest" > devices.csv
            "$FLEET" import devices.csv
            "$FLEET" enrol --report report.json
            "$FLEET" challenge --serial 0000abcd --cb-data "round 1" > context.json
            "$FEATUREWATCH" -d -A context.json > attested.json
            "$FLEET" verify attested.json
            "$FLEET" challenge --all | jq -c .context > context.json
            "$FEATUREWATCH" -d -R -A context.json | jq -c . | "$FLEET" verify - | jq -e '.ok and .counter == "3"'
            "$FLEET" list
            "$FLEET" page --output fleet.html
            "$FLEET" retire 0000abcd
            ! "$FLEET" challenge --serial 0000abcd
        """
        environment = {**os.environ, **QUIET, "FLEET": FLEET}
        command = ["bash", "-c", script]
        result = subprocess.run(command, cwd=self.folder, env=environment, capture_output=True, timeout=100)
        self.assertEqual(result.returncode, 0, result)
        self.assertIn(b"The attestation holds: the counter is 2.", result.stdout)
        self.assertIn(b'the device "0000abcd" is retired', result.stderr)

    def test_counter_rolled_back(self):
        "A TPM whose state is set back answers well by itself, but not for whoever remembers its counter."
        self.enrol_agent()
        with_tpm_off(lambda: shutil.copy(STATE, self.path("state")))
        self.assertEqual(failed_checks(self.attest("-R")), set())
        self.assertEqual(self.attest()["counter"], "3")
        with_tpm_off(lambda: shutil.copy(self.path("state"), STATE))
        self.assertEqual(failed_checks(self.attest()), {"counter-floor"})
        self.assertEqual(failed_checks(self.attest("-R")), set())
        self.assertEqual([it["counter"] for it in self.history(self.serial)], ["3", "3", None, "3"])

    def test_board_replaced(self):
        "Another board with the serial is refused until the old one is retired; then it has a counter of its own."
        self.enrol_agent()
        self.attest("-R")
        replace_tpm()
        report = run_agent("-d")
        self.write("report.json", report.stdout)
        self.refused("enrol", "--report", self.path("report.json"), "--first-contact", part="retire that first")
        self.fleet("retire", self.serial)
        self.enrol_agent()
        self.assertEqual(self.attest()["counter"], "2")
        self.assertEqual(sorted(it["state"] for it in self.devices().values()), ["enrolled", "retired"])
