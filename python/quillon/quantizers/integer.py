"""Integer formats with blocks of 64 elements."""

from __future__ import annotations

import torch
from torch import Tensor

from quillon.quantizers._pack import bit_plane, nibbles
from quillon.quantizers._rounding import Fields, Pack, Rounding, Scales
from quillon.quantizers._search import (
    float_bytes,
    half_bytes,
    integers,
    largest,
    search_affine,
    search_scale,
    to_half,
    to_short_float,
)


def _factors(*peaks: float) -> tuple[float, ...]:
    return tuple(1.0 / peak for peak in peaks)


# The value that the block's largest element is tried at, both ways round: the codes reach one step further
# down than up. Whole numbers are among them, so that values on such a grid already are found again exactly.
_FACTORS_4BIT = _factors(*(-5.0 - 0.5 * i for i in range(9)), *(5.5 + 0.5 * i for i in range(6)))
_FACTORS_5BIT = _factors(*(-10.0 - 0.5 * i for i in range(15)), *(10.0 + 0.5 * i for i in range(13)))
_FACTORS_8BIT = _factors(
    127, -128, -127.5, 128, 126, 125, 124, 122, 120, -127, -126, -125, -124, -122, -120, -129, -130
)

_TRIM_SHARES = (0.0, 0.03, 0.06, 0.09, 0.12)
_TRIMS = tuple((low, high) for low in _TRIM_SHARES for high in _TRIM_SHARES)


def _symmetric(low: int, high: int, factors: tuple[float, ...], pack: Pack, half: bool = True) -> Rounding:
    """Value = d * (code + low), with codes around the block's largest element."""
    nearest = integers(low, high)

    def store(d: Tensor, _: Tensor | None = None) -> Scales:
        return Scales((to_half(d) if half else to_short_float(d))[None])

    def fit(x: Tensor, w: Tensor | None) -> Scales:
        return store(search_scale(x, w, nearest, largest(x), factors))

    return Rounding(fit, nearest, lambda levels: levels.sub_(low).to(torch.uint8), pack, store)


def _affine(top: int, pack: Pack) -> Rounding:
    """Value = d * code + m, with codes from 0 to ``top``."""

    def store(s: Tensor, o: Tensor | None) -> Scales:
        return Scales(to_half(s)[None], None if o is None else to_half(o)[None])

    def fit(x: Tensor, w: Tensor | None) -> Scales:
        return store(*search_affine(x, w, top, _TRIMS))

    return Rounding(fit, integers(0, top), lambda levels: levels.to(torch.uint8), pack, store)


def _minima(scales: Scales) -> Tensor:
    return torch.zeros_like(scales.step[0]) if scales.offset is None else scales.offset[0]


def _halves(codes: Tensor, scales: Scales) -> Fields:
    """Byte j holds elements j (low nibble) and j + 32 (high nibble)."""
    return {"qs": nibbles(codes[:32], codes[32:]), "d": half_bytes(scales.step[0])}


def _halves_with_minimum(codes: Tensor, scales: Scales) -> Fields:
    return {"qs": nibbles(codes[:32], codes[32:]), "dm": half_bytes(scales.step[0], _minima(scales))}


def _neighbours(codes: Tensor, scales: Scales) -> Fields:
    """Byte j holds elements 2 j (low nibble) and 2 j + 1 (high nibble)."""
    return {"qs": nibbles(codes[0::2], codes[1::2]), "d": half_bytes(scales.step[0])}


def _five_bit_record(codes: Tensor, scales: Scales) -> Fields:
    """Without a minimum its two bytes are there and zero."""
    low = codes & 15
    return {
        "d": half_bytes(scales.step[0]),
        "m": half_bytes(_minima(scales)),
        "qh": bit_plane(codes >> 4),
        "qs": nibbles(low[:32], low[32:]),
    }


def _bytes(codes: Tensor, scales: Scales) -> Fields:
    """Signed bytes, a float32 scale."""
    return {"qs": (codes ^ 128).t(), "d": float_bytes(scales.step[0])}


q4_0 = _symmetric(-8, 7, _FACTORS_4BIT, _halves)
q4_0_woq = _symmetric(-8, 7, _FACTORS_4BIT, _neighbours)
q4_1 = _affine(15, _halves_with_minimum)
q5_0 = _symmetric(-16, 15, _FACTORS_5BIT, _five_bit_record)
q5_1 = _affine(31, _five_bit_record)
q8_0 = _symmetric(-128, 127, _FACTORS_8BIT, _bytes, half=False)
