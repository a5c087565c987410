"""What a registry shows: records of devices, of verdicts, and all of it. Secrets are in none of them."""

import base64
import datetime

from sqlalchemy import func, select

from .documents import parse_json, shown
from .fleet_devices import Refusal
from .fleet_verdicts import parse_checks
from .registry import RETIRED, challenges, devices, milliseconds, registry_table, verdicts

ROWS_AT_A_TIME = 500


def time_text(value):
    """Milliseconds since 1970 as a time of RFC 3339, in UTC."""
    if value is None:
        return None
    return datetime.datetime.fromtimestamp(value // 1000, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def number_text(value):
    return None if value is None else str(value)


def stored(text):
    """A stored document, with its numbers as they were written."""
    return None if text is None else parse_json(text.encode(), "the registry")


def stream(connection, statement):
    """Yields rows without ever holding all of them."""
    return connection.execution_options(stream_results=True).execute(statement).yield_per(ROWS_AT_A_TIME)


def device_record(row):
    return {
        "serial": row.serial,
        "label": row.label,
        "ekDigest": row.ek_digest,
        "state": row.state,
        "counter": number_text(row.counter),
        "lastGood": time_text(row.last_good),
    }


def verdict_record(row):
    return {
        "time": time_text(row.time),
        "ok": row.ok,
        "counter": number_text(row.counter),
        "failed": [check.name for check in parse_checks(row.checks) if not check.ok],
        "error": row.error,
    }


def device_records(connection):
    return map(device_record, stream(connection, select(devices).order_by(devices.c.serial, devices.c.id)))


def history_records(connection, serial):
    """The verdicts on all boards with this serial, the oldest first."""
    ids = [row.id for row in _boards(connection, serial)]
    statement = select(verdicts).where(verdicts.c.device_id.in_(ids)).order_by(verdicts.c.id)
    return map(verdict_record, stream(connection, statement))


def board_records(connection, serial):
    """All that is known of the boards with this serial, the one in service last."""
    return [_board_record(connection, row) for row in _boards(connection, serial)]


def _boards(connection, serial):
    rows = connection.execute(select(devices).where(devices.c.serial == serial).order_by(devices.c.id)).all()
    if not rows:
        raise Refusal(f"the device {shown(serial)} is unknown")
    return sorted(rows, key=lambda row: row.state != RETIRED)


def _board_record(connection, row):
    is_open = (challenges.c.device_id == row.id, challenges.c.used.is_(None), challenges.c.expires >= milliseconds())
    last = select(verdicts).where(verdicts.c.device_id == row.id).order_by(verdicts.c.id.desc()).limit(1)
    verdict = connection.execute(last).first()
    return {
        **device_record(row),
        "altSerial": (stored(row.report) or {}).get("altSerial"),
        "openChallenges": connection.execute(select(func.count()).where(*is_open)).scalar_one(),
        "lastVerdict": verdict_record(verdict) if verdict else None,
    }


# --- export -----------------------------------------------------------------------------------------------------------


def export_records(connection):
    """Everything but the secrets. Rows are told apart by their ids, by which they also name each other."""
    yield {"registry": {"version": connection.execute(select(registry_table.c.version)).scalar_one()}}
    for kind, table, record in (
        ("device", devices, _exported_device),
        ("challenge", challenges, _exported_challenge),
        ("verdict", verdicts, _exported_verdict),
    ):
        columns = [column for column in table.c if column is not challenges.c.secret]
        for row in stream(connection, select(*columns).order_by(table.c.id)):
            yield {kind: record(row)}


def _exported_device(row):
    return {"id": row.id, **device_record(row), "report": stored(row.report)}


def _exported_challenge(row):
    return {
        "id": row.id,
        "device": row.device_id,
        "made": time_text(row.made),
        "expires": time_text(row.expires),
        "used": time_text(row.used),
        "context": stored(row.context),
    }


def _exported_verdict(row):
    return {
        "id": row.id,
        "device": row.device_id,
        "challenge": row.challenge_id,
        "answer": base64.b16encode(row.answer).decode().lower(),
        **verdict_record(row),
        "checks": [check._asdict() for check in parse_checks(row.checks)],
    }
