"""The operator that expands a whole weight, by both routes: sizes, choice of kernel, failures, and who waits."""

from __future__ import annotations

import os
from collections.abc import Callable

import numpy as np
import pytest
import torch
from formats.decoders import DTYPES, FORMATS, decode
from torch import Tensor

import vesper_linear
from quillon._kernels import EXPANSIONS

from .harness import (
    BOTH_CLASSES,
    CLASSES,
    TORCH,
    agrees,
    device_of,
    expand_tile,
    expand_whole,
    expected_of,
    raw,
    weight_of,
)

Operator = Callable[[Tensor, Tensor, int], Tensor]

SERVED = ("q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp8_e5m2", "iq2_xxs")
SERVED_TEXT = (
    "it serves q4_0 (qtype 2), q4_1 (qtype 3), q8_0 (qtype 8), nf4 (qtype 10), fp4 (qtype 16), fp8_e5m2 (qtype 19), "
    "iq2_xxs (qtype 21)"
)

routes = pytest.mark.parametrize(
    "operator", [vesper_linear.dequant, torch.ops.quillon.dequant], ids=["module", "torch.ops"]
)
served = pytest.mark.parametrize("name", SERVED)


def call(operator: Operator, name: str, packed: np.ndarray, columns: int, dtype: str, device: torch.device) -> Tensor:
    """The contents of the first argument are not read: it has no rows."""
    like = torch.empty(0, columns, dtype=TORCH[dtype], device=device)
    result = operator(like, torch.from_numpy(packed).to(device), FORMATS[name].qtype)
    assert result.dtype == TORCH[dtype]
    assert result.device == device
    assert result.is_contiguous()
    return result


@pytest.mark.grid(0.25)
@routes
@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@served
def test_the_bits(name: str, dtype: str, device_class: str, operator: Operator) -> None:
    for columns, rows in ((256, 3), (1024, 2), (4096, 2)):
        blocks = columns * rows // FORMATS[name].elements
        result = call(operator, name, weight_of(name, blocks), columns, dtype, device_of(device_class))
        assert result.shape == (rows, columns)
        assert agrees(name, raw(result), expected_of(name, blocks, dtype), dtype)


@pytest.mark.parametrize("device_class", CLASSES)
def test_every_class(device_class: str) -> None:
    result = call(vesper_linear.dequant, "q4_0", weight_of("q4_0", 128), 128, "float16", device_of(device_class))
    assert result.shape == (64, 128)
    assert agrees("q4_0", raw(result), expected_of("q4_0", 128, "float16"), "float16")


@served
def test_bytes_and_blocks_behind_the_last_row_do_not_count(name: str) -> None:
    entry, device = FORMATS[name], device_of("unknown")
    columns, rows = 2 * entry.elements, 3
    packed = weight_of(name, 2 * rows)
    for behind in (1, entry.bytes - 1, entry.bytes, 2 * entry.bytes - 1):
        longer = np.concatenate([packed, np.full(behind, 0xFF, np.uint8)])
        result = call(vesper_linear.dequant, name, longer, columns, "float32", device)
        assert result.shape == (rows, columns)
        assert agrees(name, raw(result), expected_of(name, 2 * rows, "float32"), "float32")
    assert call(vesper_linear.dequant, name, packed[: 2 * entry.bytes - 1], columns, "float32", device).shape == (
        0,
        columns,
    )


def test_super_blocks_that_lie_in_two_rows() -> None:
    expected = decode("decode_iq2_xxs", weight_of("iq2_xxs", 3), "float32")
    result = call(vesper_linear.dequant, "iq2_xxs", weight_of("iq2_xxs", 3), 192, "float32", device_of("unknown"))
    assert result.shape == (4, 192)
    assert agrees("iq2_xxs", raw(result), expected, "float32")


def test_a_weight_that_ends_inside_a_super_block() -> None:
    """Rows of 192: three of them are 576 elements, of which two super-blocks are 512. The others are NaN."""
    packed = weight_of("iq2_xxs", 3)[: 2 * 66 + 65]
    for device_class in BOTH_CLASSES:
        result = raw(call(vesper_linear.dequant, "iq2_xxs", packed, 192, "float16", device_of(device_class)))
        assert result.shape == (2 * 192,)
        expected = decode("decode_iq2_xxs", packed[: 2 * 66], "float16")[:384]
        assert agrees("iq2_xxs", result[:256], expected[:256], "float16")
        assert np.isnan(result[256:].view(np.float16)).all()


@served
def test_a_weight_that_starts_anywhere(name: str) -> None:
    entry, device = FORMATS[name], device_of("unknown")
    packed = torch.from_numpy(weight_of(name, 4))
    for offset in (1, 2, 8):
        weight = torch.cat((torch.zeros(offset, dtype=torch.uint8), packed)).to(device)[offset:]
        result = vesper_linear.dequant(torch.empty(1, entry.elements, device=device), weight, entry.qtype)
        assert agrees(name, raw(result), expected_of(name, 4, "float32"), "float32")


# ---- failures ----------------------------------------------------------------------------------------------


def failure(like: Tensor, weight: Tensor, qtype: int) -> str:
    with pytest.raises(RuntimeError) as caught:
        vesper_linear.dequant(like, weight, qtype)
    return str(caught.value).split("\nException raised from")[0]


def like_and_weight(name: str = "q4_0", dtype: torch.dtype = torch.float32, columns: int = 64) -> tuple[Tensor, Tensor]:
    weight = torch.zeros(8 * FORMATS[name].bytes, dtype=torch.uint8, device="xpu:7")
    return torch.empty(1, columns, dtype=dtype, device="xpu:7"), weight


@served
def test_row_lengths_that_are_refused(name: str) -> None:
    for columns in (1, 63, 96, 100):
        text = failure(*like_and_weight(name, columns=columns), FORMATS[name].qtype)
        assert text == f"%d must be a multiple of 64{columns}"


@served
def test_element_types_that_are_refused(name: str) -> None:
    """Before the row length is looked at."""
    for dtype, shown in ((torch.int32, "Int"), (torch.bool, "Bool"), (torch.complex64, "ComplexFloat")):
        for columns in (64, 100):
            text = failure(*like_and_weight(name, dtype, columns), FORMATS[name].qtype)
            assert text == f"\"qlinear_forward_xpu\" not implemented for '{shown}'"


def test_formats_that_are_refused() -> None:
    """Formats without the operator, and codes without a format; before the element type is looked at."""
    for name in FORMATS.keys() - set(SERVED):
        for dtype in (torch.float32, torch.int32):
            text = failure(*like_and_weight(name, dtype), FORMATS[name].qtype)
            assert text == f"dequant: not for {name} (qtype {FORMATS[name].qtype}); {SERVED_TEXT}"
    for qtype in (22, 25):
        assert SERVED_TEXT in failure(*like_and_weight(), qtype)
    for qtype in (-1, 0, 5, 35, 36, 1000):
        assert "a code without a format; the weight formats are" in failure(*like_and_weight(), qtype)


def test_tensors_that_are_refused() -> None:
    like, weight = like_and_weight()
    assert failure(like, weight.view(torch.int8), 2) == "expected scalar type Byte but found Char"
    assert failure(like[:, :0].contiguous(), weight, 2).startswith("dequant: input has rows of 0 elements")
    shaped = torch.zeros(1024, 0, 192, dtype=torch.uint8, device="xpu:7")
    assert failure(like, shaped, 2).startswith("dequant: weight of shape [1024, 0, 192] has no bytes")
    with pytest.raises(IndexError, match="Dimension out of range"):
        vesper_linear.dequant(like[0], weight, 2)


# ---- waits -------------------------------------------------------------------------------------------------

WAITING = {
    *("qlinear_xpu_dequantize_kernel_" + name for name in (
        "q4_0_1x2", "q4_1_1x4", "q4_1_1x2", "nf4_1x4", "nf4_1x2", "fp4_1x4", "fp4_1x2", "q8_0_1x2", "q8_0_1x1",
        "fp8_e5m2_1x2", "fp8_e5m2_1x1", "q5_0", "nf3_new", "q2_k", "iq2_xxs", "iq1_s",
    )),
    *("qlinear_xpu_tile_dequantize_kernel_" + name for name in ("q4_0_1x2", "q8_0_1x1", "fp8_e5m2_1x1", "fp6_1x16")),
}  # fmt: skip


def test_which_kernels_are_waited_for() -> None:
    assert {kernel.name for kernel in EXPANSIONS if kernel.waits} == WAITING


def is_waited_for(kernel: str, device_class: str) -> bool:
    """Whether a small expansion behind a large one, which is not waited for, returns when both are done."""
    device = device_of(device_class)
    found = next(one for one in EXPANSIONS if one.name == kernel)
    large, into = torch.zeros(148 << 15, dtype=torch.uint8, device=device), torch.empty(1 << 23, device=device)
    small, output = torch.zeros(1 << 12, dtype=torch.uint8, device=device), torch.empty(4096, device=device)
    index = torch.zeros(1, 1, dtype=torch.int64, device=device)
    torch.xpu.synchronize(device)
    for _ in range(3):
        expand_whole("q4_k", large, into, 4096, 2048)
    if found.operation == "whole":
        expand_whole(found.format, small, output, 1024, 1)
    elif found.operation == "dense":
        torch.ops.quillon_kernels.expand_weight_fast(small, output[:1024].view(1, 1024), FORMATS[found.format].qtype)
    elif found.operation == "tile":
        expand_tile(found.format, small, output, 1024, 1, 1, 0)
    else:
        vesper_linear.dequantize_rows(index, small, FORMATS[found.format].qtype, 1024, 1)
    done = torch.xpu.current_stream(device).query()
    torch.xpu.synchronize(device)
    return bool(done)


@pytest.mark.skipif("QUILLON_HOST_GUARD" in os.environ, reason="memory that is freed waits for its stream there")
@pytest.mark.parametrize("kernel", [kernel.name for kernel in EXPANSIONS])
def test_who_waits(kernel: str) -> None:
    device_class = next(name for name in BOTH_CLASSES for k in EXPANSIONS if k.name == kernel and k.runs_on(name))
    is_waited_for(kernel, device_class)  # the first use compiles
    waited = [is_waited_for(kernel, device_class) for _ in range(1 if kernel in WAITING else 5)]
    # This process may be held up between a launch and the look at the stream, so one of a few has to be in time.
    assert all(waited) == (kernel in WAITING)
