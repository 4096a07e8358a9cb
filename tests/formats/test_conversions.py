"""Conversions between element types, and arithmetic in the 16-bit ones, bit for bit."""

from __future__ import annotations

import numpy as np
import pytest

from .decoders import bfloat16_bits
from .samples import same
from .shim import Shim

ALL_16 = np.arange(65536, dtype=np.uint16)


def floats_around_every_boundary(to_float: np.ndarray) -> np.ndarray:
    """Every 16-bit value, every midpoint of neighbours, and the floats next to both, of both signs."""
    values = np.unique(to_float[np.isfinite(to_float)].astype(np.float64))
    middles = (values[:-1] + values[1:]) / 2
    points = np.concatenate([values, middles]).astype(np.float32)
    up, down = np.nextafter(points, np.float32(np.inf)), np.nextafter(points, np.float32(-np.inf))
    specials = np.array([0.0, -0.0, np.inf, -np.inf, np.nan, 65519.9, 65520.0, 1e-45, 3.4e38], np.float32)
    return np.concatenate([points, up, down, specials, -specials])


def half_values() -> np.ndarray:
    return ALL_16.view(np.float16).astype(np.float32)


def bfloat16_values() -> np.ndarray:
    return (ALL_16.astype(np.uint32) << 16).view(np.float32)


def test_half_to_wider_is_exact(shim: Shim) -> None:
    assert same(shim.convert(ALL_16, "float16", "float32"), half_values(), "float32")
    with np.errstate(invalid="ignore"):
        expected = half_values().astype(np.float64)
    assert same(shim.convert(ALL_16, "float16", "float64"), expected, "float64")


def test_bfloat16_to_wider_is_exact(shim: Shim) -> None:
    assert same(shim.convert(ALL_16, "bfloat16", "float32"), bfloat16_values(), "float32")
    with np.errstate(invalid="ignore"):
        expected = bfloat16_values().astype(np.float64)
    assert same(shim.convert(ALL_16, "bfloat16", "float64"), expected, "float64")


def test_float_to_half_at_every_boundary(shim: Shim) -> None:
    x = floats_around_every_boundary(half_values())
    with np.errstate(over="ignore"):
        assert same(shim.convert(x, "float32", "float16"), x.astype(np.float16).view(np.uint16), "float16")


def test_float_to_bfloat16_at_every_boundary(shim: Shim) -> None:
    x = floats_around_every_boundary(bfloat16_values())
    assert same(shim.convert(x, "float32", "bfloat16"), bfloat16_bits(x), "bfloat16")


@pytest.mark.parametrize("dtype", ["float16", "bfloat16"])
def test_float_to_16_bits_at_random(shim: Shim, dtype: str) -> None:
    x = np.random.default_rng(3).integers(0, 2**32, 1 << 22, np.uint32).view(np.float32)
    with np.errstate(over="ignore", invalid="ignore"):
        expected = bfloat16_bits(x) if dtype == "bfloat16" else x.astype(np.float16).view(np.uint16)
    assert same(shim.convert(x, "float32", dtype), expected, dtype)


def test_bfloat16_by_hand(shim: Shim) -> None:
    bits = np.array(
        [
            *(0x3F808000, 0x3F818000, 0x3F808001, 0x3F807FFF),
            *(0x7F7FFFFF, 0xFFC12345, 0x7F800001, 0xFF800000),
        ],
        np.uint32,
    )
    expected = [0x3F80, 0x3F82, 0x3F81, 0x3F80, 0x7F80, 0x7FC0, 0x7FC0, 0xFF80]
    assert shim.convert(bits.view(np.float32), "float32", "bfloat16").tolist() == expected


def test_half_by_hand(shim: Shim) -> None:
    x = np.array([65519.996, 65520.0, 2**-24, 2**-25, 1.5 * 2**-24, 2.5 * 2**-24, -(2**-25) * 1.0001], np.float32)
    expected = [0x7BFF, 0x7C00, 0x0001, 0x0000, 0x0002, 0x0002, 0x8001]
    assert shim.convert(x, "float32", "float16").tolist() == expected


def test_doubles_go_through_float(shim: Shim) -> None:
    """1 + 2^-11 + 2^-40 is above the middle of two halves, but its float is the middle and goes to even."""
    x = np.array([1 + 2**-11 + 2**-40, 1 + 2**-8 + 2**-40])
    assert shim.convert(x, "float64", "float16")[0] == 0x3C00
    assert shim.convert(x, "float64", "bfloat16")[1] == 0x3F80
    assert shim.convert(x, "float64", "float32").tolist() == [1 + 2**-11, 1 + 2**-8]


def test_half_and_bfloat16_go_through_float(shim: Shim) -> None:
    assert same(shim.convert(ALL_16, "float16", "bfloat16"), bfloat16_bits(half_values()), "bfloat16")
    with np.errstate(over="ignore", invalid="ignore"):
        expected = bfloat16_values().astype(np.float16).view(np.uint16)
    assert same(shim.convert(ALL_16, "bfloat16", "float16"), expected, "float16")


def test_integers(shim: Shim) -> None:
    """Everything that a code or a byte holds is exact in every type."""
    x = np.arange(-256, 257, dtype=np.int32)
    assert np.array_equal(shim.convert(x, "int32", "float32"), x.astype(np.float32))
    assert np.array_equal(shim.convert(x, "int32", "float64"), x.astype(np.float64))
    for dtype in ("float16", "bfloat16"):
        raw = shim.convert(x, "int32", dtype)
        assert np.array_equal(shim.convert(raw, dtype, "float32"), x.astype(np.float32))


@pytest.mark.parametrize("operation", ["*", "+", "-", "/"])
def test_half_arithmetic_rounds_at_once(shim: Shim, operation: str) -> None:
    rng = np.random.default_rng(5)
    a, b = (rng.integers(0, 65536, 1 << 21, np.uint16) for _ in range(2))
    x, y = a.view(np.float16), b.view(np.float16)
    with np.errstate(all="ignore"):
        expected = {"*": x * y, "+": x + y, "-": x - y, "/": x / y}[operation].view(np.uint16)
    assert same(shim.compute(operation, "float16", a, b), expected, "float16")


@pytest.mark.parametrize("operation", ["*", "+", "-", "/"])
def test_bfloat16_arithmetic_rounds_at_once(shim: Shim, operation: str) -> None:
    rng = np.random.default_rng(6)
    a, b = (rng.integers(0, 65536, 1 << 21, np.uint16) for _ in range(2))
    x, y = ((raw.astype(np.uint32) << 16).view(np.float32) for raw in (a, b))
    with np.errstate(all="ignore"):
        expected = bfloat16_bits({"*": x * y, "+": x + y, "-": x - y, "/": x / y}[operation])
    assert same(shim.compute(operation, "bfloat16", a, b), expected, "bfloat16")
