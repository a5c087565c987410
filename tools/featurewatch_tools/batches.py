"""Grants for many devices in one go: serial numbers from a file, one grant file each."""

import os
from urllib.parse import quote

from .fault import Fault
from .files import replacing
from .grants import sign_grant

NAME_LIMIT = 255  # bytes in a file's name


def parse_serials(data, what):
    """Returns the serial numbers of a text with one on each line; empty lines don't count.

    Whatever is wrong with any of them is a Fault before the first grant is signed.
    """
    lines = {}
    try:
        numbered = list(enumerate(data.decode().split("\n"), 1))
    except UnicodeDecodeError:
        raise Fault(f"{what}: not UTF-8") from None
    for number, line in numbered:
        serial = line.removesuffix("\r")
        if not serial:
            continue
        if not serial.strip():
            raise Fault(f"{what}: line {number} has nothing but blanks")
        if "\0" in serial or len(file_name(serial)) > NAME_LIMIT:
            raise Fault(f"{what}: line {number} is no serial number: it has a NUL character or is too long")
        if serial in lines:
            raise Fault(f"{what}: line {number} repeats line {lines[serial]}")
        lines[serial] = number
    if not lines:
        raise Fault(f"{what}: no serial number")
    return list(lines)


def file_name(serial):
    """The serial number as a file's name: what is not a letter, a digit or one of "_.-~" in ASCII as in a URL."""
    name = quote(serial, safe="")
    return f"%2E{name[1:]}.jws" if name.startswith(".") else f"{name}.jws"


def sign_many(signer, serials, features, folder, replaces):
    """Signs a grant for each device into the folder; returns the names of the files that were there and stay."""
    stayed = []
    try:
        with replacing(folder) as replace_one:
            for serial in serials:
                name = file_name(serial)
                if not replaces and os.path.lexists(os.path.join(folder, name)):
                    stayed.append(name)
                else:
                    replace_one(name, sign_grant(signer, serial, features).encode(), 0o666)
    except OSError as error:
        raise Fault(f"{folder}: {error.strerror}") from None
    return stayed
