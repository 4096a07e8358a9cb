"""Code-book and small-float formats with blocks of 64 elements.

The small floats count their exponent with the bias of half precision and have a fixed bit below the last
mantissa bit, so no code is zero and each value is the middle of the interval that its code stands for.
"""

from __future__ import annotations

from collections.abc import Sequence
from functools import cache

import torch
from torch import Tensor

from quillon.quantizers._pack import FLOAT_ORDER, bit_plane, nibbles, six_bit_planes
from quillon.quantizers._search import (
    CodeBook,
    float_bytes,
    half_bytes,
    largest,
    reciprocal,
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


def _quantize(name: str, x: Tensor, w: Tensor | None, half: bool = True) -> tuple[Tensor, Tensor]:
    """Codes (64, blocks) as uint8 and scales as stored."""
    book = _book(name)
    d = search_scale(x, w, book.nearest, largest(x), _FACTORS[name])
    d = to_half(d) if half else to_short_float(d)
    return book.codes(x * reciprocal(d)), d


def nf4(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = table[code] * d; byte j holds elements j (high nibble) and j + 32 (low nibble)."""
    codes, d = _quantize("nf4", x, w)
    return {"qs": nibbles(codes[32:], codes[:32]), "d": half_bytes(d)}


def nf3(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = table[code] * d; top bits in a 64-bit word, low bits four to a byte from the top down."""
    codes, d = _quantize("nf3", x, w)
    low = (codes & 3).view(16, 4, -1)
    packed = low[:, 0] << 6 | low[:, 1] << 4 | low[:, 2] << 2 | low[:, 3]
    return {"qs": torch.cat((bit_plane(codes >> 2), packed.t()), dim=1), "d": half_bytes(d)}


def fp4(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * level; nibbles as q4_0."""
    codes, d = _quantize("fp4", x, w)
    return {"qs": nibbles(codes[:32], codes[32:]), "d": half_bytes(d)}


def fp6(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * level, in two bit planes."""
    codes, d = _quantize("fp6", x, w)
    low, high = six_bit_planes(codes, FLOAT_ORDER)
    return {"ql": low, "qh": high, "d": half_bytes(d)}


def fp8_e4m3(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * level, with a float32 scale."""
    codes, d = _quantize("fp8_e4m3", x, w, half=False)
    return {"qs": codes.t(), "d": float_bytes(d)}


def fp8_e5m2(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = level. Products do not read the scale, so it cannot help and is stored as 1."""
    return {"qs": _book("fp8_e5m2").codes(x).t(), "d": float_bytes(torch.ones_like(x[0]))}
