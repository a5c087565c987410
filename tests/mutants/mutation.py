"""What a mutation is: one small change of one source."""

from dataclasses import dataclass


@dataclass(frozen=True)
class Mutation:
    """Mutation replaces the bytes from `start` to `end` of a source by `text`. `path` is relative to the tree's root."""

    path: str
    line: int
    start: int
    end: int
    text: str
    what: str

    def apply(self, source):
        """Returns the bytes of the source with the change."""
        return source[: self.start] + self.text.encode() + source[self.end :]

    def __str__(self):
        return f"{self.path}:{self.line}: {self.what}"


def shown(text, limit=50):
    """Returns a text on one line, shortened."""
    line = " ".join(text.split())
    return line if len(line) <= limit else line[: limit - 3] + "..."
