"""The expansions for large batches: bits, ends of a weight that fill no work-item, and what they do not serve."""

from __future__ import annotations

from functools import partial

import pytest
import torch
from formats.decoders import FORMATS, decode

from quillon._kernels import EXPANSIONS

from .harness import TORCH, agrees, assert_the_same_past_caches, device_of, is_untouched, raw, untouched, weight_of

BLOCKS_OF_ITEM = {
    "q4_0": 8, "q4_1": 8, "q8_0": 4, "fp8_e4m3": 4, "fp8_e5m2": 4, "fp4": 8, "fp6": 8, "fp6_k": 2, "q4_k": 2, "q6_k": 2,
}  # fmt: skip
CASES = [(name, dtype) for name in BLOCKS_OF_ITEM for dtype in ("float32", "float16")]


def expand(name: str, weight: torch.Tensor, memory: torch.Tensor, columns: int, rows: int) -> None:
    output = memory[: columns * rows].view(rows, columns)
    torch.ops.quillon_kernels.expand_weight_fast(weight, output, FORMATS[name].qtype)


def test_kernels_and_their_instantiations() -> None:
    found = {kernel.format: kernel for kernel in EXPANSIONS if kernel.operation == "dense"}
    assert {name: kernel.blocks_of_item for name, kernel in found.items()} == BLOCKS_OF_ITEM
    for name, kernel in found.items():
        assert kernel.name == f"dequantize_{name}_kernel"
        assert kernel.element_types == ("float", "c10::Half")
        expressions = [kernel.expression("float", geometry) for geometry in kernel.geometries_on("oak")]
        assert expressions == [f"{kernel.name}<float,{blocks}>" for blocks in (BLOCKS_OF_ITEM[name], 1)]
        assert not kernel.waits


@pytest.mark.parametrize(("name", "dtype"), CASES)
def test_the_bits(name: str, dtype: str) -> None:
    """Of any number of blocks, those behind the last full work-item among them; and nothing behind the result."""
    device, elements = device_of("unknown"), FORMATS[name].elements
    for blocks in (1, 2, 3, 7, 8, 17, 64):
        packed = weight_of(name, blocks)
        memory = untouched(blocks * elements, dtype, device)
        expand(name, torch.from_numpy(packed).to(device), memory, elements, blocks)
        result, expected = raw(memory), decode(f"expand_{name}", packed, dtype)
        assert agrees(name, result[: expected.size], expected, dtype), blocks
        assert is_untouched(result[expected.size :]), blocks


@pytest.mark.grid(0.2)
@pytest.mark.parametrize(("name", "dtype"), CASES)
def test_a_large_matrix(name: str, dtype: str) -> None:
    assert_the_same_past_caches(partial(expand, name), name, dtype)


@pytest.mark.parametrize("name", BLOCKS_OF_ITEM)
def test_other_element_types(name: str) -> None:
    device, elements = device_of("unknown"), FORMATS[name].elements
    weight = torch.from_numpy(weight_of(name, 8)).to(device)
    for dtype in ("float64", "bfloat16"):
        with pytest.raises(RuntimeError, match=r"^unsupported dtype, only fp32 and fp16 are supported$"):
            expand(name, weight, torch.empty(8 * elements, dtype=TORCH[dtype], device=device), elements, 8)
