#!/usr/bin/python3
"""Mutates the documents of a good exchange and judges each of them: mutate_documents.py [--count N] [--seed N]

Answers, contexts, secrets and first reports are changed in their bytes, in their JSON and in the structures that they hold.
Nothing but a Fault may come of them, and no answer may be accepted unless it says the same as the good one. The same
seed changes the same places; the exchange itself is a new one each time. Exit status 1 if anything was found.
"""

import argparse
import collections
import copy
import json
import os
import random
import re
import sys
import tempfile

sys.dont_write_bytecode = True

from attest_support import SoftwareDevice, context_for, decoded, encoded, report_text  # noqa: E402
from featurewatch_tools import challenge, documents, verification  # noqa: E402
from featurewatch_tools.fault import Fault  # noqa: E402

NUMBERS = """
    0e9999999999999999999 7e-9999999999999999999 7E0 7e+0 70e-1 7.0 0.7e1 -0 -7 0 8 07 +7 7. .7 0x7 NaN Infinity 1e999 -1e999
    1e-400 1e+16 1e16 9007199254740993 18446744073709551615 18446744073709551616 1.844674407370955e+19 2e+19
""".split()
NUMBERS += ["9" * 5000, "7 7"]
TEXTS = [number.encode() for number in NUMBERS]
TEXTS += rb'null true [] {} "" \ud800 \u0000 " \ , : } =='.split()
TEXTS += [b"\xff", b"\0", b"\n", b"\xef\xbb\xbf", b"[" * 2000, b'{"a":' * 2000]
VALUES = [None, True, False, 0, 1, -1, 7, 8, 2**53, 2**64, 1.5, "", "x", "AA==", "AAA=", "\0", "é\U0001f600"]
VALUES += [[], [1], {}, {"a": 1}]
NAMES = ["serial", "altSerial", "tpm2", "cbData", "val", "att", "sig", "nonce", "ak", "actResp", "ekDigest", "", "x"]
SIZES = [b"\0\0", b"\0\1", b"\0\x1f", b"\0\x20", b"\0\x21", b"\x7f\xff", b"\xff\xff"]


# --- bytes ------------------------------------------------------------------------------------------------------------


def spliced(source, data, piece, cut=0):
    at = source.randint(0, len(data))
    return data[:at] + piece + data[at + cut :]


def some_of(source, data):
    begin = source.randint(0, len(data))
    return data[begin : begin + source.choice((1, 2, 3, 8, 32, 200))]


BYTE_CHANGES = (
    lambda source, data: spliced(source, data, source.randbytes(1), 1),
    lambda source, data: spliced(source, data, source.randbytes(source.choice((1, 2, 9)))),
    lambda source, data: spliced(source, data, b"", source.choice((1, 2, 3, 8, 32, 200))),
    lambda source, data: spliced(source, data, some_of(source, data)),
    lambda source, data: spliced(source, data, some_of(source, data), source.randint(1, 40)),
    lambda source, data: data[: source.randint(0, len(data))],
    lambda source, data: data[source.randint(0, len(data)) :],
    lambda source, data: flipped(source, data),
)
TEXT_CHANGES = (
    *BYTE_CHANGES,
    lambda source, data: spliced(source, data, source.choice(TEXTS), source.choice((0, 1, 4))),
)
BLOB_CHANGES = (*BYTE_CHANGES, lambda source, data: spliced(source, data, source.choice(SIZES), 2))


def flipped(source, data):
    if not data:
        return b"\1"
    at = source.randrange(len(data))
    return data[:at] + bytes([data[at] ^ 1 << source.randrange(8)]) + data[at + 1 :]


# --- JSON -------------------------------------------------------------------------------------------------------------


def places(value):
    """Each member at any depth, as its object and its name."""
    for name, member in value.items():
        yield value, name
        if type(member) is dict:
            yield from places(member)


def change_json(source, text):
    """Changes one member of the document, or where it is."""
    root = json.loads(text)
    spots = list(places(root))
    holder, name = source.choice(spots)
    kind = source.randrange(5)
    if kind == 0:
        holder[name] = copy.deepcopy(source.choice(VALUES))
    elif kind == 1:
        del holder[name]
    elif kind == 2:
        holder[source.choice(NAMES)] = holder.pop(name)
    elif kind == 3:
        other, other_name = source.choice(spots)
        holder[name] = copy.deepcopy(other[other_name])
    else:
        change_value(source, holder, name)
    return report_text(root).encode(errors="surrogatepass")


def change_value(source, holder, name):
    value = holder[name]
    if type(value) is str:
        holder[name] = source.choice(TEXT_CHANGES)(source, value.encode()).decode(errors="replace")
    elif type(value) is not dict:
        holder[name] = source.choice((value + 1, value - 1, value * 10**16, value / 3, -value))


def change_blob(source, text):
    """Changes a structure within its base64."""
    root = json.loads(text)
    blobs = [(holder, name) for holder, name in places(root) if type(holder[name]) is str and is_blob(holder[name])]
    holder, name = source.choice(blobs)
    holder[name] = encoded(source.choice(BLOB_CHANGES)(source, decoded(holder[name])))
    return report_text(root).encode()


def change_number(source, text):
    """Changes how the counter is written."""
    return re.sub(rb'("val": )[^,\n]*', rb"\g<1>" + source.choice(NUMBERS).encode(), text)


def is_blob(letters):
    return len(letters) > 40 and len(letters) % 4 == 0 and "+" not in letters[:1]


KINDS = {"answer": 4, "report": 4, "context": 3, "secret": 1}  # how many kinds of change there are for each


def mutated(source, name, data):
    for _ in range(source.choice((1, 1, 1, 2, 5))):
        kinds = (change_text, change_json, change_blob, change_number)[: KINDS[name]]
        try:
            data = source.choice(kinds)(source, data)
        except (ValueError, LookupError, AttributeError, TypeError, OverflowError, RecursionError):
            data = change_text(source, data)  # an earlier change left no such document
    return data


def change_text(source, data):
    return source.choice(TEXT_CHANGES)(source, data)


# --- one exchange -----------------------------------------------------------------------------------------------------


class Exchange:
    """An Exchange is a good one, of which one document at a time is replaced."""

    def __init__(self, counter=7):
        with tempfile.TemporaryDirectory() as folder:
            device = SoftwareDevice(folder)
            device.counter = counter
            context = context_for(device.report(), device.ek.spki)
            secret = os.urandom(documents.SECRET_SIZE)
            answer = device.answer(context, secret)
            self.ek_digest = context["expected"]["ekDigest"]
            contents = {"answer": answer, "context": context, "report": device.report()}
        self.documents = {name: report_text(content).encode() for name, content in contents.items()}
        self.documents["secret"] = secret
        if not self.is_accepted("answer", self.documents["answer"]):
            raise AssertionError("the good answer is not accepted")

    def is_accepted(self, name, data):
        """Judges the exchange with this document; a first report is only made a challenge for."""
        content = {**self.documents, name: data}
        if name == "report":
            challenge.make_context(parsed(content[name], documents.parse_report), "round 1")
            return False
        report = parsed(content["answer"], documents.parse_attested_report)
        context = parsed(content["context"], documents.parse_context)
        secret = documents.check_secret(content["secret"], "secret")
        verdict = verification.judge(report, context, secret, self.ek_digest)
        verdict.to_json()
        str(verdict).encode()
        return verdict.ok

    def says_the_same(self, name, data):
        """Returns whether the document differs from the good one only in blanks, order, or what nobody judges."""
        return name != "secret" and judged_part(data) == judged_part(self.documents[name])


def parsed(data, parse):
    return parse(documents.parse_json(data, "test"), "test")


def judged_part(data):
    content = documents.parse_json(data, "test")
    content.get("tpm2", {}).get("ak", {}).pop("actChall", None)  # only the device reads it
    return content


def outcome(exchange, name, data):
    """What came of this document; the outcomes that must not be begin with "WRONG"."""
    try:
        if not exchange.is_accepted(name, data):
            return "refused"
        return "the same" if exchange.says_the_same(name, data) else "WRONG: accepted"
    except Fault:
        return "fault"
    except Exception as error:
        return f"WRONG: {error!r}"


def campaign(count, seed, report):
    """Tries this many documents; returns how often each outcome came. `report` is told of each wrong one."""
    source = random.Random(seed)
    exchanges = [Exchange()] * 50 + [Exchange(2**60 + 12345)]  # the latter takes long, so it has few turns
    outcomes = collections.Counter()
    for number in range(count):
        exchange = exchanges[number % len(exchanges)]
        name = source.choice(("answer", "answer", "answer", "context", "report", "secret"))
        data = mutated(source, name, exchange.documents[name])
        if data == exchange.documents[name]:
            outcomes["unchanged"] += 1
            continue
        result = outcome(exchange, name, data)
        outcomes[result.split(":")[0]] += 1
        if result.startswith("WRONG"):
            report(f"{result}: case {number}, {name}: {data!r}")
    return outcomes


def main(words):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=100000, help="how many documents (default: %(default)s)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (default: %(default)s)")
    arguments = parser.parse_args(words)
    outcomes = campaign(arguments.count, arguments.seed, lambda text: print(text[:2000]))
    print(", ".join(f"{result}: {times}" for result, times in sorted(outcomes.items())))
    return 1 if outcomes["WRONG"] or outcomes["refused"] < arguments.count // 20 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
