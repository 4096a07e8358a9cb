"""Python text in a process of its own, for what happens once in each: start, exit, fork, first builds."""

from __future__ import annotations

import os
import subprocess
import sys
import textwrap
from collections.abc import Sequence

SECONDS = 400  # of a process that takes a few on an idle machine and minutes on a busy one under a sanitizer


def run_python(
    text: str, *arguments: str, unset: Sequence[str] = (), timeout: float = SECONDS, **environment: str
) -> subprocess.CompletedProcess[str]:
    """Run `text` with `arguments` in sys.argv, this process's environment less `unset` plus `environment`."""
    merged = {name: value for name, value in os.environ.items() if name not in unset} | environment
    command = [sys.executable, "-c", textwrap.dedent(text), *arguments]
    return subprocess.run(command, env=merged, capture_output=True, text=True, timeout=timeout)


def output_of(text: str, *arguments: str, unset: Sequence[str] = (), **environment: str) -> str:
    """Run `text`, which has to end with exit code 0, and return what it printed."""
    done = run_python(text, *arguments, unset=unset, **environment)
    assert done.returncode == 0, f"exit code {done.returncode}\n{done.stdout}\n{done.stderr}"
    return done.stdout
