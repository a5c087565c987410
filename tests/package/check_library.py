"""Compares docs/library.md with what it describes.

  check_library.py page                   each block of code is a file of the folder examples, and each file is on the page
  check_library.py headers HEADER...      the table lists exactly these public headers
  check_library.py example NAME PROGRAM   the program prints what the page shows after the example NAME
  check_library.py commands               prints the page's commands, in order, as one shell script
"""

import pathlib
import re
import subprocess
import sys

EXAMPLES = pathlib.Path(__file__).resolve().parent / "examples"
PAGE = EXAMPLES.parents[2] / "docs" / "library.md"


def blocks():
    """The page's fenced blocks as pairs of language and text."""
    return re.findall(r"^```(\w+)\n(.*?)^```$", PAGE.read_text(), re.MULTILINE | re.DOTALL)


def difference(what, on_page, expected):
    """One line for each thing that is on one side only."""
    lines = [f"{what} {name} is on the page only" for name in sorted(on_page - expected)]
    return lines + [f"{what} {name} is not on the page" for name in sorted(expected - on_page)]


def check_page():
    shown = {text for language, text in blocks() if language in ("cpp", "cmake")}
    files = {path.read_text(): path.name for path in EXAMPLES.iterdir()}
    strangers = [f"no file has this text:\n{text}" for text in shown - files.keys()]
    return strangers + [f"{files[text]} is not on the page as it is" for text in files.keys() - shown]


def check_headers(headers):
    table = re.findall(r"^\|.*\| `<orvanta/(\S+)>` \|", PAGE.read_text(), re.MULTILINE)
    return difference("header", set(table), set(headers))


def transcript(name):
    """What the page says that an example prints: the block after its code, which begins with the command."""
    texts = [text for _, text in blocks()]
    code = texts.index((EXAMPLES / f"{name}.cpp").read_text())
    command, output = texts[code + 1].split("\n", 1)
    assert command == f"$ ./{name}", f"the output of {name} does not follow its code"
    return output


def check_example(name, program):
    run = subprocess.run([program], stdout=subprocess.PIPE, text=True, timeout=30)
    if run.returncode:
        return [f"{name} ended with status {run.returncode}"]
    if run.stdout != transcript(name):
        return [f"{name} prints\n{run.stdout}instead of\n{transcript(name)}"]
    return []


def commands():
    print("".join(text for language, text in blocks() if language == "sh"), end="")
    return []


def main(verb, *arguments):
    verbs = {"page": check_page, "headers": lambda *names: check_headers(names)}
    verbs |= {"example": check_example, "commands": commands}
    faults = verbs[verb](*arguments)
    for fault in faults:
        print(f"docs/library.md: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
