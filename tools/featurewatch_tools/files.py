"""Files as the commands read and write them. What fails is a Fault with the file's name."""

import contextlib
import os
import tempfile

from .fault import Fault

FILE_LIMIT = 1 << 20


def read_file(path, limit=FILE_LIMIT):
    try:
        with open(path, "rb") as stream:
            data = stream.read(limit + 1)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None
    if len(data) > limit:
        raise Fault(f"{path}: longer than {limit} bytes")
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
    folder, name = os.path.split(path)
    try:
        with replacing(folder) as replace_one:
            replace_one(name, data, mode)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None


@contextlib.contextmanager
def replacing(folder):
    """Yields the same for files in one folder, by their names. New files are written aside, in a folder of their own."""
    with tempfile.TemporaryDirectory(dir=folder or ".", prefix=".new-") as aside:
        temporary = os.path.join(aside, "file")

        def replace_one(name, data, mode):
            path = os.path.join(folder, name)
            if os.path.islink(path) or os.path.exists(path) and not os.path.isfile(path):
                raise Fault(f"{path}: not a plain file")
            try:
                with open(os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode), "wb") as stream:
                    stream.write(data)
                os.replace(temporary, path)
            except OSError as error:
                raise Fault(f"{path}: {error.strerror}") from None

        yield replace_one


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
