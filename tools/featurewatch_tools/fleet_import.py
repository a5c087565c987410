"""The factory's list: a CSV file (RFC 4180) with serial, EK digest and label of each device."""

import csv
import re

from .fault import Fault
from .fleet_devices import Entry, add_entries, check_serial, check_text

HEADER = ["serial", "ekDigest", "label"]
GROUP = 500


class BadLines(Fault):
    """BadLines names every line that keeps a file from being imported."""

    def __init__(self, path, reasons):
        super().__init__(f"{path}: nothing is imported, as {len(reasons)} of its lines can't be")
        self.lines = [f"{path}:{number}: {reason}" for number, reason in reasons]


def parse_digest(value):
    if not re.fullmatch(r"[0-9A-Fa-f]{64}", value):
        raise Fault("not a SHA-256 digest of 64 hexadecimal digits")
    return value.lower()


def import_file(registry, path):
    """Imports a file whole or not at all. Returns how many devices are new and how many were known before."""

    def work(connection):
        reasons, group, new, total = [], [], 0, 0
        for number, entry in _read(path):
            if isinstance(entry, Fault):
                reasons.append((number, str(entry)))
                continue
            total += 1
            group.append((number, entry))
            if len(group) == GROUP:
                new += _add(connection, group, reasons)
                group = []
        new += _add(connection, group, reasons)
        if reasons:
            raise BadLines(path, sorted(reasons))
        return new, total - new

    return registry.write(work)


def _add(connection, group, reasons):
    refusals, count = add_entries(connection, [entry for _, entry in group])
    reasons += [(number, refusal) for (number, _), refusal in zip(group, refusals) if refusal]
    return count


def _read(path):
    """Yields (line number, Entry), or the Fault that the line is."""
    try:
        with open(path, encoding="utf-8-sig", errors="surrogateescape", newline="") as stream:
            rows = csv.reader(stream, strict=True)
            before = 0
            while (row := _next(rows)) is not None:
                number, before = before + 1, rows.line_num
                if row and not (number == 1 and row == HEADER):
                    yield number, _entry(row)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None


def _next(rows):
    try:
        return next(rows, None)
    except csv.Error as error:
        return error


def _entry(row):
    try:
        if isinstance(row, csv.Error):
            raise Fault(f"no CSV: {row}")
        if len(row) not in (2, 3):
            raise Fault("not serial, EK digest and label")
        serial, digest, label = (*row, "")[:3]
        "".join(row).encode()
        return Entry(check_serial(serial), parse_digest(digest), check_text(label, "the label"))
    except UnicodeEncodeError:
        return Fault("not UTF-8")
    except Fault as fault:
        return fault
