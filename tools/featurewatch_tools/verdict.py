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

    `error` says why nothing could be checked. `ek_known` is set only where the EK's digest came from elsewhere and fits:
    otherwise the answer may be that of any TPM, one made of software too.
    """

    ok: bool
    checks: Sequence[Check] = ()
    counter: int | None = None
    ek_digest: str | None = None
    ak_digest: str | None = None
    error: str | None = None
    ek_known: bool = False

    def to_object(self):
        """The verdict for JSON. The counter is a text, as readers may turn numbers into doubles."""
        return {
            "ok": self.ok,
            "checks": [check._asdict() for check in self.checks],
            "counter": None if self.counter is None else str(self.counter),
            "ekDigest": self.ek_digest,
            "akDigest": self.ak_digest,
            "ekKnown": self.ek_known,
            "error": self.error,
        }

    def to_json(self):
        return json.dumps(self.to_object(), indent=2) + "\n"

    def __str__(self):
        known = "" if self.ek_known else ", for an EK that nobody vouched for"
        good = f"The attestation holds{known}: the counter is {self.counter}."
        end = good if self.ok else "The attestation does NOT hold."
        return "".join(f"{line}\n" for line in (*self.checks, end))


def unusable(error):
    return Verdict(False, error=error)
