"""Verdicts of a fleet: what `verification` says of an answer, and what the registry remembers.

The costly part, `verification`, comes first and without a lock. Then one transaction looks again at all that other
workers may have changed, and records the verdict, the counter and the use of the challenge together.
"""

import hashlib
import json
import secrets
from typing import NamedTuple

from sqlalchemy import bindparam, insert, null, select, update

from .documents import SECRET_SIZE, Report, parse_attested_report, parse_context, parse_json
from .json_lines import as_written
from .registry import ENROLLED, challenges, devices, milliseconds, verdicts
from .verdict import Check, Verdict
from .verification import exact_counter, judge

NO_SECRET = "actResp can't be compared: the secret went when the challenge was used, expired or withdrawn"
NO_CHALLENGE = "no challenge of this registry has the nonce of this answer"


class Answer(NamedTuple):
    """An Answer is an attested report and the digest of its content."""

    report: Report
    digest: bytes

    @property
    def nonce(self):
        return self.report.attestation.extra_data

    @property
    def ek_digest(self):
        return self.report.ek.digest()


def parse_answer(value, where):
    report = parse_attested_report(value, where)
    return Answer(report, hashlib.sha256(as_written(value, sort=True).encode()).digest())


class Judgement(NamedTuple):
    """A Judgement is the verdict on a line. `verdict` names no keys where the line holds no report."""

    verdict: Verdict
    serial: str | None = None
    repeated: bool = False

    def to_object(self, line, line_id):
        verdict = self.verdict.to_object()
        return {
            "line": line,
            "id": line_id,
            "serial": self.serial,
            **{name: verdict[name] for name in ("ok", "checks", "counter", "ekDigest")},
            "repeated": self.repeated,
            "error": verdict["error"],
        }

    def __str__(self):
        if self.verdict.error:
            return f"The answer is NOT good: {self.verdict.error}.\n"
        checks = "".join(f"{'ok' if it.ok else 'FAILED':6}  {it.name:13}  {it.detail}\n" for it in self.verdict.checks)
        counter = self.verdict.counter
        end = f"The attestation holds: the counter is {counter}." if self.verdict.ok else "The answer is NOT good."
        note = " It was judged before, and this is the recorded verdict." if self.repeated else ""
        return f"{checks}{end}{note}\n"


def judge_answers(registry, answers):
    """Judges and records answers, in their order and in one transaction. Returns a Judgement for each, durable."""
    with registry.read() as connection:
        asked = _read_asked(connection, answers)
    opinions = {digest: _form_opinion(answer, row) for digest, (answer, row) in asked.items()}
    return registry.write(lambda connection: _Record(connection, answers, opinions).judgements())


# --- before the transaction -------------------------------------------------------------------------------------------


class _Opinion(NamedTuple):
    """An _Opinion is what can be said of an answer by its challenge alone, which never changes."""

    challenge_id: int
    checks: list
    counter: int | None


def _read_asked(connection, answers):
    """Answers with the challenges that they answer, by the answers' digests, as far as there is no verdict yet."""
    recorded = _select_in(connection, select(verdicts.c.answer), verdicts.c.answer, [it.digest for it in answers])
    digests = {row.answer for row in recorded}
    statement = select(challenges, devices.c.ek_digest).join(devices)
    rows = _select_in(connection, statement, challenges.c.nonce, [it.nonce for it in answers])
    asked = {row.nonce: row for row in rows}
    return {it.digest: (it, asked[it.nonce]) for it in answers if it.digest not in digests and it.nonce in asked}


def _form_opinion(answer, asked):
    context = parse_context(parse_json(asked.context.encode(), "the registry"), "the registry")
    verdict = judge(answer.report, context, asked.secret or secrets.token_bytes(SECRET_SIZE), asked.ek_digest)
    changed = {"ek-identity": f"the EK ({answer.ek_digest}) is that of the registry"}
    if asked.secret is None:
        changed["credential"] = NO_SECRET
    checks = [check._replace(detail=changed.get(check.name, check.detail)) for check in verdict.checks]
    return _Opinion(asked.id, checks, verdict.counter if verdict.ok else exact_counter(answer.report))


def _select_in(connection, statement, column, values):
    return connection.execute(statement.where(column.in_(set(values)))).all()


# --- in the transaction -----------------------------------------------------------------------------------------------


class _Record:
    """A _Record is one transaction's view of the rows that some answers concern, and the changes to them."""

    def __init__(self, connection, answers, opinions):
        self._connection, self._answers, self._opinions = connection, answers, opinions
        self._now = None
        self._new, self._accepted = [], {}

    def judgements(self):
        self._lock_devices()
        self._now = milliseconds()
        rows = _select_in(
            self._connection, select(verdicts), verdicts.c.answer, [answer.digest for answer in self._answers]
        )
        self._recorded = {row.answer: _recorded_verdict(row) for row in rows}
        judgements = [self._judge(answer) for answer in self._answers]
        self._save()
        return judgements

    def _lock_devices(self):
        """Reads what may have changed since the opinions. The devices' locks keep it as it is from here on."""
        ids = [opinion.challenge_id for opinion in self._opinions.values()]
        of_challenges = select(challenges.c.device_id).where(challenges.c.id.in_(ids))
        statement = select(devices).where(devices.c.id.in_(of_challenges)).order_by(devices.c.id)
        rows = self._connection.execute(statement.with_for_update(key_share=True)).mappings()
        self._devices = {row["id"]: dict(row) for row in rows}
        columns = [challenges.c[name] for name in ("id", "device_id", "made", "expires", "used")]
        rows = _select_in(self._connection, select(*columns), challenges.c.id, ids)
        self._challenges = {row.id: dict(row._mapping) for row in rows}
        named = _select_in(
            self._connection,
            select(devices.c.id, devices.c.ek_digest),
            devices.c.ek_digest,
            [answer.ek_digest for answer in self._answers if answer.digest not in self._opinions],
        )
        self._named = {row.ek_digest: row.id for row in named}

    def _judge(self, answer):
        recorded = self._recorded.get(answer.digest)
        if recorded is None:
            verdict = self._decide(answer)
            self._recorded[answer.digest] = verdict
        else:
            verdict = recorded
        keys = {"ek_digest": answer.ek_digest, "ak_digest": answer.report.ak.digest()}
        return Judgement(verdict._replace(**keys), answer.report.identity["serial"], recorded is not None)

    def _decide(self, answer):
        opinion = self._opinions.get(answer.digest)
        if opinion is None:
            verdict = Verdict(False, error=NO_CHALLENGE)
            self._note(answer, verdict, self._named.get(answer.ek_digest), None)
            return verdict
        challenge = self._challenges[opinion.challenge_id]
        device = self._devices[challenge["device_id"]]
        checks = [*opinion.checks, *self._checks(answer, challenge, device, opinion.counter)]
        ok = all(check.ok for check in checks)
        verdict = Verdict(ok, checks, opinion.counter if ok else None)
        if ok:
            challenge["used"] = self._now
            device.update(counter=opinion.counter, last_good=self._now)
            self._accepted[challenge["id"]] = device
        self._note(answer, verdict, device["id"], challenge["id"])
        return verdict

    def _checks(self, answer, challenge, device, counter):
        is_registered = (
            device["state"] == ENROLLED
            and answer.ek_digest == device["ek_digest"]
            and answer.report.identity["serial"] == device["serial"]
        )
        seconds = (challenge["expires"] - challenge["made"]) // 1000
        return [
            Check("registered", is_registered, "the EK is enrolled, with this serial"),
            Check("unused", challenge["used"] is None, "no other answer to this challenge was accepted"),
            Check("in-time", self._now <= challenge["expires"], f"the answer came within {seconds} seconds"),
            _check_floor(counter, device["counter"]),
        ]

    def _note(self, answer, verdict, device_id, challenge_id):
        self._new.append(
            {
                "device_id": device_id,
                "challenge_id": challenge_id,
                "answer": answer.digest,
                "time": self._now,
                "ok": verdict.ok,
                "counter": verdict.counter,
                "checks": json.dumps(verdict.checks, separators=(",", ":")),
                "error": verdict.error,
            }
        )

    def _save(self):
        if self._new:
            self._connection.execute(insert(verdicts), self._new)
        if self._accepted:
            used = [{"this": challenge_id, "now": self._now} for challenge_id in sorted(self._accepted)]
            self._connection.execute(_USE, used)
            changed = {device["id"]: device for device in self._accepted.values()}
            counters = [{"this": key, "value": it["counter"], "now": self._now} for key, it in sorted(changed.items())]
            self._connection.execute(_COUNT, counters)


def _check_floor(counter, floor):
    what = "the counter is not lower than the last accepted value"
    if floor is None:
        return Check("counter-floor", counter is not None, f"{what}; none was accepted before")
    if counter is None or counter >= floor:
        return Check("counter-floor", counter is not None, f"{what}, {floor}")
    return Check("counter-floor", False, f"{what}, {floor}: it is {counter}")


_USE = (
    update(challenges)
    .where(challenges.c.id == bindparam("this"), challenges.c.used.is_(None))
    .values(used=bindparam("now"), secret=null())
)
_COUNT = (
    update(devices)
    .where(devices.c.id == bindparam("this"))
    .values(counter=bindparam("value"), last_good=bindparam("now"))
)


def parse_checks(text):
    return [Check(*check) for check in json.loads(text)]


def _recorded_verdict(row):
    return Verdict(row.ok, parse_checks(row.checks), row.counter, error=row.error)
