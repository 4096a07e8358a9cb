"""Blocks of GGUF files that hold the values of one of the formats: their bytes in the format's own order.

Four block types are stored byte for byte as the format stores them. In q4_k and q6_k the same codes and scales lie
elsewhere, so they are moved; no value is computed. Block types of 32 elements hold twice the scales of the formats
here, whose blocks have 64, and have no equal among them.
"""

from __future__ import annotations

from collections.abc import Callable
from types import MappingProxyType

import torch
from torch import Tensor

from quillon._modes import plain_modes
from quillon._pieces import for_each_piece
from quillon.formats import check_shape
from quillon.quantizers._layout import field_views

__all__ = ["EQUAL_FORMATS", "rearrange"]

_PIECE_BLOCKS = 1 << 12

Fields = dict[str, Tensor]


def _q4_k(blocks: Tensor) -> Fields:
    """144 bytes: d, dmin, 12 bytes of 6-bit scales and minima, and for each two sub-blocks 32 bytes.

    A byte there has an element of the even sub-block in its low nibble and one of the odd in its high nibble. Here each
    sub-block has 16 bytes of its own, with its first half in the low nibbles.
    """
    a, b, c = blocks[:, 4:8], blocks[:, 8:12], blocks[:, 12:16]
    scales = torch.cat((a & 63, c & 15 | a >> 6 << 4), dim=1)
    minima = torch.cat((b & 63, c >> 4 | b >> 6 << 4), dim=1)
    pairs = blocks[:, 16:].view(-1, 4, 2, 16)
    first, second = pairs[:, :, 0], pairs[:, :, 1]
    even, odd = first & 15 | second << 4, first >> 4 | second & 0xF0
    return {
        "qs": torch.stack((even, odd), dim=2).flatten(1),
        "scales": torch.stack((scales, minima), dim=2).flatten(1),
        "dm": blocks[:, :4],
    }


def _q6_k(blocks: Tensor) -> Fields:
    """210 bytes: 128 of low nibbles, 64 of high pairs of bits, 16 scales, d.

    Half h of the elements has 64 bytes of nibbles, whose low ones come first, and 32 bytes of pairs, whose low ones
    come first. Here every 16 elements have words of their own: step i of four elements takes the high nibble of a word
    where i is even, and the pair of bits 6 - 2 i.
    """
    low = blocks[:, :128].view(-1, 2, 4, 2, 2, 4)  # half, 16 elements, word, step in the word, byte
    lows = low[:, :, :, :, 0] << 4 | low[:, :, :, :, 1] & 15, low[:, :, :, :, 0] & 0xF0 | low[:, :, :, :, 1] >> 4
    high = blocks[:, 128:192].view(-1, 2, 2, 4, 4)  # half, 16 elements, step, byte
    highs = []
    for pair in range(4):
        bits = high >> 2 * pair & 3
        highs.append(bits[:, :, :, 0] << 6 | bits[:, :, :, 1] << 4 | bits[:, :, :, 2] << 2 | bits[:, :, :, 3])
    return {
        "qh": torch.stack(highs, dim=2).flatten(1),
        "ql": torch.stack(lows, dim=2).flatten(1),
        "scales": blocks[:, 192:208],
        "d": blocks[:, 208:],
    }


_MOVED: dict[str, Callable[[Tensor], Fields]] = {"q4_k": _q4_k, "q6_k": _q6_k}

_STORED_BYTES = {"q2_k": 84, "q4_k": 144, "q5_k": 176, "q6_k": 210, "iq2_xxs": 66, "iq1_s": 50}

EQUAL_FORMATS: MappingProxyType[str, str] = MappingProxyType({name.upper(): name for name in _STORED_BYTES})
"""Block types of GGUF files -> the format that holds the same values."""


@plain_modes()
def rearrange(blocks: Tensor, format: str, rows: int, cols: int) -> Tensor:
    """Pack a weight whose block type holds the values of ``format``, without decoding it.

    blocks  uint8, the weight's blocks as the file has them, row after row
    format  one of the values of :data:`EQUAL_FORMATS`

    Returns uint8 (weight_bytes(format, rows, cols),) on the CPU. Raises ``ValueError`` for a wrong format or size.
    """
    if format not in _STORED_BYTES:
        raise ValueError(
            f"no block type of GGUF files holds the values of {format}; allowed: {', '.join(_STORED_BYTES)}"
        )
    fmt = check_shape(format, rows, cols)
    count, size = rows * cols // fmt.elements, _STORED_BYTES[format]
    if blocks.dtype != torch.uint8 or blocks.numel() != count * size:
        raise ValueError(
            f"blocks must be {count * size} bytes of uint8 for {rows} by {cols} in {format}, "
            f"got {blocks.numel()} of {blocks.dtype}"
        )
    source = blocks.reshape(count, size)
    if format not in _MOVED:
        return source.clone().flatten()
    data = torch.empty(count * fmt.bytes, dtype=torch.uint8)
    views = field_views(data, fmt, count)

    def move(first: int, last: int) -> None:
        for name, field in _MOVED[format](source[first:last].contiguous()).items():
            views[name][first:last] = field

    for_each_piece(count, _PIECE_BLOCKS, move)
    return data
