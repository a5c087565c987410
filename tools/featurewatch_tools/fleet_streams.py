"""Whole fleets by JSON Lines: many challenges, enrolments or answers in one run, in bounded memory and in order.

Each function yields batches of objects, one for each line of output. What an object says is durable before it comes.
"""

from . import fleet_challenges, fleet_devices, fleet_verdicts
from .documents import members, parse_json, text
from .fault import Fault
from .fleet_import import parse_digest
from .json_lines import LINE_LIMIT, TOO_LONG, as_written, batches
from .verdict import unusable


def challenge_lines(registry, cb_data, valid):
    for group in fleet_challenges.challenge_all(registry, cb_data, valid):
        yield [challenge._asdict() for challenge in group]


# --- answers ----------------------------------------------------------------------------------------------------------


def verdict_lines(registry, descriptor):
    for batch in batches(descriptor):
        yield _judge_batch(registry, [(number, *_parse_answer(number, line)) for number, line in batch])


def _judge_batch(registry, entries):
    judged = iter(fleet_verdicts.judge_answers(registry, [it for _, _, it in entries if not isinstance(it, Fault)]))
    return [
        (_bad_line(entry) if isinstance(entry, Fault) else next(judged)).to_object(number, line_id)
        for number, line_id, entry in entries
    ]


def _bad_line(fault):
    return fleet_verdicts.Judgement(unusable(str(fault)))


def _parse_answer(number, line):
    """The line's id, and the Answer or the Fault that it is."""
    line_id = None
    try:
        value = _parse(number, line)
        if type(value) is dict and "report" in value:
            line_id, value = _unwrap(value, number)
        return line_id, fleet_verdicts.parse_answer(value, f"line {number}")
    except Fault as fault:
        return line_id, fault


def _unwrap(value, number):
    for name in value:
        if name not in ("id", "report"):
            raise Fault(f"line {number} has members other than id and report")
    try:
        as_written(value.get("id"))
    except RecursionError:
        raise Fault(f"line {number}: nested too deep") from None
    return value.get("id"), value["report"]


def _parse(number, line):
    if line is TOO_LONG:
        raise Fault(f"line {number}: longer than {LINE_LIMIT} bytes")
    return parse_json(line, f"line {number}")


# --- enrolments -------------------------------------------------------------------------------------------------------


def enrolment_lines(registry, descriptor):
    for batch in batches(descriptor):
        yield _enrol_batch(registry, [(number, _parse_enrolment(number, line)) for number, line in batch])


def _enrol_batch(registry, entries):
    good = [entry for _, entry in entries if isinstance(entry, fleet_devices.Enrolment)]
    refusals = iter(fleet_devices.enrol(registry, good))
    return [_enrolment_object(number, entry, refusals) for number, entry in entries]


def _enrolment_object(number, entry, refusals):
    if isinstance(entry, Exception):
        return {"line": number, "serial": None, "ekDigest": None, "ok": False, "error": str(entry)}
    error = next(refusals)
    return {
        "line": number,
        "serial": entry.serial,
        "ekDigest": entry.ek_digest,
        "ok": error is None,
        "error": error,
    }


def _parse_enrolment(number, line):
    where = f"line {number}"
    try:
        report, digest, label = members(_parse(number, line), where, ("report",), ("ekDigest", "label"))
        return fleet_devices.read_enrolment(
            report,
            where,
            expected=None if digest is None else parse_digest(text(digest, "ekDigest")),
            label=None if label is None else fleet_devices.check_text(text(label, "label"), "label"),
        )
    except (Fault, fleet_devices.Refusal) as error:
        return error
