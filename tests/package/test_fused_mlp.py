"""FusedMLP: one launch where its kernel serves, the layers themselves everywhere else, and where it is put."""

from __future__ import annotations

import copy
import pickle
from typing import Any

import pytest
import torch
from torch import Tensor, nn

import quillon
import vesper_linear
from quillon.nn import FusedMLP, LowBitLinear, fuse_mlps, quantize_model

DEVICE = "xpu:7"  # class unknown
ELM = "xpu:1"
COLUMNS, INNER = 256, 192


class MLP(nn.Module):
    """What Llama and its relatives have."""

    def __init__(self, activation: nn.Module | None = None, bias: bool = False, inner: int = INNER) -> None:
        super().__init__()
        self.size = COLUMNS
        self.gate_proj = nn.Linear(COLUMNS, inner, bias=bias)
        self.up_proj = nn.Linear(COLUMNS, inner, bias=bias)
        self.down_proj = nn.Linear(inner, COLUMNS, bias=bias)
        self.act_fn = activation or nn.SiLU()

    def forward(self, x: Tensor) -> Tensor:
        return self.down_proj(self.act_fn(self.gate_proj(x)) * self.up_proj(x))


class UpFirst(MLP):
    """The same with its factors swapped."""

    def forward(self, x: Tensor) -> Tensor:
        up = self.up_proj(x)
        return self.down_proj(up * self.act_fn(self.gate_proj(x)))


class Holder(nn.Module):
    """A model of one MLP."""

    def __init__(self, mlp: nn.Module) -> None:
        super().__init__()
        self.mlp = mlp

    def forward(self, x: Tensor) -> Any:
        return self.mlp(x)


def packed(mlp: nn.Module | None = None, format: str = "q4_0", device_class: str = "unknown", **options: Any) -> Holder:
    torch.manual_seed(3)
    model = Holder(mlp or MLP())
    quantize_model(model, format, fallback="q8_0", device_class=device_class, **options)
    return model


def pair(mlp: nn.Module | None = None, device: str = DEVICE, **options: Any) -> tuple[Holder, Holder]:
    """The same model without and with a fused MLP."""
    plain = packed(mlp, fuse_mlp=False, **options)
    fused = copy.deepcopy(plain)
    assert fuse_mlps(fused, options.get("device_class", "unknown")) == ["mlp"]
    return plain.to(device), fused.to(device)


@pytest.fixture
def launches(monkeypatch: pytest.MonkeyPatch) -> list[str]:
    """Collects which operators are called."""
    seen: list[str] = []
    for name in ("forward_new", "mlp_forward_xpu"):
        operator = getattr(vesper_linear, name)

        def counted(*arguments: Any, name: str = name, operator: Any = operator) -> Tensor:
            seen.append(name)
            return operator(*arguments)

        monkeypatch.setattr(vesper_linear, name, counted)
    return seen


FUSED = ["mlp_forward_xpu", "forward_new"]
APART = ["forward_new"] * 3


def close(one: Tensor, other: Tensor) -> bool:
    """Within what the activation and the product behind it can differ by from one rounding in each step."""
    tolerance = {torch.float32: 1e-5, torch.float64: 1e-6, torch.float16: 2e-2, torch.bfloat16: 1e-1}[one.dtype]
    return bool((one - other).abs().max() <= tolerance * other.abs().max())


# ---- values ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.float16, torch.bfloat16])
@pytest.mark.parametrize("format", ["q4_0", "q4_0_woq", "fp4", "fp6", "fp8_e5m2"])
def test_values(format: str, dtype: torch.dtype, launches: list[str]) -> None:
    plain, fused = pair(format=format)
    for shape in ((1, COLUMNS), (COLUMNS,), (1, 1, COLUMNS)):
        input = torch.randn(shape, device=DEVICE, dtype=dtype)
        del launches[:]
        expected = plain(input)
        assert launches == APART
        del launches[:]
        given = fused(input)
        assert launches == FUSED
        assert given.shape == expected.shape
        assert given.dtype == dtype
        assert close(given, expected)


def test_iq2_xxs_where_there_is_a_kernel(launches: list[str]) -> None:
    assert packed(format="iq2_xxs").mlp.__class__ is MLP
    plain, fused = pair(format="iq2_xxs", device_class="elm", device=ELM)
    input = torch.randn(1, COLUMNS, device=ELM)
    expected = plain(input)
    del launches[:]
    assert close(fused(input), expected)
    assert launches == FUSED
    # The same model on a device without the kernel.
    plain, fused = plain.to(DEVICE), fused.to(DEVICE)
    del launches[:]
    assert torch.equal(fused(input.to(DEVICE)), plain(input.to(DEVICE)))
    assert "mlp_forward_xpu" not in launches


# ---- what goes through the layers ------------------------------------------------------------------------------------


def test_several_rows(launches: list[str]) -> None:
    plain, fused = pair()
    for shape in ((2, COLUMNS), (1, 3, COLUMNS), (0, COLUMNS), (40, COLUMNS)):
        input = torch.randn(shape, device=DEVICE)
        assert torch.equal(fused(input), plain(input))
    assert "mlp_forward_xpu" not in launches


def test_gradients(launches: list[str]) -> None:
    plain, fused = pair()
    gradients = []
    for model in (plain, fused):
        input = torch.ones(1, COLUMNS, device=DEVICE, requires_grad=True)
        model(input).square().sum().backward()
        gradients.append(input.grad)
    assert gradients[0].abs().sum() > 0
    assert torch.equal(*gradients)
    assert "mlp_forward_xpu" not in launches
    with torch.no_grad():
        fused(torch.ones(1, COLUMNS, device=DEVICE, requires_grad=True))
    assert launches[-2:] == FUSED


def test_hooks(launches: list[str]) -> None:
    _, fused = pair()
    seen = []
    handle = fused.mlp.up_proj.register_forward_hook(lambda *_: seen.append(1))
    input = torch.randn(1, COLUMNS, device=DEVICE)
    fused(input)
    assert seen == [1]
    assert launches == APART
    handle.remove()
    del launches[:]
    fused(input)
    assert launches == FUSED


def test_a_changed_activation(launches: list[str]) -> None:
    plain, fused = pair()
    input = torch.randn(1, COLUMNS, device=DEVICE)
    for model in (plain, fused):
        model.mlp.act_fn = nn.GELU()
    assert torch.equal(fused(input), plain(input))
    assert launches == 2 * APART


def test_autocast(launches: list[str]) -> None:
    plain, fused = pair()
    input = torch.randn(1, COLUMNS, device=DEVICE)
    with torch.autocast("xpu", torch.bfloat16):
        expected = plain(input)
        del launches[:]
        given = fused(input)
    assert launches == FUSED
    assert given.dtype == expected.dtype == torch.bfloat16
    assert close(given, expected)


def test_errors_are_those_of_the_layers() -> None:
    _, fused = pair()
    with pytest.raises(ValueError, match=r"input must have 256 columns"):
        fused(torch.ones(1, 64, device=DEVICE))
    with pytest.raises(ValueError, match="input must be on an XPU"):
        fused(torch.ones(1, COLUMNS))
    with pytest.raises(ValueError, match="both must be on one device"):
        fused(torch.ones(1, COLUMNS, device="xpu:0"))
    fused.mlp.up_proj.packed = fused.mlp.up_proj.packed[:-1].clone()
    with pytest.raises(ValueError, match="packed must be uint8 of shape"):
        fused(torch.ones(1, COLUMNS, device=DEVICE))


def test_layers_must_be_alike() -> None:
    layers = [LowBitLinear(COLUMNS, rows, "q4_0", bias=False) for rows in (64, 128)]
    with pytest.raises(ValueError, match="gate_proj and up_proj must be alike"):
        FusedMLP(*layers, layers[0], nn.SiLU())


# ---- state -----------------------------------------------------------------------------------------------------------


def test_state_and_copies() -> None:
    plain, fused = pair()
    assert list(fused.state_dict()) == list(plain.state_dict())
    input = torch.randn(1, COLUMNS, device=DEVICE)
    expected = fused(input)
    for copied in (copy.deepcopy(fused), pickle.loads(pickle.dumps(fused))):
        assert torch.equal(copied(input), expected)
    other = packed(seeded_mlp(9)).to(DEVICE)
    fused.load_state_dict(other.state_dict())
    assert torch.equal(fused(input), other(input))
    assert not torch.equal(fused(input), expected)


def seeded_mlp(seed: int) -> MLP:
    torch.manual_seed(seed)
    return MLP()


def test_compiled() -> None:
    _, fused = pair()
    input = torch.full((1, COLUMNS), 0.1, device=DEVICE)
    expected = fused(input)
    called: list[str] = []

    def backend(graph: torch.fx.GraphModule, _: Any) -> Any:
        called.extend(str(node.target) for node in graph.graph.nodes if node.op == "call_function")
        return graph.forward

    with torch.no_grad():
        assert torch.equal(torch.compile(fused, fullgraph=True, backend=backend)(input), expected)
        assert called.count("quillon.mlp_forward_xpu") == 1
        assert torch.equal(torch.compile(fused, fullgraph=True, backend="aot_eager")(input), expected)


# ---- where it is put -------------------------------------------------------------------------------------------------


def test_quantize_model_fuses() -> None:
    model = Holder(MLP())
    report = quantize_model(model, "q4_0", fallback="q8_0", device_class="unknown")
    assert report.fused == ["mlp"]
    assert isinstance(model.mlp, FusedMLP)
    assert set(report.replaced) == {"mlp.gate_proj", "mlp.up_proj", "mlp.down_proj"}
    model = Holder(MLP())
    assert quantize_model(model, "q4_0", fallback="q8_0", device_class="unknown", fuse_mlp=False).fused == []
    assert type(model.mlp) is MLP


def test_factors_in_either_order() -> None:
    assert isinstance(packed(UpFirst()).mlp, FusedMLP)


def test_an_mlp_in_two_places_stays_one() -> None:
    shared = MLP()
    model = nn.ModuleList([Holder(shared), Holder(shared)])
    report = quantize_model(model, "q4_0", fallback="q8_0", device_class="unknown")
    assert report.fused == ["0.mlp", "1.mlp"]
    assert model[0].mlp is model[1].mlp
    assert isinstance(model[0].mlp, FusedMLP)


def test_training_mode_is_kept() -> None:
    assert not packed(MLP().eval()).mlp.training
    assert packed(MLP().train()).mlp.training


class Doubled(MLP):
    """Does something else as well."""

    def forward(self, x: Tensor) -> Tensor:
        return 2 * self.down_proj(self.act_fn(self.gate_proj(x)) * self.up_proj(x))


class Branching(MLP):
    """Cannot be followed without an input."""

    def forward(self, x: Tensor) -> Tensor:
        return self.down_proj(self.act_fn(self.gate_proj(x)) * self.up_proj(x)) if x.sum() > 0 else x


class Swapped(MLP):
    """The activation is the other projection's."""

    def forward(self, x: Tensor) -> Tensor:
        return self.down_proj(self.gate_proj(x) * self.act_fn(self.up_proj(x)))


class Added(MLP):
    """A sum in place of the product."""

    def forward(self, x: Tensor) -> Tensor:
        return self.down_proj(self.act_fn(self.gate_proj(x)) + self.up_proj(x))


def with_parameter() -> MLP:
    mlp = MLP()
    mlp.scale = nn.Parameter(torch.ones(1))
    return mlp


@pytest.mark.parametrize(
    "make",
    [
        *(Doubled, Branching, Swapped, Added, with_parameter),
        lambda: MLP(nn.GELU(approximate="tanh")),
        lambda: MLP(bias=True),
        lambda: MLP(inner=191),
    ],
)
def test_what_is_left_as_it_is(make: Any) -> None:
    mlp = make()
    kind = type(mlp)
    model = packed(mlp)
    assert type(model.mlp) is kind
    assert isinstance(model.mlp.gate_proj, LowBitLinear)


def test_formats_that_differ_are_left() -> None:
    model = packed(fuse_mlp=False)
    model.mlp.up_proj = LowBitLinear(COLUMNS, INNER, "q4_0_woq", bias=False)
    assert fuse_mlps(model, "unknown") == []
    model = packed(format="q8_0")
    assert type(model.mlp) is MLP


def test_rows_of_a_tile_by_class() -> None:
    assert isinstance(packed(MLP(inner=196)).mlp, FusedMLP)
    assert type(packed(MLP(inner=196), device_class="legacy").mlp) is MLP
    assert isinstance(packed(MLP(inner=196), format="fp6", device_class="legacy").mlp, FusedMLP)


def test_a_fused_mlp_is_not_joined() -> None:
    model = packed()
    assert quillon.join_projections(model) == {}
    assert fuse_mlps(model, "unknown") == []


@pytest.mark.parametrize("family", ["Llama", "Qwen2", "Mistral"])
def test_models_of_transformers(family: str, launches: list[str]) -> None:
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
    dense = getattr(transformers, f"{family}ForCausalLM")(config).eval()
    plain, fused = copy.deepcopy(dense), copy.deepcopy(dense)
    quantize_model(plain, "q4_0", device_class="unknown", fuse_mlp=False)
    report = quantize_model(fused, "q4_0", device_class="unknown")
    assert report.fused == ["model.layers.0.mlp", "model.layers.1.mlp"]
    tokens = torch.arange(1, 5, device=DEVICE)[None]
    texts = []
    for model in (plain.to(DEVICE), fused.to(DEVICE)):
        del launches[:]
        texts.append(model.generate(tokens, max_new_tokens=4, min_new_tokens=4, do_sample=False))
    assert torch.equal(*texts)
    assert launches.count("mlp_forward_xpu") == 3 * 2  # a launch in each layer for each token behind the prompt


def test_layers_that_were_replaced(launches: list[str]) -> None:
    """By an adapter, by a dense layer, by a layer in another format: each is asked itself."""
    x = torch.randn(1, COLUMNS, device=DEVICE)
    for replace in (
        lambda up: nn.Sequential(up),
        lambda up: nn.Linear(COLUMNS, INNER, bias=False).to(DEVICE),
        lambda up: LowBitLinear.from_linear(nn.Linear(COLUMNS, INNER, bias=False), "q8_0").to(DEVICE),
    ):
        plain, fused = pair()
        replaced = replace(plain.mlp.up_proj)
        plain.mlp.up_proj = fused.mlp.up_proj = replaced
        launches.clear()
        assert torch.equal(fused(x), plain(x))
        assert "mlp_forward_xpu" not in launches
        plain.mlp.gate_proj = fused.mlp.gate_proj = nn.Sequential(plain.mlp.gate_proj)
        assert torch.equal(fused(x), plain(x))
