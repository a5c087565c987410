"""The checks of an attested report. docs/attestation.md tells what each of them proves."""

import hmac
import re
from decimal import Decimal

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec

from .documents import shown
from .structures import (
    AK_TEMPLATE,
    EK_TEMPLATE,
    GENERATED_IN_TPM,
    SESSION_AUDIT,
    qualified_name,
    session_digest,
)
from .verdict import Check, Verdict


def judge(report, context, secret, ek_digest=None):
    """Judges an attested report; `ek_digest` is the digest of the EK that is known from elsewhere."""
    counter = exact_counter(report)
    checks = [
        *judge_keys(report, context, ek_digest),
        Check("credential", are_equal(report.response, secret), "actResp is the secret: one TPM holds EK and AK"),
        *judge_attestation(report, context, counter),
        same("cbData", report.cb_data, context.cb_data),
        same("serial", report.identity["serial"], context.identity["serial"]),
        same("altSerial", report.identity["altSerial"], context.identity["altSerial"]),
    ]
    ok = all(check.ok for check in checks)
    ek_known = ek_digest is not None and is_digest(ek_digest, report.ek)
    return Verdict(ok, checks, counter if ok else None, report.ek.digest(), report.ak.digest(), ek_known=ek_known)


def judge_keys(report, context, ek_digest):
    ek_ok = is_digest(context.ek_digest, report.ek) and (ek_digest is None or is_digest(ek_digest, report.ek))
    source = "and of --ek-digest" if ek_digest else "and compared with no other source (no --ek-digest)"
    ak_ok = are_equal(report.ak.whole, context.ak_public) and are_equal(report.ak_private, context.ak_private)
    return [
        fits("ek-template", report.ek, EK_TEMPLATE, "the EK is of template L-2 of the TCG EK Credential Profile"),
        Check("ek-identity", ek_ok, f"the EK ({report.ek.digest()}) is that of the first report {source}"),
        fits("ak-template", report.ak, AK_TEMPLATE, "the AK is a restricted signing key, fixed to its TPM"),
        Check("ak-identity", ak_ok, "the AK is that of the context, public and private area"),
    ]


def judge_attestation(report, context, counter):
    attestation = report.attestation
    magic, kind = attestation.kind
    signed = signature_holds(report.ak, attestation.data, report.signature)
    signer_ok = are_equal(attestation.qualified_signer, qualified_name(report.ek, report.ak))
    kind_ok = attestation.kind == (GENERATED_IN_TPM, SESSION_AUDIT)
    nonce_ok = are_equal(attestation.extra_data, context.nonce)
    read = f"a value that prints as {shown(report.val)}" if counter is None else counter
    return [
        Check("signature", signed, "the AK signed the attestation"),
        Check("kind", kind_ok, f"the attestation is a session audit made by a TPM: {magic:08x}, {kind:04x}"),
        Check("exclusive", attestation.exclusive is True, "no command came between the reading and the attestation"),
        Check("nonce", nonce_ok, "the attestation was made for this context"),
        Check("signer", signer_ok, "the attestation names this AK, under this EK, as its signer"),
        Check("counter", counter is not None, f"the session read {read} from the counter and did nothing else"),
    ]


# --- single properties ------------------------------------------------------------------------------------------------


def are_equal(data, expected):
    """Compares in constant time: an answer's sender must not learn from the clock how much of it was right."""
    return hmac.compare_digest(data, expected)


def is_digest(text, key):
    return are_equal(text.encode(), key.digest().encode())


def fits(name, key, template, what):
    faults = key.faults(template)
    return Check(name, not faults, f"{what}: {faults}" if faults else what)


def same(name, value, expected):
    what = f"the report's {name} is {told(expected)}"
    return Check(name, value == expected, what if value == expected else f"{what}: it is {told(value)}")


def told(value):
    return "nothing" if value is None else shown(value)


def signature_holds(key, data, signature):
    try:
        public = ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), key.point())
        public.verify(signature, data, ec.ECDSA(hashes.SHA256()))
    except (InvalidSignature, ValueError):  # the latter for a point off the curve
        return False
    return True


# --- the counter ------------------------------------------------------------------------------------------------------


# What %.16g makes of the whole numbers from 0 up to 2^64: sixteen digits, or more of them with an exponent.
WHOLE_NUMBER = re.compile(r"0|[1-9][0-9]{0,15}|[1-9](\.[0-9]{0,14}[1-9])?e\+1[6-9]")


def exact_counter(report):
    """The counter that the attestation states and `val` only rounds; None if it is of something else."""
    digest = report.attestation.session_digest
    if digest is None:
        return None
    return next((value for value in counters_printed_as(report.val) if are_equal(session_digest(value), digest)), None)


def printed(counter):
    """A counter as a report prints it: as a double, with 16 digits."""
    return f"{float(counter):.16g}"


def counters_printed_as(val):
    """All counters that a report prints like this: one below 2^53, above it up to some ten thousand."""
    if not WHOLE_NUMBER.fullmatch(val):
        return []
    middle = int(Decimal(val))
    # The 16th digit counts 10^4 at most, a double's last bit 2^11; half of each lies to either side.
    reach = 5000 + 1024 if middle >= 2**53 else 0
    numbers = range(max(middle - reach, 0), min(middle + reach + 1, 2**64))
    return [counter for counter in numbers if printed(counter) == val]
