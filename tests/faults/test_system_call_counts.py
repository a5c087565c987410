"""How many system calls the daemon makes for a publication, and for a look that finds nothing new."""

import os
import signal
import sys
from collections import Counter

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

from daemon_harness import WatchTest
from harness import daemon_arguments, install_features, wait_for
from syscall_harness import DAEMON, STARTER, Traced

# How often the threads of GLib wake each other depends on the moment.
UNCOUNTED = {"poll", "read", "write"}


class SystemCallCountTest(WatchTest):
    def setUp(self):
        super().setUp()
        install_features("old")
        self.traced = self.enterContext(Traced(daemon_arguments()))
        self.assertEqual(self.traced.wait_for_end(STARTER), 0)
        self.pid = self.traced.pid_of(DAEMON)
        self.wait_for_record(("INFO", f"featurewatch started with PID {self.pid}"))

    def tearDown(self):
        os.kill(self.pid, signal.SIGTERM)
        self.traced.wait()
        super().tearDown()

    def made(self):
        """The calls of the daemon so far."""
        calls = [call.name for call in self.traced.calls() if call.process == DAEMON]
        return Counter(name for name in calls if name not in UNCOUNTED)

    def assert_cost(self, act, last, limits):
        """From `act` until the calls `last`, at most so many calls of these names are made, and of no other."""
        before = self.made()
        act()
        wait_for(lambda: not last - (self.made() - before), f"the calls {last}")
        cost = self.made() - before
        self.assertFalse(cost - Counter(limits), str(cost))

    def test_publication(self):
        "A renamed input is read once, told of in two records, and published by one rename."
        limits = {"newfstatat": 8, "openat": 2, "fcntl": 1, "close": 2, "sendto": 2, "rename": 1}
        self.assert_cost(lambda: install_features("new"), Counter(rename=1), limits)

    def test_look(self):
        "A look that was asked for reads the one input there is once more, and publishes nothing."
        limits = {"newfstatat": 11, "openat": 2, "fcntl": 1, "close": 1, "sendto": 2}
        self.assert_cost(lambda: os.kill(self.pid, signal.SIGHUP), Counter(sendto=2), limits)
