"""Verdicts on attested reports, and how they are printed."""

import json
from collections.abc import Sequence
from typing import NamedTuple


class Check(NamedTuple):
    """A Check is a property that must hold, and whether it does."""

    name: str
    ok: bool
    detail: str

    def __str__(self):
        return f"{'ok' if self.ok else 'FAILED':6}  {self.name:11}  {self.detail}"


class Verdict(NamedTuple):
    """A Verdict holds all checks, the failed ones too. `counter` is None unless it is good.

    `error` says why nothing could be checked.
    """

    ok: bool
    checks: Sequence[Check] = ()
    counter: int | None = None
    ek_digest: str | None = None
    ak_digest: str | None = None
    error: str | None = None

    def to_object(self):
        """The verdict for JSON. The counter is a text, as readers may turn numbers into doubles."""
        return {
            "ok": self.ok,
            "checks": [check._asdict() for check in self.checks],
            "counter": None if self.counter is None else str(self.counter),
            "ekDigest": self.ek_digest,
            "akDigest": self.ak_digest,
            "error": self.error,
        }

    def to_json(self):
        return json.dumps(self.to_object(), indent=2) + "\n"

    def __str__(self):
        end = f"The attestation holds: the counter is {self.counter}." if self.ok else "The attestation does NOT hold."
        return "".join(f"{line}\n" for line in (*self.checks, end))


def unusable(error):
    return Verdict(False, error=error)
