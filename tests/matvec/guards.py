"""Guard bytes behind the output of an operator.

Memory of a host device is memory of the process, and its caching allocator gives a freed block to the next tensor of
the same size.
"""

from __future__ import annotations

import ctypes
import gc
import os
from collections.abc import Iterator
from contextlib import contextmanager

import torch

GUARD = bytes(range(1, 65))


@contextmanager
def output_guard(elements: int, dtype: torch.dtype, device: torch.device) -> Iterator[int | None]:
    """Put a guard behind the block that the next tensor of `elements` gets; gives the block's address. None where
    the allocator puts each block between unreadable pages.

    At the end nothing but the elements may have changed. Allocations are rounded up, so that the guard belongs to the
    block and to nobody else.
    """
    size = torch.empty(0, dtype=dtype).element_size() * elements
    gc.collect()  # what earlier tests left in cycles must not go in between
    if os.environ.get("QUILLON_HOST_GUARD"):
        yield None
        return
    before = torch.xpu.memory_allocated(device)
    block = torch.zeros(1, elements, dtype=dtype, device=device)
    assert torch.xpu.memory_allocated(device) - before >= size + len(GUARD)
    address = block.data_ptr()
    torch.xpu.synchronize(device)
    ctypes.memmove(address + size, GUARD, len(GUARD))
    del block
    yield address
    torch.xpu.synchronize(device)
    assert ctypes.string_at(address + size, len(GUARD)) == GUARD
