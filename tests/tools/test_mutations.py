"""Mutated documents through the parsers and the judge: a sample of mutate_documents.py, and that it would notice."""

import unittest
from unittest import mock

from mutate_documents import campaign, documents, verification
from sample_size import sample_size

SAMPLE = sample_size(1000, 4000)


class MutationTest(unittest.TestCase):
    def campaign(self, count):
        """How often each outcome came, and what was reported."""
        reported = []
        return campaign(count, 7, reported.append), reported

    def test_sample(self):
        "Of thousands of mutated documents none is accepted, and nothing but a Fault is raised."
        outcomes, reported = self.campaign(SAMPLE)
        self.assertEqual(reported, [])
        self.assertEqual(sum(outcomes.values()), SAMPLE)
        self.assertGreater(outcomes["refused"], SAMPLE // 20)  # not all of them are stopped by the parsers
        self.assertGreater(outcomes["fault"], SAMPLE // 5)

    def test_credulous_judge_is_noticed(self):
        "A judge that accepts everything is reported."
        with mock.patch.object(verification, "judge", lambda *arguments: verification.Verdict(True)):
            outcomes, reported = self.campaign(300)
        self.assertGreater(len(reported), 10)
        self.assertEqual(outcomes["WRONG"], len(reported))
        self.assertRegex(reported[0], "^WRONG: accepted: case [0-9]+, ")

    def test_crash_is_noticed(self):
        "A parser that fails otherwise than by a Fault is reported."
        with mock.patch.object(documents, "shown", side_effect=OverflowError):
            self.assertTrue(all("OverflowError" in line for line in self.campaign(300)[1]))
            self.assertGreater(len(self.campaign(300)[1]), 0)
