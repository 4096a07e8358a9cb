"""Quantization by plain rounding, without any search: the baseline that the quantizers have to beat.

Only the values are formed, no bytes. Every function takes float32 (rows, cols) and gives the approximation.
"""

from __future__ import annotations

from collections.abc import Sequence

import torch
from torch import Tensor


def _half(x: Tensor) -> Tensor:
    return x.half().float()


def _quotient(x: Tensor, d: Tensor) -> Tensor:
    return torch.where(d == 0, torch.zeros_like(x), x / d)


def _nearest(q: Tensor, levels: Sequence[float]) -> Tensor:
    ordered = torch.tensor(sorted(levels))
    return ordered[torch.bucketize(q, (ordered[1:] + ordered[:-1]) / 2)]


def symmetric(x: Tensor, levels: Sequence[float], half: bool = True) -> Tensor:
    """Blocks of 64, the largest magnitude at the largest level."""
    blocks = x.view(-1, 64)
    d = blocks.abs().amax(1, keepdim=True) / max(levels)
    d = _half(d) if half else d
    return (_nearest(_quotient(blocks, d), levels) * d).view_as(x)


def affine(x: Tensor, top: int) -> Tensor:
    """Blocks of 64, codes from the minimum to the maximum."""
    blocks = x.view(-1, 64)
    low = _half(blocks.amin(1, keepdim=True))
    d = _half((blocks.amax(1, keepdim=True) - low) / top)
    return (_quotient(blocks - low, d).round().clamp(0, top) * d + low).view_as(x)


def two_level_symmetric(x: Tensor, levels: Sequence[float]) -> Tensor:
    """Sub-blocks of 16, whose scales are rounded to signed bytes of a super-block of 256."""
    blocks = x.view(-1, 16, 16)
    s = blocks.abs().amax(2, keepdim=True) / max(levels)
    d = _half(s.amax(1, keepdim=True) / 127)
    s = d * _quotient(s, d).round().clamp(-128, 127)
    return (_nearest(_quotient(blocks, s), levels) * s).view_as(x)


def two_level_affine(x: Tensor, top: int, size: int, scale_top: int, min_top: int) -> Tensor:
    """Sub-blocks of ``size`` from their minimum to their maximum, both rounded in a super-block of 256."""
    blocks = x.view(-1, 256 // size, size)
    low = -blocks.amin(2, keepdim=True).clamp(max=0)
    s = (blocks.amax(2, keepdim=True) + low) / top
    d = _half(s.amax(1, keepdim=True) / scale_top)
    dmin = _half(low.amax(1, keepdim=True) / min_top)
    s = d * _quotient(s, d).round().clamp(0, scale_top)
    low = dmin * _quotient(low, dmin).round().clamp(0, min_top)
    return (_quotient(blocks + low, s).round().clamp(0, top) * s - low).view_as(x)
