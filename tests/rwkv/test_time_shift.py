"""The time shift, to the bit: each operation is rounded to the element type."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import vesper_linear

from .harness import BACKINGS, TYPES, same_bits, to_device, to_host
from .naive import Array

SHAPES = ((1, 1, 1, 64), (3, 2, 5, 128), (5, 1, 9, 192), (2, 4, 1, 64))


def inputs_of(shape: tuple[int, int, int, int], dtype: str, seed: int) -> tuple[Array, Array, Array]:
    mixes, batches, steps, channels = shape
    rng = np.random.default_rng(seed)
    hidden, shifted = rng.standard_normal((2, batches, steps, channels)).astype(dtype)
    return hidden, shifted, rng.uniform(-0.2, 1.2, (mixes, channels)).astype(dtype)


def run(hidden: Array, shifted: Array, mix: Array) -> Array:
    output = vesper_linear.rwkv_time_shift(to_device(hidden), to_device(shifted), to_device(mix))
    assert output.shape == (len(mix), *hidden.shape)
    return to_host(output)


def expected(hidden: Array, shifted: Array, mix: Array) -> Array:
    return shifted + mix[:, None, None] * (hidden - shifted)


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_bits(shape: tuple[int, int, int, int], dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs = inputs_of(shape, dtype, 1)
    assert same_bits(run(*inputs), expected(*inputs))


@pytest.mark.parametrize("dtype", TYPES)
def test_each_operation_is_rounded(dtype: str) -> None:
    """A fused product, or a difference in a wider type, gives other bits."""
    hidden, shifted, mix = inputs_of((2, 2, 40, 64), dtype, 2)
    wide = {"float32": np.float64, "float16": np.float32}[dtype]
    difference = hidden - shifted
    fused = (shifted.astype(wide) + mix.astype(wide)[:, None, None] * difference.astype(wide)).astype(dtype)
    wide_difference = shifted.astype(wide) + mix.astype(wide)[:, None, None] * (hidden.astype(wide) - shifted)
    output = run(hidden, shifted, mix)
    assert same_bits(output, expected(hidden, shifted, mix))
    assert not same_bits(output, fused)
    assert not same_bits(output, wide_difference.astype(dtype))


def test_mixes_of_0_and_1() -> None:
    hidden, shifted, mix = inputs_of((2, 1, 100, 64), "float16", 3)
    mix[0], mix[1] = 0, 1
    output = run(hidden, shifted, mix)
    assert same_bits(output[0], shifted)
    assert same_bits(output[1], shifted + (hidden - shifted))
    assert not same_bits(output[1], hidden)


def test_no_mix() -> None:
    hidden, shifted, mix = inputs_of((1, 2, 3, 64), "float32", 4)
    assert run(hidden, shifted, mix[:0]).size == 0
    assert run(hidden[:0], shifted[:0], mix).size == 0


def test_any_shape_of_mixes() -> None:
    """Only the first size of the mixes counts."""
    inputs = inputs_of((3, 2, 5, 128), "float32", 5)
    hidden, shifted, mix = (to_device(one) for one in inputs)
    output = vesper_linear.rwkv_time_shift(hidden, shifted, mix.reshape(3, 1, 1, 128))
    assert same_bits(to_host(output), expected(*inputs))


def test_shifted_as_models_have_it() -> None:
    """The row before, in one tensor with the others: views are read as dense."""
    rows = torch.randn(6, 64, generator=torch.Generator().manual_seed(6))
    on_device = rows.to("xpu:7")
    mix = torch.full((1, 64), 0.25, device="xpu:7")
    output = vesper_linear.rwkv_time_shift(on_device[None, 1:], on_device[None, :-1], mix)
    assert torch.equal(output.cpu()[0, 0], rows[:-1] + 0.25 * (rows[1:] - rows[:-1]))
