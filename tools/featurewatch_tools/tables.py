"""Tables for people: columns of text that no content can disturb."""

import itertools

LOOK_AHEAD = 500


def visible(value):
    """A text with all that is not a printable letter as an escape, so that a terminal only ever shows it."""
    return "".join(letter if letter.isprintable() and letter != "\\" else _escape(letter) for letter in value)


def _escape(letter):
    code = ord(letter)
    return "\\\\" if letter == "\\" else f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def table_lines(titles, rows):
    """Yields the lines of a table. The first rows decide how wide its columns are, so that it needs no whole fleet in
    memory; None is shown as a dash."""
    cells = ([visible("-" if value is None else value) for value in row] for row in rows)
    first = list(itertools.islice(cells, LOOK_AHEAD))
    widths = [max(map(len, column)) for column in zip(titles, *first)]
    for row in itertools.chain([titles], first, cells):
        yield "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
