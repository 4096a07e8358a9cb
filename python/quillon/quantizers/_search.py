"""Searches for block scales that minimise the (weighted) squared error.

All of them work on *element-major* pieces: ``x`` has shape (elements of a block, ...), so that a block's
scale is one column, sums over a block run along contiguous memory, and the first half of a block is a slice.
For fixed codes with values ``v`` the best scale is ``sum(w x v) / sum(w v v)``. A candidate is judged by the
error at that scale, formed from the residual itself: the closed form of the error cancels too much in float32
to rank 8-bit candidates.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence

import torch
from torch import Tensor

# Maps quotients to the values of a format's codes; may overwrite its argument.
Nearest = Callable[[Tensor], Tensor]

HALF_MAX = 65504.0


def reciprocal(d: Tensor) -> Tensor:
    """1 / d, and 0 where ``d`` is 0 or so small that the quotient would not be finite."""
    return torch.nan_to_num_(1.0 / d, nan=0.0, posinf=0.0, neginf=0.0)


def to_half(d: Tensor) -> Tensor:
    """The float32 value of ``d`` after storage as a half; magnitudes beyond the half range saturate."""
    return d.clamp(-HALF_MAX, HALF_MAX).half().float()


def to_nonzero_half(d: Tensor) -> Tensor:
    """Like :func:`to_half`, but what is not zero stays at least the smallest half, 2^-24."""
    floor = torch.where(d == 0, torch.zeros_like(d), torch.full_like(d, 2.0**-24).copysign(d))
    return torch.where(d.abs() < 2.0**-24, floor, to_half(d))


def to_short_float(d: Tensor) -> Tensor:
    """``d`` rounded to 16 significant bits: its product with an 8-bit code is exact in float32."""
    bits = d.contiguous().view(torch.int32)
    return ((bits + 0x80) & ~0xFF).view(torch.float32)


def half_bytes(*values: Tensor) -> Tensor:
    """Bytes (blocks, 2 n) of n halves per block, each given as float32 (blocks,) that is a half already."""
    return torch.stack(values, dim=1).half().view(torch.uint8)


def float_bytes(d: Tensor) -> Tensor:
    """Bytes (blocks, 4) of the float32 values ``d`` (blocks,)."""
    return torch.stack((d,), dim=1).view(torch.uint8)


def largest(x: Tensor) -> Tensor:
    """The signed element of largest magnitude of each block."""
    return x.gather(0, x.abs().argmax(0, keepdim=True))[0]


def weighted_sum(w: Tensor | None, *factors: Tensor) -> Tensor:
    """Sum over a block of the product of ``factors``, weighted."""
    product = factors[0]
    for factor in factors[1:]:
        product = product * factor
    return (product if w is None else product * w).sum(0)


def squared_error(x: Tensor, w: Tensor | None, approximation: Tensor) -> Tensor:
    """The (weighted) squared error of each block."""
    residual = x - approximation
    return weighted_sum(w, residual, residual)


def integers(low: int, high: int) -> Nearest:
    """The nearest of the whole numbers from ``low`` to ``high``."""
    return lambda q: q.round_().clamp_(low, high)


class CodeBook:
    """Nearest values in an arbitrary list of levels, by a table over all half patterns.

    The quotient is rounded to half first, so two levels are told apart to about 2^-11 of their midpoint; a
    look-up costs a tenth of a binary search, and a search of scales does twenty look-ups per weight.
    ``levels`` gives the value of each code that may be used.
    """

    def __init__(self, levels: Mapping[int, float]) -> None:
        values = torch.tensor(list(levels.values()), dtype=torch.float32)
        ordered, order = values.sort()
        codes = torch.tensor(list(levels))[order]
        patterns = torch.arange(65536, dtype=torch.int32).to(torch.int16).view(torch.float16)
        patterns = patterns.float().nan_to_num(nan=0.0)
        rank = torch.bucketize(patterns, (ordered[1:] + ordered[:-1]) / 2)
        self._value_of = ordered[rank]
        self._code_of = codes[rank].to(torch.uint8)

    def _patterns(self, q: Tensor) -> Tensor:
        return (q.half().contiguous().view(torch.int16).int() & 0xFFFF).view(-1)

    def nearest(self, q: Tensor) -> Tensor:
        """The values of the nearest codes, float32, same shape."""
        return self._value_of.index_select(0, self._patterns(q)).view(q.shape)

    def codes(self, q: Tensor) -> Tensor:
        """The nearest codes, uint8, same shape."""
        return self._code_of.index_select(0, self._patterns(q)).view(q.shape)


def search_scale(
    x: Tensor,
    w: Tensor | None,
    nearest: Nearest,
    base: Tensor,
    factors: Sequence[float],
    refine: int = 1,
) -> Tensor:
    """The scale of each block for values ``d * nearest(x / d)``.

    The candidates are ``base * factor``; each is improved by least squares before it is judged, and the
    best of them ``refine`` times more. Returns float32 of the shape of ``base``; 0 where the block is zero.
    """
    wx = x if w is None else x * w

    def fit(d: Tensor) -> tuple[Tensor, Tensor]:
        v = nearest(x * reciprocal(d))
        fitted = (wx * v).sum(0) * reciprocal(weighted_sum(w, v, v))
        residual = torch.addcmul(x, v, fitted, value=-1)
        return fitted, weighted_sum(w, residual.square_())

    best, best_error = fit(base * factors[0])
    for factor in factors[1:]:
        d, error = fit(base * factor)
        better = error < best_error
        best = torch.where(better, d, best)
        best_error = torch.where(better, error, best_error)
    for _ in range(refine):
        d, error = fit(best)
        best = torch.where(error < best_error, d, best)
        best_error = torch.minimum(error, best_error)
    return best


def search_affine(
    x: Tensor, w: Tensor | None, top: int, trims: Sequence[tuple[float, float]], refine: int = 1
) -> tuple[Tensor, Tensor]:
    """Scale ``s`` and offset ``o`` of each block for values ``s * code + o``, code from 0 to ``top``.

    A candidate spreads the codes over the block's range, cut at its lower and its upper end by the shares
    that ``trims`` gives, and is then improved by least squares. Returns (s, o), s not negative; a constant
    block gets s = 0 and its value as o.
    """
    low, high = x.amin(0), x.amax(0)
    span = high - low
    weight = float(x.shape[0]) if w is None else w.sum(0)
    x_sum = weighted_sum(w, x)

    def fit(s: Tensor, o: Tensor) -> tuple[Tensor, Tensor, Tensor]:
        c = ((x - o) * reciprocal(s)).round_().clamp_(0, top)
        c_sum = weighted_sum(w, c)
        # Centred sums: the codes' mean is taken off before the products are formed.
        c_mean = c_sum / weight
        centred = c - c_mean
        fitted = weighted_sum(w, centred, x) * reciprocal(weighted_sum(w, centred, centred))
        offset = (x_sum - fitted * c_sum) / weight
        return fitted, offset, squared_error(x, w, c.mul_(fitted).add_(offset))

    def candidate(trim: tuple[float, float]) -> tuple[Tensor, Tensor, Tensor]:
        return fit(span * ((1.0 - trim[0] - trim[1]) / top), low + span * trim[0])

    best_s, best_o, best_error = candidate(trims[0])
    for trim in trims[1:]:
        s, o, error = candidate(trim)
        better = error < best_error
        best_s = torch.where(better, s, best_s)
        best_o = torch.where(better, o, best_o)
        best_error = torch.where(better, error, best_error)
    for _ in range(refine):
        s, o, error = fit(best_s, best_o)
        better = error < best_error
        best_s = torch.where(better, s, best_s)
        best_o = torch.where(better, o, best_o)
        best_error = torch.where(better, error, best_error)
    flat = span == 0
    return torch.where(flat, torch.zeros_like(best_s), best_s), torch.where(flat, low, best_o)
