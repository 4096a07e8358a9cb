"""quillon.dequantize, the layers' dequantize, and packed embeddings."""

from __future__ import annotations

import copy
import io
from collections.abc import Callable

import pytest
import torch
from torch import Tensor, nn
from torch._subclasses.fake_tensor import FakeTensorMode

import quillon
import vesper_linear
from quillon.embedding import EMBEDDING_FORMATS
from quillon.expansion import EXPANDED_FORMATS
from quillon.formats import WEIGHT_FORMATS, format_code, row_multiple
from quillon.nn import LowBitEmbedding, LowBitLinear

DEVICE = "xpu:7"
DTYPES = (torch.float32, torch.float64, torch.float16, torch.bfloat16)


def packed(format: str, rows: int = 3, columns: int = 512) -> Tensor:
    torch.manual_seed(3)
    return quillon.quantize(torch.randn(rows, columns), format)


def test_the_formats() -> None:
    assert set(WEIGHT_FORMATS) - set(EXPANDED_FORMATS) == {"fp6", "fp6_k", "fp8_e4m3", "q4_0_woq"}
    assert EMBEDDING_FORMATS == ("q2_k", "q4_k")


@pytest.mark.grid(0.3)
@pytest.mark.parametrize("device", [DEVICE, "xpu:1"])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("format", EXPANDED_FORMATS)
def test_the_device_gives_what_the_reference_gives(format: str, dtype: torch.dtype, device: str) -> None:
    data = packed(format)
    dense = quillon.dequantize(data.to(device), format, 3, 512, dtype)
    assert dense.device == torch.device(device)
    assert dense.dtype == dtype
    assert torch.equal(dense.cpu(), quillon.dequantize_reference(data, format, 3, 512, dtype))


@pytest.mark.parametrize("format", WEIGHT_FORMATS)
def test_a_layer_expands_where_it_is(format: str) -> None:
    layer = LowBitLinear.from_linear(nn.Linear(1024, 3, bias=False), format)
    on_cpu = layer.dequantize(torch.float16)
    assert on_cpu.device.type == "cpu"
    on_device = layer.to(DEVICE).dequantize(torch.float16)
    assert on_device.device == torch.device(DEVICE)
    assert torch.equal(on_device.cpu(), on_cpu)


def test_what_cannot_be_expanded() -> None:
    data = packed("q4_0").to(DEVICE)
    with pytest.raises(
        ValueError, match=r"fp6 has no expansion on the device; use dequantize_reference\. Allowed: q4_0,"
    ):
        quillon.dequantize(packed("fp6").to(DEVICE), "fp6", 3, 512)
    with pytest.raises(ValueError, match="data must be on an XPU, got device cpu; dequantize_reference serves the CPU"):
        quillon.dequantize(data.cpu(), "q4_0", 3, 512)
    with pytest.raises(ValueError, match=r"data must have shape \(1088,\) for 4 by 512 in q4_0, got \(816,\)"):
        quillon.dequantize(data, "q4_0", 4, 512)
    with pytest.raises(TypeError, match=r"dtype must be float32, float64, float16 or bfloat16, got torch\.int8"):
        quillon.dequantize(data, "q4_0", 3, 512, torch.int8)
    with pytest.raises(TypeError, match=r"data must be uint8, got torch\.int8"):
        quillon.dequantize(data.view(torch.int8), "q4_0", 3, 512)


# ---- embeddings --------------------------------------------------------------------------------------------


def make_embedding(format: str = "q4_k", dtype: torch.dtype = torch.float32) -> LowBitEmbedding:
    torch.manual_seed(4)
    return LowBitEmbedding.from_embedding(nn.Embedding(9, 512), format).to(DEVICE, dtype)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("format", EMBEDDING_FORMATS)
def test_rows_of_an_embedding(format: str, dtype: torch.dtype) -> None:
    layer = make_embedding(format, dtype)
    table = layer.dequantize(dtype).cpu()
    assert torch.equal(table, quillon.dequantize_reference(layer.packed, format, 9, 512, dtype))
    for index in (
        torch.tensor(3),
        torch.tensor([8, 0, 3]),
        torch.tensor([[1, 1], [2, 8]]),
        torch.zeros(2, 0, 3).long(),
    ):
        output = layer(index.to(DEVICE))
        assert output.dtype == dtype
        assert output.shape == (*index.shape, 512)
        assert torch.equal(output.cpu(), table[index])
        assert torch.equal(layer(index.int().to(DEVICE)), output)
    strided = torch.arange(8, device=DEVICE).view(4, 2).t()
    assert torch.equal(layer(strided), layer(strided.contiguous()))


def test_an_embedding_is_close_to_its_table() -> None:
    dense = nn.Embedding(9, 512)
    layer = LowBitEmbedding.from_embedding(dense, "q4_k").to(DEVICE)
    index = torch.arange(9)
    off = (layer(index.to(DEVICE)).cpu() - dense(index)).norm() / dense.weight.norm()
    assert 0 < off < 0.1
    assert layer.packed.numel() == 9 * 2 * 148


def test_row_numbers_out_of_range_give_nan() -> None:
    output = make_embedding()(torch.tensor([-1, 2, 9], device=DEVICE)).cpu()
    assert output.isnan().all(1).tolist() == [True, False, True]


def test_the_state_and_the_element_type_of_an_embedding() -> None:
    layer, index = make_embedding(), torch.tensor([2, 5], device=DEVICE)
    assert list(layer.state_dict()) == ["packed"]
    file = io.BytesIO()
    torch.save(layer.state_dict(), file)
    file.seek(0)
    other = LowBitEmbedding(9, 512, "q4_k")
    other.load_state_dict(torch.load(file, map_location="cpu"))
    assert torch.equal(other.to(DEVICE)(index), layer(index))
    half = copy.deepcopy(layer).half()
    assert torch.equal(half(index), layer(index).half())
    assert torch.equal(half.packed, layer.packed)
    assert "9, 512, format=q4_k" in repr(layer)


def test_what_an_embedding_refuses() -> None:
    layer = make_embedding()
    with pytest.raises(ValueError, match="q4_0 has no expansion of single rows on the device; allowed: q2_k, q4_k"):
        LowBitEmbedding(9, 512, "q4_0")
    with pytest.raises(ValueError, match="embedding_dim must be a multiple of 256 for q4_k, got 576"):
        LowBitEmbedding.from_embedding(nn.Embedding(9, 576), "q4_k")
    with pytest.raises(TypeError, match=r"num_embeddings must be an integer, got 9\.0"):
        LowBitEmbedding(9.0, 512, "q4_k")  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="max_norm"):
        LowBitEmbedding.from_embedding(nn.Embedding(9, 512, max_norm=1), "q4_k")
    with pytest.raises(TypeError, match=r"input must be int64 or int32, got torch\.float32"):
        layer(torch.zeros(1, device=DEVICE))
    with pytest.raises(ValueError, match="input must be on an XPU, where the packed kernels run, got device cpu"):
        layer(torch.zeros(1, dtype=torch.int64))
    with pytest.raises(ValueError, match="input is on xpu:7 and the layer on xpu:1; both must be on one device"):
        layer.to("xpu:1")(torch.zeros(1, dtype=torch.int64, device=DEVICE))


# ---- tracing -----------------------------------------------------------------------------------------------


def test_fake_tensors() -> None:
    with FakeTensorMode() as mode:
        assert mode is not None
        weight = torch.empty(34 * 64, dtype=torch.uint8, device=DEVICE)
        dense = torch.ops.quillon.dequant(torch.empty(1, 128, dtype=torch.float16, device=DEVICE), weight, 2)
        assert (dense.shape, dense.dtype, dense.device) == ((32, 128), torch.float16, torch.device(DEVICE))
        index = torch.empty(2, 3, dtype=torch.int64, device=DEVICE)
        table = torch.empty(148 * 8, dtype=torch.uint8, device=DEVICE)
        rows = torch.ops.quillon.dequantize_rows(index, table, 27, 512, 4)
        assert (rows.shape, rows.dtype, rows.device) == ((2, 3, 512), torch.float32, torch.device(DEVICE))
        expanded = quillon.dequantize(weight, "q4_0", 64, 64, torch.bfloat16)
        assert (expanded.shape, expanded.dtype) == ((64, 64), torch.bfloat16)


def with_rows(index: Tensor, table: Tensor) -> Tensor:
    return vesper_linear.dequantize_rows(index, table, 27, 512, 9) + 1


def with_dense(index: Tensor, table: Tensor) -> Tensor:
    return quillon.dequantize(table, "q4_k", 9, 512) * index.sum()


@pytest.mark.parametrize("backend", ["aot_eager", "inductor"])
@pytest.mark.parametrize("function", [with_rows, with_dense])
def test_compiled(function: Callable[[Tensor, Tensor], Tensor], backend: str) -> None:
    torch.compiler.reset()
    index = torch.tensor([[3, 8]], device=DEVICE)
    table = make_embedding().packed
    compiled = torch.compile(function, fullgraph=True, backend=backend)
    assert torch.equal(compiled(index, table), function(index, table))


def test_a_compiled_embedding() -> None:
    torch.compiler.reset()
    layer, index = make_embedding(), torch.tensor([3, 8], device=DEVICE)
    assert torch.equal(torch.compile(layer, fullgraph=True, backend="aot_eager")(index), layer(index))


def test_codes_of_the_operators() -> None:
    assert [format_code(name) for name in EMBEDDING_FORMATS] == [23, 27]
    assert [row_multiple(name) for name in EMBEDDING_FORMATS] == [256, 256]
