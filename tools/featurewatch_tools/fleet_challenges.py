"""Challenges of a fleet: contexts for devices, with the secrets kept in the registry."""

import base64
from typing import NamedTuple

from sqlalchemy import func, insert, null, select, update

from .challenge import make_context
from .documents import parse_json, parse_report, shown
from .fleet_devices import Refusal, in_service
from .json_lines import as_written
from .registry import ENROLLED, IMPORTED, challenges, devices, milliseconds

GROUP = 256
EXPIRY_GROUP = 10000


class Challenge(NamedTuple):
    serial: str
    context: dict


def challenge(registry, serial, cb_data, valid):
    """Makes a challenge for one device, to be answered within `valid` seconds."""
    with registry.read() as connection:
        device = in_service(connection, serial)
    if device.state == IMPORTED:
        raise Refusal(f"the device {shown(serial)} is imported and can't be challenged before it is enrolled")
    return _challenge_group(registry, [device], cb_data, valid)[0]


def challenge_all(registry, cb_data, valid):
    """Yields lists of challenges, one for each enrolled device in all. Each list is durable already."""
    last = 0
    while group := _next_group(registry, last):
        yield _challenge_group(registry, group, cb_data, valid)
        last = group[-1].id


def count_imported(registry):
    """How many devices can't be challenged, as they are only imported yet."""
    with registry.read() as connection:
        return connection.execute(select(func.count()).where(devices.c.state == IMPORTED)).scalar_one()


def _next_group(registry, last):
    enrolled = select(devices).where(devices.c.state == ENROLLED, devices.c.id > last)
    with registry.read() as connection:
        return connection.execute(enrolled.order_by(devices.c.id).limit(GROUP)).all()


def _challenge_group(registry, group, cb_data, valid):
    made = [_make(device, cb_data) for device in group]

    def work(connection):
        now = milliseconds()
        times = {"made": now, "expires": now + valid * 1000}
        connection.execute(insert(challenges), [{**row, **times} for row, _ in made])

    registry.write(work)
    return [challenge for _, challenge in made]


def _make(device, cb_data):
    """The row of a new challenge without its times, and the challenge."""
    report = parse_report(parse_json(device.report.encode(), "the registry"), "the registry")
    context, secret = make_context(report, cb_data)
    nonce = base64.b64decode(context["nonce"])
    row = {"device_id": device.id, "nonce": nonce, "context": as_written(context), "secret": secret}
    return row, Challenge(device.serial, context)


def forget_expired(registry):
    """Removes the secrets of challenges whose time is over, a group at a time so that no worker waits long."""
    expired = select(challenges.c.id).where(challenges.c.secret.is_not(None), challenges.c.expires < milliseconds())
    some = expired.limit(EXPIRY_GROUP).with_for_update(skip_locked=True)

    def work(connection):
        statement = update(challenges).where(challenges.c.id.in_(some)).values(secret=null())
        return connection.execute(statement, execution_options={"synchronize_session": False}).rowcount

    with registry.read() as connection:
        any_expired = connection.execute(expired.limit(1)).first()
    while any_expired and registry.write(work) == EXPIRY_GROUP:
        pass
