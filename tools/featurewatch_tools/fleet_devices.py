"""Devices of a fleet: how they come into the registry and leave it.

Serial and EK belong to each other. An EK has one serial for life; a serial has one EK in service at a time.
"""

from typing import NamedTuple

from sqlalchemy import bindparam, insert, null, or_, select, update

from .challenge import unfit_keys
from .documents import parse_report, shown
from .fault import Fault
from .json_lines import as_written
from .registry import ENROLLED, IMPORTED, RETIRED, challenges, devices

TEXT_LIMIT = 256  # letters; a PostgreSQL index takes some 2,700 bytes


class Refusal(Exception):
    """A Refusal is what the registry's rules say against something that was well asked."""


def check_text(value, what):
    """Returns `value` if any database can hold it."""
    if "\0" in value or len(value) > TEXT_LIMIT:
        raise Fault(f"{what}: it has more than {TEXT_LIMIT} letters or the letter U+0000")
    return value


def check_serial(value, what="the serial"):
    if not value:
        raise Fault(f"{what} is empty")
    return check_text(value, what)


class Enrolment(NamedTuple):
    """An Enrolment is a report that shall be believed, and why: `expected` is the EK digest known from elsewhere,
    `first_contact` says that there need be none. `label` is None where it shall stay as it is."""

    serial: str
    ek_digest: str
    content: str
    expected: str | None = None
    first_contact: bool = False
    label: str | None = None


def read_enrolment(value, where, **grounds):
    """Reads a report from parsed JSON. Keys that can't be challenged are a Refusal."""
    report = parse_report(value, where)
    for key, faults in unfit_keys(report).items():
        raise Refusal(f"no {key} to challenge: {faults}")
    return Enrolment(check_serial(report.identity["serial"]), report.ek.digest(), _content(value), **grounds)


def _content(report):
    """What a challenge is made from. An answer that the report may hold is no part of it."""
    tpm = report["tpm2"]
    ak = {name: tpm["ak"][name] for name in ("pubTpm2B", "privTpm2B")}
    kept = {**tpm, "ak": ak, "tallyCounter": {"val": tpm["tallyCounter"]["val"]}}
    return as_written({"serial": report["serial"], "altSerial": report["altSerial"], "tpm2": kept})


def enrol(registry, enrolments):
    """Enrols all that the rules allow, in one transaction. Returns a text for each: why it is refused, or None."""

    def work(connection):
        known = _Devices(connection, enrolments)
        refusals = [_enrol(known, enrolment) for enrolment in enrolments]
        known.save()
        return refusals

    return registry.write(work)


def _enrol(known, enrolment):
    device = known.by_ek.get(enrolment.ek_digest)
    refusal = known.contradiction(enrolment) or _distrust(device, enrolment)
    if refusal:
        return refusal
    if device is None:
        device = known.add(enrolment)
    device.update(state=ENROLLED, report=enrolment.content)
    if enrolment.label is not None:
        device.update(label=enrolment.label)
    known.touched.append(device)
    return None


def _distrust(device, enrolment):
    """Why the report's EK can't be believed to be this device's; None if it can."""
    if enrolment.expected not in (None, enrolment.ek_digest):
        return f"the report has the EK {enrolment.ek_digest}, not the expected one"
    if device is None and enrolment.expected is None and not enrolment.first_contact:
        return "its EK is known from nowhere: import it, or use --ek-digest or --first-contact"
    return None


class Entry(NamedTuple):
    """An Entry is what the factory says of a device."""

    serial: str
    ek_digest: str
    label: str


def add_entries(connection, entries):
    """Adds the devices that are not known yet. Returns a text for each entry: what contradicts it, or None; and how
    many are new."""
    known = _Devices(connection, entries)
    refusals, count = [], 0
    for entry in entries:
        device = known.by_ek.get(entry.ek_digest)
        refusal = None if device and device["serial"] == entry.serial else known.contradiction(entry)
        if device is None and refusal is None:
            known.add(entry)["label"] = entry.label
            count += 1
        refusals.append(refusal)
    known.save()
    return refusals, count


def retire(registry, serial):
    """Takes a device's EK out of service, for good, with the secrets of its open challenges."""

    def work(connection):
        device = in_service(connection, serial, lock=True)
        connection.execute(update(devices).where(devices.c.id == device.id).values(state=RETIRED))
        connection.execute(update(challenges).where(challenges.c.device_id == device.id).values(secret=null()))

    registry.write(work)


def in_service(connection, serial, lock=False):
    """The row of the device with this serial that is not retired; a Refusal if there is none."""
    statement = select(devices).where(devices.c.serial == serial)
    if lock:
        statement = statement.with_for_update(key_share=True)
    rows = connection.execute(statement).all()
    for row in rows:
        if row.state != RETIRED:
            return row
    raise Refusal(f"the device {shown(serial)} is {'retired' if rows else 'unknown'}")


class _Devices:
    """_Devices are the rows that some candidates may meet, locked, and the changes that are not saved yet.

    A candidate has a serial and an EK digest."""

    def __init__(self, connection, candidates):
        self._connection = connection
        self._added, self.touched = [], []
        self.by_ek, self._by_serial = {}, {}
        for row in connection.execute(_candidates_statement(candidates)).mappings():
            self._index(dict(row))

    def _index(self, device):
        self.by_ek[device["ek_digest"]] = device
        if device["state"] != RETIRED:
            self._by_serial[device["serial"]] = device

    def contradiction(self, candidate):
        """What the registry has against this pair of serial and EK, or None."""
        device = self.by_ek.get(candidate.ek_digest)
        other = self._by_serial.get(candidate.serial)
        if device and device["serial"] != candidate.serial:
            return f"its EK belongs to the device {shown(device['serial'])}"
        if device and device["state"] == RETIRED:
            return "its EK is retired for good"
        if other and other is not device:
            advice = "" if other["state"] == IMPORTED else "; retire that first"
            return f"its serial is {other['state']} with another EK, {other['ek_digest']}{advice}"
        return None

    def add(self, candidate):
        device = {
            "serial": candidate.serial,
            "ek_digest": candidate.ek_digest,
            "label": "",
            "state": IMPORTED,
            "report": None,
        }
        self._index(device)
        self._added.append(device)
        return device

    def save(self):
        if self._added:
            self._connection.execute(insert(devices), self._added)
        changes = [
            {"this": device["id"], **{f"new_{name}": device[name] for name in ("state", "label", "report")}}
            for device in self.touched
            if "id" in device
        ]
        if changes:
            self._connection.execute(_CHANGE, changes)


_CHANGE = (
    update(devices)
    .where(devices.c.id == bindparam("this"))
    .values({name: bindparam(f"new_{name}") for name in ("state", "label", "report")})
)


def _candidates_statement(candidates):
    serials = {candidate.serial for candidate in candidates}
    digests = {candidate.ek_digest for candidate in candidates}
    known = or_(devices.c.serial.in_(serials), devices.c.ek_digest.in_(digests))
    return select(devices).where(known).order_by(devices.c.id).with_for_update(key_share=True)
