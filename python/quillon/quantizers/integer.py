"""Integer formats with blocks of 64 elements."""

from __future__ import annotations

import torch
from torch import Tensor

from quillon.quantizers._pack import bit_plane, nibbles
from quillon.quantizers._search import (
    float_bytes,
    half_bytes,
    integers,
    largest,
    reciprocal,
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


def _symmetric(
    x: Tensor, w: Tensor | None, low: int, high: int, factors: tuple[float, ...], half: bool = True
) -> tuple[Tensor, Tensor]:
    """Signed codes ``low`` to ``high`` as float32 (64, blocks), and the scales as stored."""
    nearest = integers(low, high)
    d = search_scale(x, w, nearest, largest(x), factors)
    d = to_half(d) if half else to_short_float(d)
    return nearest(x * reciprocal(d)), d


def _affine(x: Tensor, w: Tensor | None, top: int) -> tuple[Tensor, Tensor, Tensor]:
    """Codes 0 to ``top`` as uint8 (64, blocks), scales and minima as stored."""
    s, o = search_affine(x, w, top, _TRIMS)
    d, m = to_half(s), to_half(o)
    return ((x - m) * reciprocal(d)).round_().clamp_(0, top).to(torch.uint8), d, m


def q4_0(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * (code - 8); byte j holds elements j (low nibble) and j + 32 (high nibble)."""
    v, d = _symmetric(x, w, -8, 7, _FACTORS_4BIT)
    codes = v.add_(8).to(torch.uint8)
    return {"qs": nibbles(codes[:32], codes[32:]), "d": half_bytes(d)}


def q4_0_woq(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """q4_0 with neighbours in a byte: byte j holds elements 2 j (low nibble) and 2 j + 1 (high nibble)."""
    v, d = _symmetric(x, w, -8, 7, _FACTORS_4BIT)
    codes = v.add_(8).to(torch.uint8)
    return {"qs": nibbles(codes[0::2], codes[1::2]), "d": half_bytes(d)}


def q4_1(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * code + m; nibbles as q4_0."""
    codes, d, m = _affine(x, w, 15)
    return {"qs": nibbles(codes[:32], codes[32:]), "dm": half_bytes(d, m)}


def _five_bit_record(codes: Tensor, d: Tensor, m: Tensor) -> dict[str, Tensor]:
    low = codes & 15
    return {
        "d": half_bytes(d),
        "m": half_bytes(m),
        "qh": bit_plane(codes >> 4),
        "qs": nibbles(low[:32], low[32:]),
    }


def q5_0(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * (code - 16); the two bytes of a minimum are there and stay zero."""
    v, d = _symmetric(x, w, -16, 15, _FACTORS_5BIT)
    return _five_bit_record(v.add_(16).to(torch.uint8), d, torch.zeros_like(d))


def q5_1(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * code + m."""
    return _five_bit_record(*_affine(x, w, 31))


def q8_0(x: Tensor, w: Tensor | None) -> dict[str, Tensor]:
    """Value = d * code with signed bytes and a float32 scale."""
    v, d = _symmetric(x, w, -128, 127, _FACTORS_8BIT, half=False)
    return {"qs": v.to(torch.int8).view(torch.uint8).t(), "d": float_bytes(d)}
