"""The way to the TPM is broken or lies: connections get lost, responses are cut, altered or made up, the TPM is busy.

Whatever arrives, the agent neither crashes nor hangs nor leaks, and what it reports with status 0 is right; otherwise
it ends with status 1, nothing on standard output and its reasons as records.
"""

import random
import struct

from fault_harness import CONNECTION_FAILED, READ_PUBLIC, FaultTest
from steps import (
    ANSWER_CHALLENGE,
    FIRST_INCREMENT,
    LATER_ATTESTED_REPORT,
    LATER_INCREMENT,
    LATER_REPORT,
    OPEN_LATER,
)
from tpm_harness import TEMPORARY

LOSSES = ("lose", "lose-once", "lose-answer", "lose-answer-once")
BUSY_CODES = (0x908, 0x90A, 0x922)  # yielded, testing, retry
MOST_SUBMISSIONS = 5
SUCCESS = 0
FIRST_VALUE = 2  # of the counter: the temporary index has had 1
EK_POINT = range(66, 134)  # where ReadPublic's response has the EK's point

# The commands of LATER_ATTESTED_REPORT in two parts.
OPENING = range(1, 1 + len([*OPEN_LATER, *ANSWER_CHALLENGE]))
CERTIFICATION = range(OPENING.stop, 1 + len(LATER_ATTESTED_REPORT.steps))


def own_numbers(mode):
    """The numbers of the commands that an attested report does not have."""
    others = {step.what for step in LATER_ATTESTED_REPORT.steps}
    return [number for number, step in enumerate(mode.steps, 1) if step.what not in others]


def made_up(body, tag=0x8001, size=None):
    """The rule for a well-formed header of a success, with anything after it."""
    header = struct.pack(">HII", tag, 10 + len(body) if size is None else size, SUCCESS)
    return "answer " + (header + body).hex()


def cut_rules(size, _):
    return [f"cut {count}" for count in sorted({0, 9, 10, size // 2, size - 1} - {size})]


def shorten_rules(size, dice):
    return [f"shorten {count}" for count in sorted({10, dice.randrange(10, size), size - 1})] if size > 10 else []


def garbage_rules(size, dice):
    body = size - 10
    return [
        "answer " + dice.randbytes(dice.randrange(1, 64)).hex(),
        made_up(dice.randbytes(body), tag=0x8002),
        made_up(b"\xff" * body),
        made_up(bytes(body), tag=0x8002, size=0xFFFFFFFF),
        made_up(dice.randbytes(5000)),
    ]


def flip_rules(size, dice):
    places = [dice.randrange(0, 2), dice.randrange(2, 6), dice.randrange(6, 10)]
    places += [dice.randrange(10, size) for _ in range(3) if size > 10]
    return [f"flip {place} {dice.randrange(1, 256):02x}" for place in places]


class TransportTest(FaultTest):
    def sizes(self, mode):
        """The sizes of the responses in a run without a fault, in their order."""
        self.start_for(mode)
        run = self.run_mode(mode)
        self.assert_report(run)
        self.assertEqual(len(run.commands), len(mode.steps), str(run))
        return [command.size for command in run.commands]

    def run_with(self, mode, rule):
        """One run; the counter has its old value afterwards, or the next one with -R."""
        self.start_for(mode)
        before = self.tpm.counter() or 0
        run = self.run_mode(mode, plan=[rule])
        if self.assert_sound(run) and not mode.context:
            self.assert_key_works(run)
        most = (FIRST_VALUE if mode.fresh else before) + (1 if mode.increment else 0)
        self.assertTrue(before <= (self.tpm.counter() or 0) <= most, str(run))
        return run

    def check(self, mode, rules_for, numbers):
        """Runs each of the rules for each of these responses; they count from 1."""
        sizes = self.sizes(mode)
        for number in numbers:
            step = mode.steps[number - 1]
            for action in rules_for(sizes[number - 1], random.Random(f"{mode.option} {number}")):
                if not self.alters_ek_point(step, action):
                    with self.subTest(f"#{number} {step.what}: {action[:80]}"):
                        self.run_with(mode, f"#{number} {action}")

    @staticmethod
    def alters_ek_point(step, action):
        """See DamagedResponseTest.test_altered_ek_point_is_reported_as_it_came."""
        return step.what == "read EK" and action.startswith("flip") and int(action.split()[1]) in EK_POINT


class LostConnectionTest(TransportTest):
    def check_losses(self, mode, losses):
        for number, step in enumerate(mode.steps, 1):
            for loss in losses:
                with self.subTest(f"#{number} {step.what}: {loss}"):
                    self.check_loss(mode, number, step, loss)

    def check_loss(self, mode, number, step, loss):
        run = self.run_with(mode, f"#{number} {loss}")
        if step.what.startswith("flush"):
            told = f"failed flush of resource 0x[0-9a-f]+: 0x{CONNECTION_FAILED:x}"
            self.assertRegex(run.result.other_lines[0], told)
        else:
            told = mode.expected_records(number - 1, CONNECTION_FAILED)
            first = next(n for n, (_, text) in enumerate(told) if f"0x{CONNECTION_FAILED:x}" in text)
            found = [(record.level, record.text) for record in run.result.records]
            self.assertEqual(found[: first + 1], told[: first + 1], str(run))
        if mode.increment:
            self.check_next_run()

    def check_next_run(self):
        self.tpm.flush_all()
        value = self.tpm.counter() or 0
        run = self.run_agent("-R")
        self.assert_report(run)
        self.assertGreater(self.tpm.counter(), value, str(run))
        self.assertFalse(self.tpm.exists(TEMPORARY))

    def test_attested_report_fails_where_a_command_is_lost(self):
        "A connection that breaks before the TPM gets a command fails that step, with the reason."
        self.check_losses(LATER_ATTESTED_REPORT, ("lose", "lose-once"))

    def test_attested_report_fails_where_an_answer_is_lost(self):
        "A connection that breaks when the TPM has carried out a command fails that step, with the reason."
        self.check_losses(LATER_ATTESTED_REPORT, ("lose-answer", "lose-answer-once"))

    def test_first_increment_that_lost_an_answer_is_made_good(self):
        "A first -R that loses the answer to any command fails or has its report out; the next mends what was left."
        self.check_losses(FIRST_INCREMENT, ("lose-answer",))

    def test_later_increment_that_lost_a_command_is_made_good(self):
        "A later -R that loses the connection before any command is made good by the next."
        self.check_losses(LATER_INCREMENT, ("lose",))


class BusyTest(TransportTest):
    def test_busy_tpm_is_asked_again(self):
        "A TPM that is busy at any one command is asked again, and there is a report."
        mode = LATER_REPORT
        for number, step in enumerate(mode.steps, 1):
            with self.subTest(f"#{number} {step.what}"):
                run = self.run_with(mode, f"#{number} fail {BUSY_CODES[number % 3]}")
                self.assert_report(run)
                self.assert_no_records(run.result)
                self.assertEqual(len(run.commands), len(mode.steps) + 1, str(run))

    def test_tpm_that_stays_busy_fails_the_step(self):
        "A TPM that is busy each time is asked a limited number of times; then the step has failed, with the reason."
        mode = LATER_INCREMENT
        for number, step in enumerate(mode.steps, 1):
            with self.subTest(f"#{number} {step.what}"):
                busy = BUSY_CODES[number % 3]
                run = self.run_with(mode, f"#{number}-{number + MOST_SUBMISSIONS - 1} fail {busy}")
                self.assertEqual(run.commands[number + MOST_SUBMISSIONS - 2].code, step.code, str(run))
                self.assert_records(run.result, *mode.expected_records(number - 1, busy))

    def test_tpm_that_is_never_ready_ends_the_run(self):
        "A TPM that is never ready again ends the run."
        for number in (*OPENING, *CERTIFICATION):
            with self.subTest(f"#{number}-"):
                self.run_with(LATER_ATTESTED_REPORT, f"#{number}- fail {BUSY_CODES[number % 3]}")


class DamagedResponseTest(TransportTest):
    def test_cut_response_in_opening_gives_no_wrong_report(self):
        "A response that ends early never leads to a wrong report: opening, challenge."
        self.check(LATER_ATTESTED_REPORT, cut_rules, OPENING)

    def test_cut_response_in_certification_gives_no_wrong_report(self):
        "The same: reading and certifying the counter."
        self.check(LATER_ATTESTED_REPORT, cut_rules, CERTIFICATION)

    def test_cut_response_in_increment_gives_no_wrong_report(self):
        "The same: what only a -R does."
        self.check(LATER_INCREMENT, cut_rules, own_numbers(LATER_INCREMENT))

    def test_shortened_response_in_opening_gives_no_wrong_report(self):
        "A response that ends early and says so never leads to a wrong report: opening, challenge."
        self.check(LATER_ATTESTED_REPORT, shorten_rules, OPENING)

    def test_shortened_response_in_certification_gives_no_wrong_report(self):
        "The same: reading and certifying the counter."
        self.check(LATER_ATTESTED_REPORT, shorten_rules, CERTIFICATION)

    def test_shortened_response_in_first_increment_gives_no_wrong_report(self):
        "The same: what only a first -R does."
        self.check(FIRST_INCREMENT, shorten_rules, own_numbers(FIRST_INCREMENT))

    def test_made_up_response_in_opening_gives_no_wrong_report(self):
        "A response that is made up never leads to a wrong report: opening, challenge."
        self.check(LATER_ATTESTED_REPORT, garbage_rules, OPENING)

    def test_made_up_response_in_certification_gives_no_wrong_report(self):
        "The same: reading and certifying the counter."
        self.check(LATER_ATTESTED_REPORT, garbage_rules, CERTIFICATION)

    def test_made_up_response_in_first_increment_gives_no_wrong_report(self):
        "The same: what only a first -R does."
        self.check(FIRST_INCREMENT, garbage_rules, own_numbers(FIRST_INCREMENT))

    def test_altered_response_in_opening_gives_no_wrong_report(self):
        "A response with altered bits never leads to a wrong report: opening, challenge."
        self.check(LATER_ATTESTED_REPORT, flip_rules, OPENING)

    def test_altered_response_in_certification_gives_no_wrong_report(self):
        "The same: reading and certifying the counter."
        self.check(LATER_ATTESTED_REPORT, flip_rules, CERTIFICATION)

    def test_altered_response_in_increment_gives_no_wrong_report(self):
        "The same: what only a -R does."
        self.check(LATER_INCREMENT, flip_rules, own_numbers(LATER_INCREMENT))

    def test_altered_ek_point_is_reported_as_it_came(self):
        """The exception: no session exists yet when the EK is read, so an altered point is reported as it came.

        Nothing else of the report changes. Whoever challenges the device with this EK finds out: no TPM can answer.
        """
        number = 1 + next(n for n, step in enumerate(LATER_REPORT.steps) if step.what == "read EK")
        self.start_for(LATER_REPORT)
        run = self.run_mode(LATER_REPORT, plan=[f"#{number} flip {EK_POINT[-1]} 01"])
        self.assertEqual(run.commands[number - 1].code, READ_PUBLIC)
        self.ek = self.ek[:-1] + bytes([self.ek[-1] ^ 1])
        self.assert_report(run)
