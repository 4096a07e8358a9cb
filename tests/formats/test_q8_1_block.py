"""Scale and quants of q8_1 by their C++ rule, against numpy."""

from __future__ import annotations

import numpy as np
import pytest

from .decoders import DTYPES
from .shim import Shim

INVERSE_127 = np.uint32(0x3C010204).view(np.float32)


def round_half_away(x: np.ndarray) -> np.ndarray:
    return np.trunc(x) + np.where(np.abs(x - np.trunc(x)) >= 0.5, np.sign(x), 0)


def expected_quants(x: np.ndarray, absmax: np.float32, dtype: str) -> np.ndarray:
    scale = absmax * INVERSE_127
    if dtype == "float64":
        return round_half_away((x / np.float64(scale)).astype(np.float32)).astype(np.int8)
    return round_half_away(x.astype(np.float32) / scale).astype(np.int8)


def raw(x: np.ndarray, dtype: str) -> tuple[np.ndarray, np.ndarray]:
    """Raw values of the element type, and what they hold."""
    if dtype == "bfloat16":
        bits = (x.astype(np.float32).view(np.uint32) >> 16).astype(np.uint16)
        return bits, (bits.astype(np.uint32) << 16).view(np.float32)
    held = x.astype(dtype)
    return (held.view(np.uint16) if dtype == "float16" else held), held


def test_scale_is_a_product(shim: Shim) -> None:
    """Absmax times the float 1/127, which is not absmax divided by 127."""
    values = np.random.default_rng(1).uniform(0, 100, 1000).astype(np.float32)
    scales = np.array([shim.scale_q8_1(v) for v in values])
    assert np.array_equal(scales, values * INVERSE_127)
    assert (scales != values / np.float32(127)).any()


@pytest.mark.parametrize("dtype", DTYPES)
def test_quants(shim: Shim, dtype: str) -> None:
    rng = np.random.default_rng(2)
    for _ in range(500):
        values, held = raw(rng.normal(0, np.exp2(rng.uniform(-8, 8)), 32), dtype)
        absmax = np.abs(held.astype(np.float32)).max()
        quants = shim.quants_q8_1(values, dtype, float(absmax))
        assert np.array_equal(quants, expected_quants(held, absmax, dtype))
        assert np.abs(quants.astype(int)).max() == 127


@pytest.mark.parametrize("dtype", DTYPES)
def test_ties_go_away_from_zero(shim: Shim, dtype: str) -> None:
    """With an absmax whose scale is exactly 2^-7, halves of it are exact."""
    absmax = np.float32(127 * 2**-7)
    assert absmax * INVERSE_127 == 2**-7
    values, _ = raw(np.array([2.5, -2.5, 0.5, -0.5, 1.5, 2.25, -2.75, 0.0]) * 2**-7, dtype)
    assert shim.quants_q8_1(values, dtype, float(absmax)).tolist() == [3, -3, 1, -1, 2, 2, -3, 0]


@pytest.mark.parametrize("dtype", DTYPES)
def test_zeros_and_one_value(shim: Shim, dtype: str) -> None:
    zeros, _ = raw(np.zeros(32), dtype)
    assert (shim.quants_q8_1(zeros, dtype, 0.0) == 0).all()
    one, _ = raw(np.array([0.0] * 31 + [127 * 2**-10]), dtype)
    assert shim.quants_q8_1(one, dtype, 127 * 2**-10).tolist() == [0] * 31 + [127]


def test_scale_that_underflows(shim: Shim) -> None:
    """The least absmax has a scale of zero; its quant is zero and not an infinite quotient."""
    least = float(np.float32(1e-45))
    assert shim.scale_q8_1(least) == 0
    assert shim.quants_q8_1(np.array([least], np.float32), "float32", least).tolist() == [0]


@pytest.mark.parametrize("off_by", [-4, -3, -2, -1, 0, 1, 2, 3, 4])
def test_approximate_quotients_round_as_exact_ones(shim: Shim, off_by: int) -> None:
    """Quotients a few units in the last place off, as a GPU gives them, many of them next to a tie."""
    rng = np.random.default_rng(4)
    scale = np.exp2(rng.uniform(-50, 50, 400_000)).astype(np.float32)
    ties = rng.integers(0, 127, scale.size).astype(np.float32) + np.float32(0.5)
    near = (ties * scale).view(np.uint32).astype(np.int64) + rng.integers(-3, 4, scale.size)
    anywhere = rng.uniform(0, 127, scale.size).astype(np.float32) * scale
    for magnitude in (near.astype(np.uint32).view(np.float32), anywhere):
        x = magnitude * rng.choice(np.array([-1, 1], np.float32), scale.size)
        quotient = x / scale
        moved = (quotient.view(np.uint32).astype(np.int64) + off_by).astype(np.uint32).view(np.float32)
        assert np.array_equal(shim.round_quotients(x, scale, moved), round_half_away(quotient))


def test_an_approximate_quotient_alone_would_not_do(shim: Shim) -> None:
    """One unit below a tie: the wrong integer, unless the remainder is looked at."""
    scale = np.array([0.3], np.float32)
    x = np.float32(2.5) * scale
    assert x / scale == 2.5
    below = np.nextafter(x / scale, np.float32(0))
    assert round_half_away(below)[0] == 2
    assert shim.round_quotients(x, scale, below)[0] == 3
