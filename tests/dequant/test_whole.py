"""Every kernel that expands a whole weight, bit for bit, in every element type, on both class variants and backings."""

from __future__ import annotations

from functools import partial

import numpy as np
import pytest
import torch
from formats.decoders import DTYPES, FORMATS

from quillon._kernels import EXPANSIONS

from .harness import (
    BACKINGS,
    BOTH_CLASSES,
    IN_FLOAT,
    IN_T,
    WITHOUT,
    agrees,
    assert_the_same_past_caches,
    device_of,
    expand_whole,
    expansion_index,
    expected_of,
    is_untouched,
    raw,
    untouched,
    walk,
    weight_of,
)

FORM = {kernel.format: kernel.form for kernel in EXPANSIONS if kernel.operation == "whole"}

# (row length, rows). In the row form: one block, every power of two up to the largest work-group, and odd multiples.
ROW_SHAPES = ((64, 5), (128, 3), (192, 3), (256, 3), (512, 2), (576, 2), (1024, 2), (1600, 1), (1792, 1), (4096, 1))
# The weight is one run of blocks: less than a work-group's, and runs that fill none, one, and some.
FLAT_SHAPES = ((64, 1), (64, 5), (192, 7), (1024, 4), (1088, 5))
# Super-blocks in rows of their own, and lying in two rows.
BLOCK_SHAPES = ((256, 1), (256, 5), (192, 4), (320, 12), (1280, 3))
SHAPES = {"row": ROW_SHAPES, "flat": FLAT_SHAPES, "block": BLOCK_SHAPES}


def test_all_rounding_groups_are_here() -> None:
    assert sorted(FORM) == sorted({*IN_T, *IN_FLOAT, *WITHOUT} - {"fp6"})


@pytest.mark.grid(0.2)
@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORM)
def test_the_bits(name: str, dtype: str, device_class: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of(device_class)
    for state_size, rows in SHAPES[FORM[name]]:
        blocks, rest = divmod(state_size * rows, FORMATS[name].elements)
        assert rest == 0
        weight = torch.from_numpy(weight_of(name, blocks)).to(device)
        output = untouched(state_size * rows, dtype, device)
        expand_whole(name, weight, output, state_size, rows)
        result = raw(output)
        expected = expected_of(name, blocks, dtype)
        assert agrees(name, result[: len(expected)], expected, dtype), (state_size, rows)
        assert is_untouched(result[len(expected) :]), (state_size, rows)


@pytest.mark.grid(0.2)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORM)
def test_a_large_matrix(name: str, dtype: str) -> None:
    assert_the_same_past_caches(partial(expand_whole, name), name, dtype)


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("dtype", ["float32", "bfloat16"])
@pytest.mark.parametrize("name", [name for name, form in FORM.items() if form == "flat"])
def test_a_weight_that_ends_inside_a_block(
    name: str, dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Nothing is asked of the row length, and nothing written behind the last element."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of("unknown")
    for elements in (1, 2, 31, 33, 62, 1025, 1087, 2049):
        blocks = -(-elements // 64)
        packed = weight_of(name, blocks)
        if name == "nf3":  # scales lie behind the whole blocks of the count
            whole, qs = elements // 64, packed[: 24 * blocks]
            moved = np.zeros(24 * blocks + 2 * blocks, np.uint8)
            moved[: 24 * blocks] = qs
            moved[24 * whole : 24 * whole + 2 * blocks] = packed[24 * blocks :]
            packed = moved
        output = untouched(elements, dtype, device)
        expand_whole(name, torch.from_numpy(packed).to(device), output, elements, 1)
        result = raw(output)
        # The last block of nf3 lies under the scales in part: its codes are what is there.
        sure = elements if name != "nf3" else elements // 64 * 64
        assert agrees(name, result[:sure], expected_of(name, blocks, dtype)[:sure], dtype), elements
        assert is_untouched(result[elements:]), elements


# Elements that a work-item has in a round -> the work-group for a row length that is a multiple of these.
WORK_GROUPS = {
    4: {1024: 256, 512: 128, 256: 64, 128: 32, 64: 16},
    2: {1024: 256, 512: 256, 256: 128, 128: 64, 64: 32},
    1: {1024: 256, 512: 256, 256: 256, 128: 128, 64: 64},
}
# On elm, and on other classes.
SPANS = {
    "q4_0": (4, 2), "q4_1": (4, 2), "nf4": (4, 2), "fp4": (4, 2), "q8_0": (2, 1), "fp8_e5m2": (2, 1),
}  # fmt: skip


@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("name", SPANS)
def test_how_work_groups_walk_over_a_row(name: str, device_class: str) -> None:
    span = SPANS[name][device_class != "elm"]
    for state_size in range(64, 9000, 64):
        work_group = next(items for unit, items in WORK_GROUPS[span].items() if state_size % unit == 0)
        step = work_group * span
        assert walk("whole", name, device_class, state_size) == (work_group, step, step // 64, state_size // step)


def test_which_kernel_a_class_runs() -> None:
    names = {kernel.name for kernel in EXPANSIONS}
    for name, spans in SPANS.items():
        for device_class, span in zip(BOTH_CLASSES, spans, strict=True):
            row = expansion_index("whole", name, device_class)
            assert EXPANSIONS[row].name == f"qlinear_xpu_dequantize_kernel_{name}_1x{span}"
            assert EXPANSIONS[row].geometry(device_class).sub_group == (32 if device_class == "elm" else 16)
    flat = {"q5_0": "q5_0", "q5_1": "q5_1", "nf3": "nf3_new"}
    for name in FORM.keys() - SPANS.keys():
        row = expansion_index("whole", name, "unknown")
        assert row == expansion_index("whole", name, "elm")
        assert EXPANSIONS[row].name == f"qlinear_xpu_dequantize_kernel_{flat.get(name, name)}"
        sub_groups = (32, 16) if name in flat else (None, None)
        assert tuple(EXPANSIONS[row].geometry(one).sub_group for one in BOTH_CLASSES) == sub_groups
    for without in ("fp8_e4m3", "fp6", "fp6_k", "q4_0_woq"):
        assert expansion_index("whole", without, "unknown") == -1
    assert len(names) == len(EXPANSIONS) == 38


@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("name", FORM)
def test_row_lengths_that_are_refused(name: str, device_class: str) -> None:
    device = device_of(device_class)
    weight = torch.zeros(2 * FORMATS[name].bytes, dtype=torch.uint8, device=device)
    output = torch.empty(100, device=device)
    if FORM[name] == "flat":
        expand_whole(name, weight, output, 100, 1)
        return
    for state_size in (1, 63, 96, 100):
        with pytest.raises(RuntimeError) as caught:
            expand_whole(name, weight, output, state_size, 1)
        assert str(caught.value).split("\nException raised from")[0] == f"%d must be a multiple of 64{state_size}"


@pytest.mark.parametrize("name", FORM)
def test_no_rows(name: str) -> None:
    nothing = torch.empty(0, dtype=torch.uint8, device=device_of("unknown"))
    expand_whole(name, nothing, torch.empty(0, device=nothing.device), 256, 0)


def failure(weight: torch.Tensor, output: torch.Tensor, qtype: int) -> str:
    with pytest.raises(RuntimeError) as caught:
        torch.ops.quillon_kernels.expand_weight(weight, output, qtype)
    return str(caught.value).split("\nException raised from")[0]


def test_what_would_read_or_write_elsewhere_is_refused() -> None:
    device = device_of("unknown")
    weight, output = torch.zeros(34, dtype=torch.uint8, device=device), torch.empty(1, 64, device=device)
    torch.ops.quillon_kernels.expand_weight(weight, output, 2)
    text = failure(weight[:33], output, 2)
    assert text == "expand_weight: 1 rows of 64 elements in q4_0 (qtype 2) have 34 bytes, and weight has 33"
    assert "must be contiguous" in failure(weight, torch.empty(64, 2, device=device).T, 2)
    assert "of two dimensions" in failure(weight, output[None], 2)
    assert "both must be on one XPU" in failure(weight, output.cpu(), 2)
    assert "both must be on one XPU" in failure(weight, output.to("xpu:1"), 2)
    assert failure(weight, output, 34) == "expand_weight: no kernel for q4_0_woq (qtype 34)"
    assert failure(weight, output.int(), 2) == "\"qlinear_forward_xpu\" not implemented for 'Int'"
