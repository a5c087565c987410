#!/usr/bin/env python3
"""Fails unless docs/operations.md has every FATAL and ERROR record of the agent, and no record that the agent can't make.

Records are compared by their format in the source. Where a layer puts its texts into one common format ("%s: %s"), all
texts of the source count.
"""
import pathlib
import re
import sys

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
LITERALS = re.compile(rf"{LITERAL}(?:\s*{LITERAL})*")
NO_CODE = re.compile(r"//.*$|^#.*$", re.MULTILINE)
SERIOUS = re.compile(r"(?:ORVLOG_(?:FATAL|ERROR)\(\s*\w+,|G_LOG_LEVEL_CRITICAL,)\s*$")
SLIGHT = re.compile(r"ORVLOG_(?:DEBUG|INFO|WARN)\(\s*\w+,\s*$")
CELL = re.compile(r"^\| `([^`]+)` \|", re.MULTILINE)

# Where every text ends up in a record, by way of one format.
TEXT_SOURCES = ("tpm/tpm2_attestor.cpp", "watch/feature_source.cpp", "watch/grant.cpp", "watch/whole_file.cpp")
LAYERS = ("main", "agent", "watch", "tpm")


def literals(path):
    """Pairs of the code in front of a literal and its text, adjacent literals joined."""
    source = NO_CODE.sub("", path.read_text())
    for match in LITERALS.finditer(source):
        parts = re.findall(LITERAL, match[0])
        text = "".join(part[1:-1] for part in parts).replace(r"\n", "").strip()
        yield source[max(match.start() - 80, 0) : match.start()], text


def is_sentence(text):
    """Formats like "%s: %s" are only forms for texts that the layer has elsewhere; units and names are words."""
    return len(re.sub(r"%\w+|0x%x|[():]", "", text).split()) > 2


def texts_of(path, wanted):
    return {text for code, text in literals(path) if is_sentence(text) and wanted(code)}


def records_of(source):
    records = set()
    for layer in LAYERS:
        for path in (source / layer).rglob("*.cpp"):
            records |= texts_of(path, SERIOUS.search)
    for name in TEXT_SOURCES:
        records |= texts_of(source / name, lambda code: not SLIGHT.search(code))
    return records


def main():
    root = pathlib.Path(sys.argv[1])
    page = set(filter(is_sentence, CELL.findall((root / "docs" / "operations.md").read_text())))
    made = records_of(root / "src")
    known = {text for path in (root / "src").rglob("*.cpp") for _, text in literals(path)}
    faults = [f"not in the page: {text}" for text in sorted(made - page)]
    faults += [f"in the page only: {text}" for text in sorted(page - known)]
    print("\n".join(faults) or f"{len(made)} records, all in the page")
    sys.exit(1 if faults or not made else 0)


main()
