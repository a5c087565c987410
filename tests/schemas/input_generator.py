"""Generates inputs of the agent: good ones and, by a change or two, ones that are nearly good.

All that is generated is strict JSON in UTF-8, so that only the schema is in question. The same seed makes the same files.
"""

import json

from featurewatch_tools.documents import Number
from harness import DEFAULT_SERIAL
from schema_support import nodes, value_at, with_value, without

NUMBERS = """
    0 -0 7 -7 1.5 7.0 70e-1 0.7E1 1e400 -1e400 1e-400 1.7976931348623157e308 -1.7976931348623157e308 1.8e308 1e308
    9007199254740993 18446744073709551616
""".split()
NUMBERS += ["9" * 308, "9" * 309]
TEXTS = ["", "x", " ", "\n", "\0", "a\0b", "ü日本😀", '"\\/\b\f\n\r\t', "\x7f\x1f", "null", DEFAULT_SERIAL, "x" * 300]
NAMES = """
    name features serial params validFrom validUntil Name names x ü
    cbData nonce tpm2 ak pubTpm2B privTpm2B actChall NONCE
""".split()
NAMES += ["", "\0", " name", "nonce "]
DATES = """
    2026-01-31 2026-01-32 2026-01-00 2026-00-10 2026-13-10 2026-04-30 2026-04-31 2026-06-31 2026-09-31 2026-11-31 2026-12-31
    2024-02-29 2025-02-29 2026-02-28 2026-02-30 2028-02-31 2000-02-29 1900-02-29 2100-02-29 2400-02-29 0000-02-29 0004-02-29
    0100-02-29 9996-02-29 9999-12-31 0000-01-01 10000-01-01 999-01-01 2026-1-01 2026/01/01 ２０２６-01-01 2026-01-1٣ -026-01-01
""".split()
TIMES = """
    00:00:00 23:59:59 24:00:00 12:60:00 12:00:60 12:59:59 1:00:00 12:00 12:00:00.5 -1:00:00 12.00.00 19:00:00 20:09:00
""".split()
ENDS = ["Z"] * 16 + ["z", "", "+00:00", "Z\n", "Z ", "\nZ", "ZZ", "Z\0"]
LETTERS = "ABQgwzZ019+/"
OTHER_LETTERS = "=-_ \n!ü."


class Generator:
    """A Generator makes one input after the other from a source of random numbers."""

    def __init__(self, source):
        self._source = source

    def features(self, needs_serial):
        document = {"features": [self._feature() for _ in range(self._source.choice((0, 1, 1, 2, 3)))]}
        if needs_serial or self._chance(0.3):
            document["serial"] = DEFAULT_SERIAL
        if self._chance(0.2):
            document["other"] = self._value()
        return self._finish(document)

    def context(self):
        key = {"pubTpm2B": self._letters(), "privTpm2B": self._letters(), "actChall": self._letters()}
        key = {name: text for name, text in key.items() if self._chance(0.8)}
        members = {"cbData": self._text(), "nonce": self._letters(), "tpm2": {"ak": key}, "other": self._value()}
        return self._finish({name: value for name, value in members.items() if self._chance(0.7)})

    def _finish(self, document):
        for _ in range(self._source.choice((0, 0, 1, 1, 2))):
            document = self._changed(document)
        return self._written(document)

    # --- parts

    def _chance(self, probability):
        return self._source.random() < probability

    def _text(self):
        return self._source.choice(TEXTS)

    def _feature(self):
        feature = {"name": self._text() if self._chance(0.05) else self._source.choice(("wall", "ü", "a b", "\n"))}
        for name in ("validFrom", "validUntil"):
            if self._chance(0.4):
                feature[name] = self._instant()
        if self._chance(0.4):
            feature["params"] = {"p": self._value()} if self._chance(0.8) else {}
        if self._chance(0.1):
            feature["other"] = self._value()
        if self._chance(0.1):
            feature[self._source.choice(list(feature))] = self._value()
        return feature

    def _instant(self):
        """Most are good: one that is not spoils the whole file."""
        date, time = self._source.choice(DATES), self._source.choice(TIMES)
        year = f"{self._source.randrange(10000):04}"
        parts = (date if self._chance(0.3) else year + "-02-28", time if self._chance(0.2) else "19:08:07")
        if self._chance(0.05):
            parts = (year + "-02-29", parts[1])
        return "T".join(parts) + (self._source.choice(ENDS) if self._chance(0.2) else "Z")

    def _letters(self):
        """Base64 of up to 64 bytes with other letters between, or next to nothing."""
        count = self._source.choice((0, 1, 2, 3, 4, 8, 86, 87)) if self._chance(0.2) else 4
        letters = [self._source.choice(LETTERS) for _ in range(count)]
        for _ in range(self._source.choice((0, 0, 0, 1, 3))):
            letters.insert(self._source.randrange(len(letters) + 1), self._source.choice(OTHER_LETTERS))
        return "".join(letters)

    def _number(self):
        return Number(self._source.choice(NUMBERS))

    def _value(self, depth=0):
        makers = [lambda: None, lambda: True, lambda: False, self._number, self._number, self._text, self._text]
        if depth < 4:
            makers += [lambda: self._list(depth + 1), lambda: self._object(depth + 1)] * 2
        return self._source.choice(makers)()

    def _list(self, depth):
        return [self._value(depth) for _ in range(self._source.randrange(4))]

    def _object(self, depth):
        return {self._source.choice(NAMES): self._value(depth) for _ in range(self._source.randrange(4))}

    # --- changes

    def _changed(self, document):
        path = self._source.choice(list(nodes(document)))
        change = self._source.choice((self._replace, self._drop, self._rename, self._add, self._edit))
        return change(document, path)

    def _replace(self, document, path):
        return with_value(document, path, self._value())

    def _drop(self, document, path):
        return without(document, path) if path else document

    def _add(self, document, path):
        value = value_at(document, path)
        if isinstance(value, dict):
            return with_value(document, path, {**value, self._source.choice(NAMES): self._value()})
        if isinstance(value, list):
            return with_value(document, path, [*value, self._value()])
        return document

    def _rename(self, document, path):
        if not path or isinstance(path[-1], int):
            return document
        return self._put(without(document, path), path[:-1], value_at(document, path))

    def _put(self, document, path, value):
        return with_value(document, path, {**value_at(document, path), self._source.choice(NAMES): value})

    def _edit(self, document, path):
        """Changes one letter of a text."""
        value = value_at(document, path)
        if not isinstance(value, str) or isinstance(value, Number):
            return document
        place = self._source.randrange(len(value) + 1)
        letter = self._source.choice(("", "0", "9", "\n", " ", "Z", "\0"))
        return with_value(document, path, value[:place] + letter + value[place + self._source.randrange(2) :])

    def _written(self, document):
        """With or without escapes, dense or with blanks."""
        return written(document, self._chance(0.5), self._source.choice((",", ", ", "\n,\t"))).encode()


def written(value, ensure_ascii, comma):
    """A JSON text with numbers as they are given."""
    if isinstance(value, Number):
        return str(value)
    if isinstance(value, dict):
        pairs = (f"{json.dumps(name, ensure_ascii=ensure_ascii)}: " for name in value)
        items = (written(item, ensure_ascii, comma) for item in value.values())
        return "{" + comma.join(map("".join, zip(pairs, items))) + "}"
    if isinstance(value, list):
        return "[" + comma.join(written(item, ensure_ascii, comma) for item in value) + "]"
    return json.dumps(value, ensure_ascii=ensure_ascii)
