"""Writes the table of docs/architecture.md that tells where each format's code, test and benchmark are.

    python tools/format_files.py

The table follows from the list of kernels, the headers and what pytest collects, so it is written again when a file has
moved; a test compares.
"""

from __future__ import annotations

import re
import subprocess
import sys
from collections import Counter
from dataclasses import dataclass
from functools import cache
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
if __name__ == "__main__":
    sys.path.insert(0, str(PROJECT / "tools"))

from sections import write_section  # noqa: E402

from quillon._kernels import EXPANSIONS, KERNELS  # noqa: E402
from quillon.formats import WEIGHT_FORMATS  # noqa: E402

PAGE = PROJECT / "docs" / "architecture.md"
SECTION = "formats"

LAUNCHERS = "csrc/dispatch/launchers.cpp"


@dataclass(frozen=True)
class FormatFiles:
    """Where things of a format are; paths are relative to the project."""

    format: str
    reader: str
    kernel: str
    expansions: tuple[str, ...]
    launcher: str
    test: str
    benchmark: str


def format_files() -> list[FormatFiles]:
    """A row for each weight format, in order of code. What is known of formats and kernels is asked for here alone."""
    headers = {kernel.format: f"csrc/{kernel.header}" for kernel in KERNELS.values()}
    return [
        FormatFiles(
            format=name,
            reader=reader_of(name),
            kernel=headers[name],
            expansions=tuple(dict.fromkeys(f"csrc/{kernel.header}" for kernel in EXPANSIONS if kernel.format == name)),
            launcher=launcher_of(name),
            test=f"pytest {test_file_of(name)} -k {name}",
            benchmark=f"benchmarks/matvec.py --formats {name}",
        )
        for name in WEIGHT_FORMATS
    ]


def reader_of(name: str) -> str:
    """The header of a format's reader."""
    path = f"csrc/readers/{name}.h"
    if not (PROJECT / path).exists():
        raise ValueError(f"there is no {path}")
    return path


def launcher_of(name: str) -> str:
    """The launcher template whose instantiations stand in the tables."""
    text = (PROJECT / LAUNCHERS).read_text()
    named = re.search(rf"table\[qtype_{name}\] = &(\w+)<", text)
    return f"{named[1] if named else 'launch'} in {LAUNCHERS}"


@cache
def collected_tests() -> list[tuple[str, frozenset[str]]]:
    """File and parameters of every test of the matrix-vector kernels that has parameters."""
    command = [sys.executable, "-m", "pytest", "--collect-only", "-q", "--whole-grids", "tests/matvec"]
    done = subprocess.run(command, cwd=PROJECT, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"pytest cannot collect tests/matvec:\n{done.stdout[-2000:]}{done.stderr}")
    found = re.findall(r"^(\S+?)::\w+\[(.*)\]$", done.stdout, re.MULTILINE)
    return [(file, frozenset(parameters.split("-"))) for file, parameters in found]


def test_file_of(name: str) -> str:
    """The file with the most tests of a format."""
    counts = Counter(file for file, parameters in collected_tests() if name in parameters)
    if not counts:
        raise ValueError(f"no test in tests/matvec has {name} among its parameters")
    return counts.most_common(1)[0][0]


def table() -> str:
    """The table in Markdown, paths as links from the page."""
    lines = ["| format | reader | kernel | expansions | launcher | test | benchmark |", "|" + " --- |" * 7]
    for row in format_files():
        launcher, _, file = row.launcher.partition(" in ")
        expansions = ", ".join(map(_link, row.expansions))
        cells = [row.format, _link(row.reader), _link(row.kernel), expansions, f"[`{launcher}`](../{file})"]
        lines.append("| " + " | ".join([*cells, f"`{row.test}`", f"`{row.benchmark}`"]) + " |")
    return "\n".join(lines)


def _link(path: str) -> str:
    return f"[{Path(path).name}](../{path})"


if __name__ == "__main__":
    write_section(PAGE, SECTION, table())
