"""tools/fleet: challenges and verdicts, one at a time and by JSON Lines, and many workers on one registry."""

import json
import os
import random
import resource
import subprocess
import sys
import threading
import time

from fleet_support import FLEET, FleetDevice, FleetTest, failed_checks, lines_of
from sample_size import sample_size

MEMBERS = ["line", "id", "serial", "ok", "checks", "counter", "ekDigest", "repeated", "error"]


class VerdictTest(FleetTest):
    def test_good_answer(self):
        "A good answer is accepted once, and all of the verdict is told."
        device = self.enrolled("1", counter=2**64 - 2048)
        answer = device.answer_to(self.challenge("1", "--cb-data", "round 1"))
        verdict = self.verify(answer)
        self.assertEqual(list(verdict), MEMBERS)
        self.assertEqual((verdict["serial"], verdict["counter"]), ("1", str(2**64 - 2048)))
        self.assertEqual((verdict["ekDigest"], verdict["repeated"], verdict["error"]), (device.ek_digest, False, None))
        names = [check["name"] for check in verdict["checks"]]
        self.assertEqual(names[-4:], ["registered", "unused", "in-time", "counter-floor"])
        self.assertEqual(len(names), 18)
        record = self.devices()[device.ek_digest]
        self.assertEqual(record["counter"], str(2**64 - 2048))
        (entry,) = self.history("1")
        self.assertEqual(
            entry, {"time": record["lastGood"], "ok": True, "counter": record["counter"], "failed": [], "error": None}
        )

    def test_in_words(self):
        "Without --json each check is a line, and the last line is the verdict."
        device = self.enrolled("1")
        path = self.write("answer.json", device.answer_to(self.challenge("1")))
        lines = self.fleet("verify", path).output.decode().splitlines()
        self.assertEqual(len(lines), 19)
        self.assertTrue(all(line.startswith("ok ") for line in lines[:-1]))
        self.assertEqual(lines[-1], "The attestation holds: the counter is 7.")
        lines = self.fleet("verify", path).output.decode().splitlines()
        self.assertIn("recorded verdict", lines[-1])
        bad = device.answer_to(self.challenge("1"), signer=device.ek)
        lines = self.fleet("verify", self.write("bad.json", bad), status=1).output.decode().splitlines()
        self.assertEqual([line.split()[1] for line in lines if line.startswith("FAILED")], ["signature"])
        self.assertIn("NOT good", lines[-1])

    def test_challenge_serves_once(self):
        "A second answer to a challenge is refused, even a better one; the challenges beside it stay open."
        device = self.enrolled("1")
        first, second = self.challenge("1"), self.challenge("1")
        self.assertTrue(self.verify(device.answer_to(first))["ok"])
        device.counter += 1
        self.assertEqual(self.failed(device.answer_to(first)), {"unused", "credential"})
        self.assertTrue(self.verify(device.answer_to(second))["ok"])

    def test_refused_answer_leaves_challenge_open(self):
        "A refused answer changes nothing but the history."
        device = self.enrolled("1")
        context = self.challenge("1", "--cb-data", "x")
        before = self.devices()
        self.assertEqual(self.failed(device.answer_to(context, signer=device.ek)), {"signature"})
        self.assertEqual(self.failed({**device.answer_to(context), "cbData": "y"}), {"cbData"})
        self.assertEqual(self.failed({**device.answer_to(context), "serial": "2"}), {"serial", "registered"})
        self.assertEqual(self.devices(), before)
        self.assertTrue(self.verify(device.answer_to(context))["ok"])
        failed = [entry["failed"] for entry in self.history("1")]
        self.assertEqual(failed, [["signature"], ["cbData"], ["serial", "registered"], []])

    def test_counter_never_falls(self):
        "A lower counter is refused, the same one and a higher one are good, up to the last of 64 bits."
        device = self.enrolled("1", counter=100)
        for counter, good in (
            (100, 1),
            (99, 0),
            (100, 1),
            (101, 1),
            (0, 0),
            (2**63, 1),
            (2**63 - 1, 0),
            (2**64 - 1, 1),
            (9, 0),
        ):
            device.counter = counter
            verdict = self.verify(device.answer_to(self.challenge("1")))
            self.assertEqual(failed_checks(verdict), set() if good else {"counter-floor"}, counter)
        self.assertEqual(self.devices()[device.ek_digest]["counter"], str(2**64 - 1))

    def test_too_late(self):
        "An answer after the time of its challenge is refused; the time is the challenge's own."
        device = self.enrolled("1")
        short, long = self.challenge("1", "--valid", "1"), self.challenge("1", "--valid", "999999999")
        answer = device.answer_to(short)
        time.sleep(1.1)
        self.assertEqual(self.failed(answer), {"in-time", "credential"})
        self.assertEqual(self.rows("SELECT count(*) FROM challenges WHERE secret IS NOT NULL"), [(1,)])
        self.assertTrue(self.verify(device.answer_to(long))["ok"])

    def test_unknown_nonce(self):
        "An answer to no challenge of this registry can't be judged; that is recorded with its EK."
        device = self.enrolled("1")
        context = self.challenge("1")
        self.change("DELETE FROM challenges")
        answer = device.answer_to(context)
        verdict = self.verify(answer)
        self.assertEqual((verdict["ok"], verdict["checks"], verdict["ekDigest"]), (False, [], device.ek_digest))
        self.assertIn("nonce", verdict["error"])
        self.assertEqual([entry["error"] for entry in self.history("1")], [verdict["error"]])
        self.assertTrue(self.verify(answer)["repeated"])
        self.assertEqual(len(self.history("1")), 1)
        self.assertFalse(self.verify(FleetDevice("2").answer(context, bytes(32)))["ok"])
        self.fleet("verify", self.path("answer.json"), status=1)

    def test_another_device(self):
        "The answer of one device does not pass for another's."
        first, second = self.enrolled("1"), self.enrolled("2")
        context = self.challenge("1")
        self.assertTrue(self.failed(second.answer(context, bytes(32))) >= {"ek-identity", "ak-identity", "credential"})
        self.assertTrue(self.verify(first.answer_to(context))["ok"])

    def test_repetition(self):
        "A report that was judged gets the recorded verdict, whatever came since, however it is laid out."
        device = self.enrolled("1")
        refused = device.answer(context := self.challenge("1"), bytes(32))
        first = self.verify(refused)
        accepted = device.answer_to(context)
        second = self.verify(accepted)
        self.assertEqual((first["repeated"], second["repeated"]), (False, False))
        device.counter += 5
        self.verify(device.answer_to(self.challenge("1")))
        self.fleet("retire", "1")
        for answer, verdict in ((refused, first), (accepted, second)):
            self.assertEqual(self.verify(answer), {**verdict, "repeated": True})
            turned = json.dumps(dict(reversed(list(answer.items()))), indent=3)
            self.assertEqual(self.verify(turned), {**verdict, "repeated": True})
        self.assertEqual(len(self.history("1")), 3)
        other_digits = json.dumps(accepted).replace('"val": 7', '"val": 7.0')
        self.assertFalse(self.verify(other_digits)["repeated"])

    def test_files_that_are_none(self):
        "What is no answer ends with 2, is told in both forms, and changes nothing."
        device = self.enrolled("1")
        report = device.report()
        for content in (
            b"",
            b"{}",
            b"[]",
            b"\xff",
            b"[" * 100000,
            b" " * (1 << 20) + b"{}",
            json.dumps(report).encode(),
        ):
            path = self.write("bad.json", content)
            self.assertEqual(self.fleet("verify", path, status=2).output, b"")
            (verdict,) = self.fleet("verify", path, "--json", status=2).lines()
            self.assertEqual((list(verdict), verdict["ok"], verdict["checks"]), (MEMBERS, False, []))
            self.assertTrue(verdict["error"])
        self.assertEqual(self.history("1"), [])


class LinesTest(FleetTest):
    def test_a_round(self):
        "A whole fleet is challenged and judged by lines; each verdict is that of its line, in order."
        count = sample_size(310, 600)
        made = {device.serial: device for device in self.enrol_many(count)}
        contexts = self.challenge_all("--cb-data", "round 1")
        self.assertEqual(set(contexts), set(made))
        answers = [made[serial].answer_to(context) for serial, context in contexts.items()]
        answers[300]["cbData"] = "other"
        verdicts = self.verify_lines(answers)
        self.assertEqual([it["line"] for it in verdicts], list(range(1, count + 1)))
        self.assertEqual([it["serial"] for it in verdicts], [it["serial"] for it in answers])
        self.assertEqual([it["line"] for it in verdicts if not it["ok"]], [301])
        self.assertEqual(self.verify_lines(answers), [{**it, "repeated": True} for it in verdicts])

    def test_ids(self):
        "An id comes back as it was written; so do all of its digits."
        device = self.enrolled("1")
        ids = ["1.50", "12345678901234567890", '"a\\u001bü"', "null", '{"b":[1E5,true],"a":-0}']
        content = b""
        for line_id in ids:
            report = json.dumps(device.answer_to(self.challenge("1")))
            content += f'{{"report": {report}, "id": {line_id}}}\n'.encode()
        content += f'{{"report": {json.dumps(device.answer_to(self.challenge("1")))}}}'.encode()
        output = self.fleet("verify", "-", content=content).output.decode().splitlines()
        self.assertEqual(len(output), 6)
        for line, line_id in zip(output, [*ids, "null"]):
            written = line_id.replace("ü", "\\u00fc")
            self.assertIn(f'"id":{written},"serial":"1","ok":true', line)
        self.assertTrue(all(line.isascii() for line in output))

    def test_bad_lines(self):
        "A bad line gets a verdict that says why, and the lines after it are judged."
        device = self.enrolled("1")
        good = lines_of([device.answer_to(self.challenge("1"))])
        long = b'"' + b"x" * (1 << 20) + b'"\n'
        deep = b'{"id": ' + b"[" * 900 + b"]" * 900 + b', "report": {}}\n'
        bad = [
            b"{\n",
            long,
            b"\xff\n",
            b"[]\n",
            b'{"report": 1, "id": 2}\n',
            b'{"report": {}, "x": 1}\n',
            deep,
            b'{"a":NaN}\n',
        ]
        content = b"\n".join([b"  \r", *bad, good]) + good.rstrip(b"\n")
        result = self.fleet("verify", "-", content=content, status=1)
        verdicts = result.lines()
        self.assertEqual([it["line"] for it in verdicts], [*range(2, 18, 2), 18, 19])
        self.assertEqual([it["ok"] for it in verdicts], [False] * 8 + [True, True])
        self.assertTrue(all(it["error"] and list(it) == MEMBERS for it in verdicts[:8]), verdicts)
        self.assertEqual(verdicts[4]["id"], 2)
        self.assertEqual([it["repeated"] for it in verdicts[8:]], [False, True])
        self.assertEqual(len(self.history("1")), 1)

    def test_two_answers_in_one_batch(self):
        "Of two different answers to one challenge in one batch the first is accepted; floors count within it too."
        device = self.enrolled("1")
        contexts = [self.challenge("1") for _ in range(3)]
        answers = [device.answer_to(contexts[0])]
        device.counter = 9
        answers += [device.answer_to(contexts[0]), device.answer_to(contexts[1])]
        device.counter = 8
        answers.append(device.answer_to(contexts[2]))
        failed = [failed_checks(it) for it in self.verify_lines(answers)]
        self.assertEqual(failed, [set(), {"unused"}, set(), {"counter-floor"}])

    def test_verdict_does_not_wait_for_next_line(self):
        "Somebody who waits for a verdict before the next line gets it."
        device = self.enrolled("1")
        command = [sys.executable, FLEET, "--registry", self.url, "verify", "-"]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as worker:
            timer = threading.Timer(60, worker.kill)
            timer.start()
            for number in range(1, 4):
                worker.stdin.write(lines_of([device.answer_to(self.challenge("1"))]))
                worker.stdin.flush()
                verdict = json.loads(worker.stdout.readline())
                self.assertEqual((verdict["line"], verdict["ok"]), (number, True))
                self.assertEqual(len(self.history("1")), number, "a verdict is recorded before it is told")
            worker.stdin.close()
            self.assertEqual(worker.wait(), 0)
            timer.cancel()

    def test_memory_is_bounded(self):
        "Lines of any length and number need no more than 200 MB."
        self.enrolled("1")
        limit = 200 << 20
        content = (
            b"".join((b"[" + b"{}," * 349000 + b"1]\n", b'"' + b"x" * (5 << 20) + b'"\n', b'{"a":1}\n' * 5000)) * 3
        )

        def watch():
            # The child of a fork begins with this process's memory: what counts is what it adds.
            resource.setrlimit(resource.RLIMIT_DATA, (data_size() + limit, resource.RLIM_INFINITY))

        verdicts = self.fleet("verify", "-", content=content, status=1, prepare=watch).lines()
        self.assertEqual(len(verdicts), 15006)

    def test_output_fails(self):
        "A closed output is a fault; what was recorded stays recorded."
        device = self.enrolled("1")
        answer = device.answer_to(self.challenge("1"))
        for words in (["verify", "-"], ["list"], ["challenge", "--all"], ["export"]):
            content = lines_of([answer])
            self.fails(*words, content=content, prepare=fill_output, part="No space left")
        self.assertTrue(self.verify(answer)["repeated"])


def fill_output():
    os.dup2(os.open("/dev/full", os.O_WRONLY), 1)


def data_size():
    with open("/proc/self/status", encoding="ascii") as stream:
        return next(int(line.split()[1]) << 10 for line in stream if line.startswith("VmData"))


class WorkersTest(FleetTest):
    def workers(self, contents):
        """Runs a worker on each of the contents, all at once. Returns their verdicts."""
        results = [None] * len(contents)

        def work(number):
            command = [sys.executable, FLEET, "--registry", self.url, "verify", "-"]
            results[number] = subprocess.run(command, input=contents[number], capture_output=True, timeout=100)

        threads = [threading.Thread(target=work, args=(number,)) for number in range(len(contents))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for result in results:
            self.assertIn(result.returncode, (0, 1), result)
            self.assertEqual(result.stderr, b"")
        return [[json.loads(line) for line in result.stdout.splitlines()] for result in results]

    def test_one_answer(self):
        "Of many workers that judge one answer at once exactly one accepts it; the others repeat that."
        count = sample_size(100, 300)
        made = {device.serial: device for device in self.enrol_many(count)}
        answers = [made[serial].answer_to(context) for serial, context in self.challenge_all().items()]
        contents = [lines_of(random.Random(seed).sample(answers, len(answers))) for seed in range(4)]
        verdicts = [verdict for output in self.workers(contents) for verdict in output]
        self.assertEqual(len(verdicts), 4 * count)
        self.assertTrue(all(verdict["ok"] for verdict in verdicts))
        self.assertEqual(sum(not verdict["repeated"] for verdict in verdicts), count)

    def test_many_answers_to_one_challenge(self):
        "Of many different answers to one challenge, judged at once, exactly one is accepted."
        made = {device.serial: device for device in self.enrol_many(100)}
        contexts = self.challenge_all()
        contents = []
        for seed in range(4):
            answers = []
            for serial, context in contexts.items():
                made[serial].counter = 10 + seed
                answers.append(made[serial].answer_to(context))
            contents.append(lines_of(random.Random(seed).sample(answers, len(answers))))
        accepted = {}
        for verdict in (verdict for output in self.workers(contents) for verdict in output):
            if verdict["ok"]:
                self.assertNotIn(verdict["serial"], accepted)
                accepted[verdict["serial"]] = verdict["counter"]
            else:
                self.assertIn("unused", failed_checks(verdict))
        self.assertEqual({it["serial"]: it["counter"] for it in self.devices().values()}, accepted)
        self.assertEqual(len(accepted), 100)

    def test_enrolments_at_once(self):
        "Two that make a registry and enrol the same devices at once both succeed, and each device is there once."
        made = [FleetDevice(str(number)) for number in range(200)]
        lines = [{"report": device.report(), "ekDigest": device.ek_digest} for device in made]
        command = [sys.executable, FLEET, "--registry", self.url, "enrol", "-"]
        workers = [subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) for _ in range(2)]
        for worker, order in zip(workers, (lines, lines[::-1])):
            worker.stdin.write(lines_of(order))
            worker.stdin.close()
        for worker in workers:
            self.assertEqual(len(worker.stdout.read().splitlines()), 200)
            worker.stdout.close()
            self.assertEqual(worker.wait(), 0)
        self.assertEqual(set(self.devices()), {device.ek_digest for device in made})
