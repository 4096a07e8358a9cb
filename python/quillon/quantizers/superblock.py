"""Formats with super-blocks of 256 elements: scales in two levels.

Each sub-block's scale, and in the affine formats its minimum, is a small integer times a half of the super-
block. The search starts from the best real scale of each sub-block, fits the super-block's halves to them,
and then tries the neighbours of each stored integer with the codes chosen anew, since the error of the
stored numbers is what counts.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence

import torch
from torch import Tensor

from quillon.quantizers._pack import FLOAT_ORDER, MEMORY_ORDER, nibbles, six_bit_planes
from quillon.quantizers._rounding import Fields, Pack, Rounding, Scales
from quillon.quantizers._search import (
    HALF_MAX,
    Nearest,
    half_bytes,
    integers,
    largest,
    reciprocal,
    search_affine,
    search_scale,
    squared_error,
    to_half,
    to_nonzero_half,
    weighted_sum,
)
from quillon.quantizers.codebook import FP6_FACTORS, fp6_book


def _sub_blocks(x: Tensor, size: int) -> Tensor:
    """(256, blocks) to (size, 256 / size, blocks)."""
    return x.view(-1, size, x.shape[-1]).transpose(0, 1).contiguous()


# Symmetric: q6_k and fp6_k --------------------------------------------------------------------------------


def _float_product(d: Tensor, scales: Tensor) -> Tensor:
    return d * scales


def _half_product(d: Tensor, scales: Tensor) -> Tensor:
    return (d.half() * scales.half()).float()


def _symmetric(
    x: Tensor,
    w: Tensor | None,
    nearest: Nearest,
    factors: Sequence[float],
    product: Callable[[Tensor, Tensor], Tensor],
) -> tuple[Tensor, Tensor, Tensor]:
    """Scales of 16 sub-blocks for values ``product(d, scale) * nearest``.

    Returns the effective scales (16, blocks), the signed bytes (16, blocks) as float32, and d (blocks,).
    """
    # One step below the largest half, so that the product of a rounded byte and d does not leave the range.
    limit = HALF_MAX * 126 / 128
    target = search_scale(x, w, nearest, largest(x), factors).clamp_(-limit, limit)

    def choose(d: Tensor) -> tuple[Tensor, Tensor, Tensor]:
        middle = (target * reciprocal(d)).round_()
        best = middle
        best_error: Tensor | None = None
        for step in (0, 1, -1):
            scales = (middle + step).clamp_(-128, 127)
            effective = product(d, scales)
            values = nearest(x * reciprocal(effective)).mul_(effective)
            error = squared_error(x, w, values).nan_to_num_(nan=torch.inf)
            if best_error is None:
                best, best_error = scales, error
                continue
            better = error < best_error
            best = torch.where(better, scales, best)
            best_error = torch.minimum(error, best_error)
        assert best_error is not None
        return d, best, best_error.sum(0)

    # The largest sub-block scale sets the super-block's; two divisors that lie between give the others a
    # second chance at a better rounding.
    top = largest(target)
    d, scales, error = choose(to_nonzero_half(top / -128))
    for divisor in (-124.5, -121.0, 127.0):
        other_d, other_scales, other_error = choose(to_nonzero_half(top / divisor))
        better = other_error < error
        d = torch.where(better, other_d, d)
        scales = torch.where(better, other_scales, scales)
        error = torch.minimum(error, other_error)
    return product(d, scales), scales, d


_Q6_FACTORS = tuple(
    1.0 / peak for peak in (*(-32.0 + i for i in range(12)), *(31.0 - i for i in range(11)), -33.0, 32.0)
)


def _symmetric_rounding(
    nearest: Nearest,
    codes: Callable[[Tensor], Tensor],
    factors: Sequence[float],
    product: Callable[[Tensor, Tensor], Tensor],
    order: Sequence[int],
) -> Rounding:
    def fit(x: Tensor, w: Tensor | None) -> Scales:
        w = None if w is None else _sub_blocks(w, 16)
        effective, scales, d = _symmetric(_sub_blocks(x, 16), w, nearest, factors, product)
        return Scales(effective, None, (scales, d))

    def pack(codes: Tensor, scales: Scales) -> Fields:
        stored, d = scales.stored
        low, high = six_bit_planes(codes, order)
        return {"qh": high, "ql": low, "scales": stored.to(torch.int8).view(torch.uint8).t(), "d": half_bytes(d)}

    return Rounding(fit, nearest, codes, pack)


# Value = (d * scale) * (code - 32), scale a signed byte per 16 elements.
q6_k = _symmetric_rounding(
    integers(-32, 31), lambda levels: levels.add_(32).to(torch.uint8), _Q6_FACTORS, _float_product, MEMORY_ORDER
)

# Value = half(d * scale) * level, scale a signed byte per 16 elements, levels those of fp6.
fp6_k = _symmetric_rounding(
    lambda q: fp6_book().nearest(q), lambda levels: fp6_book().codes(levels), FP6_FACTORS, _half_product, FLOAT_ORDER
)


# Affine: q2_k, q4_k and q5_k ------------------------------------------------------------------------------


def _affine(
    x: Tensor, w: Tensor | None, top: int, scale_top: int, min_top: int, shares: Sequence[float], rounds: int
) -> tuple[Tensor, Tensor, Tensor, Tensor]:
    """Scales for values ``(d * scale) * code - dmin * minimum``, code 0 to ``top``, x (size, sub-blocks, blocks).

    Returns scales and minima (sub-blocks, blocks) as float32 whole numbers from 0, d and dmin (blocks,) as stored.
    """
    s, o = search_affine(x, w, top, tuple((a, b) for a in shares for b in shares))
    # All offsets of a super-block share the sign of -dmin. Negative ones are the rule; where every one is
    # positive, dmin turns negative; elsewhere a sub-block with a positive offset does without.
    sign = torch.where((o >= 0).all(0), -1.0, 1.0).float()
    no_offset = o * sign > 0
    s = torch.where(no_offset, x.amax(0).clamp(min=0) / top, s)
    offset = torch.where(no_offset, torch.zeros_like(o), -o * sign)

    def encode(d: Tensor, dmin: Tensor, scales: Tensor, minima: Tensor) -> Tensor:
        step, shift = d * scales, dmin * minima
        return ((x + shift) * reciprocal(step)).round_().clamp_(0, top)

    def choose(d: Tensor, dmin: Tensor, scales: Tensor, minima: Tensor) -> tuple[Tensor, Tensor, Tensor]:
        """The best scale and minimum of each sub-block among the neighbours of the given ones."""
        best_scales, best_minima, best_error = scales, minima, torch.full_like(scales, torch.inf)
        for scale_step in (0, 1, -1):
            for minimum_step in (0, 1, -1):
                tried_scales = (scales + scale_step).clamp_(0, scale_top)
                tried_minima = (minima + minimum_step).clamp_(0, min_top)
                codes = encode(d, dmin, tried_scales, tried_minima)
                values = codes.mul_(d * tried_scales).sub_(dmin * tried_minima)
                error = squared_error(x, w, values)
                better = error < best_error
                best_scales = torch.where(better, tried_scales, best_scales)
                best_minima = torch.where(better, tried_minima, best_minima)
                best_error = torch.where(better, error, best_error)
        return best_scales, best_minima, best_error.sum(0)

    d = to_nonzero_half(s.amax(0) / scale_top)
    dmin = to_nonzero_half(offset.amax(0) / min_top) * sign
    scales = (s * reciprocal(d)).round_().clamp_(0, scale_top)
    minima = (offset * reciprocal(dmin.abs())).round_().clamp_(0, min_top)
    scales, minima, error = choose(d, dmin, scales, minima)
    for _ in range(rounds):
        # With codes and integers fixed, the two halves are a linear least-squares problem of the super-block.
        products = encode(d, dmin, scales, minima).mul_(scales)
        shifts = minima.expand_as(products)
        pp = weighted_sum(w, products, products).sum(0)
        pm = weighted_sum(w, products, shifts).sum(0)
        mm = weighted_sum(w, shifts, shifts).sum(0)
        px = weighted_sum(w, products, x).sum(0)
        mx = weighted_sum(w, shifts, x).sum(0)
        inverse = reciprocal(pp * mm - pm * pm)
        solvable = (inverse != 0) & (mm > 0)
        new_d = to_half(torch.where(solvable, (px * mm - pm * mx) * inverse, px * reciprocal(pp)))
        new_dmin = to_half(torch.where(solvable, (px * pm - pp * mx) * inverse, dmin))
        new_scales, new_minima, new_error = choose(new_d, new_dmin, scales, minima)
        better = new_error < error
        d, dmin = torch.where(better, new_d, d), torch.where(better, new_dmin, dmin)
        scales, minima = torch.where(better, new_scales, scales), torch.where(better, new_minima, minima)
        error = torch.minimum(error, new_error)
    return scales, minima, d, dmin


_SHARES_FINE = (0.0, 0.03, 0.06, 0.1)
_SHARES_COARSE = (0.0, 0.06, 0.12, 0.18, 0.24)


def _affine_rounding(
    size: int, top: int, scale_top: int, min_top: int, shares: Sequence[float], rounds: int, pack: Pack
) -> Rounding:
    """Value = (d * scale) * code - dmin * minimum, scale and minimum for each ``size`` elements."""

    def fit(x: Tensor, w: Tensor | None) -> Scales:
        w = None if w is None else _sub_blocks(w, size)
        scales, minima, d, dmin = _affine(_sub_blocks(x, size), w, top, scale_top, min_top, shares, rounds)
        stored = scales.to(torch.uint8), minima.to(torch.uint8), d, dmin
        return Scales(d * scales, -(dmin * minima), stored)

    return Rounding(fit, integers(0, top), lambda levels: levels.to(torch.uint8), pack)


def _two_bits(codes: Tensor, scales: Scales) -> Fields:
    stored, minima, d, dmin = scales.stored
    quarters = codes.view(2, 4, 32, -1)
    packed = quarters[:, 0] | quarters[:, 1] << 2 | quarters[:, 2] << 4 | quarters[:, 3] << 6
    return {
        "scales": nibbles(stored, minima),
        "qs": packed.view(64, -1).t(),
        "d": half_bytes(d),
        "dmin": half_bytes(dmin),
    }


def _four_bits(codes: Tensor, scales: Scales) -> Fields:
    stored, minima, d, dmin = scales.stored
    halves = codes.view(8, 2, 16, -1)
    return {
        "qs": nibbles(halves[:, 0], halves[:, 1]),
        "scales": torch.stack((stored, minima), dim=1).view(16, -1).t(),
        "dm": half_bytes(d, dmin),
    }


def _six_bit_scales(s: Tensor, m: Tensor) -> Tensor:
    """Eight scales and eight minima of 6 bits in 12 bytes; the last four of each are split in two."""
    return torch.cat((s[:4] | s[4:] >> 4 << 6, m[:4] | m[4:] >> 4 << 6, s[4:] & 15 | (m[4:] & 15) << 4)).t()


def _five_bits(codes: Tensor, scales: Scales) -> Fields:
    stored, minima, d, dmin = scales.stored
    pairs = (codes & 15).view(4, 2, 32, -1)
    fifth = (codes >> 4).view(8, 32, -1)
    high = fifth[0].clone()
    for j in range(1, 8):
        high |= fifth[j] << j
    return {
        "d": half_bytes(d),
        "dmin": half_bytes(dmin),
        "scales": _six_bit_scales(stored, minima),
        "qh": high.t(),
        "qs": nibbles(pairs[:, 0], pairs[:, 1]),
    }


q2_k = _affine_rounding(16, 3, 15, 15, _SHARES_COARSE, 3, _two_bits)
q4_k = _affine_rounding(32, 15, 255, 255, _SHARES_FINE, 1, _four_bits)
q5_k = _affine_rounding(32, 31, 63, 63, _SHARES_FINE, 1, _five_bits)
