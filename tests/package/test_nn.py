"""Layers on packed weights: values, shapes, devices, state, and the replacement of a model's layers."""

from __future__ import annotations

import copy
import io
import re
from typing import Any

import pytest
import torch
from torch import Tensor, nn
from torch._subclasses.fake_tensor import FakeTensor, FakeTensorMode
from torch.utils._python_dispatch import TorchDispatchMode

import quillon
import vesper_linear
from quillon._device_table import DEVICE_CLASSES
from quillon.formats import WEIGHT_FORMATS
from quillon.nn import LowBitLinear, kernel_row_multiple, quantize_model

DEVICE = "xpu:7"  # class unknown: the default launchers


def dense_output(layer: LowBitLinear, input: torch.Tensor) -> torch.Tensor:
    """What the layer should give, in float64 from its decoded weight."""
    output = input.double().cpu() @ layer.dequantize().cpu().double().T
    return output if layer.bias is None else output + layer.bias.double().cpu()


@pytest.mark.parametrize("bias", [True, False])
@pytest.mark.parametrize("shape", [(1, 128), (128,), (5, 128), (2, 3, 128)])
def test_forward_agrees_with_the_decoded_weight(shape: tuple[int, ...], bias: bool) -> None:
    torch.manual_seed(1)
    layer = LowBitLinear.from_linear(nn.Linear(128, 33, bias=bias), "q4_0")
    input = torch.randn(shape)
    output = layer.to(DEVICE)(input.to(DEVICE))
    expected = dense_output(layer, input)
    assert output.shape == (*shape[:-1], 33)
    assert output.device == torch.device(DEVICE)
    # Each of the 128 products and sums, the scale and the bias round once, relative to the sum of magnitudes.
    magnitude = input.double().abs() @ layer.dequantize().cpu().double().abs().T + 1
    assert ((output.double().cpu() - expected).abs() <= 132 * 2**-24 * magnitude).all()


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.float64])
def test_output_has_the_element_type_of_the_input(dtype: torch.dtype) -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8, bias=False), "q4_0").to(DEVICE)
    assert layer(torch.ones(1, 64, dtype=dtype, device=DEVICE)).dtype == dtype


def test_non_contiguous_input() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0").to(DEVICE)
    wide = torch.randn(64, 3, device=DEVICE)
    assert torch.equal(layer(wide.T), layer(wide.T.contiguous()))


def test_empty_batch() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0").to(DEVICE)
    assert layer(torch.empty(0, 64, device=DEVICE)).shape == (0, 8)


def test_state_dict_round_trip() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0").to(DEVICE)
    file = io.BytesIO()
    torch.save(layer.state_dict(), file)
    file.seek(0)
    other = LowBitLinear(64, 8, "q4_0")
    other.load_state_dict(torch.load(file, map_location="cpu"))
    input = torch.randn(1, 64, device=DEVICE)
    assert torch.equal(other.to(DEVICE)(input), layer(input))
    assert torch.equal(copy.deepcopy(layer)(input), layer(input))


def test_half_leaves_the_bytes_alone() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0")
    before = layer.packed.clone()
    layer.half()
    assert torch.equal(layer.packed, before)
    assert layer.bias is not None
    assert layer.bias.dtype == torch.float16


def test_errors_name_the_argument() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0")
    with pytest.raises(ValueError, match=r"input must be on an XPU.*got device cpu"):
        layer(torch.zeros(1, 64))
    with pytest.raises(ValueError, match=r"input must have 64 columns \(in_features\), got shape \(1, 65\)"):
        layer.to(DEVICE)(torch.zeros(1, 65, device=DEVICE))
    with pytest.raises(ValueError, match=r"in_features must be a multiple of 64 for q4_0, got 100"):
        LowBitLinear(100, 8, "q4_0")
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        LowBitLinear(64, 8, "q9")


@pytest.mark.parametrize("wrong", [64.0, "64", True, None, torch.tensor(64)])
def test_sizes_are_integers(wrong: object) -> None:
    with pytest.raises(TypeError, match="in_features must be an integer, got "):
        LowBitLinear(wrong, 8, "q4_0")  # type: ignore[arg-type]
    with pytest.raises(TypeError, match="out_features must be an integer, got "):
        LowBitLinear(64, wrong, "q4_0")  # type: ignore[arg-type]


@pytest.mark.parametrize("shape", [(), (64,), (8, 64, 1)])
def test_weights_of_other_than_two_dimensions(shape: tuple[int, ...]) -> None:
    text = re.escape(f"weight must have two dimensions (out_features, in_features), got shape {shape}")
    with pytest.raises(ValueError, match=text):
        LowBitLinear.from_weight(torch.ones(shape), None, "q4_0")


@pytest.mark.parametrize("shape", [(9,), (1,), (8, 1), ()])
def test_bias_of_another_shape(shape: tuple[int, ...]) -> None:
    with pytest.raises(ValueError, match=re.escape(f"bias must have shape (8,), got {shape}")):
        LowBitLinear.from_weight(torch.ones(8, 64), torch.ones(shape), "q4_0")


def test_bytes_that_are_not_the_layers() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0")
    input = torch.zeros(2, 64, device=DEVICE)
    with pytest.raises(ValueError, match="input is on xpu:7 and the layer on cpu; both must be on one device"):
        layer(input)
    with pytest.raises(ValueError, match="input is on xpu:7 and the layer on xpu:3; both must be on one device"):
        layer.to("xpu:3")(input)
    layer.to(DEVICE)
    packed = layer.packed
    for wrong in (packed[:-34], torch.cat((packed, packed)), packed.view(8, 34), packed.float(), packed[:0]):
        layer.packed = wrong
        with pytest.raises(ValueError, match=r"packed must be uint8 of shape \(272,\) for 8 by 64 in q4_0, got torch"):
            layer(input)
    layer.packed = packed
    with pytest.raises(NotImplementedError, match="not implemented for 'Int'"):
        layer(input.int())


@pytest.mark.parametrize("shape", [(), (0,), (3, 0), (64, 1)])
def test_inputs_of_another_row_length(shape: tuple[int, ...]) -> None:
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0").to(DEVICE)
    text = re.escape(f"input must have 64 columns (in_features), got shape {shape}")
    with pytest.raises(ValueError, match=text):
        layer(torch.zeros(shape, device=DEVICE))


@pytest.mark.filterwarnings("ignore:The PyTorch API of nested tensors")
def test_what_is_no_tensor_or_model() -> None:
    with pytest.raises(TypeError, match="data must be a tensor, got list"):
        quillon.dequantize_reference([1], "q4_0", 1, 64)  # type: ignore[arg-type]
    for weight in (torch.ones(2, 64).to_sparse(), torch.nested.as_nested_tensor([torch.ones(2, 64)])):
        with pytest.raises(TypeError, match="weight must be a dense tensor, got a sparse or nested one"):
            quillon.quantize(weight, "q4_0")
    with pytest.raises(TypeError, match=r"model must be a torch.nn.Module, got str"):
        quantize_model("model", "q4_0")  # type: ignore[arg-type]


def test_row_lengths_that_a_kernel_does_not_cover() -> None:
    assert kernel_row_multiple("q4_0") == 64
    assert kernel_row_multiple("q5_k") == 256
    for name in ("q4_k", "q6_k"):
        assert kernel_row_multiple(name) == 512
        assert kernel_row_multiple(name, "oak") == 512
        assert kernel_row_multiple(name, "elm") == 1024
        with pytest.raises(ValueError, match=f"in_features must be a multiple of 512 for {name}.*got 256"):
            LowBitLinear(256, 8, name)


def test_a_layer_that_fits_elsewhere_is_refused_on_elm() -> None:
    layer = LowBitLinear.from_linear(nn.Linear(512, 8), "q4_k").to("xpu:1")
    with pytest.raises(ValueError, match="multiple of 1024 for q4_k on device class elm, got 512"):
        layer(torch.zeros(1, 512, device="xpu:1"))


@pytest.mark.parametrize("format", WEIGHT_FORMATS)
def test_fake_tensors_pass_through(format: str) -> None:
    columns = kernel_row_multiple(format)
    with FakeTensorMode():
        layer = LowBitLinear(columns, 33, format).to(DEVICE)
        for shape in ((1, columns), (columns,), (2, 3, columns)):
            input = torch.randn(shape, dtype=torch.float16, device=DEVICE, requires_grad=True)
            output = layer.half()(input)
            assert type(output) is FakeTensor
            assert (output.shape, output.dtype, output.device) == ((*shape[:-1], 33), input.dtype, input.device)
            output.sum().backward()
            assert input.grad is not None
            assert input.grad.shape == input.shape
    # Nothing fake is left behind in what layers share.
    real = LowBitLinear.from_linear(nn.Linear(columns, 33), format).to(DEVICE)
    input = torch.randn(1, columns, device=DEVICE, requires_grad=True)
    real(input).sum().backward()
    assert input.grad is not None
    assert input.grad.isfinite().all()


def test_modes_see_the_operator() -> None:
    class Recorder(TorchDispatchMode):
        """Writes down what passes."""

        def __torch_dispatch__(self, function: Any, types: Any, args: Any = (), kwargs: Any = None) -> Any:
            seen.append(function)
            return function(*args, **(kwargs or {}))

    seen: list[Any] = []
    layer = LowBitLinear.from_linear(nn.Linear(64, 8), "q4_0").to(DEVICE)
    input = torch.randn(2, 64, device=DEVICE)
    expected = layer(input)
    with Recorder():
        assert torch.equal(layer(input), expected)
    assert seen.count(torch.ops.quillon.forward_new.default) == 1  # of both rows
    exported = torch.export.export(nn.Sequential(layer), (input,)).module()
    assert torch.equal(exported(input), expected)


@pytest.mark.grid(0.3)
@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.float16, torch.bfloat16])
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_many_rows(name: str, dtype: torch.dtype) -> None:
    """However many rows there are, in however many dimensions: every format, element type and number is served.

    The bound is that of two sums of as many products in the element type, and of an expansion in half on the way; where
    single rows meet their activations as eight bits, of half a step as well.
    """
    columns = kernel_row_multiple(name)
    layer = LowBitLinear.from_linear(nn.Linear(columns, 33), name).to(DEVICE, dtype)
    weight = layer.dequantize(torch.float64).abs()
    rounding = max(torch.finfo(dtype).eps * columns, 2 * torch.finfo(torch.float16).eps)
    for shape in ((2,), (7,), (3, 5), (2, 1, 16), (70,)):
        input = torch.randn(*shape, columns, device=DEVICE, dtype=dtype)
        rows = input.reshape(-1, columns)
        alone = torch.cat([layer(row) for row in rows.split(1)])
        bound = rounding * (rows.double().abs() @ weight.mT + 1)
        if name in ("iq2_xxs", "q2_k", "iq1_s"):
            bound = bound + rows.double().abs().amax(1, keepdim=True) / 250 * weight.sum(1)
        assert layer(input).shape == (*shape, 33)
        assert ((layer(input).reshape(-1, 33) - alone).abs() <= bound).all(), shape


# Format, element type, output size, rows, rows of each call.
CALLS = [
    ("q4_k", "float32", 16, 9, [9]),
    ("fp6", "float16", 16, 9, [9]),
    ("fp6", "bfloat16", 16, 9, [1] * 9),
    ("q4_0_woq", "float32", 16, 9, [1] * 9),
    ("q8_0", "float64", 16, 9, [9]),
    # A few rows of float32 meet the packed weight.
    ("q4_0", "float32", 16, 16, [7, 7, 2]),
    ("q4_0", "float32", 16, 17, [17]),
    ("q4_0", "float32", 2048, 7, [7]),
    ("q4_0", "float32", 2048, 17, [4, 4, 4, 4, 1]),
    ("q4_0", "float32", 2048, 33, [33]),
    ("q4_0", "float16", 2048, 9, [9]),
    ("nf4", "float32", 2048, 31, [8, 8, 8, 7]),
    ("q4_k", "float32", 2048, 14, [1] * 14),
    ("q4_k", "float32", 2048, 15, [15]),
    ("q2_k", "float32", 2048, 2, [2]),
]


@pytest.mark.parametrize(("name", "dtype", "out_features", "rows", "calls"), CALLS)
def test_calls_for_many_rows(
    name: str, dtype: str, out_features: int, rows: int, calls: list[int], monkeypatch: pytest.MonkeyPatch
) -> None:
    """One, where the format has a road for the element type, and one for each row elsewhere."""
    columns = 512
    layer = LowBitLinear(columns, out_features, name, bias=False).to(DEVICE)
    seen: list[int] = []
    forward_new = vesper_linear.forward_new

    def counted(input: Tensor, weight: Tensor, qtype: int, input_size: int) -> Tensor:
        seen.append(input.shape[0])
        return forward_new(input, weight, qtype, input_size)

    monkeypatch.setattr(vesper_linear, "forward_new", counted)
    layer(torch.ones(rows, columns, device=DEVICE, dtype=getattr(torch, dtype)))
    assert seen == calls


@pytest.mark.parametrize("name", ["q4_0", "q4_k", "iq1_s"])
def test_layers_made_in_inference_mode(name: str) -> None:
    dense = nn.Linear(512, 256)
    with torch.inference_mode():
        layer = LowBitLinear.from_linear(dense, name)
    assert torch.equal(layer.packed, quillon.quantize(dense.weight, name))
    input = torch.ones(1, 512, device=DEVICE, requires_grad=True)
    output = layer.to(DEVICE)(input)
    with torch.inference_mode():
        assert torch.equal(layer(input), output)
    output.sum().backward()
    assert input.grad is not None


def small_model() -> nn.Module:
    torch.manual_seed(3)
    return nn.Sequential(nn.Linear(64, 128), nn.ReLU(), nn.Sequential(nn.Linear(128, 512)), nn.Linear(512, 10))


def test_quantize_model_replaces_keeps_and_reports() -> None:
    model = small_model()
    seen: list[tuple[int, int, str]] = []
    report = quantize_model(model, "q4_0", skip=["3"], progress=lambda *step: seen.append(step))
    assert report.replaced == {"0": "q4_0", "2.0": "q4_0"}
    assert report.kept == {"3": "skipped by name"}
    assert report.dense_bytes == 4 * (64 * 128 + 128 * 512)
    assert report.packed_bytes == (64 * 128 + 128 * 512) // 64 * 34
    assert seen == [(0, 3, "0"), (1, 3, "2.0"), (2, 3, "3")]
    assert isinstance(model[2][0], LowBitLinear)
    assert type(model[3]) is nn.Linear


def test_quantize_model_fallback() -> None:
    model = small_model()
    report = quantize_model(model, "q6_k", fallback="q8_0")
    assert report.replaced == {"0": "q8_0", "2.0": "q8_0", "3": "q6_k"}
    assert quantize_model(small_model(), "q6_k", "2.0", fallback="q8_0").kept == {"2.0": "skipped by name"}
    model = small_model()
    report = quantize_model(model, "q6_k", device_class="elm")
    assert not report.replaced
    assert report.kept["3"] == "in_features must be a multiple of 1024 for q6_k on device class elm, got 512"


def test_quantize_model_takes_the_rule_of_the_current_device() -> None:
    with torch.xpu.device(1):
        assert quantize_model(small_model(), "q6_k", fallback="q8_0").replaced["3"] == "q8_0"
    with torch.xpu.device(7):
        assert quantize_model(small_model(), "q6_k", fallback="q8_0").replaced["3"] == "q6_k"
    with pytest.raises(ValueError, match="unknown device class 'ELM'"):
        quantize_model(small_model(), "q6_k", device_class="ELM")


def test_names_of_the_device_classes() -> None:
    names = [vesper_linear.get_xpu_device_name(torch.device("xpu", index)) for index in range(8)]
    assert list(DEVICE_CLASSES) == names


def test_quantized_model_runs() -> None:
    model = small_model()
    input = torch.randn(2, 64)
    dense = model(input)
    quantize_model(model, "q8_0")
    output = model.to(DEVICE)(input.to(DEVICE)).cpu()
    # Eight bits: each layer's weights are off by at most half a step of 1/127 of a block's largest.
    assert (output - dense).norm() < 0.02 * dense.norm()


def test_subclasses_of_linear_are_left_alone() -> None:
    class Special(nn.Linear):
        """Does something else beside the product."""

    model = nn.Sequential(Special(64, 8))
    assert not quantize_model(model, "q4_0").replaced


def test_public_names() -> None:
    assert set(quillon.__all__) <= set(dir(quillon))
