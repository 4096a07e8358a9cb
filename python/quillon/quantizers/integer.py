"""Integer formats with blocks of 64 elements."""

from __future__ import annotations

import torch
from torch import Tensor

from quillon.quantizers._search import half_bytes, reciprocal, search_scale, to_half

# The half-open range of codes is tried at both ends: the largest element may become the lowest code, or the highest.
# Whole numbers are among the peaks so that values which are on such a grid already are found again exactly.
_PEAKS_4BIT = tuple(-4.0 - 0.5 * i for i in range(11)) + tuple(4.0 + 0.5 * i for i in range(9))


def pack_nibbles(low: Tensor, high: Tensor) -> Tensor:
    """Bytes (blocks, n) from two sets of 4-bit codes (n, blocks)."""
    return (low | (high << 4)).t()


def _four_bits(x: Tensor, w: Tensor | None) -> tuple[Tensor, Tensor]:
    """Codes 0..15 (64, blocks) as uint8 for values ``d * (code - 8)``, and the scales as stored."""
    d = to_half(search_scale(x, w, lambda q: q.round_().clamp_(-8, 7), _PEAKS_4BIT))
    return (x * reciprocal(d)).round_().clamp_(-8, 7).add_(8).to(torch.uint8), d


def q4_0(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * (code - 8); byte j holds elements j (low nibble) and j + 32 (high nibble)."""
    codes, d = _four_bits(x, w)
    return {"qs": pack_nibbles(codes[:32], codes[32:]), "d": half_bytes(d)}
