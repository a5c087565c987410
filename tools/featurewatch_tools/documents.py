"""Strict reading of JSON, base64, contexts and reports: whatever could be read in two ways is a Fault.

`where` says where a document came from, a file's name for example; it begins the messages about the whole of it.
"""

import base64
import json
import re
import secrets
from typing import NamedTuple

from .fault import Fault
from .structures import Attestation, PublicArea, der_signature, read_attestation, read_public, read_sized

NONCE_SIZE = SECRET_SIZE = 32


# --- JSON and base64 --------------------------------------------------------------------------------------------------


class Number(str):
    """A Number is a JSON number as it is written."""


AS_WRITTEN = {"parse_int": Number, "parse_float": Number}


def unique_members(pairs):
    value = dict(pairs)
    if len(value) != len(pairs):
        raise ValueError("two members of one name in an object")
    return value


def no_number(name):
    raise ValueError(f"{name} is no number")


def parse_json(data, what, numbers=AS_WRITTEN):
    """Parses one JSON text in UTF-8. `numbers` holds json's hooks for them; {} makes them Python's own."""
    try:
        value = json.loads(data.decode(), object_pairs_hook=unique_members, parse_constant=no_number, **numbers)
        compact(value).encode()  # fails on an escape that stands for half a character
        return value
    except RecursionError:
        raise Fault(f"{what}: nested too deep") from None
    except ValueError as error:
        raise Fault(f"{what}: no JSON in UTF-8: {error}") from None


class MarkedNumber(str):
    """A MarkedNumber is a number that is only handed on, behind a mark that nobody can foresee."""

    MARK = secrets.token_hex(16)

    def __new__(cls, digits):
        return super().__new__(cls, cls.MARK + digits)


TO_HAND_ON = {"parse_int": MarkedNumber, "parse_float": MarkedNumber}


def handed_on(value):
    """Prints parsed JSON; a MarkedNumber comes out with the digits that it was written with."""
    return re.sub(rf'"{MarkedNumber.MARK}([^"]*)"', r"\1", pretty(value))


def pretty(value):
    """A value from a file in a form that a terminal may see, on many lines; on one where it nests too deep."""
    try:
        return json.dumps(value, indent=2)
    except RecursionError:
        return shown(value)


def compact(value):
    return json.dumps(value, ensure_ascii=False, separators=(",", ":"))


def shown(value):
    """Something from a file in a form that a terminal may see: ASCII, on one line."""
    return json.dumps(value)


def members(value, where, required, optional=()):
    """Returns an object's members in the order of the names, None for an optional one that is missing."""
    if type(value) is not dict:
        raise Fault(f"{where} is no object")
    for name in required:
        if name not in value:
            raise Fault(f"{where} has no {name}")
    for name in value:
        if name not in (*required, *optional):
            raise Fault(f"{where} has an unknown member {shown(name)}")
        if value[name] is None:
            raise Fault(f"{where}: {name} is null")
    return [value.get(name) for name in (*required, *optional)]


def text(value, what):
    if type(value) is not str:
        raise Fault(f"{what} is no string")
    return value


def blob(value, what):
    """Decodes base64 (RFC 4648, section 4) in its one canonical form: padded, zero bits after the data."""
    try:
        data = base64.b64decode(text(value, what), validate=True)
    except ValueError:
        raise Fault(f"{what} is no base64") from None
    if base64_text(data) != value:
        raise Fault(f"{what} is no canonical base64")
    return data


def base64_text(data):
    return base64.b64encode(data).decode()


def if_given(parse, value, what):
    return None if value is None else parse(value, what)


# --- reports ----------------------------------------------------------------------------------------------------------


class Report(NamedTuple):
    """A Report is a device report. `response`, `attestation` and `signature` are None where it answers no context."""

    identity: dict
    cb_data: str | None
    ek: PublicArea
    ak: PublicArea
    ak_private: bytes
    val: Number
    response: bytes | None
    attestation: Attestation | None
    signature: bytes | None


def parse_report(value, where):
    """Reads a device report, attested or not, from parsed JSON whose numbers are as written."""
    serial, alt_serial, tpm, cb_data = members(value, "the report", ("serial", "altSerial", "tpm2"), ("cbData",))
    ek, ak, counter = members(tpm, "tpm2", ("ekEccNistP256PubTpm2B", "ak", "tallyCounter"))
    public, private, response = members(ak, "ak", ("pubTpm2B", "privTpm2B"), ("actResp",))
    val, attestation, signature = members(counter, "tallyCounter", ("val",), ("att", "sig"))
    if type(val) is not Number:
        raise Fault("val is no number")
    ak_private = blob(private, "privTpm2B")
    read_sized(ak_private, "privTpm2B")
    return Report(
        parse_identity(serial, alt_serial),
        if_given(text, cb_data, "cbData"),
        read_public(blob(ek, "ekEccNistP256PubTpm2B"), "ekEccNistP256PubTpm2B"),
        read_public(blob(public, "pubTpm2B"), "pubTpm2B"),
        ak_private,
        val,
        if_given(blob, response, "actResp"),
        if_given(read_attestation, if_given(blob, attestation, "att"), "att"),
        if_given(der_signature, if_given(blob, signature, "sig"), "sig"),
    )


def parse_attested_report(value, where):
    report = parse_report(value, where)
    if None in (report.response, report.attestation, report.signature):
        raise Fault(f"{where}: actResp, att and sig are not all there: it answers no challenge")
    return report


def parse_identity(serial, alt_serial):
    """Who the device says it is, in software."""
    names = ("boardSerial", "chassisSerial", "systemSerial", "userSerial")
    members(alt_serial, "altSerial", (), names)
    for name, value in {"serial": serial, **alt_serial}.items():
        text(value, name)
    return {"serial": serial, "altSerial": alt_serial}


# --- contexts ---------------------------------------------------------------------------------------------------------


class Context(NamedTuple):
    """A Context is what a device was asked, and what its answer must agree with."""

    nonce: bytes
    cb_data: str | None
    ak_public: bytes
    ak_private: bytes
    identity: dict
    ek_digest: str


def parse_context(value, where):
    nonce, tpm, expected, cb_data = members(value, "the context", ("nonce", "tpm2", "expected"), ("cbData",))
    (ak,) = members(tpm, "the context's tpm2", ("ak",))
    public, private, _ = members(ak, "the context's ak", ("pubTpm2B", "privTpm2B", "actChall"))
    serial, alt_serial, ek_digest = members(expected, "expected", ("serial", "altSerial", "ekDigest"))
    context = Context(
        blob(nonce, "nonce"),
        if_given(text, cb_data, "the context's cbData"),
        blob(public, "the context's pubTpm2B"),
        blob(private, "the context's privTpm2B"),
        parse_identity(serial, alt_serial),
        text(ek_digest, "ekDigest"),
    )
    if len(context.nonce) != NONCE_SIZE:
        raise Fault(f"{where}: the nonce has not {NONCE_SIZE} bytes")
    return context


def check_secret(secret, where):
    if len(secret) != SECRET_SIZE:
        raise Fault(f"{where}: not {SECRET_SIZE} bytes")
    return secret
