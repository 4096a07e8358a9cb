"""quantize_model on what models are made of beside nn.Linear, and what it says of what it leaves."""

from __future__ import annotations

import copy
import re
from typing import Any

import pytest
import torch
from torch import nn

from quillon.nn import LowBitExperts, LowBitLinear, quantize_model

transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")

DEVICE = "xpu:7"


class Holder(nn.Module):
    """A model of one module."""

    def __init__(self, inner: nn.Module) -> None:
        super().__init__()
        self.inner = inner


def fill(module: nn.Module) -> Any:
    """Give a module's parameters values of a trained layer's size."""
    torch.manual_seed(5)
    with torch.no_grad():
        for parameter in module.parameters():
            parameter.normal_(std=0.1)
    return module.eval()


# ---- experts ---------------------------------------------------------------------------------------------------------


def mixtral() -> Any:
    from transformers.models.mixtral.modeling_mixtral import MixtralExperts

    return MixtralExperts(transformers.MixtralConfig(hidden_size=64, intermediate_size=128, num_local_experts=5))


def gpt_oss() -> Any:
    """Transposed weights with biases, gate and up interleaved, an activation of its own."""
    from transformers.models.gpt_oss.modeling_gpt_oss import GptOssExperts

    return GptOssExperts(transformers.GptOssConfig(hidden_size=64, intermediate_size=128, num_local_experts=5))


def nemotron_h() -> Any:
    """No gate."""
    from transformers.models.nemotron_h.modeling_nemotron_h import NemotronHExperts

    config = transformers.NemotronHConfig(hidden_size=64, moe_intermediate_size=128, n_routed_experts=5)
    config._experts_implementation = "eager"
    return NemotronHExperts(config)


EXPERTS = {"mixtral": mixtral, "gpt_oss": gpt_oss, "nemotron_h": nemotron_h}
experts_of_each_kind = pytest.mark.parametrize("kind", EXPERTS)


@experts_of_each_kind
def test_experts_are_packed_and_give_what_the_dense_ones_give(kind: str) -> None:
    dense = fill(EXPERTS[kind]())
    dense.config._experts_implementation = "eager"
    model = Holder(copy.deepcopy(dense))
    before = sum(p.nbytes for p in dense.parameters() if p.dim() == 3)
    report = quantize_model(model, "q8_0")
    assert report.replaced == {"inner": "q8_0"}
    assert report.kept == {}
    assert report.dense_bytes == before
    assert report.packed_bytes == before // 4 // 64 * 68
    assert isinstance(model.inner, LowBitExperts)
    assert not [name for name, p in model.named_parameters() if p.dim() == 3]

    tokens = torch.randn(7, 64)
    # Expert 3 is chosen by nobody, expert 0 by two slots of one token.
    index = torch.tensor([[0, 1], [1, 2], [4, 1], [0, 0], [2, 4], [1, 0], [4, 2]])
    weights = torch.rand(7, 2)
    with torch.no_grad():
        expected = dense(tokens, index, weights)
        output = model.to(DEVICE).inner(tokens.to(DEVICE), index.to(DEVICE), weights.to(DEVICE)).cpu()
    assert output.shape == expected.shape
    assert (output - expected).norm() < 0.02 * expected.norm()
    # The values of the packed experts themselves, each in its place.
    assert (output - expected).abs().max() < 0.05 * expected.abs().max()


def test_experts_leave_out_the_number_that_stands_for_none() -> None:
    model = Holder(fill(mixtral()))
    quantize_model(model, "q8_0")
    model.to(DEVICE)
    tokens, weights = torch.randn(3, 64, device=DEVICE), torch.rand(3, 2, device=DEVICE)
    index = torch.tensor([[0, 5], [5, 5], [2, 1]], device=DEVICE)
    masked = weights * (index < 5)
    output = model.inner(tokens, index, weights)
    assert torch.equal(output, model.inner(tokens, index.clamp(max=4), masked))
    assert torch.equal(output[1], torch.zeros(64, device=DEVICE))
    with pytest.raises(RuntimeError, match=r"ids\[0\]\[1\] is expert 6"):
        model.inner(tokens, index + (index == 5), weights)


@pytest.mark.parametrize(
    ("tokens", "index", "weights", "text"),
    [
        ((3, 128), (3, 2), (3, 2), "hidden_states must have shape (tokens, 64), got (3, 128)"),
        ((1, 3, 64), (3, 2), (3, 2), "hidden_states must have shape (tokens, 64), got (1, 3, 64)"),
        ((3, 64), (4, 2), (4, 2), "top_k_index must have shape (3, slots), the same as the other's, got (4, 2)"),
        ((3, 64), (3,), (3,), "top_k_index must have shape (3, slots), the same as the other's, got (3,)"),
        ((3, 64), (3, 2), (3, 3), "top_k_weights must have shape (3, slots), the same as the other's, got (3, 3)"),
    ],
)
def test_experts_refuse_other_shapes(
    tokens: tuple[int, ...], index: tuple[int, ...], weights: tuple[int, ...], text: str
) -> None:
    packed = LowBitExperts.from_experts(fill(mixtral()), "q8_0").to(DEVICE)
    arguments = (torch.zeros(tokens), torch.zeros(index, dtype=torch.int64), torch.zeros(weights))
    with pytest.raises(ValueError, match=re.escape(text)):
        packed(*(one.to(DEVICE) for one in arguments))


def test_experts_pass_gradients_on() -> None:
    dense = fill(mixtral())
    dense.config._experts_implementation = "eager"
    packed = LowBitExperts.from_experts(copy.deepcopy(dense), "q8_0").to(DEVICE)
    index = torch.tensor([[0, 1], [2, 3]])
    gradients = []
    for module, device in ((dense, "cpu"), (packed, DEVICE)):
        torch.manual_seed(2)
        tokens, weights = torch.randn(2, 64).to(device).requires_grad_(), torch.rand(2, 2).to(device).requires_grad_()
        output = module(tokens, index.to(device), weights)
        gradients.append([one.cpu() for one in torch.autograd.grad(output.sum(), (tokens, weights))])
    for expected, found in zip(*gradients, strict=True):
        assert (found - expected).norm() < 0.02 * expected.norm()


@experts_of_each_kind
def test_experts_whose_rows_do_not_fit(kind: str) -> None:
    model = Holder(fill(EXPERTS[kind]()))
    report = quantize_model(model, "q5_k")
    assert report.kept == {"inner": "in_features must be a multiple of 256 for q5_k, got 64"}
    assert quantize_model(model, "q5_k", skip=["inn*"], fallback="q4_0").kept == {"inner": "skipped by name"}
    assert quantize_model(model, "q5_k", fallback="q4_0").replaced == {"inner": "q4_0"}


def test_a_mixture_of_experts_model() -> None:
    """Every layer of a small model of random weights, end to end."""
    config = transformers.MixtralConfig(
        vocab_size=100,
        hidden_size=64,
        intermediate_size=128,
        num_hidden_layers=2,
        num_attention_heads=4,
        num_key_value_heads=2,
        num_local_experts=4,
    )
    config._experts_implementation = "eager"
    model = fill(transformers.MixtralForCausalLM(config))
    tokens = torch.tensor([[3, 14, 15, 92, 65]])
    with torch.no_grad():
        expected = model(tokens).logits
        report = quantize_model(model, "q8_0")
        logits = model.to(DEVICE)(tokens.to(DEVICE)).logits.cpu()
    assert len(report.replaced) == 2 * (4 + 1) + 1
    assert report.kept == {
        f"model.layers.{layer}.mlp.gate": "MixtralTopKRouter is no layer that can be packed; it holds weight (4, 64)"
        for layer in (0, 1)
    }
    assert (logits - expected).norm() < 0.1 * expected.norm()


def test_experts_in_another_layout_are_named() -> None:
    class Experts(nn.Module):
        """Says nothing of how it keeps them."""

        def __init__(self) -> None:
            super().__init__()
            self.w1 = nn.Parameter(torch.zeros(4, 64, 128))

    report = quantize_model(Holder(Experts()), "q4_0")
    assert report.replaced == {}
    assert report.kept == {"inner": "Experts is no layer that can be packed; it holds w1 (4, 64, 128)"}
    with pytest.raises(ValueError, match="Experts is no module of experts that can be packed"):
        LowBitExperts.from_experts(Experts(), "q4_0")


@pytest.mark.parametrize(
    ("name", "value"),
    [("has_post_expert_norm", True), ("is_transposed", True), ("has_bias", True), ("has_gate", False)],
)
def test_experts_that_contradict_themselves_are_left_alone(name: str, value: bool) -> None:
    experts = fill(mixtral())
    setattr(experts, name, value)
    assert list(quantize_model(Holder(experts), "q4_0").kept) == ["inner"]


# ---- other layers ----------------------------------------------------------------------------------------------------


def test_conv1d_is_packed() -> None:
    model = Holder(fill(transformers.pytorch_utils.Conv1D(96, 64)))
    input = torch.randn(3, 64)
    expected = model.inner(input)
    report = quantize_model(model, "q8_0")
    assert report.replaced == {"inner": "q8_0"}
    assert isinstance(model.inner, LowBitLinear)
    assert (model.inner.in_features, model.inner.out_features) == (64, 96)
    output = model.to(DEVICE).inner(input.to(DEVICE)).cpu()
    assert (output - expected).norm() < 0.02 * expected.norm()


def test_gpt2() -> None:
    """A model of Conv1D layers: all but the tied embedding is packed."""
    config = transformers.GPT2Config(vocab_size=100, n_embd=64, n_layer=2, n_head=4, n_positions=32)
    model = fill(transformers.GPT2LMHeadModel(config))
    tokens = torch.tensor([[3, 14, 15, 92, 65]])
    with torch.no_grad():
        expected = model(tokens).logits
        report = quantize_model(model, "q8_0")
        logits = model.to(DEVICE)(tokens.to(DEVICE)).logits.cpu()
    assert len(report.replaced) == 2 * 4 + 1
    assert report.kept == {}
    assert (logits - expected).norm() < 0.1 * expected.norm()


def test_whatever_holds_a_matrix_is_named() -> None:
    model = nn.ModuleDict(
        {
            "attention": nn.MultiheadAttention(64, 4),
            "convolution": nn.Conv2d(3, 8, 3),
            "embedding": nn.Embedding(10, 64),
            "norm": nn.LayerNorm(64),
            "recurrent": nn.GRUCell(64, 64, bias=False),
        }
    )
    kept = quantize_model(model, "q4_0").kept
    assert set(kept) == {"attention", "attention.out_proj", "convolution", "recurrent"}
    assert kept["attention.out_proj"].startswith("NonDynamicallyQuantizableLinear is a subclass of Linear, and ")
    assert kept["convolution"] == "Conv2d is no layer that can be packed; it holds weight (8, 3, 3, 3)"
    assert kept["recurrent"] == (
        "GRUCell is no layer that can be packed; it holds weight_ih (192, 64), weight_hh (192, 64)"
    )


def test_a_layer_with_two_places_is_replaced_in_both() -> None:
    shared = nn.Linear(64, 64)
    model = nn.Sequential(shared, nn.ReLU(), shared)
    report = quantize_model(model, "q4_0")
    assert report.replaced == {"0": "q4_0", "2": "q4_0"}
    assert model[0] is model[2]
    assert report.packed_bytes == 64 * 34


def test_a_weight_of_too_many_elements_stays() -> None:
    report = quantize_model(Holder(nn.Linear(65536, 32768, bias=False, device="meta")), "q4_0")
    assert report.kept == {"inner": "a weight has at most 2147483647 elements, got 32768 by 65536"}


def test_weights_that_lie_elsewhere_stay() -> None:
    """Those of layers that accelerate has moved to the disk, or that are yet to be loaded."""
    model = nn.Sequential(nn.Linear(64, 8), nn.Linear(64, 8, device="meta"))
    report = quantize_model(model, "q4_0")
    assert report.replaced == {"0": "q4_0"}
    assert report.kept == {"1": "its weight holds no data, being on the meta device"}
    with pytest.raises(ValueError, match="weight holds no data, being on the meta device"):
        LowBitLinear.from_linear(nn.Linear(64, 8, device="meta"), "q4_0")


def test_errors_name_the_layer() -> None:
    model = Holder(nn.Linear(64, 8))
    model.inner.weight.data[3, 4] = float("nan")
    with pytest.raises(ValueError, match=r"^inner: weight must be finite; rows 0 to 7 hold NaN or infinity"):
        quantize_model(model, "q4_0")
    with pytest.raises(TypeError, match=r"^inner: weight must be float32, float16 or bfloat16, got torch.float64"):
        quantize_model(Holder(nn.Linear(64, 8).double()), "q4_0")
    with pytest.raises(ValueError, match=r"model is a Linear itself, .* use LowBitLinear.from_linear"):
        quantize_model(nn.Linear(64, 8), "q4_0")
