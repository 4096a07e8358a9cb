"""Running compilers, a few at a time and never for long, and keeping what they made."""

from __future__ import annotations

import hashlib
import os
import shutil
import subprocess
import tempfile
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import TypeVar

PROJECT = Path(__file__).resolve().parents[2]
SOURCES = PROJECT / "csrc"
CACHE = PROJECT / ".cache" / "gpu-code"

PARALLEL_JOBS = 2

Result = TypeVar("Result")


class GpuCompileError(RuntimeError):
    """A compiler failed, ran out of time or is missing; the message holds its output."""


def run_jobs(jobs: Iterable[Callable[[], Result]]) -> list[Result | GpuCompileError]:
    """Runs jobs a few at a time; gives, in order, each one's result or the ``GpuCompileError`` of its end."""

    def outcome(job: Callable[[], Result]) -> Result | GpuCompileError:
        try:
            return job()
        except GpuCompileError as error:
            return error

    with ThreadPoolExecutor(PARALLEL_JOBS) as pool:
        return list(pool.map(outcome, jobs))


def run(
    command: Sequence[str | Path],
    limit: int,
    env: Mapping[str, str] | None = None,
    cwd: str | None = None,
) -> str:
    """Output of a command; a ``GpuCompileError`` if it fails or takes longer than ``limit`` seconds."""
    shown = " ".join(str(word) for word in command)
    try:
        done = subprocess.run(
            [str(word) for word in command],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            timeout=limit,
            env=None if env is None else dict(env),
            cwd=cwd,
        )
    except subprocess.TimeoutExpired as error:
        raise GpuCompileError(f"no end after {limit} s: {shown}") from error
    except OSError as error:
        raise GpuCompileError(f"cannot run {command[0]}: {error.strerror}") from error
    if done.returncode != 0:
        raise GpuCompileError(f"exit code {done.returncode}: {shown}\n{done.stdout}")
    return done.stdout


def digest(*parts: str | bytes) -> str:
    """A hash of the parts, which tells ("ab", "c") from ("a", "bc")."""
    hashed = hashlib.sha256()
    for part in parts:
        data = part.encode() if isinstance(part, str) else part
        hashed.update(len(data).to_bytes(8, "little") + data)
    return hashed.hexdigest()[:32]


def scratch_folder() -> tempfile.TemporaryDirectory[str]:
    """A folder on the cache's file system, so that a finished result is moved into place in one step."""
    CACHE.mkdir(parents=True, exist_ok=True)
    return tempfile.TemporaryDirectory(dir=CACHE, prefix="unfinished-", ignore_cleanup_errors=True)


def move_atomically(folder: Path, kept: Path) -> None:
    """Moves the content of a scratch folder to the cache; whoever was first wins, with the same content."""
    kept.parent.mkdir(parents=True, exist_ok=True)
    finished = folder.with_name(f"{folder.name}-done")
    shutil.copytree(folder, finished)
    try:
        os.rename(finished, kept)
    except OSError:
        shutil.rmtree(finished)
        if not kept.exists():
            raise


def write_atomically(kept: Path, text: str) -> None:
    with scratch_folder() as scratch:
        kept.parent.mkdir(parents=True, exist_ok=True)
        (Path(scratch) / "text").write_text(text)
        os.replace(Path(scratch) / "text", kept)
