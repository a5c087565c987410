"""The one exception of these tools that has a text for people."""


class Fault(Exception):
    """A Fault keeps a command from its work: wrong usage, or a file that isn't what it must be."""
