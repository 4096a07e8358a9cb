"""Which kernels a piece of code launches."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from typing import NamedTuple

import torch

__all__ = ["Launch", "record_launches"]


class Launch(NamedTuple):
    """A kernel as it was launched."""

    kernel: str
    """An instantiation, such as ``"qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>"``; or ``"oneDNN matmul"``."""
    global_range: tuple[int, ...]
    """Work-items in all; empty where a library chooses them."""
    local_range: tuple[int, ...]
    """Work-items of a work-group."""
    device: torch.device
    waited: bool
    """Whether the launch returned only when the kernel had finished."""


@contextmanager
def record_launches() -> Iterator[list[Launch]]:
    """Write down what the calling thread launches in a ``with`` block, in a list that is filled at its end.

    Shows the road that a product takes: the kernel that reads the packed weight, or those that expand it for
    ``torch.nn.functional.linear``. PyTorch's own kernels are not in the list.
    """
    launches: list[Launch] = []
    torch.ops.quillon_kernels.begin_launches()
    try:
        yield launches
    finally:
        for kernel, global_range, local_range, index, waited in zip(
            *torch.ops.quillon_kernels.end_launches(), strict=True
        ):
            device = torch.device("xpu", index)
            launches.append(Launch(kernel, tuple(global_range), tuple(local_range), device, waited))
