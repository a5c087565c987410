"""JSON Lines: lines from a stream in batches, and values as text with the digits of their numbers as written."""

import json
import os
import select
from json.encoder import encode_basestring_ascii as quoted

from .documents import Number
from .fault import Fault

LINE_LIMIT = 1 << 20
# A batch ends with this many lines, or with the line that makes it this long; so what it takes is bounded.
BATCH_LINES, BATCH_BYTES = 256, 1 << 20
CHUNK = 1 << 16

TOO_LONG = object()
PAUSE = object()


def as_written(value, sort=False):
    """A JSON text in ASCII on one line; `sort` makes it the same for objects that differ in their members' order."""
    if isinstance(value, Number):
        return str(value)
    if isinstance(value, str):
        return quoted(value)
    if isinstance(value, dict):
        pairs = sorted(value.items()) if sort else value.items()
        return "{" + ",".join([f"{quoted(name)}:{as_written(item, sort)}" for name, item in pairs]) + "}"
    if isinstance(value, (list, tuple)):
        return "[" + ",".join([as_written(item, sort) for item in value]) + "]"
    return json.dumps(value)


def batches(descriptor):
    """Yields lists of (number, line) as they come; a line is bytes, or TOO_LONG. Blank lines count, but are left out.

    No line waits for the next one: a batch ends also where the stream has nothing more for now."""
    batch, size, number = [], 0, 0
    for line in _lines(descriptor):
        if line is not PAUSE:
            number += 1
        if line is TOO_LONG or line is not PAUSE and line.strip():
            batch.append((number, line))
            size += 0 if line is TOO_LONG else len(line)
        if batch and (line is PAUSE or len(batch) == BATCH_LINES or size >= BATCH_BYTES):
            yield batch
            batch, size = [], 0
    if batch:
        yield batch


def _lines(descriptor):
    """Yields each line without its end, and PAUSE before it has to wait."""
    pending, is_long = b"", False
    while True:
        if not _is_ready(descriptor):
            yield PAUSE
        chunk = _read(descriptor)
        if not chunk:
            break
        *ended, pending = (pending + chunk).split(b"\n")
        for line in ended:
            yield TOO_LONG if is_long or len(line) > LINE_LIMIT else line
            is_long = False
        if is_long or len(pending) > LINE_LIMIT:
            pending, is_long = b"", True
    if pending or is_long:
        yield TOO_LONG if is_long else pending


def _is_ready(descriptor):
    try:
        return bool(select.select([descriptor], [], [], 0)[0])
    except (OSError, ValueError):
        return True  # reading tells what is wrong


def _read(descriptor):
    try:
        return os.read(descriptor, CHUNK)
    except OSError as error:
        raise Fault(f"standard input: {error.strerror}") from None
