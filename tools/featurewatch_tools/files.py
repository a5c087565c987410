"""Files as the commands read and write them. What fails is a Fault with the file's name."""

import contextlib
import os
import tempfile

from .fault import Fault

FILE_LIMIT = 1 << 20


def read_file(path):
    try:
        with open(path, "rb") as stream:
            data = stream.read(FILE_LIMIT + 1)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None
    if len(data) > FILE_LIMIT:
        raise Fault(f"{path}: longer than {FILE_LIMIT} bytes")
    return data


def create(path, data, mode):
    """Makes a new file; one that is already there stays, as it may be the only copy of a key."""
    try:
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None
    try:
        with open(descriptor, "wb") as stream:
            stream.write(data)
    except OSError as error:
        remove(path)
        raise Fault(f"{path}: {error.strerror}") from None


def replace(path, data, mode):
    """Replaces a plain file in one step, so that nobody has the new one open already; anything else stays."""
    if os.path.islink(path) or os.path.exists(path) and not os.path.isfile(path):
        raise Fault(f"{path}: not a plain file")
    try:
        with tempfile.TemporaryDirectory(dir=os.path.dirname(path) or ".", prefix=".new-") as folder:
            temporary = os.path.join(folder, "file")
            with open(os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode), "wb") as stream:
                stream.write(data)
            os.replace(temporary, path)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None


def remove(path):
    with contextlib.suppress(OSError):
        os.unlink(path)


def put(output):
    """Writes to standard output, and finds even what fails only when it is closed."""
    try:
        with open(os.dup(1), "wb") as stream:
            stream.write(output.encode())
    except OSError as error:
        raise Fault(f"standard output: {error.strerror}") from None
