"""Sections of a Markdown file that a command writes, between two markers; all around them is written by hand and kept.

<!-- begin NAME: written by COMMAND -->
...
<!-- end NAME -->
"""

from __future__ import annotations

import re
from pathlib import Path


def _markers(text: str, name: str) -> re.Match[str]:
    pattern = rf"(<!-- begin {re.escape(name)}: [^\n]* -->\n)(.*?)(<!-- end {re.escape(name)} -->)"
    found = list(re.finditer(pattern, text, re.DOTALL))
    if len(found) != 1:
        raise ValueError(f"{len(found)} sections {name!r} where there must be one")
    return found[0]


def section(text: str, name: str) -> str:
    """What lies between the markers of a section."""
    return _markers(text, name)[2]


def with_section(text: str, name: str, content: str) -> str:
    """The text with other content between the markers of a section."""
    found = _markers(text, name)
    return text[: found.end(1)] + content.rstrip("\n") + "\n" + text[found.start(3) :]


def write_section(file: Path, name: str, content: str) -> None:
    """Replace a section of a file."""
    file.write_text(with_section(file.read_text(), name, content))
