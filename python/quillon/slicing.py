"""Parts of packed weights: some of the rows, or some of the columns in whole blocks, without unpacking.

Rows of a weight of records are one range of its bytes, rows of a weight of regions one range in each region; columns
are a range in every row of each. A part is itself a packed weight of the same format.
"""

from __future__ import annotations

import os
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import torch
from torch import Tensor

from quillon.formats import check_shape

__all__ = ["Strip", "cut", "cut_columns", "cut_rows", "paste", "read_strips", "strips_of"]


@dataclass(frozen=True)
class Strip:
    """``count`` ranges of ``length`` bytes each, the first at ``start``, each ``step`` bytes behind the one before."""

    start: int
    length: int
    step: int
    count: int

    @property
    def bytes(self) -> int:
        """Bytes of all ranges."""
        return self.length * self.count


def strips_of(format: str | int, rows: int, cols: int, row_ranges: Sequence[range], columns: range) -> list[Strip]:
    """Where a part of a packed weight of ``rows`` by ``cols`` lies, in the order in which the part has its bytes.

    row_ranges  rows of the part, in its order, as ranges of step 1
    columns     columns of the part, a range of step 1 in whole blocks of the format
    """
    fmt = check_shape(format, rows, cols)
    for name, given, size in (*(("rows", one, rows) for one in row_ranges), ("columns", columns, cols)):
        if given.step != 1 or not 0 <= given.start < given.stop <= size:
            raise ValueError(f"{name} of a part must be a range inside 0 to {size} with step 1, got {given}")
    if columns.start % fmt.elements or columns.stop % fmt.elements:
        raise ValueError(
            f"columns of a part must be whole blocks of {fmt.elements} for {fmt.name}, "
            f"got {columns.start} to {columns.stop}"
        )
    per_row, first, blocks = cols // fmt.elements, columns.start // fmt.elements, len(columns) // fmt.elements
    strips = []
    start = 0
    for size in fmt.arrays:
        for one in row_ranges:
            strip = Strip(start + (one.start * per_row + first) * size, blocks * size, per_row * size, len(one))
            strips.append(strip if blocks < per_row else Strip(strip.start, strip.bytes, strip.bytes, 1))
        start += rows * per_row * size
    return strips


def cut(packed: Tensor, strips: Sequence[Strip]) -> Tensor:
    """Copy the bytes of ``strips`` out of ``packed``, one dimension of uint8 that is contiguous."""
    first = packed.storage_offset()
    pieces = [packed.as_strided((one.count, one.length), (one.step, 1), first + one.start) for one in strips]
    return torch.cat([piece.reshape(-1) for piece in pieces])


def cut_rows(packed: Tensor, format: str | int, rows: int, cols: int, part: range) -> Tensor:
    """The packed weight of the rows ``part`` of a packed weight of ``rows`` by ``cols``."""
    _check_bytes(packed, format, rows, cols)
    return cut(packed, strips_of(format, rows, cols, [part], range(cols)))


def cut_columns(packed: Tensor, format: str | int, rows: int, cols: int, part: range) -> Tensor:
    """The packed weight of the columns ``part``, in whole blocks, of a packed weight of ``rows`` by ``cols``."""
    _check_bytes(packed, format, rows, cols)
    return cut(packed, strips_of(format, rows, cols, [range(rows)], part))


def paste(packed: Tensor, strips: Sequence[Strip], part: Tensor) -> None:
    """Write the bytes of a part to where :func:`cut` has them from."""
    first, done = packed.storage_offset(), 0
    for one in strips:
        place = packed.as_strided((one.count, one.length), (one.step, 1), first + one.start)
        place.copy_(part.narrow(0, done, one.bytes).view(one.count, one.length))
        done += one.bytes


def read_strips(file: int, offset: int, strips: Sequence[Strip]) -> Tensor:
    """The bytes of ``strips`` of a weight that lies at ``offset`` in an open file: only these ranges are read."""
    result = torch.empty(sum(one.bytes for one in strips), dtype=torch.uint8)
    bytes: Any = result.numpy()
    memory = memoryview(bytes)
    done = 0
    for one in strips:
        for place in range(one.start, one.start + one.count * one.step, one.step):
            _read_into(file, memory[done : done + one.length], offset + place)
            done += one.length
    return result


def _read_into(file: int, memory: Any, offset: int) -> None:
    while len(memory):
        read = os.preadv(file, [memory], offset)
        if read == 0:
            raise EOFError(f"the file ends at byte {offset}, where {len(memory)} bytes of a packed weight are expected")
        memory, offset = memory[read:], offset + read


def _check_bytes(packed: Tensor, format: str | int, rows: int, cols: int) -> None:
    fmt = check_shape(format, rows, cols)
    size = rows * cols // fmt.elements * fmt.bytes
    if packed.shape != (size,) or packed.dtype != torch.uint8:
        raise ValueError(
            f"packed must be uint8 of shape ({size},) for {rows} by {cols} in {fmt.name}, "
            f"got {packed.dtype} of shape {tuple(packed.shape)}"
        )
