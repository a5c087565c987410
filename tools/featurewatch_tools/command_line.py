"""What the commands have in common: how they take their arguments, and how they end.

Exit status 2 means that the work was not done; what the other statuses mean is the command's own affair.
"""

import argparse
import contextlib
import signal
import sys

from . import files
from .fault import Fault

FORM = {"formatter_class": argparse.RawDescriptionHelpFormatter, "allow_abbrev": False}


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise Fault(f"{message}; see {self.prog} --help")


def utf8_text(value):
    try:
        value.encode()
    except UnicodeEncodeError:
        raise argparse.ArgumentTypeError("not UTF-8") from None
    return value


def run(parser, words, fault_object):
    """Runs the command that these words ask for and returns its exit status.

    A Fault, a missing package and whatever else nobody foresaw end with one line and status 2, never with a traceback;
    with --json, `fault_object` makes the object that goes to standard output as well. A user who interrupts it knows why.
    """
    try:
        arguments = parser.parse_args(words)
        return arguments.run(arguments)
    except Fault as fault:
        reason = str(fault)
    except ModuleNotFoundError as error:
        reason = f"a Python package is missing: {error.name}"
    except Exception as error:
        reason = f"internal error, please report it: {error!r}"
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    print(f"{parser.prog}: {reason}", file=sys.stderr)
    if "--json" in words:
        with contextlib.suppress(Fault):  # the fault may be that nothing can be put there
            files.put(fault_object(reason))
    return 2
