"""Errors that say which layer they are about."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager


@contextmanager
def naming(layer: str) -> Iterator[None]:
    """Put the name of a layer ahead of what is wrong with it."""
    try:
        yield
    except (TypeError, ValueError) as problem:
        kind = TypeError if isinstance(problem, TypeError) else ValueError  # subclasses may take other arguments
        raise kind(f"{layer}: {problem}") from problem
