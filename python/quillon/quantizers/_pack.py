"""Codes to bytes: the bit orders of the fields.

Codes are uint8 and element-major, (elements of a block, blocks); results are (blocks, bytes of the field).
"""

from __future__ import annotations

from collections.abc import Sequence

import torch
from torch import Tensor

# Four neighbouring elements of the small floats lie in these bytes of a word.
FLOAT_ORDER = (1, 3, 0, 2)
MEMORY_ORDER = (0, 1, 2, 3)


def nibbles(low: Tensor, high: Tensor) -> Tensor:
    """Byte j holds ``low[j]`` in bits 0 to 3 and ``high[j]`` in bits 4 to 7; (..., blocks) to (blocks, n)."""
    return (low | (high << 4)).flatten(0, -2).t()


def bit_plane(bits: Tensor) -> Tensor:
    """Bit ``e`` of a little-endian word is ``bits[e]``, 0 or 1; the number of elements is a multiple of 8."""
    grouped = bits.view(-1, 8, bits.shape[-1])
    packed = grouped[:, 0].clone()
    for i in range(1, 8):
        packed |= grouped[:, i] << i
    return packed.t()


def six_bit_planes(codes: Tensor, order: Sequence[int]) -> tuple[Tensor, Tensor]:
    """The planes of 4 low and of 2 high bits of 6-bit codes: (low plane, high plane).

    Every 16 elements own two 32-bit words of the low plane and one of the high plane. Elements 4 i to 4 i +
    3 are step i: element 4 i + p goes to byte ``order[p]`` of the words, its high bits to bits 7 - 2 i and 6 - 2 i
    of the high word, its low bits to the high (i even) or low (i odd) nibble of low word i / 2.
    """
    blocks = codes.shape[-1]
    position = [order.index(byte) for byte in range(4)]
    steps = codes.view(-1, 4, 4, blocks)[:, :, position]
    low = torch.stack(((steps[:, 0] & 15) << 4 | steps[:, 1] & 15, (steps[:, 2] & 15) << 4 | steps[:, 3] & 15), 1)
    tops = steps >> 4
    high = tops[:, 0] << 6 | tops[:, 1] << 4 | tops[:, 2] << 2 | tops[:, 3]
    return low.reshape(-1, blocks).t(), high.reshape(-1, blocks).t()
