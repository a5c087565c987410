#!/usr/bin/python3
"""Faults at random, for as long as it takes: workers of tools/fleet that are killed, and answers that were changed.

    tests/tools/fleet_faults.py kills [COUNT [SEED]]               500 workers killed, wherever they touch anything
    tests/tools/fleet_faults.py kills-postgresql [COUNT [SEED]]    the same on a PostgreSQL server
    tests/tools/fleet_faults.py mutants [COUNT [SEED]]             100,000 changed answers

The tests take samples of the same. Exit status 1 if anything does not hold.
"""

import base64
import json
import os
import random
import signal
import sys
import time

from fleet_support import FleetDevice, FleetTest, lines_of, run_fleet
from featurewatch_tools import files, json_lines
from postgresql_support import ServerTest
from sqlalchemy import event
from sqlalchemy.engine import Engine, default

KILLED = -signal.SIGKILL
DEVICES, BATCH = 9, 4  # several commits a round
MUTANTS_AT_A_TIME = 2000


# --- kills ------------------------------------------------------------------------------------------------------------


class Point:
    """A Point is the nth place where a run touches the database or its output. The run is killed there."""

    def __init__(self, number):
        self._left = number

    def install(self):
        event.listen(Engine, "before_cursor_execute", self._pass)
        event.listen(Engine, "after_cursor_execute", self._pass)
        default.DefaultDialect.do_commit = self._around(default.DefaultDialect.do_commit)
        files.put = self._around(files.put)

    def _pass(self, *_):
        self._left -= 1
        if self._left == 0:
            os.kill(os.getpid(), signal.SIGKILL)

    def _around(self, function):
        def wrapper(*arguments):
            self._pass()
            result = function(*arguments)
            self._pass()
            return result

        return wrapper


class Moment:
    """A Moment is a time after the start at which another process kills the run, whatever it is at."""

    def __init__(self, seconds):
        self._seconds = seconds

    def install(self):
        victim = os.getpid()
        if os.fork() == 0:
            time.sleep(self._seconds)
            if os.getppid() == victim:
                os.kill(victim, signal.SIGKILL)
            os._exit(0)


class Kills(FleetTest):
    """Kills lets workers die and feeds what they had to others."""

    def kill_workers(self, count, seed):
        """Rounds with workers that die at each point in turn, some at a random moment. Returns how many died."""
        self.generator = random.Random(seed)
        self.made = {device.serial: device for device in self.enrol_many(DEVICES)}
        self.floors = {}
        killed = point = 0
        while killed < count:
            point += 1
            is_dead = self.one_round(Point(point))
            point = point if is_dead else 0
            killed += is_dead
            if point % 4 == 0 and killed < count:
                killed += self.one_round(Moment(self.generator.uniform(0.002, 0.06)))
        return killed

    def one_round(self, death):
        """A worker that may die, and one that gets all of its answers again. Returns whether the first one died."""
        answers = self.round_of_answers()
        first = self.judge(answers, death)
        again = self.judge(answers)
        self.assert_nothing_lost(answers, first.lines(), again.lines())
        return first.status == KILLED

    def round_of_answers(self):
        """Good answers of all devices, some of them with a higher counter, and some refused ones among them."""
        answers = []
        for serial, context in self.challenge_all().items():
            device = self.made[serial]
            device.counter += self.generator.randrange(2)
            if self.generator.randrange(4) == 0:
                answers.append(device.answer(context, bytes(32)))
            answers.append(device.answer_to(context))
        return answers

    def judge(self, answers, death=None):
        def prepare():
            json_lines.BATCH_LINES = BATCH
            if death:
                death.install()

        return run_fleet("--registry", self.url, "verify", "-", content=lines_of(answers), prepare=prepare)

    def assert_nothing_lost(self, answers, before, after):
        """What was told before the death is told again; all good answers are accepted once; no counter is lower."""
        self.assertEqual([{**it, "repeated": True} for it in before], after[: len(before)])
        self.assertEqual([it["line"] for it in after], list(range(1, len(answers) + 1)))
        good = [self.is_good(answer) for answer in answers]
        self.assertEqual([it["ok"] for it in after], good)
        twice = "SELECT challenge_id FROM verdicts WHERE ok GROUP BY challenge_id HAVING count(*) > 1"
        self.assertEqual(self.rows(twice), [])
        unlike = "SELECT id FROM challenges WHERE (used IS NULL) <> (secret IS NOT NULL)"
        self.assertEqual(self.rows(unlike), [])
        accepted = "SELECT count(*) FROM verdicts WHERE ok", "SELECT count(*) FROM challenges WHERE used IS NOT NULL"
        self.assertEqual(*map(self.rows, accepted))
        counters = {it["serial"]: it["counter"] for it in self.devices().values()}
        self.assertEqual(counters, {serial: str(device.counter) for serial, device in self.made.items()})

    def is_good(self, answer):
        return base64.b64decode(answer["tpm2"]["ak"]["actResp"]) != bytes(32)

    def kill_makers(self):
        """Enrolments that die at each point in turn, with the registry made in them; returns how many died."""
        url, number = self.url, 0
        while True:
            number += 1
            self.url = self.make_database(self.server.url("NAME")) if self.server else f"{url}.{number}"
            device = FleetDevice("1")
            words = ["enrol", "--first-contact", "--report", self.write("report.json", device.report())]
            first = run_fleet("--registry", self.url, *words, prepare=Point(number).install)
            self.fleet(*words)
            self.assertTrue(self.verify(device.answer_to(self.challenge("1")))["ok"])
            if first.status != KILLED:
                self.url = url
                return number - 1

    server = None


class KillsOnServer(ServerTest, Kills):
    """KillsOnServer lets workers die; the server lives on."""


# --- mutants ----------------------------------------------------------------------------------------------------------


def exact(value):
    """A value with the digits of its numbers as written."""
    try:
        return json.loads(
            value, parse_float=lambda digits: ("number", digits), parse_int=lambda digits: ("number", digits)
        )
    except (ValueError, RecursionError):
        return None


class Mutator:
    """A Mutator changes answers at random: bytes, tokens, numbers, and the content of what is in base64."""

    def __init__(self, generator, answers):
        self._generator = generator
        self._texts = [json.dumps(answer) for answer in answers]

    def mutant(self):
        """One line of bytes that isn't the content of any of the answers."""
        while True:
            original = self._generator.choice(self._texts)
            kind = self._generator.choice(
                [self._bytes, self._bytes, self._piece, self._number, self._member, self._blob]
            )
            line = kind(original).replace(b"\n", b" ").replace(b"\r", b" ")
            if line.strip() and exact(line) not in self._contents(line):
                return line

    def _contents(self, line):
        return (exact(text) for text in self._texts) if exact(line) is not None else ()

    def _bytes(self, text):
        data = bytearray(text.encode())
        for _ in range(self._generator.choice((1, 1, 1, 2, 5))):
            place = self._generator.randrange(len(data))
            change = self._generator.randrange(4)
            if change == 0:
                data[place] ^= 1 << self._generator.randrange(8)
            elif change == 1:
                data[place] = self._generator.choice(b'{}[]",:0123456789aAzZ+/=\\u.eE-')
            elif change == 2:
                del data[place]
            else:
                data.insert(place, self._generator.randrange(256))
        return bytes(data)

    def _piece(self, text):
        """A piece of the text left out, twice there, or replaced by the same piece of another answer."""
        begin, end = sorted(self._generator.randrange(len(text)) for _ in range(2))
        other = self._generator.choice(self._texts)
        middle = self._generator.choice(("", text[begin:end] * 2, other[begin:end]))
        return (text[:begin] + middle + text[end:]).encode()

    def _number(self, text):
        numbers = (
            "0",
            "-0",
            "8",
            "7.0",
            "70e-1",
            "1e999",
            "-7",
            "18446744073709551615",
            "18446744073709551616",
            "null",
            '"7"',
        )
        return text.replace('"val": 7', f'"val": {self._generator.choice(numbers)}').encode()

    def _member(self, text):
        """One member with the value that another answer has there, or with another member's value."""
        answer, other = json.loads(text), json.loads(self._generator.choice(self._texts))
        places, sources = list(places_of(answer)), list(places_of(other))
        holder, name = self._generator.choice(places)
        same = [(it, key) for it, key in sources if key == name]
        source, key = self._generator.choice(same if self._generator.randrange(3) else sources)
        holder[name] = source[key]
        return json.dumps(answer).encode()

    def _blob(self, text):
        """One bit or byte of what a member holds in base64."""
        answer = json.loads(text)
        blobs = [(it, key) for it, key in places_of(answer) if is_blob(key, it[key])]
        holder, name = self._generator.choice(blobs)
        data = bytearray(base64.b64decode(holder[name]))
        place = self._generator.randrange(len(data))
        change = self._generator.randrange(4)
        if change < 2:
            data[place] ^= 1 << self._generator.randrange(8)
        elif change == 2:
            del data[place]
        else:
            data.insert(place, self._generator.randrange(256))
        holder[name] = base64.b64encode(data).decode()
        return json.dumps(answer).encode()


def is_blob(name, value):
    return type(value) is str and name not in ("serial", "cbData", "boardSerial")


def places_of(value):
    for name, item in value.items():
        yield value, name
        if type(item) is dict:
            yield from places_of(item)


class Mutants(FleetTest):
    """Mutants feeds changed answers while their challenges are open, and in the end the answers themselves."""

    def feed(self, count, seed):
        """Returns how many were fed."""
        made = {device.serial: device for device in self.enrol_many(5)}
        contexts = self.challenge_all("--cb-data", "round 1", "--valid", "999999999")
        answers = [made[serial].answer_to(context) for serial, context in contexts.items()]
        mutator = Mutator(random.Random(seed), answers)
        fed = 0
        while fed < count:
            lines = [mutator.mutant() for _ in range(min(MUTANTS_AT_A_TIME, count - fed))]
            result = self.fleet("verify", "-", content=b"\n".join(lines), status=1)
            verdicts = result.lines()
            self.assertEqual(result.errors, b"")
            self.assertEqual([it["line"] for it in verdicts], list(range(1, len(lines) + 1)))
            for line, verdict in zip(lines, verdicts):
                self.assertFalse(verdict["ok"], line)
                self.assertTrue(verdict["error"] or any(not check["ok"] for check in verdict["checks"]), line)
            fed += len(lines)
        self.assertTrue(all(verdict["ok"] for verdict in self.verify_lines(answers)))
        return fed


# --- the command ------------------------------------------------------------------------------------------------------


def kills(test, count, seed):
    return f"{test.kill_makers()} makers of a registry and {test.kill_workers(count, seed)} workers killed"


def mutants(test, count, seed):
    return f"{test.feed(count, seed)} changed answers refused"


def main(words):
    jobs = {
        "kills": (Kills, kills, 500),
        "kills-postgresql": (KillsOnServer, kills, 500),
        "mutants": (Mutants, mutants, 100000),
    }
    if not 1 <= len(words) <= 3 or words[0] not in jobs or not all(word.isdigit() for word in words[1:]):
        sys.exit(__doc__)
    test_class, work, default_count = jobs[words[0]]
    count = int(words[1]) if len(words) > 1 else default_count
    seed = int(words[2]) if len(words) > 2 else 1
    test = test_class("setUp")
    test.setUp()
    try:
        print(f"seed {seed}: {work(test, count, seed)}, and nothing lost")
    finally:
        test.doCleanups()


if __name__ == "__main__":
    main(sys.argv[1:])
