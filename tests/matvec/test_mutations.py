"""The comparisons of test_values.py catch every mistake that a kernel of these formats invites."""

from __future__ import annotations

from collections.abc import Callable
from functools import cache

import numpy as np
import pytest
from formats.decoders import FORMATS, Array, Fields, split

from .harness import (
    WG_SIZE,
    device_of,
    exact_activations,
    exact_weight,
    random_activations,
    random_weight,
    rounded,
    run,
    same_bits,
    tracked,
    within,
)
from .reference import KERNELS

K, ROWS = 192, 13

# The blocks in which a mistake is made. The roundings of half leave room for one in a single block, in a few formats.
ONE_BLOCK, ALL_BLOCKS = slice(4, 5), slice(None)


def swap_nibbles(fields: Fields, hit: slice) -> None:
    for name in ("qs", "ql"):
        if name in fields:
            packed = fields[name][hit]
            fields[name][hit] = (packed >> 4) | (packed << 4)


def swap_neighbouring_bytes(fields: Fields, hit: slice) -> None:
    for name in ("qs", "ql"):
        if name in fields:
            packed = fields[name][hit]
            fields[name][hit] = packed.reshape(-1, 2)[:, ::-1].reshape(packed.shape)


def lose_high_bits(fields: Fields, hit: slice) -> None:
    fields["qh"][hit] = 0


def shift_high_bits(fields: Fields, hit: slice) -> None:
    fields["qh"][:] = np.roll(fields["qh"], 1, axis=0)


def drop_scale(fields: Fields, hit: slice) -> None:
    fields["d"][hit] = 1.0


def shift_scales(fields: Fields, hit: slice) -> None:
    fields["d"][:] = np.roll(fields["d"], 1, axis=0)


def shift_quants(fields: Fields, hit: slice) -> None:
    for name in ("qs", "ql"):
        if name in fields:
            fields[name][:] = np.roll(fields[name], 1, axis=0)


def drop_minimum(fields: Fields, hit: slice) -> None:
    fields["m"][hit] = 0.0


def lose_last_block(fields: Fields, hit: slice) -> None:
    for name in ("qs", "ql"):
        if name in fields:
            fields[name][2 * K // 64 - 1] = fields[name][0]


NEEDS = {
    swap_nibbles: lambda k, f: k.chunk != 8,  # the others have whole bytes
    swap_neighbouring_bytes: lambda k, f: True,
    lose_high_bits: lambda k, f: "qh" in f,
    shift_high_bits: lambda k, f: "qh" in f,
    drop_scale: lambda k, f: k.scaled,
    shift_scales: lambda k, f: k.scaled,
    shift_quants: lambda k, f: True,
    drop_minimum: lambda k, f: k.minimum,
    lose_last_block: lambda k, f: True,
}
Mutation = Callable[[Fields, slice], None]


def field_names(format_name: str) -> set[str]:
    return {field.name for region in FORMATS[format_name].regions for field in region}


CASES = [
    pytest.param(name, mutation, id=f"{name}-{mutation.__name__}")
    for name, kernel in KERNELS.items()
    for mutation, needed in NEEDS.items()
    if needed(kernel, field_names(name))
]


@cache
def result_of(format_name: str, dtype: str, device_class: str) -> tuple[Array, Array, Array]:
    weight = random_weight(format_name, ROWS * K // 64, 3)
    x = random_activations(K, dtype, 4)
    return weight, x, run(format_name, weight, x, dtype, device_of(device_class))


def mutated(format_name: str, weight: Array, mutation: Mutation, hit: slice) -> Fields:
    fields = {name: field.copy() for name, field in split(FORMATS[format_name], weight).items()}
    mutation(fields, hit)
    return fields


@pytest.mark.parametrize("dtype", ["float32", "float64", "float16"])
@pytest.mark.parametrize(("format_name", "mutation"), CASES)
def test_bound_catches(format_name: str, mutation: Mutation, dtype: str) -> None:
    weight, x, result = result_of(format_name, dtype, "unknown")
    right = tracked(format_name, split(FORMATS[format_name], weight), x, dtype, WG_SIZE["unknown"])
    hit = ALL_BLOCKS if dtype == "float16" else ONE_BLOCK
    wrong = tracked(format_name, mutated(format_name, weight, mutation, hit), x, dtype, WG_SIZE["unknown"])
    assert within(result, right)
    assert not within(result, wrong)


@pytest.mark.parametrize(("format_name", "mutation"), CASES)
def test_bits_catch(format_name: str, mutation: Mutation) -> None:
    weight, x, result = result_of(format_name, "bfloat16", "elm")
    fields = split(FORMATS[format_name], weight)
    assert same_bits(result, rounded(format_name, fields, x, "bfloat16", WG_SIZE["elm"]))
    wrong = rounded(format_name, mutated(format_name, weight, mutation, ONE_BLOCK), x, "bfloat16", WG_SIZE["elm"])
    assert not same_bits(result, wrong)


@pytest.mark.parametrize("format_name", KERNELS)
def test_order_of_sums_shows_in_bits(format_name: str) -> None:
    """Dealing chunks to another number of work-items is another answer in bfloat16."""
    k = 2048  # with less, the tree adds in the order in which the rounds would
    weight, x = random_weight(format_name, ROWS * k // 64, 5), random_activations(k, "bfloat16", 6)
    result, fields = run(format_name, weight, x, "bfloat16", device_of("elm")), split(FORMATS[format_name], weight)
    assert same_bits(result, rounded(format_name, fields, x, "bfloat16", WG_SIZE["elm"]))
    assert not same_bits(result, rounded(format_name, fields, x, "bfloat16", WG_SIZE["unknown"]))


@pytest.mark.parametrize("format_name", KERNELS)
def test_exact_data_catches_one_activation(format_name: str) -> None:
    weight = exact_weight(format_name, ROWS * K // 64, 5)
    fields = split(FORMATS[format_name], weight)
    x = exact_activations(format_name, fields, K, "float32", 6)
    result = run(format_name, weight, x, "float32", device_of("unknown"))
    assert np.array_equal(result, rounded(format_name, fields, x, "float32", WG_SIZE["unknown"]))
    for place in (0, 31, 32, 63, K - 1):
        other = x.copy()
        other[place] += 1
        assert not np.array_equal(result, rounded(format_name, fields, other, "float32", WG_SIZE["unknown"]))
