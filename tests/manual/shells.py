"""Real shells on a terminal of their own, in which the tests press TAB."""

import os
import pathlib
import re
import time

import pexpect
import pyte

from mdoc import ROOT

COMPLETIONS = ROOT / "completions"
COLUMNS, LINES = 160, 100
DEADLINE = 60  # seconds; for a machine under load
QUIET = 0.1  # seconds without output, after which a listing that has begun counts as whole
PROMPT = "ready>"
BASH = f"""
. /usr/share/bash-completion/bash_completion
bind 'set completion-query-items 0'; bind 'set page-completions off'; bind 'set show-all-if-ambiguous on'
bind 'set enable-bracketed-paste off'; bind 'set bell-style none'
PS1='{PROMPT} '
"""
ZSH = f"""
autoload -U compinit && compinit -u -D
unsetopt beep; LISTMAX=0
PS1='{PROMPT} '
"""
FISH = f"""
set -g fish_greeting
set -g fish_autosuggestion_enabled 0
function fish_prompt; echo -n '{PROMPT} '; end
"""
# What a shell runs to know the completions of the source tree; of the installed ones it knows by itself.
SOURCE_TREE = {
    "bash": f'for file in {COMPLETIONS}/bash/*; do . "$file"; done\n',
    "zsh": f"fpath=({COMPLETIONS}/zsh $fpath)\n",
    "fish": f"set -g fish_complete_path {COMPLETIONS}/fish $fish_complete_path\n",
}


def make_programs(home: pathlib.Path) -> pathlib.Path:
    """Commands of the right names, as fish completes only those that are there. No completion runs them."""
    folder = home / ".programs"
    folder.mkdir()
    for completion in (COMPLETIONS / "bash").iterdir():
        (folder / completion.name).symlink_to("/bin/false")
    return folder


def offered_options(screen: str, line: str) -> set[str]:
    """The options in what a shell shows after TAB on this line."""
    listing = screen.replace(f"{PROMPT} {line}", " ")
    return set(re.findall(r"(?:(?<=\s)|^)--?[A-Za-z][\w-]*", listing))


class Shell:
    """A shell in an empty home, whose current folder is the home. What it shows is on the screen.

    `start` is what it runs beside its settings: after them in bash, before them elsewhere.
    """

    def __init__(self, name: str, home: pathlib.Path, start: str = ""):
        self.name = name
        self.screen = pyte.Screen(COLUMNS, LINES)
        self.stream = pyte.Stream(self.screen)
        (home / ".bashrc").write_text(BASH + start)
        (home / ".zshrc").write_text(start + ZSH)
        fish = home / ".config" / "fish"
        fish.mkdir(parents=True)
        (fish / "config.fish").write_text(start + FISH)
        programs = make_programs(home)
        environment = {
            "HOME": str(home),
            "PATH": f"{programs}:{os.environ['PATH']}",
            "TERM": "xterm",
            "LC_ALL": "C.UTF-8",
        }
        self.process = pexpect.spawn(
            f"/usr/bin/{name}", ["-i"], env=environment, cwd=str(home), dimensions=(LINES, COLUMNS), encoding="utf-8"
        )
        self.wait_for(PROMPT)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.close(force=True)

    def read(self, seconds: float) -> bool:
        """Takes what the shell prints within this time; returns whether it was anything."""
        try:
            self.stream.feed(self.process.read_nonblocking(65536, timeout=seconds))
            return True
        except pexpect.TIMEOUT:
            return False

    def text(self) -> str:
        return "\n".join(line.rstrip() for line in self.screen.display).strip()

    def wait_for(self, *texts: str) -> str:
        """Waits until the screen has all these texts and stays as it is; returns it at the deadline in any case."""
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            if self.read(QUIET):
                continue
            shown = self.text()
            if all(text in shown for text in texts):
                break
        return self.text()

    def press_tab(self, line: str, *expected: str) -> str:
        """Types the line and TAB on an empty screen, waits for what is expected, and returns the screen."""
        self.screen.reset()
        self.process.send("\x15\x0c")  # Ctrl-U empties the line, Ctrl-L the screen
        self.process.send(line)
        self.wait_for(f"{PROMPT} {line.rstrip()}")
        self.process.send("\t")
        if self.name == "fish":
            self.wait_for(line.rstrip())
            self.process.send("\t")  # the first shows four lines only
        return self.wait_for(*expected)
