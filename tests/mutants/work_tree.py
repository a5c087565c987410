"""A copy of the tree in which one mutant after the other is built and tested.

The copy is kept from run to run, so that only what has changed is built again. It is built without optimisation,
without warnings and without debugging information. A mutant runs in the sandbox alone: a wrong program may do anything.
"""

import contextlib
import filecmp
import json
import os
import re
import shutil
import signal
import subprocess
import time
from typing import NamedTuple

from layers import likeness

FLAGS = {"CMAKE_C_FLAGS": "-w", "CMAKE_CXX_FLAGS": "-w", "CMAKE_C_FLAGS_DEBUG": "-O0", "CMAKE_CXX_FLAGS_DEBUG": "-O0"}
SLOWER = 8  # how much longer than without a mutant a test may take before it counts as hanging
LEAST_LIMIT = 15  # seconds; of each test
BUILD_LIMIT = 600
TREE = "@TREE@"  # in a test, for the folder of the copy that runs it
SANDBOX = os.path.join(TREE, "scripts", "sandbox")
BYTECODE = "FEATUREWATCH_BYTECODE="  # kept byte code fits a source of the same second and size, so of a mutant too


class Test(NamedTuple):
    """Test is one command, which fails where it notices a mutant. `kind` is 0 for programs of the layer's own unit
    tests, 1 for those of the layers above, and 2 for others. Every copy can run it: the paths in `command` and
    `environment` begin with TREE."""

    name: str
    target: str
    command: tuple
    kind: int
    environment: tuple = ()
    limit: float = 600


class Failure(Exception):
    """Failure is raised when the tree itself is not in order."""


class WorkTree:
    """WorkTree is one copy, in a folder of its own."""

    def __init__(self, source, folder, durations):
        self.root = folder
        self.build = os.path.join(self.root, "build", "debug")
        self._source = source
        self._durations = durations

    # --- the copy ---

    def update(self):
        """Makes the copy equal to the source tree: everything that git knows or would add."""
        listed = subprocess.run(
            ["git", "-C", self._source, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            check=True,
            capture_output=True,
            text=True,
        ).stdout
        wanted = {path for path in listed.split("\0") if path and os.path.exists(os.path.join(self._source, path))}
        for path in self._copied() - wanted:
            os.unlink(os.path.join(self.root, path))
        for path in wanted:
            self._copy(path)

    def _copied(self):
        found = set()
        for folder, folders, names in os.walk(self.root):
            if folder == self.root and "build" in folders:
                folders.remove("build")
            found.update(os.path.relpath(os.path.join(folder, name), self.root) for name in names)
        return found

    def _copy(self, path):
        source, copy = os.path.join(self._source, path), os.path.join(self.root, path)
        if os.path.islink(copy) or not os.path.exists(copy) or not filecmp.cmp(source, copy, shallow=False):
            os.makedirs(os.path.dirname(copy), exist_ok=True)
            with contextlib.suppress(FileNotFoundError):
                os.unlink(copy)
            shutil.copy(source, copy, follow_symlinks=False)

    def read(self, path):
        with open(os.path.join(self.root, path), "rb") as stream:
            return stream.read()

    def write(self, path, data):
        """Writes it in place, as its mode counts."""
        with open(os.path.join(self.root, path), "wb") as stream:
            stream.write(data)

    # --- building ---

    def configure(self):
        options = [f"-D{name}={value}" for name, value in FLAGS.items()]
        self._need(["cmake", "--preset", "debug", *options])

    def make(self, *targets):
        """Builds; returns whether that went well."""
        return self._run(["cmake", "--build", self.build, "--target", *targets, "--", "-j1"], BUILD_LIMIT).ok

    def _need(self, command):
        result = self._run(command, BUILD_LIMIT)
        if not result.ok:
            raise Failure(f"{' '.join(command)}\n{result.output}")

    # --- tests ---

    def tests(self, layer):
        """Returns the layer's tests, those of its own unit programs first."""
        shown = subprocess.run(
            ["ctest", "--test-dir", self.build, "--show-only=json-v1"], check=True, capture_output=True, text=True
        ).stdout
        listed = json.loads(shown.replace(self.root, TREE))["tests"]
        described = [entry for entry in listed if "command" in entry]
        return [*self._unit_programs(layer), *self._others(layer, described)]

    def _unit_programs(self, layer):
        """Each program runs as a whole: its tests would need a sandbox each."""
        folder = os.path.join(TREE, os.path.relpath(self.build, self.root), "tests", "unit")
        for kind, layer_folder in enumerate(layer.units):
            sources = os.listdir(os.path.join(self.root, "tests", "unit", layer_folder))
            stems = {name.removesuffix(".cpp") for name in sources if name.endswith("_test.cpp")}
            for program in sorted(self._programs(), key=lambda name: (name.count("."), name)):
                if program.split(".")[-1] in stems:
                    command = (SANDBOX, os.path.join(folder, program), "--gtest_brief=1", "--gtest_fail_fast")
                    yield Test(program, program, command, min(kind, 1))

    def _programs(self):
        listed = self._run(["cmake", "--build", self.build, "--target", "help"], BUILD_LIMIT).output
        names = (line.split(":")[0] for line in listed.splitlines())
        return {name for name in names if name.endswith("_test") and "/" not in name}

    def _others(self, layer, described):
        for pattern in layer.others:
            for entry in described:
                name, command = entry["name"], entry["command"]
                if re.match(pattern, name) and not re.match(layer.but, name):
                    properties = {item["name"]: item["value"] for item in entry["properties"]}
                    given = properties.get("ENVIRONMENT", ())
                    environment = tuple(entry for entry in given if not entry.startswith(BYTECODE))
                    is_fuzz = command[0] != SANDBOX
                    target = os.path.basename(command[0]) if is_fuzz else "featurewatch"
                    prefix = (SANDBOX, "--") if is_fuzz else ()
                    yield Test(name, target, (*prefix, *command), 2, environment, properties["TIMEOUT"])

    def run_test(self, test):
        """Runs it; returns what it says if it fails, None if it passes."""
        known = self._durations.get(test.name)
        limit = test.limit if known is None else max(LEAST_LIMIT, known * SLOWER)
        begin = time.monotonic()
        command = [word.replace(TREE, self.root) for word in test.command]
        environment = dict(entry.replace(TREE, self.root).split("=", 1) for entry in test.environment)
        result = self._run(command, limit, environment)
        if result.ok:
            self._durations.setdefault(test.name, time.monotonic() - begin)
            return None
        return result.output or "it failed"

    class Result(NamedTuple):
        ok: bool
        output: str

    def _run(self, command, limit, environment=None):
        """Runs a command in a session of its own; when its time is over, all of the session is killed."""
        process = subprocess.Popen(
            command,
            cwd=self.root,
            env={**os.environ, "CCACHE_BASEDIR": self.root, **(environment or {})},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )
        try:
            output, _ = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            return self.Result(False, f"no end within {limit:.0f} s")
        return self.Result(process.returncode == 0, output.decode(errors="replace"))


def by_likeness(tests, path, noticed_last):
    """Returns the tests in the order in which they are run for a change in this source.

    The unit programs of the layer come first, then the other tests; of each kind those named like the source, and of
    these the ones that noticed the latest mutants.
    """

    def key(test):
        return test.kind, -likeness(path, test.name), -noticed_last.get(test.name, 0)

    return sorted(tests, key=key)
