"""tools/fleet on a real PostgreSQL server: all that it does on SQLite, and a server that goes away."""

import json
import subprocess
import sys
import unittest

import test_fleet_devices
import test_fleet_faults
import test_fleet_page
import test_fleet_verdicts
from fleet_support import FLEET, FleetDevice, lines_of
from postgresql_support import ServerTest


class OnServerTest(ServerTest):
    def run_all(self, test_class, floor):
        """Runs the tests of a class here; at least `floor` must succeed."""
        suite = unittest.defaultTestLoader.loadTestsFromTestCase(test_class)
        result = unittest.TestResult()
        suite.run(result)
        self.assertEqual([text for _, text in result.errors + result.failures], [])
        self.assertGreaterEqual(result.testsRun - len(result.skipped), floor)

    def test_enrolment(self):
        "Enrolment and import are as on SQLite."
        self.run_all(test_fleet_devices.EnrolmentTest, 7)
        self.run_all(test_fleet_devices.ImportTest, 4)

    def test_views(self):
        "Retirement and views are as on SQLite."
        self.run_all(test_fleet_devices.RetirementTest, 2)
        self.run_all(test_fleet_devices.ViewTest, 4)

    def test_verdicts(self):
        "Challenges and verdicts are as on SQLite."
        self.run_all(test_fleet_verdicts.VerdictTest, 9)

    def test_lines(self):
        "JSON Lines are as on SQLite."
        self.run_all(test_fleet_verdicts.LinesTest, 7)

    def test_workers(self):
        "Many workers at once are as on SQLite."
        self.run_all(test_fleet_verdicts.WorkersTest, 3)

    def test_page(self):
        "The page is as on SQLite."
        self.run_all(test_fleet_page.WrittenPageTest, 3)

    def test_server_gone_and_back(self):
        "Without a server each command says so with status 2, and with it again all is as before."
        device = self.enrolled("1")
        answer = self.write("answer.json", device.answer_to(self.challenge("1")))
        for mode in ("fast", "immediate"):
            self.server.stop(mode)
            self.fails("verify", answer, part="connection to server on socket")
            self.fails("list", part="connection to server on socket")
            self.server.start()
        self.fleet("verify", answer)
        self.assertEqual(len(self.history("1")), 1)

    def test_locks_and_versions(self):
        "Locks and registries of other versions are told as on SQLite."
        self.run_all(test_fleet_faults.LockTest, 1)
        self.run_all(test_fleet_faults.VersionTest, 4)

    def test_server_gone_under_a_worker(self):
        "A worker that loses its server ends with status 2; another one goes on where it was."
        made = {device.serial: device for device in self.enrol_many(40)}
        answers = [made[serial].answer_to(context) for serial, context in self.challenge_all().items()]
        command = [sys.executable, FLEET, "--registry", self.url, "verify", "-"]
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        with subprocess.Popen(command, **pipes) as worker:
            worker.stdin.write(lines_of(answers[:20]))
            worker.stdin.flush()
            told = [json.loads(worker.stdout.readline()) for _ in range(20)]
            self.server.stop("immediate")
            output, errors = worker.communicate(lines_of(answers[20:]), timeout=60)
        self.assertEqual((worker.returncode, output), (2, b""))
        self.assertRegex(errors, rb"\Afleet: .*(terminat|closed|connection).*\n\Z")
        self.server.start()
        again = self.verify_lines(answers)
        self.assertEqual(again[:20], [{**verdict, "repeated": True} for verdict in told])
        self.assertEqual([it["ok"] for it in again], [True] * 40)
        self.assertEqual([it["repeated"] for it in again[20:]], [False] * 20)

    def test_registry_beside_other_tables(self):
        "A registry is made beside tables of others; where one of its own names is taken it is not."
        self.change("CREATE TABLE theirs (x int)")
        self.enrolled("1")
        self.url = self.make_database(self.server.url("NAME"))
        self.change("CREATE TABLE devices (x int)")
        report = self.write("report.json", FleetDevice("1").report())
        self.fails("enrol", "--report", report, "--first-contact", part="already exists")
        self.assertEqual(self.rows("SELECT count(*) FROM pg_tables WHERE schemaname = 'public'"), [(1,)])
