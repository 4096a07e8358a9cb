"""Constant tables of the code-book and grid formats.

The two grids are data files beside this module, one hexadecimal word per line in table order.
"""

from __future__ import annotations

from functools import cache
from importlib import resources

import torch
from torch import Tensor

__all__ = ["FP4_MAGNITUDES", "NF3", "NF4", "iq1s_grid", "iq2xxs_grid", "ksigns_iq2xs"]

NF4: tuple[float, ...] = (
    -1.0,
    -0.6961928009986877,
    -0.5250730514526367,
    -0.39491748809814453,
    -0.28444138169288635,
    -0.18477343022823334,
    -0.09105003625154495,
    0.0,
    0.07958029955625534,
    0.16093020141124725,
    0.24611230194568634,
    0.33791524171829224,
    0.44070982933044434,
    0.5626170039176941,
    0.7229568362236023,
    1.0,
)
"""Value of each nf4 code at scale 1."""

NF3: tuple[float, ...] = (
    -1.0,
    -0.4786292016506195,
    -0.217141792178154,
    0.0,
    0.16093020141124725,
    0.33791524171829224,
    0.5626170039176941,
    1.0,
)
"""Value of each nf3 code at scale 1."""

FP4_MAGNITUDES: tuple[float, ...] = (0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0)
"""Magnitude of each fp4 code at scale 1; the smallest is not zero."""


def _words(name: str) -> list[int]:
    text = resources.files("quillon").joinpath(name).read_text(encoding="ascii")
    return [int(line, 16) for line in text.split()]


@cache
def iq2xxs_grid() -> Tensor:
    """The 256 points of the iq2_xxs grid, float32 (256, 8), each value 8, 25 or 43."""
    rows = [list(word.to_bytes(8, "little")) for word in _words("iq2xxs_grid.txt")]
    return torch.tensor(rows, dtype=torch.float32)


@cache
def iq1s_grid() -> Tensor:
    """The 2048 points of the iq1_s grid, float32 (2048, 8), each value 0, 1 or 2.

    A word holds positions 0 to 3 in the low nibbles of its bytes and positions 4 to 7 in the high nibbles.
    """
    shifts = (0, 8, 16, 24, 4, 12, 20, 28)
    rows = [[(word >> shift) & 15 for shift in shifts] for word in _words("iq1s_grid.txt")]
    return torch.tensor(rows, dtype=torch.float32)


@cache
def ksigns_iq2xs() -> Tensor:
    """The 128 sign patterns of iq2_xxs as uint8: the index, with bit 7 set so that the bits set are even."""
    return torch.tensor([i | ((i.bit_count() & 1) << 7) for i in range(128)], dtype=torch.uint8)
