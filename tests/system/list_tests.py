#!/usr/bin/env python3
"""Prints the id of every system test, one a line, in the form that run_test.py takes."""

import os
import sys
import unittest

sys.dont_write_bytecode = True


def ids(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from ids(item)
        else:
            yield item.id()


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    loader = unittest.TestLoader()
    suite = loader.discover(folder, pattern="test_*.py", top_level_dir=folder)
    if loader.errors:
        print("\n".join(loader.errors), file=sys.stderr)
        return 1
    names = list(ids(suite))
    print("\n".join(names))
    return 0 if names else 1


if __name__ == "__main__":
    sys.exit(main())
