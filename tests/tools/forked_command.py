"""The commands of tools/ as modules, and their runs in processes made from this one.

Such a run has all modules at hand: it takes a tenth of the time of one that begins with the interpreter's start. For the
rest it is a run like any other, with descriptors, exit status and memory of its own.
"""

import importlib.machinery
import importlib.util
import os
import signal
import subprocess
import sys
import tempfile
import traceback

TOOLS = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
LIMIT = 60  # seconds


def load_command(name, *parts):
    """One of the commands as a module, with those parts of its package that it loads when it needs them."""
    if TOOLS not in sys.path:
        sys.path.append(TOOLS)
    for part in ("command_line", *parts):
        importlib.import_module(f"featurewatch_tools.{part}")
    keeps_none = sys.dont_write_bytecode
    loader = importlib.machinery.SourceFileLoader(name, os.path.join(TOOLS, name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    sys.dont_write_bytecode = keeps_none  # the command wants that for itself
    return module


def run_forked(main, words, content=b"", prepare=lambda: None):
    """Runs `main(words)` to its end, with `content` on standard input; `prepare` is called in there before.

    Returns what `subprocess.run` would. A run that goes beyond the limit ends by SIGALRM.
    """
    sys.stdout.flush()
    sys.stderr.flush()
    with tempfile.TemporaryFile() as given, tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as errors:
        given.write(content)
        given.seek(0)
        process = os.fork()
        if process == 0:
            _run_child(main, words, (given, output, errors), prepare)
        status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
        output.seek(0)
        errors.seek(0)
        return subprocess.CompletedProcess(words, status, output.read(), errors.read())


def _run_child(main, words, streams, prepare):
    """Never returns."""
    status = 70
    try:
        signal.alarm(LIMIT)
        for number, stream in enumerate(streams):
            os.dup2(stream.fileno(), number)
        prepare()
        status = _exit_status(main, [os.fsdecode(word) for word in words])
        sys.stdout.flush()
        sys.stderr.flush()
    except BaseException:
        traceback.print_exc()
        sys.stderr.flush()
    finally:
        os._exit(status)


def _exit_status(main, words):
    try:
        return main(words)
    except SystemExit as exit:  # as argparse ends after --help
        return exit.code or 0
