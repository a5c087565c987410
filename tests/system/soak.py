#!/usr/bin/env python3
"""Replaces both inputs of a daemon as fast as it can, for so many minutes, and looks for whatever must not happen.

    soak.py MINUTES

Run it with `scripts/soak`. One thread replaces the installed features, each time with a number one higher; one replaces
the grant, in turn by one of a few; one reads the document over and over. The first two stop for a moment when the
document is too many numbers late: GIO queues events without a limit, so what is measured would be that queue. It fails
on
  - a document that is missing, not whole, or without a feature of each input,
  - a document older than one that was read before,
  - a publication without a change, and hook runs that are more or fewer than the publications,
  - a descriptor or child process too many, or memory that grows,
  - a record of a level above INFO.
"""

import os
import re
import sys
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True

from daemon_harness import HOOK, WatchTest, descriptors_of, status_of
from harness import (
    DEFAULT_CPUINFO,
    FEATURES_DOCUMENT,
    Daemon,
    check_features_document,
    feature_names,
    install_features,
    read_file,
    set_cpuinfo,
    wait_for,
    write_file,
)
from run_test import make_agent_reachable
from test_grants import GRANT, Signer

GRANTS = 1000  # so many that none comes back between two looks at the file
LEAD = 20  # replacements that the document may be late
GROWTH_LIMIT = 4096  # KiB over the size after the first tenth
UPDATED = re.compile(r"features list updated: (.*)")


def installed_number(names):
    """The number of the installed feature; fails unless there is one of each input."""
    if len(names) != 2 or not names[0].startswith("granted-") or not names[1].startswith("installed-"):
        raise AssertionError(f"not one feature of each input: {names}")
    return int(names[1].partition("-")[2])


class Soak(WatchTest):
    minutes = 1.0

    def setUp(self):
        super().setUp()
        self.counts = {"installed": 0, "granted": 0, "read": 0}
        self.failures = []
        self.ending = threading.Event()
        signer = Signer()
        signer.install_key()
        self.grants = [signer.grant(f"granted-{number}") for number in range(GRANTS)]

    # --- threads ---

    def wait_for_document(self):
        while self.counts["installed"] - self.newest > LEAD and not self.ending.is_set():
            time.sleep(0.001)

    def replace_installed(self):
        self.wait_for_document()
        number = self.counts["installed"] + 1
        install_features(f"installed-{number}")
        self.counts["installed"] = number

    def replace_granted(self):
        self.wait_for_document()
        write_file(GRANT, self.grants[self.counts["granted"] % GRANTS])
        self.counts["granted"] += 1

    def read_document(self):
        number = installed_number(feature_names(check_features_document(read_file(FEATURES_DOCUMENT))))
        if number < self.newest:
            raise AssertionError(f"installed-{number} was read after installed-{self.newest}")
        self.newest = number
        self.counts["read"] += 1

    def repeat(self, step):
        try:
            while not self.ending.is_set():
                step()
        except (OSError, AssertionError) as error:
            self.failures.append(f"{step.__name__}: {error}")
            self.ending.set()

    # --- the daemon ---

    def size_of(self, daemon):
        """Descriptors, children and KiB of memory: the least of some looks, as files and hooks come and go."""
        looks = []
        for _ in range(50):
            memory = int(status_of(daemon.pid, "VmRSS")[0])
            looks.append((len(descriptors_of(daemon.pid)), len(daemon.launcher_pids()), memory))
        return tuple(map(min, zip(*looks)))

    def watch_sizes(self, daemon, seconds):
        """Until the time is up or something has failed. Returns the sizes after a tenth of the time, and at the end."""
        begin = time.monotonic()
        self.ending.wait(seconds / 10)
        first = last = self.size_of(daemon)
        while not self.ending.wait(min(5, seconds / 10)) and time.monotonic() < begin + seconds:
            last = self.size_of(daemon)
            print(f"{time.monotonic() - begin:5.0f} s  {self.counts}  fds, children, KiB: {last}", flush=True)
        self.ending.set()
        return first, last

    def check_records(self):
        """Each publication is a change and has had its run of the hook. Returns how many there were."""
        records = self.records()
        self.assertEqual([pair for pair in records if pair[0] != "INFO"], [])
        lists = [match[1] for _, text in records if (match := UPDATED.fullmatch(text))]
        same = [names for names, after in zip(lists, lists[1:]) if names == after]
        self.assertEqual(same, [], "publications without a change")
        self.assertEqual(self.runs(), len(lists), "runs of the hook, publications")
        return len(lists)

    def test_soak(self):
        set_cpuinfo(DEFAULT_CPUINFO)
        self.newest = 0
        self.replace_installed()
        self.replace_granted()
        steps = (self.replace_installed, self.replace_granted, self.read_document)
        threads = [threading.Thread(target=self.repeat, args=(step,)) for step in steps]
        with Daemon(hook=HOOK) as daemon:
            idle = self.size_of(daemon)[:2]
            for thread in threads:
                thread.start()
            first, last = self.watch_sizes(daemon, 60 * self.minutes)
            for thread in threads:
                thread.join()
            self.assertEqual(self.failures, [])
            newest = self.counts["installed"]
            wait_for(lambda: daemon.names()[1] == f"installed-{newest}", "the last features", limit=30)
            wait_for(lambda: self.size_of(daemon)[:2] == idle, f"descriptors and children as before: {idle}", limit=30)
            self.stop_and_wait(daemon)
        self.assertLessEqual(last[2] - first[2], GROWTH_LIMIT, "growth in KiB")
        print(f"{self.check_records()} publications, {self.counts}, {last[2] - first[2]} KiB more", flush=True)


def main(arguments):
    if len(arguments) != 1:
        print("usage: soak.py MINUTES", file=sys.stderr)
        return 2
    Soak.minutes = float(arguments[0])
    make_agent_reachable()
    result = unittest.TextTestRunner(verbosity=0).run(Soak("test_soak"))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
