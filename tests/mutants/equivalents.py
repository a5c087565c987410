"""The mutants that no test can notice; the file `equivalents` lists them with their reasons."""

import os
import re

LIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "equivalents")
ENTRY = re.compile(r"^(?P<path>\S+)\n- (?P<before>.*)\n\+ (?P<after>.*)\n\S.*$", re.MULTILINE)


def equivalents():
    """Returns the path, the line and the changed line of each."""
    with open(LIST, encoding="utf-8") as stream:
        return {match.group("path", "before", "after") for match in ENTRY.finditer(stream.read())}


def lines_of(root, mutation):
    """Returns a mutation's path, its line and the changed line, both without the blanks around them."""
    with open(os.path.join(root, mutation.path), "rb") as stream:
        source = stream.read()
    changed = mutation.apply(source)
    before, after = (text.decode("latin-1").split("\n")[mutation.line - 1].strip() for text in (source, changed))
    return mutation.path, before, after


def without_equivalents(root, mutations):
    """Returns the mutations that a test may notice, in their order."""
    left_out = equivalents()
    paths = {path for path, _, _ in left_out}
    return [m for m in mutations if m.path not in paths or lines_of(root, m) not in left_out]
