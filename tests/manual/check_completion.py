"""check_completion.py SHELL: TAB pressed in a real shell offers exactly the options that the commands take."""

import pathlib
import re
import sys
import tempfile
import unittest

import commands
from shells import SOURCE_TREE, Shell, offered_options


class Completion(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        home = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        (home / "folder").mkdir()
        (home / "answer.json").write_text("{}\n")
        cls.shell = cls.enterClassContext(Shell(SHELL, home, SOURCE_TREE[SHELL]))

    def check_options(self, name: str, taken: dict[str, set[str]]):
        for command, options in taken.items():
            line = " ".join(filter(None, (name, command, "-")))
            with self.subTest(line):
                screen = self.shell.press_tab(line, *options)
                self.assertEqual(options, offered_options(screen, line), screen)

    def check_words(self, line: str, *words: str):
        with self.subTest(line):
            screen = self.shell.press_tab(line, *words)
            self.assertLessEqual(set(words), set(re.split(r"[\s=]+", screen)), screen)

    def test_options_of_the_agent(self):
        self.check_options("featurewatch", {"": commands.scanned_options()})

    def test_options_of_the_plugin(self):
        self.check_options("featurewatch-check", {"": commands.check_options()})

    def test_options_of_attest(self):
        self.check_options("attest", commands.tool_options("attest"))

    def test_options_of_grant(self):
        self.check_options("grant", commands.tool_options("grant"))

    def test_options_of_fleet(self):
        self.check_options("fleet", commands.tool_options("fleet"))

    def test_commands_of_the_tools(self):
        for tool in commands.TOOLS:
            self.check_words(f"{tool} ", *commands.subcommands(commands.tool_help(tool)))

    def test_fleet_knows_its_command_after_the_registry(self):
        line = "fleet --registry list challenge -"
        options = commands.tool_options("fleet")["challenge"]
        screen = self.shell.press_tab(line, *options)
        self.assertEqual(options, offered_options(screen, line) - {"--registry"}, screen)

    def test_values(self):
        self.check_words("grant keys --algorithm ", "ES256", "ES384", "RS256")
        self.check_words("featurewatch -A ans", "answer.json")
        self.check_words("attest verify --context ans", "answer.json")
        self.check_words("attest verify --context=ans", "answer.json")
        self.check_words("grant show ans", "answer.json")
        self.check_words("fleet verify ans", "answer.json")
        self.check_words("grant sign --output-folder fol", "folder/")
        self.check_words("featurewatch -x run-par", "run-parts")


if __name__ == "__main__":
    SHELL = sys.argv.pop(1)
    unittest.main()
