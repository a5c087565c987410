"""tools/fleet when something goes wrong: dead workers, changed answers, disks, locks, registries of other versions."""

import contextlib
import json
import os
import signal
import subprocess
import sys
import threading
import time

import fleet_faults
from featurewatch_tools import registry
from fleet_support import FLEET, FleetTest, lines_of
from sample_size import sample_size
from sqlalchemy import text


class SampleTest(fleet_faults.Kills, fleet_faults.Mutants):
    """Samples of what fleet_faults.py does at length."""

    def test_killed_makers(self):
        "Whoever is killed while it makes a registry leaves nothing that keeps the next one from making it."
        self.assertGreater(self.kill_makers(), 20)

    def test_killed_workers(self):
        "A killed worker loses no verdict that it told, and its answers can be fed again."
        count = sample_size(20, 70)
        self.assertGreaterEqual(self.kill_workers(count, seed=1), count)

    def test_mutants(self):
        "Changed answers are refused, each with a verdict."
        count = sample_size(2000, 6000)
        self.assertEqual(self.feed(count, seed=1), count)


class ServerSampleTest(fleet_faults.KillsOnServer):
    def test_killed_workers_of_a_server(self):
        "The same on a PostgreSQL server."
        count = sample_size(10, 25)
        self.assertGreaterEqual(self.kill_workers(count, seed=1), count)


class DiskTest(FleetTest):
    """The tests of disks mount some, which is for scripts/sandbox only."""

    def mount(self, *options):
        if not os.path.isdir("/run/sandbox"):
            self.skipTest("mounts only in scripts/sandbox")
        folder = self.path("disk")
        os.makedirs(folder, exist_ok=True)
        subprocess.run(["mount", *options, folder], check=True)
        self.url = os.path.join(folder, "fleet.db")

    def test_full_disk(self):
        "On a full disk nothing is done by half; with room again all goes on."
        self.mount("-t", "tmpfs", "-o", "size=1m", "tmpfs")
        self.addCleanup(subprocess.run, ["umount", self.path("disk")], check=True)
        made = {device.serial: device for device in self.enrol_many(60)}
        contexts = self.challenge_all("--valid", "999999")
        answers = [made[serial].answer_to(context) for serial, context in contexts.items()]
        self.fill(self.path("disk/filler"))
        for words in (["verify", "-"], ["challenge", "--all"], ["retire", "device 1"]):
            result = self.fails(*words, content=lines_of(answers), part="")
            self.assertRegex(result.errors, rb"database or disk is full|disk I/O error")
            self.assertEqual(result.output, b"")
        os.unlink(self.path("disk/filler"))
        self.assertEqual(self.rows("SELECT count(*) FROM verdicts"), [(0,)])
        self.assertEqual([it["repeated"] for it in self.verify_lines(answers) if it["ok"]], [False] * 60)

    def fill(self, path):
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT)
        with contextlib.suppress(OSError):
            while os.write(descriptor, bytes(4096)):
                pass
        os.close(descriptor)

    def test_read_only(self):
        "A registry that can't be written can be listed, and nothing else."
        self.mount("-t", "tmpfs", "tmpfs")
        self.addCleanup(subprocess.run, ["umount", self.path("disk")], check=True)
        device = self.enrolled("1")
        answer = self.write("answer.json", device.answer_to(self.challenge("1")))
        subprocess.run(["mount", "-o", "remount,ro", self.path("disk")], check=True)
        for words in (["verify", answer], ["challenge", "--serial", "1"], ["retire", "1"]):
            self.assertRegex(self.fails(*words, part="").errors, rb"readonly database|unable to open database file")
        subprocess.run(["mount", "-o", "remount,rw", self.path("disk")], check=True)
        self.fleet("verify", answer)


class LockTest(FleetTest):
    def test_locked_database(self):
        "Who waits for ten seconds in vain says so, and has done nothing; a shorter wait is no matter."
        device = self.enrolled("1")
        answer = self.write("answer.json", device.answer_to(self.challenge("1")))
        with subprocess.Popen(
            LOCK[self.is_sqlite] + [self.url], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        ) as other:
            self.assertEqual(other.stdout.readline(), b"locked\n")
            start = time.monotonic()
            self.fails("verify", answer, part=LOCKED[self.is_sqlite])
            self.assertGreater(time.monotonic() - start, 9)
            self.assertLess(time.monotonic() - start, 30)
            timer = threading.Timer(2, other.kill)
            timer.start()
            self.fleet("verify", answer)
            timer.join()
        self.assertEqual(len(self.history("1")), 1)


# What is told then. SQLite says only that its file is locked; who holds it and how long is told in its place.
LOCKED = {True: "another program has had the database locked for 10 seconds", False: "lock timeout"}

# Programs that hold a lock until they are killed. (A connection to SQLite can't stay open over a fork.)
LOCK = {
    is_sqlite: [
        sys.executable,
        "-c",
        f"import {module}, sys; lock = {module}.connect(sys.argv[1]); lock.cursor().execute({statement!r}); "
        "print('locked', flush=True); sys.stdin.read()",
    ]
    for is_sqlite, module, statement in (
        (True, "sqlite3", "BEGIN IMMEDIATE"),
        (False, "psycopg2", "SELECT * FROM devices FOR UPDATE"),
    )
}


class VersionTest(FleetTest):
    def test_newer_registry(self):
        "A registry of a newer version is refused by all commands, with what to do; it stays as it is."
        device = self.enrolled("1")
        answer = self.write("answer.json", device.answer_to(self.challenge("1")))
        report = self.write("report.json", device.report())
        self.change("UPDATE registry SET version = 2")
        for words in (["list"], ["verify", answer], ["enrol", "--report", report], ["challenge", "--all"], ["migrate"]):
            self.fails(*words, part="of version 2, and this program knows up to 1: use")
        self.change("UPDATE registry SET version = 1")
        self.fleet("verify", answer)

    def test_older_registry(self):
        "A registry of an older version is refused until `migrate` has brought it up; nothing in it is lost."
        device = self.enrolled("1")
        answer = self.write("answer.json", device.answer_to(self.challenge("1")))
        before = self.devices()
        self.assertEqual(self.fleet("migrate").output, b"the registry was of version 1 and is of version 1\n")
        self.fails("list", prepare=make_newer, part="this program needs 2: make a backup")
        self.fleet("migrate", prepare=make_newer)
        self.fails("list", part="of version 2")
        self.assertEqual(self.fleet("list", "--json", prepare=make_newer).lines(), list(before.values()))
        self.fleet("verify", answer, prepare=make_newer)
        self.assertEqual(self.rows("SELECT added FROM devices"), [(5,)])

    def test_migration_that_fails(self):
        "A migration is done whole or not at all."
        self.enrolled("1")

        def prepare():
            make_newer()
            registry.VERSION = 3
            registry.MIGRATIONS[2] = lambda connection: connection.execute(
                text("ALTER TABLE gone ADD COLUMN x INTEGER")
            )

        self.fails("migrate", prepare=prepare, part="gone")
        self.assertEqual(len(self.devices()), 1)

    def test_migration_under_a_worker(self):
        "A worker that runs while its registry is migrated stops, and writes nothing more."
        device = self.enrolled("1")
        contexts = [self.challenge("1") for _ in range(2)]
        command = [sys.executable, FLEET, "--registry", self.url, "verify", "-"]
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        with subprocess.Popen(command, **pipes) as worker:
            worker.stdin.write(lines_of([device.answer_to(contexts[0])]))
            worker.stdin.flush()
            self.assertTrue(json.loads(worker.stdout.readline())["ok"])
            self.fleet("migrate", prepare=make_newer)
            output, errors = worker.communicate(lines_of([device.answer_to(contexts[1])]), timeout=60)
        self.assertEqual((worker.returncode, output), (2, b""))
        self.assertIn(b"of version 2", errors)
        self.assertEqual(self.rows("SELECT count(*) FROM verdicts"), [(1,)])


def make_newer():
    """Makes the program one that has a next version."""
    registry.VERSION = 2
    registry.MIGRATIONS[1] = lambda connection: connection.execute(
        text("ALTER TABLE devices ADD COLUMN added INTEGER DEFAULT 5")
    )


class SignalTest(FleetTest):
    def test_interrupt(self):
        "A worker that is interrupted while it waits ends at once; what it told stays."
        device = self.enrolled("1")
        for number in (signal.SIGTERM, signal.SIGINT):
            command = [sys.executable, FLEET, "--registry", self.url, "verify", "-"]
            pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
            with subprocess.Popen(command, **pipes) as worker:
                worker.stdin.write(lines_of([device.answer_to(self.challenge("1"))]))
                worker.stdin.flush()
                self.assertTrue(json.loads(worker.stdout.readline())["ok"])
                worker.send_signal(number)
                self.assertEqual(worker.stderr.read(), b"")
                self.assertEqual(worker.wait(timeout=60), -number)
        self.assertEqual(len(self.history("1")), 2)
