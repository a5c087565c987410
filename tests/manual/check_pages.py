"""check_pages.py [AGENT]: the manual pages are without a fault, and say of options and records what the sources say."""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import commands
import mdoc
from mdoc import PAGES, ROOT

NAMES = {(page.stem, page.suffix[1:]) for page in PAGES}
OUR_NAMES = ("featurewatch", *commands.TOOLS)
FAULTY_PAGE = ".Dd November 22, 2026\n.Dt FAULTY 1\n.Os\n.Sh NAME\n.Nm faulty\n.Nd a page\n.Xx\n"


def mandoc_complaints(page: pathlib.Path) -> list[str]:
    run = subprocess.run(["mandoc", "-Tlint", "-Wstyle", page], capture_output=True, text=True, timeout=60)
    # Our own references are a test below; whether others' pages are installed is not the page's affair.
    return [line for line in run.stdout.splitlines() if "referenced manual not found" not in line]


def man_complaints(page: pathlib.Path) -> str:
    command = ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page]
    return subprocess.run(command, capture_output=True, text=True, timeout=60).stderr


def fatal_records() -> set[str]:
    """The texts of all FATAL records of the agent; its own critical ones by way of GLib among them."""
    calls = r'(?:ORVLOG_FATAL\(\s*gs_pAppLogger|g_log\(nullptr, G_LOG_LEVEL_CRITICAL),\s*"((?:[^"\\]|\\.)*)"'
    sources = (ROOT / "src").rglob("*.cpp")
    return {text for source in sources for text in re.findall(calls, source.read_text())}


def explained_records() -> set[str]:
    """The records of the operations page."""
    page = (ROOT / "docs" / "operations.md").read_text().partition("## Every FATAL and ERROR")[2]
    return set(re.findall(r"^\| `(.+?)` \|", page, re.MULTILINE))


class Pages(unittest.TestCase):
    def test_every_command_has_its_page(self):
        expected = {(name, "1") for name in (*commands.TOOLS, "featurewatch-check")}
        expected |= {("featurewatch", "8"), ("featurewatch-features", "5"), ("featurewatch-hook", "7")}
        self.assertEqual(expected, NAMES)

    def test_no_page_has_a_fault(self):
        for page in PAGES:
            with self.subTest(page.name):
                self.assertEqual([], mandoc_complaints(page))
                self.assertEqual("", man_complaints(page))

    def test_a_fault_would_be_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "faulty.1")
            page.write_text(FAULTY_PAGE)
            self.assertNotEqual([], mandoc_complaints(page))
            self.assertNotEqual("", man_complaints(page))

    def test_references_between_the_pages_lead_somewhere(self):
        for page in PAGES:
            ours = {each for each in mdoc.references(page.read_text()) if each[0].startswith(OUR_NAMES)}
            self.assertNotEqual(set(), ours, page.name)
            self.assertLessEqual(ours, NAMES, page.name)


class Options(unittest.TestCase):
    maxDiff = None

    def check_page(self, name: str, taken: dict[str, set[str]]):
        page = (ROOT / "docs" / "man" / name).read_text()
        listed = mdoc.listed_options(page)
        for command, options in taken.items():
            with self.subTest(name, command=command):
                self.assertEqual(options - commands.HELP if command else options, listed.pop(command))
        self.assertEqual(set(), set().union(*listed.values()), "options in other sections")
        self.assertEqual(set().union(*taken.values()), mdoc.shown_options(page), "the synopsis")

    def test_of_the_agent(self):
        self.check_page("featurewatch.8", {"": commands.scanned_options()})

    def test_of_the_agents_usage(self):
        self.assertEqual(commands.scanned_options(), commands.printed_options(AGENT))

    def test_of_the_plugin(self):
        self.check_page("featurewatch-check.1", {"": commands.check_options()})

    def test_of_the_tools(self):
        for tool in commands.TOOLS:
            self.check_page(f"{tool}.1", commands.tool_options(tool))


class Records(unittest.TestCase):
    maxDiff = None

    def test_every_fatal_record_is_explained(self):
        fatal = fatal_records()
        self.assertLessEqual(fatal, explained_records(), "the operations page")
        self.assertEqual(fatal, mdoc.records((ROOT / "docs" / "man" / "featurewatch.8").read_text()))


if __name__ == "__main__":
    AGENT = sys.argv.pop(1)
    unittest.main()
