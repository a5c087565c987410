"""The options that the commands really take, by command: "" stands for those before a command of a tool."""

import functools
import os
import pathlib
import re
import subprocess

from mdoc import ROOT

TOOLS = ("attest", "grant", "fleet")
HELP = {"-h", "--help"}


@functools.cache
def output(*command: str | pathlib.Path) -> str:
    environment = {**os.environ, "COLUMNS": "200"}
    return subprocess.run(command, env=environment, check=True, capture_output=True, text=True, timeout=60).stdout


def tool_help(tool: str, *words: str) -> str:
    return output("/usr/bin/python3", ROOT / "tools" / tool, *words, "--help")


def help_options(text: str) -> set[str]:
    """The options of argparse's own list: "  -h, --help  ..." and "  --report FILE  ..."."""
    listed = text.partition("\noptions:\n")[2].partition("\n\n")[0]
    heads = re.findall(r"^  (-.*?)(?:  |$)", listed, re.MULTILINE)
    return {word for head in heads for word in re.findall(r"(?:^|(?<= ))--?[a-zA-Z][\w-]*", head)}


def subcommands(text: str) -> list[str]:
    return re.findall(r"^    ([a-z]+)\b", text.partition("\n  COMMAND\n")[2], re.MULTILINE)


def tool_options(tool: str) -> dict[str, set[str]]:
    text = tool_help(tool)
    return {"": help_options(text)} | {name: help_options(tool_help(tool, name)) for name in subcommands(text)}


def scanned_options() -> set[str]:
    """The options that the agent's scan compares with."""
    source = (ROOT / "src" / "main" / "featurewatch.cpp").read_text()
    return set(re.findall(r'\bis\("(-[^"]+)"\)', source)) | set(re.findall(r'strcmp\(argv\[i\], "(-[^"]+)"\)', source))


def printed_options(agent: str) -> set[str]:
    """The options of the agent's usage: a line each."""
    return set(re.findall(r"^(-[\w-]+)[ :]", output(agent, "-h"), re.MULTILINE))


def check_options() -> set[str]:
    """The options of the monitoring plugin: the patterns of its case statements."""
    source = (ROOT / "device" / "featurewatch-check").read_text()
    patterns = re.findall(r"^ *(-[^()]*)\)", source, re.MULTILINE)
    return {word.rstrip("=*") for pattern in patterns for word in pattern.split(" | ")} - {"-"}
