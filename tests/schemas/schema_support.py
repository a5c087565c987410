"""What the tests of the schemas share: reading them, judging documents by them, and changing documents.

A document is judged as bytes: it must be strict JSON in UTF-8 (no member twice, no half characters) and fit the schema.
"""

import copy
import functools
import json
import os
import subprocess
import sys

import jsonschema

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
SCHEMAS = os.path.join(ROOT, "schemas")
TOOLS = os.path.join(ROOT, "tools")
sys.path += [os.path.join(ROOT, "tests", "system"), TOOLS]

from featurewatch_tools.documents import parse_json  # noqa: E402, found through the line above
from featurewatch_tools.fault import Fault  # noqa: E402
from featurewatch_tools.json_lines import as_written  # noqa: E402

sys.setrecursionlimit(20000)  # the validator calls itself some times for each level of a document
READ_TO_THE_DOT = {}  # numbers become Python's own: integers of any size, fractions as doubles


# --- schemas ----------------------------------------------------------------------------------------------------------


def schema_names():
    return sorted(name.removesuffix(".json") for name in os.listdir(SCHEMAS) if name.endswith(".json"))


@functools.cache
def load_schema(name):
    with open(os.path.join(SCHEMAS, name + ".json"), encoding="utf-8") as stream:
        return json.load(stream)


@functools.cache
def validator(name):
    return jsonschema.Draft202012Validator(load_schema(name))


def fits(name, value):
    return validator(name).is_valid(value)


def accepts(name, data):
    """Whether these bytes are a document of the schema."""
    try:
        return fits(name, parse_json(data, "the document", READ_TO_THE_DOT))
    except Fault:
        return False


# --- the tools --------------------------------------------------------------------------------------------------------


def run_tool(name, *arguments, data=b""):
    """Runs one of the commands to its end and returns its status and what it printed."""
    command = ["/usr/bin/python3", os.path.join(TOOLS, name), *arguments]
    result = subprocess.run(command, input=data, capture_output=True, timeout=60)
    if b"Traceback" in result.stderr:
        raise AssertionError(f"{command}: {result}")
    return result.returncode, result.stdout


# --- changes to documents ---------------------------------------------------------------------------------------------

OF_EACH_TYPE = {"null": None, "boolean": True, "number": 7, "string": "x", "array": [], "object": {}}
PYTHON_TYPES = {
    "null": type(None),
    "boolean": bool,
    "number": (int, float),
    "string": str,
    "array": list,
    "object": dict,
}


def type_name(value):
    return next(name for name, types in PYTHON_TYPES.items() if isinstance(value, types))


def nodes(value, path=()):
    """Yields the path of each value in a document, the document's own first."""
    yield path
    if isinstance(value, (dict, list)):
        for key in value if isinstance(value, dict) else range(len(value)):
            yield from nodes(value[key], (*path, key))


def value_at(value, path):
    for key in path:
        value = value[key]
    return value


def with_value(document, path, value):
    """A copy of the document with another value in one place."""
    if not path:
        return value
    changed = copy.deepcopy(document)
    value_at(changed, path[:-1])[path[-1]] = value
    return changed


def without(document, path):
    changed = copy.deepcopy(document)
    del value_at(changed, path[:-1])[path[-1]]
    return changed


def shown_path(path):
    """As in "features/*/name": elements of lists are alike."""
    return "/".join("*" if isinstance(key, int) else key for key in path)


def mutations(document):
    """Yields what was done, the path, and the changed document, for every change of one place."""
    for path in nodes(document):
        value = value_at(document, path)
        if path:
            yield "drop", path, without(document, path)
        if isinstance(value, dict):
            yield "add", path, with_value(document, path, {**value, "other": 1})
        for name, other in OF_EACH_TYPE.items():
            if name != type_name(value):
                yield f"make {name}", path, with_value(document, path, other)
        for what, other in other_forms(value):
            yield what, path, with_value(document, path, other)


def other_forms(value):
    if isinstance(value, str):
        yield "end line", value + "\n"
    if isinstance(value, bool):
        yield "flip", not value
    if isinstance(value, list) and value:
        yield "repeat last of", [*value, value[-1]]
    if type_name(value) == "number":
        yield from (("halve", value + 0.5), ("negate", -1 - value), ("blow up", 1e30))


def mutated_bytes(document):
    return as_written(document).encode()
