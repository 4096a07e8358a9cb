"""A one-line progress display on stderr, without dependencies."""

from __future__ import annotations

import sys
import time


class Progress:
    """Shows how far a job of ``total`` steps is.

    ``show`` None: only on a terminal and only when the job lasts longer than two seconds.
    """

    def __init__(self, label: str, total: int, show: bool | None) -> None:
        self._label, self._total, self._done = label, total, 0
        self._on = sys.stderr.isatty() if show is None else show
        self._start = time.monotonic()
        self._next = self._start + (2.0 if show is None else 0.0)
        self._drawn = False

    def advance(self, steps: int) -> None:
        """Count ``steps`` more as done."""
        self._done += steps
        now = time.monotonic()
        if not self._on or now < self._next:
            return
        self._next = now + 0.2
        self._drawn = True
        share = self._done / self._total
        left = (now - self._start) * (1 - share) / share
        bar = "#" * int(30 * share)
        sys.stderr.write(f"\r{self._label} [{bar:<30}] {share:4.0%} {left:4.0f} s left")
        sys.stderr.flush()

    def close(self) -> None:
        """End the line, if one was drawn."""
        if self._drawn:
            sys.stderr.write(
                f"\r{self._label} [{'#' * int(30 * self._done / self._total):<30}] "
                f"{self._done / self._total:4.0%} {time.monotonic() - self._start:4.1f} s    \n"
            )
            sys.stderr.flush()
