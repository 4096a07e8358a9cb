"""The storage formats: codes, names, block sizes and how a flat byte tensor is divided.

A packed weight of ``rows`` by ``cols`` elements is one flat byte tensor. Blocks of ``elements`` weights
follow one another in row-major order. A format stores its blocks in one of two ways:

``records``  every block is one contiguous record, its fields side by side;
``regions``  every field is an array of its own, holding that field of all blocks in block order, and the
             arrays follow one another in the order of ``fields``.

This module only describes; it imports neither torch nor any compiled code. The formats themselves stand in the C++
registry, of which the build writes ``_format_table.py``.
"""

from __future__ import annotations

from dataclasses import dataclass
from types import MappingProxyType
from typing import Literal

from quillon import _format_table
from quillon._format_table import MAX_ELEMENTS

__all__ = [
    "BUDGET_FORMATS",
    "FORMATS",
    "MAX_ELEMENTS",
    "WEIGHT_FORMATS",
    "Format",
    "field_offsets",
    "format_code",
    "format_name",
    "get_format",
    "row_multiple",
    "weight_bytes",
]


@dataclass(frozen=True)
class Format:
    """One storage format.

    ``fields`` gives (name, bytes per block) in storage order. The activation format is no weight.
    """

    code: int
    name: str
    elements: int
    storage: Literal["regions", "records"]
    fields: tuple[tuple[str, int], ...]
    is_weight: bool

    @property
    def bytes(self) -> int:
        """Bytes per block."""
        return sum(size for _, size in self.fields)

    @property
    def arrays(self) -> tuple[int, ...]:
        """Bytes of a block in each array of a weight, which follow one another: one of records, or the regions."""
        return (self.bytes,) if self.storage == "records" else tuple(size for _, size in self.fields)

    @property
    def bits_per_weight(self) -> float:
        """Stored bits per element, scales included."""
        return 8 * self.bytes / self.elements


_TABLE = tuple(Format(*row) for row in _format_table.FORMATS)

FORMATS: MappingProxyType[str, Format] = MappingProxyType({f.name: f for f in _TABLE})
"""Every format by name, in order of code; ``q8_1`` holds activations, all others weights."""

WEIGHT_FORMATS: tuple[str, ...] = tuple(f.name for f in _TABLE if f.is_weight)
"""Names of the formats that a weight can have."""

BUDGET_FORMATS = (
    *("iq1_s", "iq2_xxs", "q2_k", "nf3", "q4_0", "nf4", "fp4", "q4_1", "q4_k"),
    *("q5_0", "q5_1", "q5_k", "fp6", "fp6_k", "q6_k", "q8_0", "fp8_e4m3"),
)
"""Formats that layers get within a number of bits: of those of one size the best one for a layer counts."""

_BY_CODE = {f.code: f for f in _TABLE}


def get_format(name_or_code: str | int) -> Format:
    """The description of a format given by its name (any case) or its integer code.

    Raises ``ValueError`` for an unknown name or code, ``TypeError`` for anything else.
    """
    if isinstance(name_or_code, str):
        found = FORMATS.get(name_or_code.lower())
    elif isinstance(name_or_code, int) and not isinstance(name_or_code, bool):
        found = _BY_CODE.get(name_or_code)
    else:
        raise TypeError(f"format must be a name or an integer code, got {type(name_or_code).__name__}")
    if found is None:
        allowed = ", ".join(f"{f.name} ({f.code})" for f in _TABLE)
        raise ValueError(f"unknown format {name_or_code!r}; allowed: {allowed}")
    return found


def weight_format(name_or_code: str | int) -> Format:
    """Like :func:`get_format`, and refuses the activation format."""
    found = get_format(name_or_code)
    if not found.is_weight:
        raise ValueError(
            f"{found.name} ({found.code}) holds activations, not weights; allowed: {', '.join(WEIGHT_FORMATS)}"
        )
    return found


def format_code(name_or_code: str | int) -> int:
    """The integer code (``qtype``) of a format."""
    return get_format(name_or_code).code


def format_name(code_or_name: int | str) -> str:
    """The lower-case name of a format."""
    return get_format(code_or_name).name


def row_multiple(format: str | int) -> int:
    """The number of which a weight's row length must be a multiple: 64, or 256 for super-block formats."""
    return weight_format(format).elements


def check_shape(format: str | int, rows: int, cols: int) -> Format:
    """The format, after a check that it can store ``rows`` by ``cols``; raises ``ValueError``."""
    found = weight_format(format)
    if rows < 1 or cols < 1:
        raise ValueError(f"rows and cols must be positive, got {rows} by {cols}")
    if cols % found.elements:
        raise ValueError(f"cols must be a multiple of {found.elements} for {found.name}, got {rows} by {cols}")
    if rows * cols > MAX_ELEMENTS:
        raise ValueError(f"a weight has at most {MAX_ELEMENTS} elements, got {rows} by {cols} = {rows * cols}")
    return found


def weight_bytes(format: str | int, rows: int, cols: int) -> int:
    """Length in bytes of a packed weight of ``rows`` by ``cols`` elements."""
    found = check_shape(format, rows, cols)
    return rows * cols // found.elements * found.bytes


def field_offsets(format: str | int, blocks: int) -> dict[str, tuple[int, int]]:
    """Where each field of a weight of ``blocks`` blocks lies.

    Returns field name -> (byte offset of block 0's field, bytes from one block's field to the next's).
    """
    found = get_format(format)
    offsets: dict[str, tuple[int, int]] = {}
    position = 0
    for name, size in found.fields:
        if found.storage == "regions":
            offsets[name] = (position, size)
            position += size * blocks
        else:
            offsets[name] = (position, found.bytes)
            position += size
    return offsets
