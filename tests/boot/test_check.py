"""featurewatch-check on the booted device, run as the unprivileged user that monitoring has."""

import os
import subprocess

from boot_harness import UNIT, BootTest, change, launcher_pid, systemctl
from harness import wait_for

OK, WARNING, CRITICAL = range(3)


class CheckTest(BootTest):
    def check(self, *arguments):
        """State and text of the plugin."""
        command = ["featurewatch-check", *arguments]
        result = subprocess.run(command, stdout=subprocess.PIPE, timeout=20, user="nobody", group="nogroup")
        return result.returncode, result.stdout.decode()

    def test_states(self):
        "The plugin finds the daemon of the unit and its features, and a stop."
        change("video-wall")
        self.assertEqual(self.check("--feature", "video-wall", "--max-age", "300")[0], OK)
        self.assertEqual(self.check("--feature", "signage")[0], CRITICAL)
        systemctl("stop", UNIT)
        self.assertEqual(self.check(), (CRITICAL, "FEATUREWATCH CRITICAL: the daemon is not running\n"))
        systemctl("start", UNIT)
        self.assertEqual(self.check()[0], OK)

    def test_launcher_that_is_gone(self):
        "The plugin warns when the launcher was killed."
        os.kill(launcher_pid(), 9)
        wait_for(lambda: self.check()[0] == WARNING, "the warning")
