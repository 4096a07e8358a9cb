"""Work on ranges of rows or blocks, one thread for each piece."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager

import torch


@contextmanager
def serial_operators() -> Iterator[int]:
    """Operators of threads started inside run on one core each; gives the number of threads to start."""
    threads = torch.get_num_threads()
    torch.set_num_threads(1)
    try:
        yield threads
    finally:
        torch.set_num_threads(threads)


def for_each_piece(
    count: int, step: int, work: Callable[[int, int], None], advance: Callable[[int], None] = lambda _: None
) -> None:
    """Call ``work(first, last)`` for the ranges that cut ``count`` into pieces of ``step``.

    The pieces run side by side, each operator of theirs on one thread: operators that split their own work
    meet at a barrier every few microseconds, and a weight that takes a second took ten as soon as another
    program wanted a core. It also makes the result independent of the number of threads. ``advance(n)`` is
    called, in order, for every n items done. The first exception, in order, is raised.
    """
    ranges = [(first, min(first + step, count)) for first in range(0, count, step)]
    with serial_operators() as threads:
        if len(ranges) == 1 or threads == 1:
            for first, last in ranges:
                work(first, last)
                advance(last - first)
            return
        with ThreadPoolExecutor(min(threads, len(ranges))) as pool:
            running = [pool.submit(work, first, last) for first, last in ranges]
            try:
                for (first, last), future in zip(ranges, running, strict=True):
                    future.result()
                    advance(last - first)
            finally:
                for future in running:
                    future.cancel()
