"""How much of a weight a format keeps: stated figures, the plain-rounding baseline, the order of formats."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import torch
from torch import Tensor

from quillon.formats import WEIGHT_FORMATS
from quillon.quantizers import quantize
from quillon.quantizers.codebook import FP6_MAGNITUDES, FP8_E4M3_MAGNITUDES
from quillon.reference import dequantize_reference
from quillon.tables import FP4_MAGNITUDES, NF3, NF4

from . import naive, weights

WEIGHTS = {"normal": weights.normal, "embedding": weights.embedding, "projection": weights.projection}

# Largest relative root-mean-square error on each of WEIGHTS: the measured figure and one percent.
FIGURES = {
    "q4_0": (0.0908, 0.1304, 0.0918),
    "q4_0_woq": (0.0908, 0.1304, 0.0918),
    "q4_1": (0.0821, 0.1038, 0.0665),
    "q5_0": (0.0457, 0.0666, 0.0462),
    "q5_1": (0.0413, 0.0520, 0.0393),
    "q8_0": (0.00553, 0.00611, 0.00531),
    "nf4": (0.0834, 0.1001, 0.0800),
    "nf3": (0.1790, 0.2111, 0.1811),
    "fp4": (0.0964, 0.1054, 0.0947),
    "fp6": (0.0423, 0.0393, 0.0388),
    "fp8_e4m3": (0.0206, 0.0190, 0.0189),
    "fp8_e5m2": (0.0516, 0.0516, 0.0516),
    "iq1_s": (0.4492, 0.5124, 0.4583),
    "iq2_xxs": (0.3324, 0.3628, 0.3377),
    "q2_k": (0.2613, 0.2861, 0.2655),
    "q4_k": (0.0703, 0.0817, 0.00324),
    "q5_k": (0.0352, 0.0413, 0.0204),
    "q6_k": (0.0166, 0.0207, 0.0140),
    "fp6_k": (0.0339, 0.0309, 0.0296),
}


def relative_error(weight: Tensor, approximation: Tensor, importance: Tensor | None = None) -> float:
    w = 1.0 if importance is None else importance
    return float((w * (weight - approximation).square()).sum().div((w * weight.square()).sum()).sqrt())


def decoded(weight: Tensor, name: str, importance: Tensor | None = None) -> Tensor:
    return dequantize_reference(quantize(weight, name, importance=importance), name, *weight.shape)


@pytest.mark.parametrize("kind", WEIGHTS)
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_error_is_at_most_the_stated_figure(name: str, kind: str) -> None:
    weight = WEIGHTS[kind]()
    assert relative_error(weight, decoded(weight, name)) <= FIGURES[name][list(WEIGHTS).index(kind)]


def _both_signs(magnitudes: list[float] | tuple[float, ...]) -> list[float]:
    return [sign * m for m in magnitudes for sign in (1, -1)]


# The baseline of each format, and the largest share of its error that the search may leave on the normal
# weight. fp8_e5m2 has nothing to search for.
BASELINES: dict[str, tuple[Callable[[Tensor], Tensor], float]] = {
    "q4_0": (lambda x: naive.symmetric(x, range(-8, 8)), 0.85),
    "q4_0_woq": (lambda x: naive.symmetric(x, range(-8, 8)), 0.85),
    "q4_1": (lambda x: naive.affine(x, 15), 0.92),
    "q5_0": (lambda x: naive.symmetric(x, range(-16, 16)), 0.91),
    "q5_1": (lambda x: naive.affine(x, 31), 0.95),
    "q8_0": (lambda x: naive.symmetric(x, range(-128, 128), half=False), 0.94),
    "nf4": (lambda x: naive.symmetric(x, NF4), 0.91),
    "nf3": (lambda x: naive.symmetric(x, NF3), 0.89),
    "fp4": (lambda x: naive.symmetric(x, _both_signs(FP4_MAGNITUDES)), 0.92),
    "fp6": (lambda x: naive.symmetric(x, _both_signs(FP6_MAGNITUDES)), 0.89),
    "fp8_e4m3": (lambda x: naive.symmetric(x, _both_signs(FP8_E4M3_MAGNITUDES), half=False), 0.86),
    "q2_k": (lambda x: naive.two_level_affine(x, 3, 16, 15, 15), 0.80),
    "q4_k": (lambda x: naive.two_level_affine(x, 15, 32, 255, 255), 0.90),
    "q5_k": (lambda x: naive.two_level_affine(x, 31, 32, 63, 63), 0.93),
    "q6_k": (lambda x: naive.two_level_symmetric(x, range(-32, 32)), 0.87),
    "fp6_k": (lambda x: naive.two_level_symmetric(x, _both_signs(FP6_MAGNITUDES)), 0.80),
    # The grids against rounding to four levels and to the sign, which take 2.25 and 1.25 bits.
    "iq2_xxs": (lambda x: naive.symmetric(x, (-1.5, -0.5, 0.5, 1.5)), 0.75),
    "iq1_s": (lambda x: naive.symmetric(x, (-1.0, 1.0)), 0.40),
}


@pytest.mark.parametrize("name", BASELINES)
def test_search_beats_plain_rounding(name: str) -> None:
    weight = weights.normal()
    rounding, share = BASELINES[name]
    plain = relative_error(weight, rounding(weight))
    assert relative_error(weight, decoded(weight, name)) <= share * plain


@pytest.mark.parametrize("name", BASELINES)
def test_search_beats_plain_rounding_on_real_weights(name: str) -> None:
    weight = weights.embedding()
    plain = relative_error(weight, BASELINES[name][0](weight))
    assert relative_error(weight, decoded(weight, name)) < plain


CHAINS = (
    ("q4_0", "q5_0", "q8_0"),
    ("q4_1", "q5_1", "q8_0"),
    ("nf3", "nf4"),
    ("fp4", "fp6", "fp8_e4m3"),
    ("iq1_s", "iq2_xxs", "q2_k", "q4_k", "q5_k", "q6_k"),
)


# The projection is left out: the file holds it on a 4-bit affine grid, which q4_k meets almost exactly.
@pytest.mark.parametrize("kind", ["normal", "embedding"])
@pytest.mark.parametrize("chain", CHAINS, ids="-".join)
def test_more_bits_give_less_error(chain: tuple[str, ...], kind: str) -> None:
    weight = WEIGHTS[kind]()
    errors = [relative_error(weight, decoded(weight, name)) for name in chain]
    assert errors == sorted(errors, reverse=True)


# fp8_e5m2 has no scale, and so nothing that an importance could move.
@pytest.mark.parametrize("name", [n for n in WEIGHT_FORMATS if n != "fp8_e5m2"])
def test_importance_lowers_the_weighted_error(name: str) -> None:
    weight = weights.normal()[:16]
    columns = torch.randn(weight.shape[1], generator=torch.Generator().manual_seed(2)).mul(1.5).exp()
    plain = relative_error(weight, decoded(weight, name), columns)
    weighted = relative_error(weight, decoded(weight, name, columns), columns)
    assert weighted < 0.995 * plain


def test_importance_does_nothing_without_a_scale() -> None:
    columns = torch.linspace(0, 1, weights.normal().shape[1])
    plain = quantize(weights.normal(), "fp8_e5m2")
    assert torch.equal(plain, quantize(weights.normal(), "fp8_e5m2", importance=columns))


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_equal_importance_is_no_importance(name: str) -> None:
    weight = weights.normal()[:8]
    plain = relative_error(weight, decoded(weight, name))
    equal = relative_error(weight, decoded(weight, name, torch.full((weight.shape[1],), 3.0)))
    assert equal == pytest.approx(plain, rel=2e-3)


# Not q8_0: there are more values that its largest code may have than the search tries.
EXACT = ("q4_0", "q4_0_woq", "q5_0", "nf4", "nf3", "fp4", "fp6", "fp8_e4m3", "fp8_e5m2")


@pytest.mark.parametrize("name", EXACT)
def test_decoded_values_are_found_again(name: str) -> None:
    for make in WEIGHTS.values():
        weight = make()
        once = decoded(weight, name)
        torch.testing.assert_close(decoded(once, name), once, rtol=0, atol=0)


@pytest.mark.parametrize("name", [n for n in WEIGHT_FORMATS if n not in EXACT])
def test_second_pass_adds_little(name: str) -> None:
    weight = weights.normal()[:16]
    once = decoded(weight, name)
    again = relative_error(once, decoded(once, name))
    assert again < 0.3 * relative_error(weight, once)


# An element of a block that dwarfs the others, as real weights have them, must not cost more than itself.
@pytest.mark.parametrize("name", ["q4_0", "q4_1", "q5_1", "q8_0", "nf4", "fp6", "q2_k", "q6_k"])
def test_an_outlier_stays_in_its_block(name: str) -> None:
    weight = weights.normal()[:8].clone()
    weight[3, 700] = 100.0
    values = decoded(weight, name)
    block = torch.zeros_like(weight, dtype=torch.bool)
    block[3, 512:768] = True
    rest = relative_error(weight[~block], values[~block])
    assert rest <= 1.1 * FIGURES[name][0]
    # Half a step of two bits, or less, of the outlier.
    assert abs(float(values[3, 700]) - 100.0) < 20.0
