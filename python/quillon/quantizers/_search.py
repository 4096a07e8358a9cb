"""Searches for block scales that minimise the (weighted) squared error.

All of them work on *element-major* chunks: ``x`` has shape (elements of a block, blocks), so that a block's scale is
one column, sums over a block run along contiguous memory, and the first half of a block is a slice.
For fixed codes ``v`` the best scale is ``d = sum(w x v) / sum(w v v)``, and the error it leaves is
``sum(w x x) - sum(w x v)^2 / sum(w v v)``; so candidates are ranked by ``gain = d * sum(w x v)``.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence

import torch
from torch import Tensor

HALF_MAX = 65504.0


def reciprocal(d: Tensor) -> Tensor:
    """1 / d, and 0 where ``d`` is 0 or so small that the quotient would not be finite."""
    inverse = 1.0 / d
    return torch.where(inverse.isfinite(), inverse, torch.zeros_like(inverse))


def to_half(d: Tensor) -> Tensor:
    """The float32 value of ``d`` after storage as a half; magnitudes beyond the half range saturate."""
    return d.clamp(-HALF_MAX, HALF_MAX).half().float()


def half_bytes(d: Tensor) -> Tensor:
    """Bytes (blocks, 2) of the values ``d`` (blocks,), which must be halves already."""
    return d.half().contiguous().view(torch.uint8).view(-1, 2)


def float_bytes(d: Tensor) -> Tensor:
    """Bytes (blocks, 4) of the float32 values ``d`` (blocks,)."""
    return d.contiguous().view(torch.uint8).view(-1, 4)


def largest(x: Tensor) -> Tensor:
    """The signed element of largest magnitude of each block."""
    return x.gather(0, x.abs().argmax(0, keepdim=True))[0]


def search_scale(
    x: Tensor,
    w: Tensor | None,
    nearest: Callable[[Tensor], Tensor],
    peaks: Sequence[float],
    refine: int = 2,
) -> Tensor:
    """The scale of each block for values ``d * nearest(x / d)``.

    ``nearest`` maps quotients to the format's levels. ``peaks`` are the values that the block's largest element is
    tried at: each gives one candidate scale. The best is refined ``refine`` times by least squares.
    Returns float32 (blocks,); 0 where the block is zero.
    """
    wx = x if w is None else w * x
    inverse_peak = reciprocal(largest(x))

    def fit(inverse: Tensor) -> tuple[Tensor, Tensor]:
        v = nearest(x * inverse)
        along = (wx * v).sum(0)
        norm = (v * v if w is None else v * v * w).sum(0)
        d = along * reciprocal(norm)
        return d, d * along

    best_d, best_gain = fit(inverse_peak * peaks[0])
    for peak in peaks[1:]:
        d, gain = fit(inverse_peak * peak)
        better = gain > best_gain
        best_d = torch.where(better, d, best_d)
        best_gain = torch.where(better, gain, best_gain)
    for _ in range(refine):
        best_d, _ = fit(reciprocal(best_d))
    return best_d
