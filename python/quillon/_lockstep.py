"""A model's forward passes over several batches, in step: none enters a block before all have left the one before.

Each batch has a thread of its own, which waits at the edges of blocks; so the model's own code decides what a block is
given. Those that run at a time are as many as operators have threads otherwise, each with serial operators: results do
not depend on how many that is.
"""

from __future__ import annotations

import threading
from collections.abc import Callable, Iterator, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from typing import Any

import torch
from torch import nn

from quillon._pieces import serial_operators

Edge = tuple[str, str]
"""Where a pass waits: ("before" or "after", name of the block)."""


class Finished(BaseException):
    """Ends a pass whose rest nobody asks for."""


class Pass:
    """The forward pass of one batch."""

    def __init__(self, number: int, run: Callable[[], object]) -> None:
        self.number = number
        self.edge: Edge | None = None
        self.repeats = False
        """Whether it goes through a block for the second time."""
        self._run = run
        self._problem: BaseException | None = None
        self._cancelled = False
        self._go, self._paused = threading.Semaphore(0), threading.Semaphore(0)
        self._thread = threading.Thread(target=self._body, daemon=True)

    def _body(self) -> None:
        self._go.acquire()
        try:
            if not self._cancelled:
                with torch.no_grad():
                    self._run()
        except Finished:
            pass
        except BaseException as problem:
            self._problem = problem
        self.edge = None
        self._paused.release()

    def wait(self, edge: Edge) -> None:
        """Called by the pass itself: let the others come here."""
        self.edge = edge
        self._paused.release()
        self._go.acquire()
        if self._cancelled:
            raise Finished

    def resume(self) -> None:
        """Run up to the next edge, or to the end."""
        if self._thread.ident is None:
            self._thread.start()
        self._go.release()
        self._paused.acquire()
        if self._problem is not None:
            raise self._problem

    def cancel(self) -> None:
        """End a pass that waits."""
        if self._thread.is_alive():
            self._cancelled = True
            self._go.release()
            self._thread.join()


_CURRENT = threading.local()


def current_pass() -> Pass | None:
    """The pass whose thread this is."""
    found: Pass | None = getattr(_CURRENT, "value", None)
    return found


@contextmanager
def _waiting(
    blocks: Mapping[str, nn.Module], left: Callable[[Pass], None], again: Callable[[str], bool]
) -> Iterator[None]:
    """Blocks whose forward waits at both edges, and runs a second time where ``again`` says so."""
    before = {block: vars(block).get("forward") for block in blocks.values()}

    def wrap(name: str, forward: Callable[..., Any]) -> Callable[..., Any]:
        def run(*arguments: Any, **options: Any) -> Any:
            current = current_pass()
            if current is None:
                return forward(*arguments, **options)
            left(current)
            current.wait(("before", name))
            output = forward(*arguments, **options)
            left(current)
            current.wait(("after", name))
            if again(name):
                current.repeats = True
                output = forward(*arguments, **options)
                current.repeats = False
            return output

        return run

    try:
        for name, block in blocks.items():
            block.forward = wrap(name, block.forward)
        yield
    finally:
        for block, forward in before.items():
            del block.forward
            if forward is not None:
                block.forward = forward


def run_in_step(
    runs: Sequence[Callable[[], object]],
    blocks: Mapping[str, nn.Module],
    *,
    left: Callable[[Pass], None],
    again: Callable[[str], bool],
    arrived: Callable[[Edge | None], bool],
) -> None:
    """Run all of ``runs``.

    left     called by a pass that comes to a block, has been through one for the first time, or has ended
    again    whether a block is run a second time
    arrived  called each time that all passes wait at an edge, or have ended (None); whether they go on

    What a pass raises is raised here.
    """

    def begin(number: int, run: Callable[[], object]) -> Pass:
        def with_itself() -> None:
            _CURRENT.value = passes[number]
            try:
                run()
            finally:
                left(passes[number])

        return Pass(number, with_itself)

    passes: list[Pass] = []
    passes.extend(begin(number, run) for number, run in enumerate(runs))
    try:
        with _waiting(blocks, left, again):
            while True:
                with serial_operators() as threads, ThreadPoolExecutor(threads) as pool:
                    for _ in pool.map(Pass.resume, passes):
                        pass
                edges = {one.edge for one in passes}
                if len(edges) > 1:
                    raise ValueError(f"batches go through the model's blocks in different orders: {edges}")
                (edge,) = edges
                if not arrived(edge) or edge is None:
                    return
    finally:
        for one in passes:
            one.cancel()
