"""Features as a device takes them: what it would leave out, change or never list is a Fault here."""

import datetime
import re
from decimal import Decimal

from .documents import parse_json, shown
from .fault import Fault

DEPTH_LIMIT = 100  # a device leaves out an entry that has anything deeper in its parameters


def exact_number(parse):
    """Makes a reader of numbers that refuses what a device, which prints doubles with 16 digits, would change."""

    def read(digits):
        printed = f"{float(digits):.16g}"
        if not are_equal(digits, printed):
            raise ValueError(f"{digits[:40]} would be {printed} on the device")
        return parse(digits)

    return read


def are_equal(number, other):
    try:
        return Decimal(number) == Decimal(other)
    except ArithmeticError:  # an exponent beyond all measure
        return False


EXACT_NUMBERS = {"parse_int": exact_number(int), "parse_float": exact_number(float)}


def parse_params(data, what):
    return parse_json(data, what, EXACT_NUMBERS)


def parse_features(data, what):
    features = parse_json(data, what, EXACT_NUMBERS)
    if type(features) is not list:
        raise Fault(f"{what}: no list of features")
    for index, feature in enumerate(features):
        check_feature(feature, f"{what}: feature {index}")
    return features


def check_feature(feature, what):
    if type(feature) is not dict:
        raise Fault(f"{what} is no object")
    checks = {"name": check_text, "validFrom": check_instant, "validUntil": check_instant, "params": check_params}
    if "name" not in feature:
        raise Fault(f"{what} has no name")
    for name, value in feature.items():
        if name not in checks:
            raise Fault(f"{what} has an unknown member {shown(name)}")
        checks[name](value, f"{name} of {what}")
    # All instants have one form, so their order is that of the texts.
    if "validFrom" in feature and "validUntil" in feature and feature["validFrom"] >= feature["validUntil"]:
        raise Fault(f"{what} would never be active: validFrom is not before validUntil")


def check_text(value, what):
    if type(value) is not str or not value:
        raise Fault(f"{what} is no text or empty")
    if "\0" in value:
        raise Fault(f"{what} has a NUL character")


def check_instant(value, what):
    match = type(value) is str and re.fullmatch("(....)-(..)-(..)T(..):(..):(..)Z", value)
    try:
        if not match or not value.isascii() or not "".join(match.groups()).isdigit():
            raise ValueError
        datetime.datetime(*map(int, match.groups()))
    except ValueError:
        raise Fault(f"{what} is no instant like 2026-01-31T23:59:59Z") from None


def check_params(params, what):
    if type(params) is not dict:
        raise Fault(f"{what} is no object")
    pending = [(params, 1)]
    while pending:
        value, depth = pending.pop()
        if type(value) in (dict, list) and value and depth > DEPTH_LIMIT:
            raise Fault(f"{what} nests deeper than {DEPTH_LIMIT}")
        if type(value) is str and "\0" in value:
            raise Fault(f"{what} has a NUL character")
        if type(value) is dict:
            for name in value:
                check_text(name, f"a member's name in {what}")
            value = list(value.values())
        if type(value) is list:
            pending.extend((element, depth + 1) for element in value)
