#!/usr/bin/env python3
"""Runs one system test: run_test.py FOLDER MODULE.CLASS.METHOD

FOLDER holds the module, as in `run_test.py tests/system test_cli.ScanTest.test_unknown_option_is_dropped`; the helpers
beside this script may be imported from any folder. Exit status: 0 passed, 1 failed or unknown, 77 skipped (the reason
is printed). Run it with `scripts/sandbox --tpm`.
"""

import os
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SKIPPED = 77
REACHABLE_AGENT = "/run/sandbox/agent/featurewatch"


def make_agent_reachable():
    """Binds the agent where every user of the sandbox reaches it: the build folder may lie in somebody's own home."""
    path = os.environ.get("FEATUREWATCH", "")
    if not os.path.isdir("/run/sandbox") or not os.path.isfile(path) or os.path.exists(REACHABLE_AGENT):
        return
    os.makedirs(os.path.dirname(REACHABLE_AGENT))
    with open(REACHABLE_AGENT, "w"):
        pass
    subprocess.run(["mount", "--bind", path, REACHABLE_AGENT], check=True)
    os.environ["FEATUREWATCH"] = REACHABLE_AGENT


def keep_bytecode():
    """Compiled modules are kept in the folder FEATUREWATCH_BYTECODE, and nowhere without it. Programs that the test starts
    use what the system has."""
    sys.pycache_prefix = os.environ.pop("FEATUREWATCH_BYTECODE", None)
    sys.dont_write_bytecode = sys.pycache_prefix is None


def main(arguments):
    if len(arguments) != 2 or arguments[1].count(".") != 2:
        print("usage: run_test.py FOLDER MODULE.CLASS.METHOD", file=sys.stderr)
        return 1
    folder, name = arguments
    keep_bytecode()
    make_agent_reachable()
    sys.path[:0] = [os.path.abspath(folder), HERE]
    suite = unittest.defaultTestLoader.loadTestsFromName(name)
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    if result.testsRun != 1:
        print(f"{result.testsRun} tests have run instead of one", file=sys.stderr)
        return 1
    if not result.wasSuccessful() or result.unexpectedSuccesses or result.expectedFailures:
        return 1
    if result.skipped:
        for _, reason in result.skipped:
            print(f"skipped: {reason}")
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
