"""Rows whose length is no multiple of the block, in every format whose kernel takes them."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array

import vesper_linear
from quillon._kernels import KERNELS as PRODUCT

from .guards import output_guard
from .harness import DTYPES, TORCH, as_dtype, device_of, same_bits, within
from .loose_rows import multiply
from .reference import Rounded, Tracked

NAMES = [name for name, kernel in PRODUCT.items() if kernel.range == "rows"]
ROW_LENGTHS = (16, 48, 80, 128, 640, 4160)
CLASSES = ("elm", "legacy", "unknown")


def rows_of(name: str, k: int, blocks: int) -> int:
    return blocks * FORMATS[name].elements // k


def block_counts(name: str, k: int) -> list[int]:
    """Few blocks: an even and an odd number of rows, where there are both."""
    first = max(1, -(-k // FORMATS[name].elements))
    counts = range(first, first + 64)
    found = [
        next((n for n in counts if rows_of(name, k, n) > 2 and rows_of(name, k, n) % 2 == odd), 0) for odd in (1, 0)
    ]
    return [n for n in found if n]


def weight_bytes(name: str, k: int, blocks: int, seed: int) -> Array:
    """Random bytes. Those that may be taken for a scale are below 0x3C: no NaN, no infinity, nothing above 1."""
    entry, rng = FORMATS[name], np.random.default_rng(seed)
    weight = rng.integers(0, 256, blocks * entry.bytes).astype(np.uint8)
    if entry.records:
        heads = weight.reshape(blocks, -1)[:, :4]
        heads[:] = rng.integers(0, 0x3C, heads.shape)
        return weight
    scales = sum(sum(f.bytes for f in region) for region in entry.regions[:-1])
    first = rows_of(name, k, blocks) * k // entry.elements * scales
    weight[first:] = rng.integers(0, 0x3C, weight.size - first)
    if name == "fp8_e5m2":
        weight = weight & 0xB7  # exponents below 14
    return weight


def row_in_memory(k: int, dtype: str, seed: int) -> Array:
    """A row, and what lies behind it: chunks of a row that ends inside a block reach there."""
    return as_dtype(np.random.default_rng(seed).uniform(-1, 1, k + 64), dtype)


def run(name: str, weight: Array, x: Array, k: int, dtype: str, device: torch.device) -> Array:
    rows = rows_of(name, k, weight.size // FORMATS[name].bytes)
    row = torch.from_numpy(x).to(TORCH[dtype]).to(device)[None, :k]
    packed = torch.from_numpy(weight).to(device)
    if rows * TORCH[dtype].itemsize + 64 > 512:
        out = vesper_linear.forward_new(row, packed, FORMATS[name].qtype, 0)
        return out.cpu().to(torch.float64).numpy()[0]
    with output_guard(rows, TORCH[dtype], device) as address:
        out = vesper_linear.forward_new(row, packed, FORMATS[name].qtype, 0)
        assert address in (None, out.data_ptr())
        result = out.cpu().to(torch.float64).numpy()[0]
    return result


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
def test_values(name: str, dtype: str, device_class: str) -> None:
    geometry = PRODUCT[name].geometry(device_class)
    for k in ROW_LENGTHS:
        x = row_in_memory(k, dtype, k)
        for blocks in block_counts(name, k):
            weight = weight_bytes(name, k, blocks, k + blocks)
            result = run(name, weight, x, k, dtype, device_of(device_class))
            where = (k, len(result))
            of = (weight, x, k, geometry.lanes, geometry.rows)
            assert within(result, multiply(name, Tracked, dtype, *of)), where
            if dtype == "bfloat16" and name != "q5_k":  # nothing but its float steps can be fused
                with np.errstate(over="ignore"):
                    expected = multiply(name, Rounded, dtype, *of).x.astype(np.float64)
                assert same_bits(result, expected), where


@pytest.mark.parametrize("name", ["q4_0", "q8_0", "q4_k", "q6_k", "fp6_k"])
def test_a_row_does_not_start_at_a_block_of_its_own(name: str) -> None:
    """Rows counted in whole blocks, as of a matrix whose rows were cut, are outside the bound."""
    k, entry = 640 if FORMATS[name].elements == 256 else 80, FORMATS[name]
    blocks = max(block_counts(name, k))
    weight, x = weight_bytes(name, k, blocks, 1), row_in_memory(k, "float32", 2)
    result = run(name, weight, x, k, "float32", device_of("unknown"))
    assert within(result, multiply(name, Tracked, "float32", weight, x, k, 32, 2))
    whole = k // entry.elements * entry.elements
    cut = multiply(name, Tracked, "float32", weight, x, whole, 32, 2)
    assert not (np.abs(result - cut.x[: len(result)]) <= cut.error[: len(result)]).all()
