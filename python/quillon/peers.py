"""What the processes of a group know of each other: that all came, of one version, and which of them has stopped.

Collectives of PyTorch tell that one failed, and not whose fault it was. Here the processes leave notes in the store by
which PyTorch's processes find each other, so that the error of those that are left names those that are not.
"""

from __future__ import annotations

import contextlib
import datetime
import functools
import importlib.metadata
import time
from collections.abc import Callable
from typing import Any, ParamSpec, TypeVar

import torch
import torch.distributed as dist

import vesper_linear

__all__ = ["PeerError", "meet", "names_the_stopped"]

P = ParamSpec("P")
R = TypeVar("R")

_POLL = 0.05
_GRACE = 2.0
"""Seconds that a process has beyond the time-out to leave its note, and to read those of the others."""


class PeerError(RuntimeError):
    """Another process of the group has died, hangs, has failed, or is of another version."""


def identity() -> str:
    """What must be the same in all processes of a group."""
    try:
        version = importlib.metadata.version("quillon")
    except importlib.metadata.PackageNotFoundError:
        version = "of a build tree"
    device_class = vesper_linear.get_xpu_device_name(torch.device("xpu")) if torch.xpu.is_available() else "none"
    return f"quillon {version}, PyTorch {torch.__version__}, XPU of class {device_class}"


def time_out(group: dist.ProcessGroup) -> datetime.timedelta:
    """How long the collectives of a group wait."""
    options: Any = group._get_backend(torch.device("xpu")).options
    found: datetime.timedelta = options._timeout
    return found


def _key(group: dist.ProcessGroup, kind: str, rank: int) -> str:
    return f"quillon/{group.group_name}/{kind}/{rank}"


def _store() -> Any:
    return dist.distributed_c10d._get_default_store()


def _wait_for(group: dist.ProcessGroup, kind: str, seconds: float) -> dict[int, str]:
    """The notes of a kind by process, as soon as all are there or the time is over."""
    store, waiting = _store(), set(dist.get_process_group_ranks(group))
    notes: dict[int, str] = {}
    end = time.monotonic() + seconds
    while True:
        for rank in sorted(waiting):
            if store.check([_key(group, kind, rank)]):
                notes[rank] = store.get(_key(group, kind, rank)).decode()
                waiting.discard(rank)
        if not waiting or time.monotonic() > end:
            return notes
        time.sleep(_POLL)


def _some(ranks: list[int], size: int) -> str:
    return f"process{'es' if len(ranks) > 1 else ''} {', '.join(map(str, ranks))} of {size}"


_met: dict[str, dist.ProcessGroup] = {}
_failed_in: set[str] = set()
"""Names of the groups in which this process has left a note of an error of its own."""


def meet(group: dist.ProcessGroup) -> None:
    """Wait for all processes of a group, once, and compare versions.

    Raises :class:`PeerError` that names who did not come within the group's time-out, or is of another version.
    """
    if _met.get(group.group_name) is group:
        return
    ranks = dist.get_process_group_ranks(group)
    own, here = identity(), dist.get_rank()
    _take_note_back(group)  # of a group of this name that is no more
    _store().set(_key(group, "version", here), own)
    wait = time_out(group).total_seconds()
    notes = _wait_for(group, "version", wait)
    absent = [rank for rank in ranks if rank not in notes]
    if absent:
        raise PeerError(f"{_some(absent, len(ranks))} did not come within {wait:.0f} s")
    others = [rank for rank in ranks if notes[rank] != own]
    if others:
        raise PeerError(
            f"{_some(others, len(ranks))} has {notes[others[0]]}, and process {here} {own}; all must have the same"
        )
    _met[group.group_name] = group


def _is_of_transport(problem: BaseException) -> bool:
    return isinstance(problem, dist.DistError) or "gloo" in str(problem)


def _explain(group: dist.ProcessGroup, started: float) -> PeerError | None:
    """The error that names who stopped, or None where that cannot be found out.

    Those that are left fail when the time-out has passed since they began the collective, as this process did.
    """
    ranks, here = dist.get_process_group_ranks(group), dist.get_rank()
    left = started + time_out(group).total_seconds() - time.monotonic()
    try:
        _store().set(_key(group, "stopped", here), "")
        notes = _wait_for(group, "stopped", max(left, 0) + _GRACE)
    except RuntimeError:
        return PeerError("process 0, which keeps the store of the processes' addresses, has died or hangs")
    if here == 0:  # the store may end with this process, and others still read
        time.sleep(_GRACE)
    failed = [rank for rank in ranks if notes.get(rank)]
    if failed:
        return PeerError(f"{_some(failed[:1], len(ranks))} has failed: {notes[failed[0]]}")
    absent = [rank for rank in ranks if rank not in notes]
    ended = "have died or hang" if len(absent) > 1 else "has died or hangs"
    return PeerError(f"{_some(absent, len(ranks))} {ended}") if absent else None


def names_the_stopped(group: dist.ProcessGroup, call: Callable[P, R]) -> Callable[P, R]:
    """``call``, whose errors are explained: to the others of the group if they are its own, else by whom they came.

    An error of a collective becomes a :class:`PeerError` that names the process that has died, hangs or has failed,
    some seconds after the group's time-out at the latest. An error of its own that the program goes on from explains
    nothing that comes later: the next call takes the note of it back.
    """

    @functools.wraps(call)
    def guarded(*args: P.args, **kwargs: P.kwargs) -> R:
        if torch.compiler.is_compiling():
            return call(*args, **kwargs)
        if group.group_name in _failed_in:
            _take_note_back(group)
        started = time.monotonic()
        try:
            return call(*args, **kwargs)
        except PeerError:
            raise
        except Exception as problem:
            if _is_of_transport(problem):
                named = _explain(group, started)
                if named is not None:
                    raise named from problem
            else:
                _leave_note(group, problem)
            raise

    return guarded


def _leave_note(group: dist.ProcessGroup, problem: Exception) -> None:
    _failed_in.add(group.group_name)
    with contextlib.suppress(RuntimeError):  # who keeps the store is gone, and the error itself says more
        _store().set(_key(group, "stopped", dist.get_rank()), f"{type(problem).__name__}: {problem}"[:1000])


def _take_note_back(group: dist.ProcessGroup) -> None:
    _failed_in.discard(group.group_name)
    with contextlib.suppress(RuntimeError):
        _store().delete_key(_key(group, "stopped", dist.get_rank()))
