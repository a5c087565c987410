"""What the tests read from the manual pages: their options and their records."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "docs" / "man").glob("*.[1-9]"))


def sections(page: str) -> dict[str, list[str]]:
    """The lines of each section."""
    found, name = {}, ""
    for line in page.splitlines():
        if line.startswith(".Sh "):
            name = line[4:]
        found.setdefault(name, []).append(line)
    return found


def flags(line: str) -> set[str]:
    """The options that a line marks: `Fl x` is -x, `Fl Fl name` is --name."""
    words = line.removeprefix(".").split()
    found = set()
    for i, word in enumerate(words[:-1]):
        if word == "Fl" and words[i + 1] != "Fl":
            found.add(("--" if i and words[i - 1] == "Fl" else "-") + words[i + 1])
    return found


def listed_options(page: str) -> dict[str, set[str]]:
    """The options in the lists of the description, by subsection; those before the first one are under ""."""
    found: dict[str, set[str]] = {"": set()}
    name = ""
    for line in sections(page)["DESCRIPTION"]:
        if line.startswith(".Ss "):
            name = line[4:]
            found[name] = set()
        elif line.startswith(".It "):
            found[name] |= flags(line.split(" Ns ")[0])
    return found


def shown_options(page: str) -> set[str]:
    """The options of the synopsis."""
    return set().union(*map(flags, sections(page)["SYNOPSIS"]))


def records(page: str) -> set[str]:
    """The records that the diagnostics explain."""
    return {line[4:] for line in sections(page)["DIAGNOSTICS"] if line.startswith(".It ")}


def references(page: str) -> set[tuple[str, str]]:
    return set(re.findall(r"^\.Xr (\S+) (\d)", page, re.MULTILINE))
