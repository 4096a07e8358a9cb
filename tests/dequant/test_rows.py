"""Rows that an index names, through the operator, by both routes."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array
from matvec.guards import output_guard
from torch import Tensor

import vesper_linear
from quillon._kernels import EXPANSIONS

from .harness import BACKINGS, BOTH_CLASSES, agrees, device_of, expected_of, raw, weight_of

NAMES = ("q2_k", "q4_k")
Operator = Callable[[Tensor, Tensor, int, int, int], Tensor]

routes = pytest.mark.parametrize(
    "operator", [vesper_linear.dequantize_rows, torch.ops.quillon.dequantize_rows], ids=["module", "torch.ops"]
)
names = pytest.mark.parametrize("name", NAMES)
backings = pytest.mark.parametrize("backing", BACKINGS)


@pytest.fixture(autouse=True)
def chosen_backing(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> None:
    callspec = getattr(request.node, "callspec", None)
    if callspec is not None and "backing" in callspec.params:
        monkeypatch.setenv("QUILLON_HOST_BACKING", callspec.params["backing"])


def rows_of(name: str, state_size: int, output_size: int) -> Array:
    """All rows; those that are no multiple of 256 count as whole super-blocks, one row behind the other."""
    blocks = state_size * output_size // 256
    per_row = state_size // 256
    values = expected_of(name, blocks, "float32").reshape(blocks, 256)
    return values[: per_row * output_size].reshape(output_size, per_row * 256)


def call(
    operator: Operator, name: str, index: Tensor, state_size: int, output_size: int, device_class: str = "unknown"
) -> Tensor:
    device = device_of(device_class)
    weight = torch.from_numpy(weight_of(name, state_size * output_size // 256)).to(device)
    result = operator(index.to(device), weight, FORMATS[name].qtype, state_size, output_size)
    assert result.dtype == torch.float32
    assert result.device == device
    assert result.shape == (*index.shape[:2], state_size)
    assert result.is_contiguous()
    return result


@routes
@backings
@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@names
def test_the_bits(name: str, device_class: str, backing: str, operator: Operator) -> None:
    generator = torch.Generator().manual_seed(5)
    for state_size, output_size in ((256, 1), (256, 9), (1024, 5), (4096, 3)):
        rows = rows_of(name, state_size, output_size)
        for shape in ((1, 1), (1, 3), (3, 1), (4, 7)):
            index = torch.randint(0, output_size, shape, generator=generator)
            result = call(operator, name, index, state_size, output_size, device_class)
            assert agrees(name, raw(result), rows[index.reshape(-1).numpy()].reshape(-1), "float32")


@backings
@names
def test_indexes_that_lead_out_of_the_weight(name: str, backing: str) -> None:
    """Their rows are NaN, the others what they are; 32 bits of a number count."""
    rows = rows_of(name, 512, 6)
    index = torch.tensor([[0, -1, 5, 6, 2**31 - 1], [-(2**31), 2**32 + 3, -(2**32), 2**32 - 1, 100]])
    inside = torch.tensor([[0, -1, 5, -1, -1], [0, 3, 0, -1, -1]])  # 2^31 rows of two blocks are 2^32 blocks: 0 again
    result = raw(call(vesper_linear.dequantize_rows, name, index, 512, 6)).reshape(10, 512)
    for one, row in zip(result, inside.reshape(-1).tolist(), strict=True):
        if row < 0:
            assert np.isnan(one).all()
        else:
            assert agrees(name, one, rows[row], "float32")


@backings
@names
def test_rows_that_end_inside_a_super_block(name: str, backing: str) -> None:
    """Whole super-blocks alone, one row behind the other at as many elements; the rest of the result is NaN."""
    for state_size, output_size in ((320, 8), (448, 16), (576, 4), (1088, 4)):
        rows = rows_of(name, state_size, output_size)
        index = torch.tensor([[output_size - 1, 0, 2], [1, 1, 3]])
        result = raw(call(vesper_linear.dequantize_rows, name, index, state_size, output_size))
        expected = rows[index.reshape(-1).numpy()].reshape(-1)
        assert agrees(name, result[: expected.size], expected, "float32")
        assert np.isnan(result[expected.size :]).all()


@backings
@names
def test_rows_shorter_than_a_super_block(name: str, backing: str) -> None:
    result = call(vesper_linear.dequantize_rows, name, torch.zeros(2, 3, dtype=torch.int64), 192, 4)
    assert result.isnan().all()


@names
@pytest.mark.parametrize("shape", [(0, 4), (4, 0), (0, 0)])
def test_no_indexes(name: str, shape: tuple[int, int]) -> None:
    call(vesper_linear.dequantize_rows, name, torch.zeros(shape, dtype=torch.int64), 256, 4)


@names
def test_dimensions_behind_the_second_are_not_looked_at(name: str) -> None:
    rows = rows_of(name, 256, 4)
    index = torch.tensor([[[1, 2], [3, 0]]])  # (1, 2, 2): two rows, of the first two numbers in memory
    result = call(vesper_linear.dequantize_rows, name, index, 256, 4)
    assert agrees(name, raw(result), rows[[1, 2]].reshape(-1), "float32")


@backings
@names
@pytest.mark.parametrize("which", [2, -1])
def test_nothing_behind_the_result_is_written(name: str, which: int, backing: str) -> None:
    """The result fills 4352 bytes of a block of 4608."""
    device = device_of("unknown")
    weight = torch.from_numpy(weight_of(name, 17)).to(device)
    index = torch.tensor([[which]], device=device)
    arguments = (index, weight, FORMATS[name].qtype, 1088, 4)
    vesper_linear.dequantize_rows(*arguments)
    torch.xpu.synchronize(device)
    with output_guard(1088, torch.float32, device) as address:
        result = vesper_linear.dequantize_rows(*arguments)
        assert address in (None, result.data_ptr())


def test_the_output_size_of_records_is_not_looked_at() -> None:
    """Of q2_k, whose records need no regions, rows count that the weight has."""
    device = device_of("unknown")
    weight = torch.from_numpy(weight_of("q2_k", 6)).to(device)
    index = torch.tensor([[5, 6]], device=device)
    for output_size in (0, 6, 1000):
        result = vesper_linear.dequantize_rows(index, weight, 23, 256, output_size)
        assert agrees("q2_k", raw(result[0, 0]), expected_of("q2_k", 6, "float32")[5 * 256 :], "float32")
        assert result[0, 1].isnan().all()


@names
def test_a_weight_that_starts_anywhere(name: str) -> None:
    device = device_of("unknown")
    packed = torch.from_numpy(weight_of(name, 3))
    for offset in (1, 2, 8):
        weight = torch.cat((torch.zeros(offset, dtype=torch.uint8), packed)).to(device)[offset:]
        result = vesper_linear.dequantize_rows(
            torch.tensor([[2, 0]], device=device), weight, FORMATS[name].qtype, 256, 3
        )
        expected = expected_of(name, 3, "float32").reshape(3, 256)[[2, 0]]
        assert agrees(name, raw(result), expected.reshape(-1), "float32")


# ---- failures ----------------------------------------------------------------------------------------------


def failure(index: Tensor, weight: Tensor, qtype: int, state_size: int, output_size: int) -> str:
    with pytest.raises(RuntimeError) as caught:
        vesper_linear.dequantize_rows(index, weight, qtype, state_size, output_size)
    return str(caught.value).split("\nException raised from")[0]


def index_and_weight(name: str = "q4_k", blocks: int = 4) -> tuple[Tensor, Tensor, int]:
    weight = torch.zeros(blocks * FORMATS[name].bytes, dtype=torch.uint8, device="xpu:7")
    return torch.zeros(1, 1, dtype=torch.int64, device="xpu:7"), weight, FORMATS[name].qtype


@names
def test_row_lengths_that_are_refused(name: str) -> None:
    index, weight, qtype = index_and_weight(name)
    for state_size in (1, 96, 100):
        assert failure(index, weight, qtype, state_size, 1) == f"%d must be a multiple of 64{state_size}"
    assert next(k for k in EXPANSIONS if k.operation == "rows" and k.format == name).row_unit == 64


def test_formats_that_are_refused() -> None:
    index, weight, _ = index_and_weight()
    text = failure(index, weight, 2, 256, 1)
    assert text == "dequantize_rows: not for q4_0 (qtype 2); it serves q2_k (qtype 23), q4_k (qtype 27)"
    for qtype in (9, 22):
        assert "; it serves q2_k (qtype 23), q4_k (qtype 27)" in failure(index, weight, qtype, 256, 1)
    assert "a code without a format; the weight formats are" in failure(index, weight, 4, 256, 1)
    assert "a code without a format; the weight formats are" in failure(index, weight, 36, 256, 1)


@names
def test_tensors_that_are_refused(name: str) -> None:
    index, weight, qtype = index_and_weight(name)
    assert failure(index.int(), weight, qtype, 256, 4) == "expected scalar type Long but found Int"
    assert failure(index, weight.view(torch.int8), qtype, 256, 4) == "expected scalar type Byte but found Char"
    assert "has no elements" in failure(torch.zeros(1, 1, 0, dtype=torch.int64, device="xpu:7"), weight, qtype, 256, 4)
    with pytest.raises(IndexError, match="Dimension out of range"):
        vesper_linear.dequantize_rows(index[0], weight, qtype, 256, 4)


def test_sizes_that_are_refused() -> None:
    index, weight, qtype = index_and_weight()
    text = failure(index, weight, qtype, 256, 5)
    assert text.endswith("5 rows of 256 elements in q4_k (qtype 27) has 740 bytes, and weight has 592")
    for state_size, output_size in ((-256, 1), (256, -1)):
        text = failure(index, weight, qtype, state_size, output_size)
        assert text == f"dequantize_rows: state_size and output_size are sizes, got {state_size} and {output_size}"
    for state_size, output_size in ((2**31, 1), (256, 2**23), (2**40, 2**40)):
        assert "is too large; a weight has at most 2147483647 elements" in failure(
            index, weight, qtype, state_size, output_size
        )
