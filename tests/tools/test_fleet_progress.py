"""tools/fleet tells a terminal how far a long run is, and nothing else."""

import os
import unittest
from unittest import mock

from fleet_support import fleet


class ProgressTest(unittest.TestCase):
    def setUp(self):
        self.now = 1000.0
        self.enter(mock.patch.object(fleet.time, "monotonic", lambda: self.now))

    def enter(self, patch):
        patch.start()
        self.addCleanup(patch.stop)

    def tell(self, reader, writer):
        """What is told goes to `writer`, which is standard error now, and comes out of `reader`."""
        self.addCleanup(os.close, reader)
        os.set_blocking(reader, False)
        stream = os.fdopen(writer, "w")
        self.addCleanup(stream.close)
        self.enter(mock.patch.object(fleet.sys, "stderr", stream))
        self.reader = reader

    def told(self):
        try:
            return os.read(self.reader, 1000)
        except BlockingIOError:
            return b""

    def test_terminal_is_told_twice_a_second_and_at_the_end(self):
        self.tell(*os.openpty())
        with fleet.Progress("answered") as progress:
            progress.add(1)
            self.assertEqual(self.told(), b"\rfleet: 1 answered")
            self.now += 0.5
            progress.add(10, bad=2)
            self.assertEqual(self.told(), b"", "too soon")
            self.now += 0.01
            progress.add(100)
            self.assertEqual(self.told(), b"\rfleet: 111 answered, 2 not good")
            progress.add(1000, bad=1)
        self.assertEqual(self.told(), b"\rfleet: 1111 answered, 3 not good\r\n")

    def test_run_without_work_tells_nothing(self):
        self.tell(*os.openpty())
        with fleet.Progress("answered"):
            pass
        self.assertEqual(self.told(), b"")

    def test_file_is_told_nothing(self):
        self.tell(*os.pipe())
        with fleet.Progress("answered") as progress:
            progress.add(1)
        self.assertEqual(self.told(), b"")
