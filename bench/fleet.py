#!/usr/bin/env python3
"""What a fleet's memory costs: challenges and verdicts by JSON Lines, workers on a server, and a million devices.

    bench/fleet.py [PART ...]      lines, workers, size; all of them without an argument

- lines: challenges and verdicts a second by one worker on SQLite, each verdict durable before it is told, beside a loop
  of `attest verify`, one process each.
- workers: verdicts a second by one and by four workers on a PostgreSQL server of their own.
- size: one challenge and its verdict in a registry of 1,000 and in one of 1,000,000 devices, with the time of starting
  the program left out, and the size of the file.

Devices are made of keys in memory; those of `size` that nobody asks have made-up keys. What stands beside each other
ran in turns. Exit status 1 if an answer was not accepted. Needed: what tools/fleet needs, and a PostgreSQL server's
programs for `workers`.
"""

import json
import os
import secrets
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "tests", "tools"))

from fleet_support import FLEET, FleetTest, lines_of  # noqa: E402, found through the line above
from attest_support import ATTEST, encoded, report_text  # noqa: E402
from featurewatch_tools import fleet_challenges, fleet_devices, fleet_verdicts  # noqa: E402
from featurewatch_tools.documents import parse_json  # noqa: E402
from featurewatch_tools.registry import devices, open_registry  # noqa: E402
from postgresql_support import ServerTest  # noqa: E402
from sqlalchemy import insert  # noqa: E402

ROUNDS = 5
LINES = 4000
WORKER_ROUNDS, WORKER_LINES = 3, 12000  # enough that four starts of the program do not count
SINGLE = 40
SIZES = 1_000, 1_000_000
GROUP = 10_000


class Worker:
    """A Worker is one run of the program, from file to file."""

    peaks = []  # kB of memory that each run took

    def __init__(self, url, *words, content=b""):
        self._output = tempfile.TemporaryFile()
        with tempfile.TemporaryFile() as given:
            given.write(content)
            given.seek(0)
            command = [sys.executable, FLEET, "--registry", url, *words]
            self._process = subprocess.Popen(command, stdin=given, stdout=self._output)

    def finish(self):
        """Waits for the end and returns the output and the seconds of processor time."""
        peak = 0
        while os.waitid(os.P_PID, self._process.pid, os.WEXITED | os.WNOWAIT | os.WNOHANG) is None:
            peak = max(peak, self._memory())
            time.sleep(0.02)
        self.peaks.append(peak)
        _, status, usage = os.wait4(self._process.pid, 0)
        self._process.returncode = os.waitstatus_to_exitcode(status)
        if status != 0:
            sys.exit("fleet: an answer was not accepted")
        self._output.seek(0)
        with self._output:
            return self._output.read(), usage.ru_utime + usage.ru_stime

    def _memory(self):
        """The most kB so far that were resident."""
        with open(f"/proc/{self._process.pid}/status", encoding="ascii") as stream:
            return next((int(line.split()[1]) for line in stream if line.startswith("VmHWM")), 0)


def run(url, *words, content=b""):
    """The program's output, the seconds it took, and the seconds of processor time among them."""
    begin = time.monotonic()
    output, used = Worker(url, *words, content=content).finish()
    return output, time.monotonic() - begin, used


class Fleet:
    """A Fleet is a registry with devices that answer."""

    def __init__(self, test, count):
        test.setUp()
        self.test, self.url = test, test.url
        self.made = {device.serial: device for device in test.enrol_many(count)}

    def answers(self, challenges):
        lines = map(json.loads, challenges.splitlines())
        return [self.made[line["serial"]].answer_to(line["context"]) for line in lines]


# --- lines ------------------------------------------------------------------------------------------------------------


def measure_lines():
    fleet = Fleet(FleetTest("setUp"), LINES)
    rates = {"challenge --all": [], "verify -": [], "attest verify": []}
    per_core = {"challenge --all": [], "verify -": []}
    for _ in range(ROUNDS):
        output, seconds, used = run(fleet.url, "challenge", "--all")
        note(rates, per_core, "challenge --all", seconds, used)
        output, seconds, used = run(fleet.url, "verify", "-", content=lines_of(fleet.answers(output)))
        assert_accepted(output, LINES)
        note(rates, per_core, "verify -", seconds, used)
        rates["attest verify"].append(attest_rate(fleet))
    print(f"Lines, {LINES} a run, {ROUNDS} runs\n{'':18}{'a second':>12}{'a second of processor':>24}")
    for name, values in rates.items():
        core = f"{statistics.median(per_core[name]):24.0f}" if name in per_core else ""
        print(f"{name:18}{statistics.median(values):12.1f}{core}")
    ratio = statistics.median(a / b for a, b in zip(rates["verify -"], rates["attest verify"]))
    print(f"verify - to attest verify: {ratio:.0f} times\nmemory at most: {max(Worker.peaks) / 1024:.0f} MB\n")
    fleet.test.doCleanups()


def note(rates, per_core, name, seconds, used):
    rates[name].append(LINES / seconds)
    per_core[name].append(LINES / used)


def attest_rate(fleet):
    """Answers a second by a loop of `attest verify`."""
    device = next(iter(fleet.made.values()))
    with tempfile.TemporaryDirectory() as folder:
        names = [os.path.join(folder, name) for name in ("report", "context", "secret", "attested")]
        report, context, secret, attested = names
        write(report, report_text(device.report()))
        made = subprocess.run(
            [sys.executable, ATTEST, "challenge", "--report", report, "--secret-out", secret],
            check=True,
            capture_output=True,
        ).stdout
        write(context, made.decode())
        write(attested, report_text(device.answer_to(json.loads(made))))
        begin = time.monotonic()
        for _ in range(SINGLE):
            command = [ATTEST, "verify", "--report", attested, "--context", context, "--secret", secret]
            subprocess.run([sys.executable, *command], check=True, stdout=subprocess.DEVNULL)
        return SINGLE / (time.monotonic() - begin)


def write(path, text):
    with open(path, "w", encoding="utf-8") as stream:
        stream.write(text)


def assert_accepted(output, count):
    verdicts = [json.loads(line) for line in output.splitlines()]
    if len(verdicts) != count or not all(verdict["ok"] for verdict in verdicts):
        sys.exit("fleet: an answer was not accepted")


# --- workers ----------------------------------------------------------------------------------------------------------


def measure_workers():
    fleet = Fleet(ServerTest("setUp"), WORKER_LINES)
    rates = {1: [], 4: []}
    for _ in range(WORKER_ROUNDS):
        for workers, values in rates.items():
            output, _, _ = run(fleet.url, "challenge", "--all")
            values.append(WORKER_LINES / judge_by(fleet, workers, fleet.answers(output)))
    print(f"Workers on PostgreSQL, {WORKER_LINES} answers a run, {WORKER_ROUNDS} runs\n{'':18}{'a second':>12}")
    for workers, values in rates.items():
        print(f"{workers:<18}{statistics.median(values):12.1f}")
    print(f"four to one: {statistics.median(four / one for one, four in zip(*rates.values())):.2f} times\n")
    fleet.test.doCleanups()


def judge_by(fleet, workers, answers):
    """The seconds that so many workers take, each with a share of the answers."""
    shares = [lines_of(answers[number::workers]) for number in range(workers)]
    begin = time.monotonic()
    running = [Worker(fleet.url, "verify", "-", content=share) for share in shares]
    outputs = [worker.finish()[0] for worker in running]
    seconds = time.monotonic() - begin
    assert_accepted(b"".join(outputs), len(answers))
    return seconds


# --- size -------------------------------------------------------------------------------------------------------------


def measure_size():
    print(f"One challenge and its verdict, {SINGLE} in {ROUNDS} turns\n{'devices':18}{'ms':>12}{'file, MB':>12}")
    fleets = {size: Fleet(FleetTest("setUp"), 1) for size in SIZES}
    registries = {size: open_registry(fleet.url) for size, fleet in fleets.items()}
    for size, fleet in fleets.items():
        fill(registries[size], next(iter(fleet.made.values())), size - 1)
    times = {size: [] for size in SIZES}
    for _ in range(ROUNDS):
        for size in SIZES:
            (device,) = fleets[size].made.values()
            times[size].append(statistics.median(one_exchange(registries[size], device) for _ in range(SINGLE)))
    for size in SIZES:
        megabytes = os.path.getsize(fleets[size].url) / 1e6
        print(f"{size:<18}{statistics.median(times[size]) * 1000:12.2f}{megabytes:12.1f}")
    ratio = statistics.median(large / small for small, large in zip(*times.values()))
    print(f"the large one to the small one: {ratio:.2f} times\n")
    for fleet in fleets.values():
        fleet.test.doCleanups()


def fill(registry, device, count):
    """Enrols devices with made-up keys, of which each report is unlike all others."""
    enrolment = fleet_devices.read_enrolment(parse_json(report_text(device.report()).encode(), "report"), "report")
    key, private = encoded(device.ek.whole), encoded(device.ak_private)
    for begin in range(0, count, GROUP):
        rows = []
        for number in range(begin, min(begin + GROUP, count)):
            other = encoded(device.ek.whole[:-64] + secrets.token_bytes(64))
            other_private = encoded(secrets.token_bytes(len(device.ak_private)))
            rows.append(
                {
                    "serial": f"{number:08x}",
                    "ek_digest": secrets.token_hex(32),
                    "label": f"label {number}",
                    "state": "enrolled",
                    "report": enrolment.content.replace(key, other).replace(private, other_private),
                }
            )
        registry.write(lambda connection: connection.execute(insert(devices), rows))


def one_exchange(registry, device):
    """The seconds for a challenge and its verdict, both durable, without those that the device takes."""
    begin = time.monotonic()
    made = fleet_challenges.challenge(registry, device.serial, None, 3600)
    middle = time.monotonic()
    text = report_text(device.answer_to(made.context)).encode()
    answered = time.monotonic()
    answer = fleet_verdicts.parse_answer(parse_json(text, "answer"), "answer")
    (judgement,) = fleet_verdicts.judge_answers(registry, [answer])
    if not judgement.verdict.ok:
        sys.exit("fleet: an answer was not accepted")
    return time.monotonic() - answered + middle - begin


def main(words):
    parts = {"lines": measure_lines, "workers": measure_workers, "size": measure_size}
    if not set(words) <= set(parts):
        sys.exit(__doc__)
    for name in words or parts:
        parts[name]()


if __name__ == "__main__":
    main(sys.argv[1:])
