"""The fleet as one HTML file that needs nothing else: no network, no folder beside it, and no script to be read.

Serials, labels and what is told of a bad answer come from devices, and so from anybody. They get into the page through
`safe` alone; besides, the page's own policy lets no script run but the one whose digest it names.
"""

import base64
import datetime
import hashlib
import html
import os
import pathlib
import tempfile
from collections import Counter

from sqlalchemy import func, select

from .fault import Fault
from .fleet_verdicts import parse_checks
from .fleet_views import stream, time_text
from .registry import ENROLLED, devices, milliseconds, verdicts
from .tables import visible

HERE = pathlib.Path(__file__).parent
PLOTTED = 24  # values
PLOT_WIDTH, PLOT_HEIGHT = 120, 24
WHY_LIMIT = 300  # letters

# The states in the order in which somebody looks after them, each with what it is called above the table.
STATES = {
    "refused": "last answer refused",
    "unanswered": "never answered well",
    "good": "last answer good",
    "imported": "imported only",
    "retired": "retired",
}
COLUMNS = ("Serial", "Label", "State", "Last good answer", "Counter", "Why the last one failed", "EK digest")


def write_page(registry, path):
    """Writes the page to a file, in one step. The rows go there as they come, so any fleet fits into memory."""
    if os.path.islink(path) or os.path.exists(path) and not os.path.isfile(path):
        raise Fault(f"{path}: not a plain file")
    try:
        with tempfile.TemporaryDirectory(dir=os.path.dirname(path) or ".", prefix=".new-") as folder:
            rows, page = os.path.join(folder, "rows"), os.path.join(folder, "page")
            with registry.read() as connection:
                now = milliseconds()
                totals = _write_rows(connection, now, rows)
            _write_around(rows, page, _head(totals, now), _foot())
            os.replace(page, path)
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None


def _write_rows(connection, now, path):
    """Writes the table's rows and returns how many devices there are of each state."""
    totals = Counter()
    with open(path, "w", encoding="utf-8") as output:
        for state in STATES:
            for device, values, last in _devices_in(connection, state):
                output.write(_row(device, state, values, last, now))
                totals[state] += 1
    return totals


def _write_around(rows, path, head, foot):
    with open(path, "w", encoding="utf-8") as output, open(rows, encoding="utf-8") as content:
        output.write(head)
        while chunk := content.read(1 << 16):
            output.write(chunk)
        output.write(foot)


# --- from the registry ------------------------------------------------------------------------------------------------


def _devices_in(connection, state):
    """Yields the devices of a state, each with its last accepted values and, if that was refused, its last verdict."""
    newer = verdicts.alias()
    newest = select(func.max(newer.c.id)).where(newer.c.device_id == devices.c.id).correlate(devices).scalar_subquery()
    both = devices.outerjoin(verdicts, verdicts.c.id == newest)
    is_refused, is_not = verdicts.c.ok.is_(False), verdicts.c.ok.is_not(False)
    conditions = {
        "refused": [devices.c.state == ENROLLED, is_refused],
        "unanswered": [devices.c.state == ENROLLED, is_not, devices.c.last_good.is_(None)],
        "good": [devices.c.state == ENROLLED, is_not, devices.c.last_good.is_not(None)],
    }.get(state, [devices.c.state == state])
    statement = select(devices, verdicts.c.id.label("last")).select_from(both).where(*conditions)
    statement = statement.order_by(devices.c.serial, devices.c.id)
    for group in stream(connection, statement).partitions():
        values = _last_values(connection, [device.id for device in group])
        refused = _refused(connection, [device.last for device in group if device.last is not None])
        for device in group:
            yield device, values.get(device.id, ()), refused.get(device.last)


def _last_values(connection, ids):
    """The accepted values of each device that are plotted, the oldest first."""
    place = func.row_number().over(partition_by=verdicts.c.device_id, order_by=verdicts.c.id.desc()).label("place")
    accepted = select(verdicts.c.id, verdicts.c.device_id, verdicts.c.counter, place)
    accepted = accepted.where(verdicts.c.device_id.in_(ids), verdicts.c.ok).subquery()
    statement = select(accepted).where(accepted.c.place <= PLOTTED).order_by(accepted.c.id)
    values = {}
    for row in connection.execute(statement):
        values.setdefault(row.device_id, []).append(row.counter)
    return values


def _refused(connection, ids):
    rows = connection.execute(select(verdicts).where(verdicts.c.id.in_(ids), ~verdicts.c.ok))
    return {row.id: row for row in rows}


# --- to HTML ----------------------------------------------------------------------------------------------------------


def safe(text):
    """A text of any content as HTML that shows it, with a sign for each letter that would not be seen."""
    return html.escape(visible(text))


def _row(device, state, values, last, now):
    counter = -1 if device.counter is None else device.counter
    cells = (
        _cell(safe(device.serial)),
        _cell(safe(device.label)),
        _cell(f'<span class="mark">{state}</span>', key=list(STATES).index(state)),
        _cell(_age(device.last_good, now), key=now - (device.last_good or 0)),
        _cell(_counter(device.counter, values), key=counter),
        _cell(_why(last)),
        _cell(f'<code title="{device.ek_digest}">{device.ek_digest[:8]}</code>'),
    )
    return f'<tr role="row" class="{state}">{"".join(cells)}</tr>\n'


def _cell(content, key=None):
    """A cell; `key` is the number that it is sorted by, if that is not its text."""
    attribute = "" if key is None else f' data-key="{key}"'
    return f'<td role="cell"{attribute}>{content}</td>'


def _age(then, now):
    if then is None:
        return ""
    return f"{age_text(now - then)}<small>{_minute(then)}</small>"


def _minute(then):
    text = time_text(then)
    return f'<time datetime="{text}">{text[:10]} {text[11:16]}</time>'


def age_text(age):
    """A number of milliseconds in the largest unit of which there are two."""
    seconds = max(age, 0) // 1000
    for unit, name in ((86400, "days"), (3600, "hours"), (60, "minutes")):
        if seconds >= 2 * unit:
            return f"{seconds // unit} {name} ago"
    return "just now"


def _counter(counter, values):
    return "" if counter is None else f'<span class="number">{counter}</span>{_plot(values)}'


def _plot(values):
    """The accepted values as steps from the first to the last, in the same width whatever they are."""
    if len(values) < 2:
        return ""
    low, high = min(values), max(values)
    last = len(values) - 1
    points = [
        (number * PLOT_WIDTH // last, PLOT_HEIGHT - 2 - (value - low) * (PLOT_HEIGHT - 4) // max(high - low, 1))
        for number, value in enumerate(values)
    ]
    steps = "".join(f"H{x}V{y}" for x, y in points[1:])
    title = f"{len(values)} values, from {values[0]} to {values[-1]}"
    return (
        f'<svg class="plot" viewBox="0 0 {PLOT_WIDTH} {PLOT_HEIGHT}" role="img" aria-label="{title}">'
        f'<path d="M{points[0][0]} {points[0][1]}{steps}"/>'
        f'<circle cx="{points[-1][0]}" cy="{points[-1][1]}" r="2.5"/></svg>'
    )


def _why(verdict):
    if verdict is None:
        return ""
    failed = [check for check in parse_checks(verdict.checks) if not check.ok]
    names = verdict.error or ", ".join(check.name for check in failed)
    details = "; ".join(check.detail for check in failed)
    shortened = details if len(details) <= WHY_LIMIT else f"{details[:WHY_LIMIT]}…"
    return f"{safe(names)}<small>{_minute(verdict.time)} {safe(shortened)}</small>"


def _head(totals, now):
    style, script = _asset("page.css"), _asset("page.js")
    ours = f"style-src {_digest(style)}; script-src {_digest(script)}"
    policy = f"default-src 'none'; {ours}; img-src data:; base-uri 'none'; form-action 'none'"
    taken = datetime.datetime.fromtimestamp(now // 1000, datetime.timezone.utc).strftime("%d %B %Y, %H:%M UTC")
    cards = [("", "devices", sum(totals.values())), *((state, STATES[state], totals[state]) for state in STATES)]
    return f"""<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="{policy}">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="referrer" content="no-referrer">
<title>Fleet</title>
<link rel="icon" href="data:,">
<style>{style}</style>
</head>
<body>
<header>
<h1>Fleet</h1>
<p class="taken">As of <time datetime="{time_text(now)}">{taken}</time></p>
</header>
<main>
<ul class="totals">
{"".join(_card(*card) for card in cards)}</ul>
<div class="tools">
<input type="search" placeholder="Filter: serial, label, key, reason" aria-label="Filter" aria-keyshortcuts="/">
<output aria-live="polite">{sum(totals.values())} devices</output>
</div>
<div class="frame">
<table role="table">
<thead role="rowgroup"><tr role="row">{"".join(map(_heading, COLUMNS))}</tr></thead>
<tbody role="rowgroup">
"""


def _card(state, what, count):
    pressed = "false" if state else "true"
    return (
        f'<li class="{state}"><button type="button" data-state="{state}" aria-pressed="{pressed}">'
        f'<b>{count}</b><span class="{"mark" if state else ""}">{what}</span></button></li>\n'
    )


def _heading(title):
    order = ' aria-sort="ascending"' if title == "State" else ""  # as the rows are written
    return f'<th role="columnheader" scope="col"{order}><button type="button">{title}</button></th>'


def _foot():
    return f"""</tbody>
</table>
<p class="none" hidden>No device fits.</p>
</div>
</main>
<script>{_asset("page.js")}</script>
</body>
</html>
"""


def _asset(name):
    return (HERE / name).read_text(encoding="utf-8")


def _digest(text):
    return f"'sha256-{base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()}'"
