#!/usr/bin/python3
"""Compares the agent's judgement of generated inputs with that of the schemas: compare_judgements.py [--count N] [--seed N]

An input is good to the agent if it takes it without a WARN or ERROR. Run it with `scripts/sandbox --tpm`, with FEATUREWATCH
naming the agent. Exit status 1 if there was a difference; what no schema can say is counted and no difference.
"""

import argparse
import json
import os
import random
import sys
from typing import NamedTuple

sys.dont_write_bytecode = True

from schema_support import accepts  # noqa: E402, which finds the modules below

from featurewatch_tools import grants  # noqa: E402
from harness import (  # noqa: E402
    DEFAULT_CPUINFO,
    DEFAULT_SERIAL,
    ETC,
    INSTALLED_FEATURES,
    WORK,
    empty_folder,
    run_agent,
    set_cpuinfo,
    write_file,
)
from input_generator import Generator  # noqa: E402

GRANT, KEY = "/var/lib/orvanta/features.jws", ETC + "/features.pem"
CONTEXT = WORK + "/context.json"
NO_SERIAL_NUMBER = "failed to load serial number"


def complaints(*arguments):
    """The records of a run that are a WARN or worse."""
    result = run_agent(*arguments)
    found = [record for record in result.records if record.level not in ("DEBUG", "INFO")]
    if bool(result.status) != any(record.level == "FATAL" for record in found):
        raise AssertionError(str(result))
    return found


class InstalledJudge:
    """Judges the installed features by printing the document."""

    schema = "installed-features"

    def generate(self, generator):
        return generator.features(needs_serial=False)

    def takes(self, data):
        write_file(INSTALLED_FEATURES, data)
        return not complaints()


class GrantJudge:
    """Judges payloads, which one key signs."""

    schema = "grant-payload"

    def __init__(self):
        private, public = grants.make_key_pair("ES256")
        self._key = grants.read_private_key(private, "the key")
        write_file(KEY, public)

    def generate(self, generator):
        return generator.features(needs_serial=True)

    def takes(self, data):
        text = ".".join(map(grants.encode, (b'{"alg":"ES256"}', data)))
        write_file(GRANT, f"{text}.{grants.encode(self._key.sign(text.encode()))}")
        return not complaints()


class ContextJudge:
    """Judges contexts.

    One that fits the schema is judged up to where the TPM's part begins, because generated letters are no key of this
    TPM: on a device without a serial number the run ends there. One that does not fit is judged by the whole run.
    """

    schema = "attestation-context"

    def generate(self, generator):
        return generator.context()

    def takes(self, data):
        write_file(CONTEXT, data)
        if not accepts(self.schema, data):
            return not complaints("-d", "-A", CONTEXT)
        set_cpuinfo("processor\t: 0\n")
        found = [record.text for record in complaints("-d", "-A", CONTEXT)]
        set_cpuinfo(DEFAULT_CPUINFO)
        return NO_SERIAL_NUMBER in found


JUDGES = (InstalledJudge, GrantJudge, ContextJudge)


def is_for_another_device(data):
    """No schema knows whose serial number is whose."""
    return json.loads(data).get("serial", DEFAULT_SERIAL) != DEFAULT_SERIAL


class Comparison(NamedTuple):
    """A Comparison counts files. `differences` holds those on which agent and schema differ."""

    count: int
    taken: int
    for_others: int
    differences: list


def compare(judge, count, seed):
    generator = Generator(random.Random(f"{judge.schema} {seed}"))
    taken, for_others, differences = 0, 0, []
    for _ in range(count):
        data = judge.generate(generator)
        is_taken, fits = judge.takes(data), accepts(judge.schema, data)
        taken += is_taken
        if fits and not is_taken and "context" not in judge.schema and is_for_another_device(data):
            for_others += 1
        elif fits != is_taken:
            differences.append((data, is_taken))
    return Comparison(count, taken, for_others, differences)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=10000, help="files of each kind (default: %(default)s)")
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    found = False
    for make_judge in JUDGES:
        for folder in (ETC, os.path.dirname(GRANT), WORK):
            empty_folder(folder)  # what the judge before left would be judged again
        judge = make_judge()
        result = compare(judge, arguments.count, arguments.seed)
        parts = f"{result.taken} taken, {result.for_others} for another device, {len(result.differences)} differences"
        print(f"{judge.schema}: {result.count} files, {parts}", flush=True)
        for data, is_taken in result.differences[:20]:
            print(f"  the agent {'takes' if is_taken else 'refuses'}: {data!r}")
        found = found or bool(result.differences)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
