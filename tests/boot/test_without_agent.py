"""The package of the tools, on a system where the agent was never installed."""

import glob
import os
import shutil

from boot_harness import PACKAGES, BootTest, command


class ToolsTest(BootTest):
    def setUp(self):
        super().setUp()
        [package] = glob.glob(f"{PACKAGES}/featurewatch-tools_*.deb")
        self.assertIn("featurewatch-tools", command("apt-get", "--quiet", "--yes", "install", package))

    def commands(self):
        files = command("dpkg", "--listfiles", "featurewatch-tools").splitlines()
        return sorted(os.path.basename(path) for path in files if path.startswith("/usr/bin/"))

    def test_commands_run(self):
        "Each command of the package runs and prints its usage, without the agent."
        self.assertIsNone(shutil.which("featurewatch"))
        found = self.commands()
        self.assertLessEqual({"attest", "grant"}, set(found))
        for name in found:
            self.assertIn("usage: " + name, command(name, "--help"))

    def test_grant_as_an_ordinary_user(self):
        "An ordinary user makes keys, signs a feature and reads it back."
        os.mkdir("/srv/maker")
        os.chown("/srv/maker", 65534, 65534)
        user = {"user": "nobody", "group": "nogroup", "cwd": "/srv/maker"}
        command("grant", "keys", "--private", "maker.pem", "--public", "features.pem", **user)
        signed = command("grant", "sign", "--key", "maker.pem", "--serial", "1", "--feature", "video-wall", **user)
        with open("/srv/maker/features.jws", "w") as stream:
            stream.write(signed)
        shown = command("grant", "show", "--public", "features.pem", "features.jws", **user)
        self.assertIn("video-wall", shown)

    def test_removal(self):
        "After a purge nothing of it is left, caches of Python's among it."
        for name in self.commands():
            command(name, "--help")
        command("apt-get", "--quiet", "--yes", "purge", "featurewatch-tools")
        self.assertFalse(os.path.exists("/usr/share/featurewatch"))
        self.assertIsNone(shutil.which("grant"))
