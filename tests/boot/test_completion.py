"""TAB in the shells of a device, with the completions where the packages put them."""

import glob
import os
import pathlib
import sys
import tempfile

from boot_harness import PACKAGES, SOURCE, BootTest, command

sys.path.append(os.path.join(SOURCE, "tests", "manual"))


class CompletionTest(BootTest):
    def setUp(self):
        super().setUp()
        [tools] = glob.glob(f"{PACKAGES}/featurewatch-tools_*.deb")
        command("apt-get", "--quiet", "--yes", "install", tools)

    def check(self, name):
        import commands  # here, as listing the tests must not need what only the booted tree has
        from shells import Shell, offered_options

        home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        shell = self.enterContext(Shell(name, home))
        expected = {"featurewatch -": commands.scanned_options(), "featurewatch-check -": commands.check_options()}
        for tool, word in (("attest", "verify"), ("grant", "sign"), ("fleet", "enrol")):
            expected[f"{tool} {word} -"] = commands.help_options(commands.output(f"/usr/bin/{tool}", word, "--help"))
        for line, options in expected.items():
            with self.subTest(line):
                screen = shell.press_tab(line, *options)
                self.assertEqual(options, offered_options(screen, line), screen)

    def test_bash(self):
        "In bash with its own completions, TAB offers the options of each installed command."
        self.check("bash")

    def test_zsh(self):
        "In zsh with its own completions, TAB offers the options of each installed command."
        self.check("zsh")

    def test_fish(self):
        "In fish, TAB offers the options of each installed command."
        self.check("fish")
