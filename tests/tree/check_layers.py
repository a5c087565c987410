#!/usr/bin/env python3
"""Fails when a source file includes a file of a higher layer, when it enters a room of another concept, or when headers
include each other in a circle.
"""
import pathlib
import re
import sys

# Each layer with the layers that its files may include.
BASE = {"foundation", "runtime"}
ALLOWED = {
    "foundation": {"foundation"},
    "runtime": BASE,
    "identity": BASE | {"identity"},
    "jose": BASE | {"jose"},
    "tpm": BASE | {"tpm"},
    "watch": BASE | {"identity", "jose", "watch"},
    "agent": BASE | {"identity", "jose", "tpm", "watch", "agent"},
    "main": BASE | {"identity", "jose", "tpm", "watch", "agent", "main"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def read_includes(root):
    sources = [path for path in sorted(root.rglob("*")) if path.suffix in (".h", ".cpp")]
    return {path.relative_to(root).as_posix(): INCLUDE.findall(path.read_text()) for path in sources}


def upward_includes(includes):
    for name, targets in includes.items():
        for target in targets:
            if target.split("/")[0] not in ALLOWED[name.split("/")[0]]:
                yield f"{name} includes {target}, which is of a higher layer"


def room_of(name):
    """The concept that a file belongs to by its room: foundation/json of foundation/json/json_text.h; None outside."""
    return name.rsplit("/", 1)[0] if name.count("/") > 1 else None


def foreign_rooms(includes):
    """A room is entered by its own files and those named after its concept: foundation/json.cpp, foundation/json.h."""
    for name, targets in includes.items():
        for target in targets:
            room = room_of(target)
            if room and room not in (room_of(name), name.rsplit(".", 1)[0]):
                yield f"{name} includes {target}, which is for {room} only"


def unknown_includes(includes):
    for name, targets in includes.items():
        for target in targets:
            if target not in includes:
                yield f"{name} includes {target}, which is no file below src"


def circles(includes):
    done, path = set(), []

    def visit(name):
        if name in path:
            yield "circle: " + " -> ".join(path[path.index(name):] + [name])
        elif name not in done:
            done.add(name)
            path.append(name)
            for target in includes.get(name, []):
                yield from visit(target)
            path.pop()

    for name in includes:
        yield from visit(name)


def main():
    includes = read_includes(pathlib.Path(sys.argv[1]))
    if not includes:
        sys.exit("no sources found")
    faults = [*upward_includes(includes), *foreign_rooms(includes), *unknown_includes(includes), *circles(includes)]
    print("\n".join(faults) or f"{len(includes)} files, no upward include, no foreign room, no circle")
    sys.exit(1 if faults else 0)


main()
