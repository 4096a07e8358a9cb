"""Weights for the expansion kernels, and what they have to give.

The values are those of the decoders in numpy (tests/formats/decoders.py), which share nothing with the C++ readers.
"""

from __future__ import annotations

import ctypes
from collections.abc import Callable
from functools import cache

import numpy as np
import torch
from formats.decoders import DTYPES, FORMATS, Array, decode
from formats.samples import any_bytes, same
from numpy.typing import NDArray
from shim.build import load_shim

from quillon._device_table import DEVICE_CLASSES as CLASSES  # in the order of the session's host devices
from quillon._kernels import LAUNCHER_TABLES

TORCH = {name: getattr(torch, name) for name in DTYPES}
BACKINGS = ("items", "vectors")

# One of each launcher table; the first has kernels of its own.
BOTH_CLASSES = ("elm", "unknown")

# The formats by what their arithmetic is in.
IN_T = ("q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp6")
IN_FLOAT = ("q5_0", "q5_1", "nf3", "q2_k", "q4_k", "q5_k", "q6_k", "iq2_xxs", "iq1_s")
WITHOUT = ("fp8_e5m2",)

# What the result's memory holds before a kernel writes it: no format gives this pattern in every element.
UNTOUCHED = 0x5A
GUARD_ELEMENTS = 64

Expand = Callable[[torch.Tensor, torch.Tensor, int, int], None]

# Bytes from which on the host device stores a matrix past its caches.
PAST_CACHES = 32 << 20
LONGEST_VECTOR = 128


def device_of(device_class: str) -> torch.device:
    return torch.device("xpu", CLASSES.index(device_class))


@cache
def weight_of(name: str, blocks: int) -> NDArray[np.uint8]:
    """Random bytes: every code, and scales of any pattern, infinities and NaNs among them."""
    return any_bytes(FORMATS[name], blocks, seed=blocks)


@cache
def expected_of(name: str, blocks: int, dtype: str) -> Array:
    """The flat values of :func:`weight_of`."""
    return decode(f"decode_{name}", weight_of(name, blocks), dtype)


def untouched(elements: int, dtype: str, device: torch.device) -> torch.Tensor:
    """Memory for a result with a guard behind it."""
    size = (elements + GUARD_ELEMENTS) * TORCH[dtype].itemsize
    return torch.full((size,), UNTOUCHED, dtype=torch.uint8, device=device).view(TORCH[dtype])


def raw(result: torch.Tensor) -> Array:
    """A result as the decoders give it: floats, and the bits of the 16-bit types."""
    flat = result.cpu().reshape(-1)
    return flat.view(torch.uint16).numpy() if flat.element_size() == 2 else flat.numpy()


def is_untouched(part: Array) -> bool:
    return bool((np.ascontiguousarray(part).view(np.uint8) == UNTOUCHED).all())


def agrees(name: str, result: Array, expected: Array, dtype: str) -> bool:
    """Bit for bit. A NaN of arithmetic has no defined bits; one that is a code has, where it is stored as it is."""
    return same(result, expected, dtype, exact_nan=name in WITHOUT and dtype == "float16")


def assert_the_same_past_caches(expand: Expand, name: str, dtype: str) -> None:
    """``expand(weight, memory, columns, rows)`` of a matrix that begins where the longest vector may: past the caches.

    Beside it, the same matrix an element further on, which does not go past them.
    """
    device, columns = device_of("unknown"), 4096
    rows = PAST_CACHES // (TORCH[dtype].itemsize * columns) + 1
    weight = torch.from_numpy(weight_of(name, rows * columns // FORMATS[name].elements)).to(device)
    results = []
    for further in (0, 1):
        memory = untouched(LONGEST_VECTOR + rows * columns, dtype, device)
        start = -memory.data_ptr() % LONGEST_VECTOR // TORCH[dtype].itemsize + further
        expand(weight, memory[start:], columns, rows)
        result = raw(memory)
        assert is_untouched(result[:start])
        assert is_untouched(result[start + rows * columns :])
        results.append(result[start : start + rows * columns])
    assert agrees(name, *results, dtype)


# ---- kernels by themselves ---------------------------------------------------------------------------------


def expand_whole(name: str, weight: torch.Tensor, memory: torch.Tensor, state_size: int, output_size: int) -> None:
    """Expand ``weight`` into the front of ``memory``."""
    output = memory[: state_size * output_size].view(output_size, state_size)
    torch.ops.quillon_kernels.expand_weight(weight, output, FORMATS[name].qtype)


def expand_tile(
    name: str,
    weight: torch.Tensor,
    memory: torch.Tensor,
    state_size: int,
    output_size: int,
    tile_rows: int,
    row_start: int,
) -> None:
    """Expand rows of ``weight`` from ``row_start`` on into the front of ``memory``."""
    output = memory[: state_size * tile_rows].view(tile_rows, state_size)
    torch.ops.quillon_kernels.expand_rows_of(weight, output, FORMATS[name].qtype, output_size, row_start)


def expansion_index(operation: str, name: str, device_class: str) -> int:
    """The row of the C++ table with the kernel of a format on a device class; -1 where there is none."""
    table = ("elm", "legacy", "default").index(LAUNCHER_TABLES[device_class])
    operations = ("whole", "tile", "rows")
    found = load_shim("kernel_table_shim").shim_expansion_index(operations.index(operation), FORMATS[name].qtype, table)
    return int(found)


def walk(operation: str, name: str, device_class: str, state_size: int) -> tuple[int, ...]:
    """How a work-group walks over a row: its work-items, elements and blocks of a round, rounds."""
    found = (ctypes.c_int32 * 4)()
    row = expansion_index(operation, name, device_class)
    load_shim("kernel_table_shim").shim_walk(row, ctypes.c_uint64(state_size), found)
    return tuple(found)
