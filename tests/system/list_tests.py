#!/usr/bin/env python3
"""Prints the id of every test in a folder, one a line, in the form that run_test.py takes: list_tests.py FOLDER"""

import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True


def ids(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from ids(item)
        else:
            yield item.id()


def main(arguments):
    if len(arguments) != 1:
        print("usage: list_tests.py FOLDER", file=sys.stderr)
        return 1
    folder = os.path.abspath(arguments[0])
    sys.path.insert(0, HERE)
    loader = unittest.TestLoader()
    suite = loader.discover(folder, pattern="test_*.py", top_level_dir=folder)
    if loader.errors:
        print("\n".join(loader.errors), file=sys.stderr)
        return 1
    names = list(ids(suite))
    print("\n".join(names))
    return 0 if names else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
