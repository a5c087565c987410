"""The layers: which sources are changed in each, and which tests are asked about them."""

import glob
import os
import re
from typing import NamedTuple

from cpp_mutations import cpp_mutations
from python_mutations import python_mutations


class Layer(NamedTuple):
    """Layer is one layer's sources and its tests, by names.

    The tests are run in the order in which they are given here, except that those named like the source come first.
    `units` are folders of tests/unit, the layer's own first. `others` match the names of further tests. `but` are those
    among them that need what the sandbox has not, or that see the work tree and not the program.
    """

    sources: tuple
    units: tuple = ()
    others: tuple = ()
    but: str = "$^"


LAYERS = {
    "foundation": Layer(
        ("src/foundation",), ("foundation",), (r"fuzz\.(base64|clock_value|json|unicode|uri|version_string)",)
    ),
    "runtime": Layer(("src/runtime",), ("runtime", "jose"), (r"system\.test_logging\.",)),
    "jose": Layer(("src/jose",), ("jose",), (r"fuzz\.jws", r"system\.test_grants\.")),
    "identity": Layer(("src/identity",), ("identity",), (r"system\.test_device_report\.",)),
    "watch": Layer(
        ("src/watch",),
        ("watch",),
        (
            r"fuzz\.(feature_source|grant)",
            r"system\.test_watch\.",
            r"system\.test_(features|hook|daemon|pid_file)\.",
            r"system\.test_(grants|grant_judgement)\.",
            r"faults\.test_system_calls\.",
        ),
    ),
    "tpm": Layer(
        ("src/tpm",),
        ("tpm",),
        (r"system\.test_tpm_(counter|endorsement_key|report)\.", r"faults\.test_(?!system_calls|allocations)"),
    ),
    "agent": Layer(
        ("src/agent", "src/main"),
        ("agent",),
        (
            r"fuzz\.attestation_context",
            r"system\.test_(cli|plain_mode|attestation_context|device_report)\.",
            r"system\.test_(daemon|pid_file|logging)\.",
            r"system\.test_(tpm_report|hook|watch)\.",
            r"faults\.test_(?!allocations)",
        ),
    ),
    "tools": Layer(("tools",), (), (r"tools\.",), r"tools\.test_fleet_postgresql\."),
}


def source_files(root, layer):
    """Returns the paths of a layer's sources, relative to the tree's root."""
    found = [
        os.path.relpath(path, root)
        for folder in layer.sources
        for path in glob.glob(os.path.join(root, folder, "**"), recursive=True)
        if os.path.isfile(path) and mutator_of(path)
    ]
    return sorted(found)


def mutator_of(path):
    """Returns the function that finds the mutations of a source; None if it is not a source."""
    if path.endswith((".cpp", ".h")):
        return cpp_mutations
    if path.endswith(".py"):
        return python_mutations
    if "." in os.path.basename(path):
        return None
    with open(path, "rb") as stream:
        return python_mutations if re.match(rb"#!.*python", stream.readline()) else None


def mutations_of(root, layer):
    """Returns all mutations of a layer, in the order of files and lines."""
    found = []
    for path in source_files(root, layer):
        with open(os.path.join(root, path), "rb") as stream:
            found += mutator_of(os.path.join(root, path))(path, stream.read())
    return found


def words_of(name):
    """Returns the words of a name of a file or a test, without their plural."""
    return {word.rstrip("s") for word in re.split(r"[^a-z0-9]+", name.lower())}


def likeness(path, name):
    """Returns how many words the names of a source and of a test share; the more, the sooner the test is run."""
    stem = os.path.splitext(os.path.basename(path))[0]
    return len(words_of(stem) & (words_of(name) - {"test"}))
