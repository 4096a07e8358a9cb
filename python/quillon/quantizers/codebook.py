"""Code-book and small-float formats with blocks of 64 elements.

The small floats count their exponent with the bias of half precision and have a fixed bit below the last
mantissa bit, so no code is zero and each value is the middle of the interval that its code stands for.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace
from functools import cache

import torch
from torch import Tensor

from quillon.quantizers._pack import FLOAT_ORDER, bit_plane, nibbles, six_bit_planes
from quillon.quantizers._rounding import Fields, Pack, Rounding, Scales
from quillon.quantizers._search import (
    CodeBook,
    float_bytes,
    half_bytes,
    largest,
    search_scale,
    to_half,
    to_short_float,
)
from quillon.tables import FP4_MAGNITUDES, NF3, NF4


def small_float_magnitudes(exponent_bits: int, mantissa_bits: int) -> list[float]:
    """Magnitude of each code without its sign, in the order of the codes."""
    steps = 1 << mantissa_bits
    return [
        2.0**-14 * (m + 0.5) / steps if e == 0 else 2.0 ** (e - 15) * (1 + (m + 0.5) / steps)
        for e in range(1 << exponent_bits)
        for m in range(steps)
    ]


FP6_MAGNITUDES = small_float_magnitudes(3, 2)
FP8_E4M3_MAGNITUDES = small_float_magnitudes(4, 3)
# The codes with exponent 31 are not numbers.
FP8_E5M2_MAGNITUDES = small_float_magnitudes(5, 2)[:124]


def _signed(magnitudes: Sequence[float], sign: int) -> dict[int, float]:
    """Levels by code: the magnitudes and, with the bit ``sign`` set, their negatives."""
    return {code | s: -m if s else m for s in (0, sign) for code, m in enumerate(magnitudes)}


@cache
def _book(name: str) -> CodeBook:
    levels = {
        "nf4": dict(enumerate(NF4)),
        "nf3": dict(enumerate(NF3)),
        "fp4": _signed(FP4_MAGNITUDES, 8),
        "fp6": _signed(FP6_MAGNITUDES, 32),
        "fp8_e4m3": _signed(FP8_E4M3_MAGNITUDES, 128),
        "fp8_e5m2": _signed(FP8_E5M2_MAGNITUDES, 128),
    }
    return CodeBook(levels[name])


def fp6_book() -> CodeBook:
    """Levels of the 6-bit small float, by code: sign, three exponent bits, two mantissa bits."""
    return _book("fp6")


def _factors(peaks: list[float]) -> tuple[float, ...]:
    return tuple(1.0 / peak for peak in peaks)


# What the block's largest element is tried at. The upper levels themselves are among the peaks, so that
# values on such a grid already are found again exactly.
_NF_PEAKS = [s * (0.6 + 0.05 * i) for i in range(13) for s in (1.0, -1.0)]
_FACTORS = {
    "nf4": _factors(_NF_PEAKS + [v for v in NF4 if 0.5 < abs(v) < 1]),
    "nf3": _factors(_NF_PEAKS + [v for v in NF3 if 0.4 < abs(v) < 1]),
    "fp4": _factors([3.0 + 0.25 * i for i in range(21)] + [1.0, 1.5, 2.0]),
    # The pattern of a small float repeats with every octave, so one octave up to the largest level is enough.
    "fp6": _factors([FP6_MAGNITUDES[-1] * (0.5 + i / 30) for i in range(18)] + FP6_MAGNITUDES[-8:]),
    "fp8_e4m3": _factors([1.9375 * (0.55 + i / 31) for i in range(16)] + FP8_E4M3_MAGNITUDES[-16:]),
}
FP6_FACTORS = _FACTORS["fp6"]


def _rounding(name: str, pack: Pack, half: bool = True) -> Rounding:
    """Value = d * level."""

    def store(d: Tensor, _: Tensor | None = None) -> Scales:
        return Scales((to_half(d) if half else to_short_float(d))[None])

    def fit(x: Tensor, w: Tensor | None) -> Scales:
        return store(search_scale(x, w, _book(name).nearest, largest(x), _FACTORS[name]))

    return Rounding(fit, lambda q: _book(name).nearest(q), lambda levels: _book(name).codes(levels), pack, store)


def _high_first(codes: Tensor, scales: Scales) -> Fields:
    """Byte j holds elements j (high nibble) and j + 32 (low nibble)."""
    return {"qs": nibbles(codes[32:], codes[:32]), "d": half_bytes(scales.step[0])}


def _low_first(codes: Tensor, scales: Scales) -> Fields:
    """Byte j holds elements j (low nibble) and j + 32 (high nibble)."""
    return {"qs": nibbles(codes[:32], codes[32:]), "d": half_bytes(scales.step[0])}


def _three_bits(codes: Tensor, scales: Scales) -> Fields:
    """Top bits in a 64-bit word, low bits four to a byte from the top down."""
    low = (codes & 3).view(16, 4, -1)
    packed = low[:, 0] << 6 | low[:, 1] << 4 | low[:, 2] << 2 | low[:, 3]
    return {"qs": torch.cat((bit_plane(codes >> 2), packed.t()), dim=1), "d": half_bytes(scales.step[0])}


def _six_bits(codes: Tensor, scales: Scales) -> Fields:
    low, high = six_bit_planes(codes, FLOAT_ORDER)
    return {"ql": low, "qh": high, "d": half_bytes(scales.step[0])}


def _bytes(codes: Tensor, scales: Scales) -> Fields:
    return {"qs": codes.t(), "d": float_bytes(scales.step[0])}


nf4 = _rounding("nf4", _high_first)
nf3 = _rounding("nf3", _three_bits)
fp4 = _rounding("fp4", _low_first)
fp6 = _rounding("fp6", _six_bits)
fp8_e4m3 = _rounding("fp8_e4m3", _bytes, half=False)
# Products do not read the scale of fp8_e5m2, so it cannot help and is stored as 1.
fp8_e5m2 = replace(_rounding("fp8_e5m2", _bytes), fit=lambda x, w: Scales(torch.ones_like(x[:1])), store=None)
