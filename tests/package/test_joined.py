"""Joined layers: the bits of the layers they replace, one launch in place of several, the same state."""

from __future__ import annotations

import copy
import pickle
from typing import Any

import pytest
import torch
from torch import Tensor, nn

import quillon
import vesper_linear
from quillon.formats import WEIGHT_FORMATS
from quillon.joined import JoinedLinear
from quillon.nn import LowBitLinear

DEVICE = "xpu:7"  # class unknown: the default launchers
ROWS = {"q_proj": 67, "k_proj": 33, "v_proj": 30}


class Attention(nn.Module):
    """What an attention module has, and no more."""

    def __init__(self, columns: int = 64, bias: bool = False) -> None:
        super().__init__()
        for name, rows in ROWS.items():
            self.add_module(name, nn.Linear(columns, rows, bias=bias))

    def forward(self, hidden_states: Tensor) -> Any:
        return self.q_proj(hidden_states), self.k_proj(hidden_states), self.v_proj(hidden_states)


class CrossAttention(Attention):
    """Keys and values may come from elsewhere."""

    def forward(self, hidden_states: Tensor, key_value_states: Tensor) -> Any:
        return self.q_proj(hidden_states), self.k_proj(key_value_states), self.v_proj(key_value_states)


def make(kind: type[Attention] = Attention, format: str = "q4_0", columns: int = 64, bias: bool = False) -> Attention:
    torch.manual_seed(3)
    model = kind(columns, bias)
    report = quillon.quantize_model(nn.ModuleList([model]), format, device_class="unknown")
    assert not report.kept
    return model.to(DEVICE)


def pair(**options: Any) -> tuple[Attention, Attention]:
    """The same layers, separate and joined."""
    separate = make(**options)
    joined = copy.deepcopy(separate)
    assert quillon.join_projections(joined) == {"": ("q_proj", "k_proj", "v_proj")}
    return separate, joined


def same_bits(one: Any, other: Any) -> bool:
    return len(one) == len(other) and all(torch.equal(*both) for both in zip(one, other, strict=True))


@pytest.fixture
def launches(monkeypatch: pytest.MonkeyPatch) -> list[int]:
    """Collects the bytes of the weight of each launch."""
    seen: list[int] = []
    launch = vesper_linear.forward_new

    def counted(input: Tensor, weight: Tensor, qtype: int, input_size: int) -> Tensor:
        seen.append(weight.numel())
        return launch(input, weight, qtype, input_size)

    monkeypatch.setattr(vesper_linear, "forward_new", counted)
    return seen


# ---- values ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("format", WEIGHT_FORMATS)
def test_joined_layers_give_the_bits_of_separate_ones(format: str, launches: list[int]) -> None:
    separate, joined = pair(format=format, columns=512)
    total = sum(layer.packed.numel() for layer in separate.children())
    for shape in ((1, 512), (2, 1, 512)):
        input = torch.randn(shape, device=DEVICE)
        expected = separate(input)
        del launches[:]
        given = joined(input)
        if input.numel() == 512 or format in ("q4_0", "nf4", "q4_0_woq"):  # the packed weight itself is read
            assert same_bits(given, expected)
        else:  # PyTorch's product of 512 terms may add them in another order for another number of columns
            for layer, one, other in zip(separate.children(), given, expected, strict=True):
                terms = input.abs() @ layer.dequantize().abs().mT  # type: ignore[operator]
                assert ((one - other).abs() <= 2 * 512 * 2**-24 * terms).all()
        assert all(output.is_contiguous() for output in given)
        rows = input.numel() // 512
        one_by_one = format == "q4_0_woq"
        assert launches == [total] * (rows if one_by_one else 1)


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.float64])
def test_element_types_and_biases(dtype: torch.dtype) -> None:
    separate, joined = pair(bias=True)
    input = torch.randn(3, 64, device=DEVICE, dtype=dtype)
    assert same_bits(joined(input), separate(input))


def test_autocast() -> None:
    separate, joined = pair()
    input = torch.randn(1, 64, device=DEVICE)
    with torch.autocast("xpu", torch.bfloat16):
        query = joined.q_proj(input)
        assert torch.equal(query, separate.q_proj(input))
    assert query.dtype == torch.bfloat16
    assert torch.equal(joined.k_proj(input), separate.k_proj(input))


def test_gradient_of_the_input() -> None:
    separate, joined = pair(bias=True)
    gradients = []
    for model in (separate, joined):
        input = torch.randn(2, 64, generator=torch.Generator().manual_seed(1)).to(DEVICE).requires_grad_()
        sum(output.square().sum() for output in model(input)).backward()
        gradients.append(input.grad)
    assert gradients[0].abs().sum() > 0
    torch.testing.assert_close(gradients[1], gradients[0])


# ---- whose product it is ---------------------------------------------------------------------------------------------


def test_any_order_and_any_input() -> None:
    separate, joined = pair()
    a, b = torch.randn(2, 1, 64, device=DEVICE)
    for layer, input in [("v_proj", a), ("q_proj", b), ("v_proj", a), ("v_proj", a), ("k_proj", b), ("k_proj", a)]:
        assert torch.equal(getattr(joined, layer)(input), getattr(separate, layer)(input))


def test_an_input_that_was_written_to_is_another() -> None:
    separate, joined = pair()
    input = torch.randn(1, 64, device=DEVICE)
    joined.q_proj(input)
    input.mul_(2)
    assert torch.equal(joined.k_proj(input), separate.k_proj(input))


def test_compiled() -> None:
    separate, joined = pair()
    input = torch.randn(1, 64, device=DEVICE)
    expected = separate(input)
    assert same_bits(joined(input), expected)
    compiled = torch.compile(joined, fullgraph=True, backend="aot_eager")
    for scale in (2, 1):
        given = compiled(input * scale)
    assert same_bits(given, expected)


def test_a_product_is_dropped_when_all_layers_have_had_their_part(launches: list[int]) -> None:
    _, joined = pair()
    input = torch.randn(1, 64, device=DEVICE)
    with torch.inference_mode():
        for _ in range(3):
            joined(input)
            assert joined.q_proj._shared.pending is None
    assert len(launches) == 3


def test_errors_are_those_of_a_separate_layer() -> None:
    _, joined = pair()
    with pytest.raises(ValueError, match=r"input must have 64 columns \(in_features\), got shape \(1, 32\)"):
        joined.k_proj(torch.ones(1, 32, device=DEVICE))
    with pytest.raises(ValueError, match="input must be on an XPU"):
        joined.k_proj(torch.ones(1, 64))


# ---- state -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("format", ["q4_0", "q5_0"])  # arrays, records
def test_state_is_that_of_separate_layers(format: str) -> None:
    separate, joined = pair(format=format, bias=True)
    expected, given = separate.state_dict(), joined.state_dict()
    assert list(given) == list(expected)
    assert all(torch.equal(given[name], expected[name]) for name in expected)

    torch.manual_seed(9)
    other = Attention(bias=True)
    quillon.quantize_model(nn.ModuleList([other]), format)
    joined.load_state_dict(other.state_dict())
    other.to(DEVICE)
    input = torch.randn(1, 64, device=DEVICE)
    assert same_bits(joined(input), other(input))
    assert torch.equal(joined.k_proj.dequantize(), other.k_proj.dequantize())


def test_wrong_state_is_refused() -> None:
    separate, joined = pair()
    state = separate.state_dict()
    before = joined.state_dict()
    with pytest.raises(RuntimeError, match=r"k_proj.packed must be 1122 of uint8, got torch.uint8 of shape \(2,\)"):
        joined.load_state_dict(state | {"k_proj.packed": torch.zeros(2, dtype=torch.uint8)})
    with pytest.raises(RuntimeError, match=r'Missing key.*"k_proj.packed"'):
        joined.load_state_dict({name: value for name, value in state.items() if name != "k_proj.packed"})
    with pytest.raises(RuntimeError, match=r'Unexpected key.*"k_proj.other"'):
        joined.load_state_dict(state | {"k_proj.other": torch.zeros(1)})
    assert all(torch.equal(value, before[name]) for name, value in joined.state_dict().items())


def test_copies_stand_alone() -> None:
    separate, joined = pair()
    input = torch.randn(1, 64, device=DEVICE)
    joined.q_proj(input)  # its product is not copied along
    for copied in (copy.deepcopy(joined), pickle.loads(pickle.dumps(joined))):
        assert copied.q_proj._shared.pending is None
        assert copied.q_proj.joined_packed.data_ptr() != joined.q_proj.joined_packed.data_ptr()
        assert same_bits(copied(input), separate(input))


def test_bytes_are_held_once() -> None:
    separate, joined = pair()
    held = {name: buffer.numel() for name, buffer in joined.named_buffers()}
    assert held == {"q_proj.joined_packed": sum(layer.packed.numel() for layer in separate.children())}
    assert joined.to("cpu").q_proj.joined_packed.device.type == "cpu"


# ---- what is joined --------------------------------------------------------------------------------------------------


def not_joined(model: nn.Module) -> bool:
    before = dict(model.named_modules())
    return quillon.join_projections(model) == {} and dict(model.named_modules()) == before


def test_layers_that_differ_stay_apart() -> None:
    model = make()
    model.v_proj = LowBitLinear(64, 30, "q8_0", bias=False)
    assert not_joined(model)
    model = make()
    model.v_proj = LowBitLinear(128, 30, "q4_0", bias=False)
    assert not_joined(model)
    model = make()
    model.v_proj.to("cpu")
    assert not_joined(model)
    model = make()
    model.v_proj = model.k_proj
    assert not_joined(model)
    model = make()
    model.v_proj = nn.Linear(64, 30)
    assert not_joined(model)


def test_hooks_and_second_inputs_stay_apart() -> None:
    model = make()
    model.v_proj.register_forward_hook(lambda *_: None)
    assert not_joined(model)
    assert not_joined(make(CrossAttention))
    assert not_joined(nn.ReLU())


def test_joining_twice_changes_nothing() -> None:
    _, joined = pair()
    assert not_joined(joined)


@pytest.mark.parametrize("family", ["Llama", "Qwen2", "Gemma"])
def test_models_of_transformers(family: str, launches: list[int]) -> None:
    transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    torch.manual_seed(2)
    config = getattr(transformers, f"{family}Config")(
        vocab_size=96,
        hidden_size=128,
        intermediate_size=192,
        num_hidden_layers=2,
        num_attention_heads=4,
        num_key_value_heads=2,
        head_dim=32,
    )
    separate = getattr(transformers, f"{family}ForCausalLM")(config).eval()
    quillon.quantize_model(separate, "q4_0", fuse_mlp=False)
    separate = separate.to(DEVICE)
    joined = copy.deepcopy(separate)
    layers = [f"model.layers.{i}" for i in range(2)]
    assert quillon.join_projections(joined) == {
        **{f"{layer}.self_attn": ("q_proj", "k_proj", "v_proj") for layer in layers},
        **{f"{layer}.mlp": ("gate_proj", "up_proj") for layer in layers},
    }
    assert isinstance(joined.model.layers[1].mlp.up_proj, JoinedLinear)
    tokens = torch.arange(1, 5, device=DEVICE)[None]
    texts, counts = [], []
    for model in (separate, joined):
        del launches[:]
        texts.append(model.generate(tokens, max_new_tokens=4, min_new_tokens=4, do_sample=False))
        counts.append(len(launches))
    assert torch.equal(*texts)
    calls = 1 + 3  # the prompt's rows in one
    layers_apart, layers_joined = 2 * 7, 2 * 4
    outputs = counts[1] - calls * layers_joined  # of the output layer
    assert outputs == calls
    assert counts[0] == calls * layers_apart + outputs
    with torch.no_grad():
        assert torch.equal(separate(tokens).logits, joined(tokens).logits)
