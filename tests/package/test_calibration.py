"""Statistics of activations, and packing with error feedback by them."""

from __future__ import annotations

import copy
import itertools
import re
import weakref
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
import torch
from torch import Tensor, nn

import quillon
from quillon import __main__ as command_line
from quillon.calibration import Calibration, calibrate, calibration_text, windows
from quillon.formats import FORMATS, WEIGHT_FORMATS
from quillon.quantizers import _ROUNDINGS, InputMoments, feedback, quantize
from quillon.reference import dequantize_reference

ROOT = Path(__file__).resolve().parents[2]


def generator(seed: int = 0) -> torch.Generator:
    return torch.Generator().manual_seed(seed)


# ---- error feedback --------------------------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def inputs() -> Tensor:
    """Correlated inputs, of columns that count more or less."""
    mixed = torch.randn(256, 256, generator=generator()) * torch.rand(256, generator=generator(1))
    return torch.randn(3000, 256, generator=generator(2)) @ mixed * torch.rand(256, generator=generator(3)).square()


@pytest.fixture(scope="module")
def moments(inputs: Tensor) -> InputMoments:
    fitted, held = inputs[:2000], inputs[2000:2500]
    return InputMoments(fitted.T @ fitted, held.T @ held, (2000, 500))


def output_error(weight: Tensor, values: Tensor, inputs: Tensor) -> float:
    return float((inputs @ (weight - values).T).square().mean())


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_feedback_beats_importance_on_inputs_that_neither_has_seen(
    name: str, inputs: Tensor, moments: InputMoments
) -> None:
    weight = torch.randn(16, 256, generator=generator(4)) * 0.05
    unseen = inputs[2500:]

    def error(**options: Any) -> float:
        packed = quantize(weight, name, **options)
        return output_error(weight, dequantize_reference(packed, name, *weight.shape), unseen)

    by_importance = error(importance=moments.importance())
    by_feedback = error(moments=moments)
    chosen = feedback.chosen_feedback(weight, _ROUNDINGS[name], FORMATS[name].elements, moments)
    assert chosen is not None
    # Roundings of equal size that know nothing of one another cost the moments' diagonal; where columns make good what
    # those before them cost, the squares of the factor's. Nothing passed on, or to the wrong columns, saves nothing.
    left = float(chosen.upper.diagonal().double().pow(-2).sum() / chosen.moments.diagonal().double().sum())
    assert by_feedback < (1 + left) / 2 * by_importance, "less than half of what is to be saved is saved"
    values = feedback.with_feedback(weight, _ROUNDINGS[name], FORMATS[name].elements, chosen)
    assert torch.equal(values, dequantize_reference(quantize(weight, name, moments=moments), name, *weight.shape)), (
        "the bytes stand for other values than the feedback was computed with"
    )


def test_a_column_makes_good_what_the_one_before_it_costs() -> None:
    moments = torch.eye(64, dtype=torch.float64)
    moments[0, 0] = 2.0
    moments[0, 1] = moments[1, 0] = 0.9
    prepared = feedback.prepare(moments, 0.0, 0.0, 64, 1)
    assert prepared.order.tolist() == list(range(64))
    weight = torch.zeros(1, 64)
    weight[0, :4] = torch.tensor([0.45, 0.2, -8.0, 7.0])  # the last two make the scale 1
    values = feedback.with_feedback(weight, _ROUNDINGS["q4_0"], 64, prepared, sweeps=0)
    assert values[0, :4].tolist() == [0.0, 1.0, -8.0, 7.0]  # 0.2 and 0.45 * 0.9 / 1.0 is nearer to 1 than to 0
    assert not values[0, 4:].any()


def test_the_factor_is_that_of_the_inverse(moments: InputMoments) -> None:
    prepared = feedback.prepare(moments.mean(), 0.1, 0.3, 64, 1)
    upper, mixed = prepared.upper.double(), prepared.moments.double()
    assert torch.equal(upper, upper.triu())
    # What is stored as float of either is off by a rounding, of which a row and a column meet on both sides of M.
    bound = 2.0**-24 * 3 * (upper.abs() @ mixed.abs() @ upper.abs().T) + 1e-12
    assert bool(((upper @ mixed @ upper.T - torch.eye(256)).abs() <= bound).all())


@pytest.mark.parametrize("name", ["q4_0", "nf3", "fp8_e4m3", "q4_1", "q5_1"])
def test_a_scale_is_fitted_again_to_the_levels(name: str, moments: InputMoments) -> None:
    weight = torch.randn(64, 32, generator=generator(4))
    block = feedback._Elements(_ROUNDINGS[name], weight, torch.ones(64, 1))
    values = torch.empty_like(weight)
    at = torch.randperm(64, generator=generator(5)).tolist()
    for place in at:
        block.round(place, weight[place], values[place])
    shared = moments.mean().float()[:64, :64]

    def cost(candidate: Tensor) -> Tensor:
        wrong = (weight - candidate).double()
        return ((shared.double() @ wrong) * wrong).sum(0)

    before, old = cost(values), values[at].clone()
    moved = block.fit_again(at, (shared @ (weight - values))[at], shared[at][:, at])
    assert moved is not None
    step, offset = block._scales.step[0], block._scales.offset
    shift = torch.zeros_like(step) if offset is None else offset[0]
    after = cost(block._levels * step + shift)
    torch.testing.assert_close(old + moved, (block._levels * step + shift)[at])
    assert bool((after <= before).all())
    assert after.sum() < before.sum()
    if offset is None:  # no step beside it that could be stored would have been better
        spacing = step.abs() * (2.0**-15 if name == "fp8_e4m3" else 2.0**-10)
        for other in (step - spacing, step + spacing):
            assert bool((cost(block._levels.double() * other) >= cost(block._levels.double() * step)).all())


def test_a_text_that_says_nothing_of_another_gives_importance(moments: InputMoments) -> None:
    weight = torch.randn(16, 256, generator=generator(4))
    # What is held out has none of the correlations that feedback would use.
    few = torch.randn(8, 256, generator=generator(5))
    uncorrelated = InputMoments(few.T @ few, torch.eye(256) * 500, (8, 500))
    assert feedback.chosen_feedback(weight, _ROUNDINGS["q4_0"], 64, uncorrelated) is None
    packed = quantize(weight, "q4_0", moments=uncorrelated)
    assert torch.equal(packed, quantize(weight, "q4_0", importance=uncorrelated.importance()))
    nothing_held = InputMoments(moments.fitted, torch.zeros(256, 256), (2000, 0))
    packed = quantize(weight, "q4_0", moments=nothing_held)
    assert torch.equal(packed, quantize(weight, "q4_0", importance=nothing_held.importance()))
    nothing = InputMoments(torch.zeros(256, 256), torch.zeros(256, 256), (0, 0))
    assert torch.equal(quantize(weight, "q4_0", moments=nothing), quantize(weight, "q4_0"))


def test_columns_that_nothing_meets(moments: InputMoments) -> None:
    weight = torch.randn(4, 256, generator=generator(4))
    alive = torch.ones(256)
    alive[64:192] = 0
    some = InputMoments(moments.fitted * alive * alive[:, None], moments.held * alive * alive[:, None], moments.tokens)
    values = dequantize_reference(quantize(weight, "q4_0", moments=some), "q4_0", *weight.shape)
    plain = dequantize_reference(quantize(weight, "q4_0"), "q4_0", *weight.shape)
    # Nothing is passed on to them and all count alike, so each block begins as it does without moments, and no step of
    # the sweep raises its error.
    costs = [(weight - one)[:, 64:192].double().square().view(4, 2, 64).sum(2) for one in (values, plain)]
    assert bool((costs[0] <= costs[1]).all())
    assert not torch.equal(values[:, :64], plain[:, :64])


def test_what_is_wrong_with_moments(moments: InputMoments) -> None:
    with pytest.raises(ValueError, match="moments must be of inputs of 64 columns, got 256"):
        quantize(torch.randn(2, 64), "q4_0", moments=moments)
    with pytest.raises(ValueError, match="importance and moments exclude one another"):
        quantize(torch.randn(2, 256), "q4_0", moments=moments, importance=torch.ones(256))
    with pytest.raises(ValueError, match=r"must be square and of one shape, got \(2, 3\)"):
        InputMoments(torch.zeros(2, 3), torch.zeros(2, 3), (1, 1))
    weight = torch.randn(2, 256)
    weight[1, 3] = torch.nan
    with pytest.raises(ValueError, match="weight must be finite"):
        quantize(weight, "q4_0", moments=moments)


# ---- statistics ------------------------------------------------------------------------------------------------------


class Block(nn.Module):
    """Two layers that read the same input, one behind them, and one that nobody asks."""

    def __init__(self) -> None:
        super().__init__()
        self.gate, self.up = nn.Linear(64, 128), nn.Linear(64, 128)
        self.down, self.idle = nn.Linear(128, 64), nn.Linear(64, 64)

    def forward(self, x: Tensor) -> Tensor:
        return x + self.down(torch.tanh(self.gate(x)) * self.up(x))


class Model(nn.Module):
    """Three blocks and a layer behind them."""

    def __init__(self) -> None:
        super().__init__()
        self.blocks = nn.ModuleList(Block() for _ in range(3))
        self.head = nn.Linear(64, 192)

    def forward(self, x: Tensor) -> Tensor:
        for block in self.blocks:
            x = block(x)
        return self.head(x)


def small_model() -> Model:
    torch.manual_seed(1)
    return Model()


def some_batches(count: int = 6, tokens: int = 50) -> list[Tensor]:
    return [torch.randn(1, tokens, 64, generator=generator(seed)) for seed in range(count)]


def counted(x: Tensor) -> Tensor:
    """The rows of a batch as they count: those that are numbers, above the median by their length to 3/2."""
    sizes = x.square().sum(1)
    rows, sizes = x[sizes.isfinite()], sizes[sizes.isfinite()]
    return rows * (sizes.median() / sizes).clamp(max=1).pow(1 / 8)[:, None]


def plain_inputs(model: nn.Module, batches: list[Any], names: Any) -> dict[str, list[Tensor]]:
    found: dict[str, list[Tensor]] = {name: [] for name in names}

    def look(name: str) -> Any:
        return lambda _, given: found[name].append(counted(given[0].detach().reshape(-1, given[0].shape[-1])))

    hooks = [model.get_submodule(name).register_forward_pre_hook(look(name)) for name in names]
    with torch.no_grad():
        for batch in batches:
            model(batch)
    for hook in hooks:
        hook.remove()
    return found


def same_moments(
    found: InputMoments, fitted: list[Tensor], held: list[Tensor], off: tuple[list[Tensor], list[Tensor]] | None = None
) -> None:
    """``off``: by how much each input may differ, where it was computed in another way."""
    for part, (sums, tokens, given) in enumerate(
        zip((found.fitted, found.held), found.tokens, (fitted, held), strict=True)
    ):
        rows = torch.cat(given).double()
        assert tokens == len(rows)
        # A float sum of n products is off by at most n roundings of the sum of their sizes, which is at most this.
        sizes = rows.square().sum(0).sqrt()
        allowed = (len(rows) + 1) * torch.finfo(torch.float32).eps * sizes[:, None] * sizes
        if off is not None:
            by = torch.cat(off[part]).double()
            allowed = allowed + by.T @ rows.abs() + rows.abs().T @ by + by.T @ by
        assert bool(((sums.double() - rows.T @ rows).abs() <= allowed).all())


def test_statistics_are_those_of_a_plain_computation() -> None:
    model, batches = small_model(), some_batches(11)
    found = calibrate(model, batches)
    assert set(found) == {f"blocks.{i}.{name}" for i in range(3) for name in ("gate", "up", "down")} | {"head"}
    assert found.group("blocks.1.up") == found.group("blocks.1.gate") != found.group("blocks.1.down")
    for name, given in plain_inputs(model, batches, found).items():
        held = [given[4], given[9]]
        same_moments(found[name], [x for i, x in enumerate(given) if i not in (4, 9)], held)
        everything = torch.cat(given).double()
        # A float sum of n squares is off by a share of n roundings at most.
        rounding = (len(everything) + 1) * torch.finfo(torch.float32).eps
        torch.testing.assert_close(found[name].importance(), everything.square().mean(0), rtol=rounding, atol=0)


def test_a_long_token_counts_by_its_length() -> None:
    batches = some_batches()
    traces = []
    batches[1][0, 7] *= 1000
    middle = float(batches[1][0].square().sum(1).median())
    for _ in range(2):
        found = calibrate(small_model(), batches, layers="blocks.0.gate")["blocks.0.gate"]
        traces.append(float(found.fitted.diagonal().double().sum()))
        batches[1][0, 7] *= 4
    longest = float(batches[1][0, 7].square().sum()) / 16
    # Its square grows sixteenfold, what it counts eightfold; a float sum of n squares is off by n roundings at most.
    rounding = (found.tokens[0] + 3) * torch.finfo(torch.float32).eps * sum(traces)
    assert abs(traces[1] - traces[0] - 7 / 8 * middle**0.25 * longest**0.75) <= rounding


def test_windows_hold_every_token_once() -> None:
    tokens = torch.arange(300)
    parts = windows(tokens[None])
    assert [tuple(part.shape) for part in parts] == [(1, 128), (1, 128), (1, 44)]
    assert torch.equal(torch.cat(parts, 1)[0], tokens)
    assert [tuple(part.shape) for part in windows(tokens[:256])] == [(1, 128), (1, 128)]
    assert windows(tokens[:0]) == []


def test_windows_of_a_long_text_are_several_in_a_batch() -> None:
    tokens = torch.arange(4 * 1025 + 1)
    parts = windows(tokens, 4)
    assert [tuple(part.shape) for part in parts] == [(5, 4)] * 205 + [(1, 1)]
    assert torch.equal(torch.cat([part.reshape(-1) for part in parts]), tokens)


def test_batches_of_several_rows() -> None:
    model = small_model()
    batches = [torch.randn(3, 20, 64, generator=generator(seed)) for seed in range(6)]
    found = calibrate(model, batches)
    for name, given in plain_inputs(model, batches, found).items():
        same_moments(found[name], [*given[:4], given[5]], [given[4]])


def test_of_few_batches_a_part_of_each_is_held_out() -> None:
    model, batches = small_model(), some_batches(2)
    found = calibrate(model, batches, layers="blocks.0.*")
    given = plain_inputs(model, batches, found)["blocks.0.down"]
    same_moments(found["blocks.0.down"], [x[:40] for x in given], [x[40:] for x in given])


@pytest.mark.parametrize("kind", ["llama_tied", "gpt2", "gemma", "mixtral"])
def test_models_of_transformers(kind: str) -> None:
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model

    model = random_model(kind)
    batches = windows(torch.randint(3, 320, (1, 330), generator=generator()), 64)
    assert [batch.shape[1] for batch in batches] == [64] * 5 + [10]
    found = calibrate(model, batches)
    assert "lm_head" in found
    layers = [name for name in found if ".experts." not in name]
    for name, given in plain_inputs(model, batches, layers).items():
        same_moments(found[name], [x for i, x in enumerate(given) if i != 4], [given[4]])


@pytest.fixture
def mixture() -> Any:
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model

    return random_model("mixtral")


def test_experts_of_a_mixture(mixture: Any) -> None:
    batches = windows(torch.randint(3, 320, (1, 330), generator=generator()), 64)
    found = calibrate(mixture, batches)
    place = "model.layers.1.mlp.experts"
    experts, given = mixture.get_submodule(place), list[tuple[Tensor, ...]]()
    hook = experts.register_forward_pre_hook(lambda _, arguments: given.append(arguments))
    with torch.no_grad():
        for batch in batches:
            mixture(batch)
    hook.remove()
    for number in range(4):
        ups, downs, downs_off = list[Tensor](), list[Tensor](), list[Tensor]()
        for hidden, chosen, _ in given:
            rows = torch.stack([row for row, its in zip(hidden, chosen, strict=True) if number in its])
            weight = experts.gate_up_proj[number].detach()
            gate, up = (rows @ weight.T).split(192, dim=1)
            ups.append(counted(rows))
            downs.append(counted(nn.functional.silu(gate) * up))
            # Two products of as many terms in whatever order, of which SiLU makes at most 1.1 times as much; and
            # the length of a row, which scales it.
            sizes = (rows.abs() @ weight.abs().T).split(192, dim=1)
            error = 1.1 * sizes[0] * up.abs() + nn.functional.silu(gate).abs() * sizes[1]
            error = 2 * (rows.shape[1] + 8) * torch.finfo(torch.float32).eps * error
            downs_off.append(error + downs[-1].abs() * error.norm(dim=1, keepdim=True) / downs[-1].norm(dim=1)[:, None])
        for name, parts, off in (("gate_up_proj", ups, None), ("down_proj", downs, downs_off)):
            moments = found[f"{place}.{name}.{number}"]
            split = None if off is None else ([x for i, x in enumerate(off) if i != 4], [off[4]])
            same_moments(moments, [x for i, x in enumerate(parts) if i != 4], [parts[4]], split)

    dense = [one.detach().clone() for one in (experts.gate_up_proj, experts.down_proj)]
    behind = calibrate(mixture, batches, behind="q4_0")
    assert torch.equal(experts.gate_up_proj, dense[0]), "the model is not left as it was"
    assert torch.equal(experts.down_proj, dense[1]), "the model is not left as it was"
    for calibration, used in ((found, found), (batches, behind)):
        model: Any = copy.deepcopy(mixture)
        report = quillon.quantize_model(model, "q4_0", calibration=calibration)
        assert report.uncalibrated == []
        packed = model.get_submodule(place)
        for number in range(4):
            for name, weights, bytes in zip(
                ("gate_up_proj", "down_proj"), dense, (packed.packed_up, packed.packed_down), strict=True
            ):
                moments = used[f"{place}.{name}.{number}"]
                assert torch.equal(bytes[number], quantize(weights[number], "q4_0", moments=moments))


def test_experts_that_no_token_chooses(mixture: Any) -> None:
    report = quillon.quantize_model(mixture, "q4_0", calibration=[torch.tensor([[7]])])
    # Two of four experts have the only token.
    assert len(report.uncalibrated) == 2 * 2 * 2
    assert all(".mlp.experts." in name for name in report.uncalibrated)


def test_behind_packed_layers() -> None:
    model, batches = small_model(), some_batches()
    found = calibrate(model, batches, behind="q4_0")
    by_hand = small_model()
    for number in range(3):
        names = [f"blocks.{number}.{name}" for name in ("gate", "up", "down")]
        for name, given in plain_inputs(by_hand, batches, names).items():
            same_moments(found[name], [x for i, x in enumerate(given) if i != 4], [given[4]])
        for name in names:
            layer = by_hand.get_submodule(name)
            packed = quantize(layer.weight, "q4_0", moments=found[name])
            layer.weight.data = dequantize_reference(packed, "q4_0", *layer.weight.shape)
    report = quillon.quantize_model(model, "q4_0", calibration=batches)
    for number in range(3):
        for name in ("gate", "up", "down"):
            layer = model.get_submodule(f"blocks.{number}.{name}")
            assert torch.equal(
                layer.packed,
                quantize(
                    small_model().blocks[number].get_submodule(name).weight,
                    "q4_0",
                    moments=found[f"blocks.{number}.{name}"],
                ),
            )
    assert report.uncalibrated == [f"blocks.{number}.idle" for number in range(3)]


def test_any_number_of_threads_gives_the_same_bytes() -> None:
    before, results = torch.get_num_threads(), []
    try:
        for threads in (1, 2, 5):
            torch.set_num_threads(threads)
            model = small_model()
            quillon.quantize_model(model, "nf3", calibration=some_batches())
            results.append({name: buffer.clone() for name, buffer in model.named_buffers()})
            assert torch.get_num_threads() == threads
    finally:
        torch.set_num_threads(before)
    assert len(results[0]) > 10
    for other in results[1:]:
        assert all(torch.equal(other[name], buffer) for name, buffer in results[0].items())


def test_the_model_is_left_as_it_was() -> None:
    model = small_model().train()
    model.blocks[1].eval()
    weights = {name: (one, one.detach().clone()) for name, one in model.named_parameters()}
    modes = [one.training for one in model.modules()]

    def check() -> None:
        assert [one.training for one in model.modules()] == modes
        for name, one in model.named_parameters():
            assert one is weights[name][0]
            assert torch.equal(one, weights[name][1])
        for one in model.modules():
            assert "forward" not in vars(one)
            assert not one._forward_pre_hooks

    calibrate(model, some_batches(), behind="q4_0")
    check()

    def broken(*_: object) -> None:
        raise ZeroDivisionError("in the third block")

    hook = model.blocks[2].down.register_forward_hook(broken)
    with pytest.raises(ZeroDivisionError, match="in the third block"):
        calibrate(model, some_batches(), behind="q4_0")
    hook.remove()
    check()


def test_layers_that_the_text_never_reaches() -> None:
    model = small_model()
    found = calibrate(model, some_batches())
    assert "blocks.0.idle" not in found
    report = quillon.quantize_model(model, "q4_0", calibration=found)
    assert report.uncalibrated == [f"blocks.{number}.idle" for number in range(3)]
    assert torch.equal(model.blocks[2].idle.packed, quantize(small_model().blocks[2].idle.weight, "q4_0"))
    gate = small_model().blocks[2].gate.weight
    assert torch.equal(model.blocks[2].gate.packed, quantize(gate, "q4_0", moments=found["blocks.2.gate"]))
    assert not torch.equal(model.blocks[2].gate.packed, quantize(gate, "q4_0"))


@pytest.mark.parametrize("bad", [torch.nan, torch.inf, 1e30])
def test_activations_that_are_no_numbers(bad: float) -> None:
    batches = some_batches()
    batches[1][0, 7, 3] = bad
    batches[4][0, :2] = bad
    model = small_model()
    found = calibrate(model, batches)
    kept = [counted(batch[0]) for batch in batches]
    same_moments(found["blocks.0.gate"], [x for i, x in enumerate(kept) if i != 4], [kept[4]])
    assert found["blocks.0.gate"].skipped == 3
    report = quillon.quantize_model(model, "q4_0", calibration=found)
    assert report.uncalibrated == [f"blocks.{number}.idle" for number in range(3)]

    model = small_model()
    for batch in batches:
        batch.fill_(bad)
    assert not calibrate(model, batches)["blocks.0.gate"].usable()
    report = quillon.quantize_model(model, "q4_0", calibration=batches)
    assert "blocks.0.gate" in report.uncalibrated
    assert torch.equal(model.blocks[0].gate.packed, quantize(small_model().blocks[0].gate.weight, "q4_0"))


def test_an_error_of_a_layer_names_it() -> None:
    model = small_model()
    with torch.no_grad():
        model.blocks[1].up.weight[3, 5] = torch.nan
    with pytest.raises(ValueError, match=re.escape("blocks.1.up: weight must be finite")):
        quillon.quantize_model(model, "q4_0", calibration=some_batches())
    with pytest.raises(ValueError, match=re.escape("blocks.1.up: weight must be finite")):
        calibrate(model, some_batches(), behind={"blocks.1.up": "q4_0"})


def test_saved_and_loaded(tmp_path: Path) -> None:
    model, batches = small_model(), some_batches()
    found = calibrate(model, batches)
    found.save(tmp_path / "saved")
    streamed = calibrate(model, batches, folder=tmp_path / "streamed")
    for other in (Calibration.load(tmp_path / "saved"), streamed):
        assert list(other) == list(found)
        for name in found:
            assert torch.equal(other[name].fitted, found[name].fitted)
            assert torch.equal(other[name].held, found[name].held)
            assert (other[name].tokens, other[name].skipped) == (found[name].tokens, found[name].skipped)
    with pytest.raises(FileExistsError, match="is not empty; name another folder for the calibration"):
        found.save(tmp_path / "saved")
    with pytest.raises(ValueError, match="holds no calibration"):
        Calibration.load(tmp_path)
    (tmp_path / "saved" / "calibration.json").write_text('{"version": 99, "shares": {}, "files": {}}')
    with pytest.raises(ValueError, match="is of version 99; this one reads 1"):
        Calibration.load(tmp_path / "saved")


def test_one_block_at_a_time_is_kept(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    from quillon import calibration

    kept: list[int] = []
    take = calibration._Collector.take

    def count(self: Any, names: Any) -> Any:
        kept.append(len(self.sums))
        return take(self, names)

    monkeypatch.setattr(calibration._Collector, "take", count)
    calibrate(small_model(), some_batches(), folder=tmp_path / "streamed")
    assert kept == [2, 2, 2, 1]  # two inputs to a block, and the head's


def test_what_is_wrong_with_a_call() -> None:
    model = small_model()
    with pytest.raises(ValueError, match=r"no linear layer matches '\*\.proj'; there are blocks\.0\.gate, "):
        calibrate(model, some_batches(), layers="*.proj")
    with pytest.raises(ValueError, match="batches must hold at least one batch, got none"):
        calibrate(model, [])
    with pytest.raises(TypeError, match=re.escape("model must be a torch.nn.Module, got list")):
        calibrate([], some_batches())  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        calibrate(model, some_batches(), behind="q9")
    with pytest.raises(ValueError, match="length must be positive, got 0"):
        windows(torch.zeros(4), 0)


# ---- the text --------------------------------------------------------------------------------------------------------


def test_no_text_that_is_scored_is_calibrated_on() -> None:
    def runs(text: str, length: int) -> Iterator[tuple[str, ...]]:
        words = re.findall(r"\w+", text.lower())
        return (tuple(words[i : i + length]) for i in range(len(words) - length + 1))

    text = calibration_text()
    assert len(text.split()) > 5000
    scored = (ROOT / "examples" / "text.txt").read_text()
    assert not set(runs(text, 6)) & set(runs(scored, 6))


# ---- the command line and files --------------------------------------------------------------------------------------


@pytest.fixture
def dense(tmp_path: Path) -> Path:
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model, save_tokenizer

    random_model("llama").save_pretrained(tmp_path / "dense")
    save_tokenizer(tmp_path / "dense")
    (tmp_path / "text.txt").write_text(calibration_text()[:1500])
    return tmp_path / "dense"


def test_quantize_with_calibration(
    dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("quillon.calibration.windows", lambda tokens: windows(tokens[:, :600], 100))
    command = ["quantize", str(dense), "q4_0", "--calibrate", str(tmp_path / "text.txt")]
    assert command_line.main([*command, str(tmp_path / "whole")]) == 0
    assert "15 layers packed, 0 dense" in capsys.readouterr().out
    assert command_line.main(["quantize", str(dense), "q4_0", str(tmp_path / "plain")]) == 0
    whole = (tmp_path / "whole" / "model.safetensors").read_bytes()
    assert len(whole) == len((tmp_path / "plain" / "model.safetensors").read_bytes())
    assert whole != (tmp_path / "plain" / "model.safetensors").read_bytes()
    capsys.readouterr()

    # Stopped in the first block, in the second, and when all is packed.
    target, packed, real = tmp_path / "target", list[Tensor](), quillon.quantize

    def stop_at(count: int) -> Any:
        def run(*arguments: Any, **options: Any) -> Tensor:
            if len(packed) >= count:
                raise KeyboardInterrupt
            packed.append(real(*arguments, **options))
            return packed[-1]

        return run

    def full(*_: object, **__: object) -> None:
        raise KeyboardInterrupt

    layers = tmp_path / "target.part" / "layers"
    for place, stop in (
        ("quillon.calibration.quantize", stop_at(3)),
        ("quillon.calibration.quantize", stop_at(11)),
        ("transformers.PreTrainedModel.save_pretrained", full),
    ):
        with monkeypatch.context() as patched:
            patched.setattr("quillon.calibration.quantize", stop_at(100))
            patched.setattr("quillon.nn.quantize", stop_at(0))  # what is calibrated is not packed again
            patched.setattr(place, stop)
            with pytest.raises(SystemExit, match="interrupted: what is packed so far is kept in"):
                command_line.main([*command, str(target)])
        assert not target.exists()
        assert len(list(layers.glob("*.safetensors"))) == len(packed) >= 3
    assert len(packed) == 15, "each layer is packed once"
    with monkeypatch.context() as patched:
        patched.setattr("quillon.calibration.pack_in_step", full)  # the text is not run over again
        assert command_line.main([*command, str(target)]) == 0
    assert "15 layers packed, 15 of them before" in capsys.readouterr().out
    assert (target / "model.safetensors").read_bytes() == whole


def test_another_text_begins_anew(
    dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("quillon.calibration.windows", lambda tokens: windows(tokens[:, :600], 100))
    (tmp_path / "other.txt").write_text(calibration_text()[1500:3000])

    def full(*_: object, **__: object) -> None:
        raise OSError(28, "No space left on device")

    command = ["quantize", str(dense), "q4_0"]
    with monkeypatch.context() as patched:
        patched.setattr("transformers.PreTrainedModel.save_pretrained", full)
        assert command_line.main([*command, str(tmp_path / "one"), "--calibrate", str(tmp_path / "text.txt")]) == 2
    for target in ("one", "two"):
        assert command_line.main([*command, str(tmp_path / target), "--calibrate", str(tmp_path / "other.txt")]) == 0
    assert "of them before" not in capsys.readouterr().out
    one, two = ((tmp_path / target / "model.safetensors").read_bytes() for target in ("one", "two"))
    assert one == two


def test_a_mixture_is_taken_up_again(
    mixture: Any, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    from small_models import save_tokenizer

    mixture.save_pretrained(tmp_path / "dense")
    save_tokenizer(tmp_path / "dense")
    (tmp_path / "text.txt").write_text(calibration_text()[:300])
    command = ["quantize", str(tmp_path / "dense"), "q4_0", "--calibrate", str(tmp_path / "text.txt")]
    assert command_line.main([*command, str(tmp_path / "whole")]) == 0
    said = capsys.readouterr().out
    unseen = "model.layers.0.mlp.experts.gate_up_proj.2, model.layers.0.mlp.experts.down_proj.2"  # no token's choice
    assert f"11 layers packed, 2 as without a text, which says nothing of them ({unseen}), 2 dense" in said
    calls, real = itertools.count(), quillon.quantize

    def stop(*arguments: Any, **options: Any) -> Tensor:
        if next(calls) >= 9:  # of two threads
            raise KeyboardInterrupt
        return real(*arguments, **options)

    with monkeypatch.context() as patched:
        patched.setattr("quillon.calibration.quantize", stop)
        with pytest.raises(SystemExit, match="interrupted: what is packed so far is kept in"):
            command_line.main([*command, str(tmp_path / "target")])
    kept = len(list((tmp_path / "target.part" / "layers").glob("*.safetensors")))
    assert kept == 9
    assert command_line.main([*command, str(tmp_path / "target")]) == 0
    before = re.search(r"11 layers packed, (\d+) of them before", capsys.readouterr().out)
    assert before is not None
    assert 0 < int(before[1]) <= kept
    one, two = ((tmp_path / target / "model.safetensors").read_bytes() for target in ("whole", "target"))
    assert one == two


def test_a_text_that_is_too_short(dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    (tmp_path / "short.txt").write_text("A few words.")
    command = ["quantize", str(dense), "q4_0", str(tmp_path / "out"), "--calibrate", str(tmp_path / "short.txt")]
    assert command_line.main(command) == 2
    assert "the text to calibrate on has 12 tokens, too few: 256 at least" in capsys.readouterr().err
    assert command_line.main([*command, "--tensors"]) == 2
    assert "--calibrate runs the model, of which --tensors packs the matrices alone" in capsys.readouterr().err


def test_a_configuration_with_calibration(dense: Path, tmp_path: Path, caplog: pytest.LogCaptureFixture) -> None:
    from transformers import AutoModelForCausalLM

    model = AutoModelForCausalLM.from_pretrained(dense)
    batches = windows(torch.randint(3, 250, (1, 400), generator=generator()), 64)
    calibrate(model, batches, folder=tmp_path / "found")
    config = quillon.QuillonConfig("q4_0", calibration=tmp_path / "found")
    assert "calibration" not in config.to_dict()
    packed = AutoModelForCausalLM.from_pretrained(dense, quantization_config=config, device_map="cpu")
    assert not caplog.records
    found = Calibration.load(tmp_path / "found")
    for name in ("model.layers.1.mlp.down_proj", "model.layers.0.self_attn.q_proj"):
        wanted = quantize(model.get_submodule(name).weight, "q4_0", moments=found[name])
        assert torch.equal(packed.get_submodule(name).packed, wanted)
    wanted = quantize(model.lm_head.weight, "q8_0", moments=found["lm_head"])
    assert torch.equal(packed.lm_head.packed, wanted)
    part = {name: found[name] for name in found if name != "lm_head"}
    config = quillon.QuillonConfig("q4_0", calibration=part)
    AutoModelForCausalLM.from_pretrained(dense, quantization_config=config, device_map="cpu")
    assert "the calibration says nothing of 1 layers, packed as without it: lm_head" in caplog.text


def test_a_file_with_calibration(tmp_path: Path, caplog: pytest.LogCaptureFixture) -> None:
    gguf = pytest.importorskip("gguf", reason="the gguf package is not installed")
    weight = torch.randn(8, 256, generator=generator(4))
    writer = gguf.GGUFWriter(str(tmp_path / "in.gguf"), "llama")
    writer.add_block_count(2)
    for name in ("blk.0.ffn_down.weight", "blk.1.attn_q.weight", "blk.1.ffn_down.weight"):
        writer.add_tensor(name, weight.numpy())
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    x = torch.randn(500, 256, generator=generator(5)) @ torch.randn(256, 256, generator=generator(6))
    found = InputMoments(x[:400].T @ x[:400], x[400:].T @ x[400:], (400, 100))
    for name in ("model.layers.1.self_attn.q_proj", "blk.1.attn_q", "blk.1.attn_q.weight"):
        tensors = quillon.from_gguf(tmp_path / "in.gguf", "q4_0", calibration={name: found})
        assert torch.equal(tensors["blk.1.attn_q.weight"].data, quantize(weight, "q4_0", moments=found))
        assert torch.equal(tensors["blk.1.ffn_down.weight"].data, quantize(weight, "q4_0"))
        assert "nothing of 2 layers, packed as without it: blk.0.ffn_down.weight, blk.1.ffn_down.weight" in caplog.text
        caplog.clear()

    # One layer's moments are in memory at a time, and none that are not asked for.
    alive, read = list[weakref.ref[InputMoments]](), list[str]()

    def find(group: str) -> InputMoments:
        assert sum(one() is not None for one in alive) <= 1  # the one before, until this is there
        one = InputMoments(found.fitted, found.held, found.tokens)
        alive.append(weakref.ref(one))
        read.append(group)
        return one

    names = [f"model.layers.{i}.{name}" for i in range(2) for name in ("self_attn.q_proj", "mlp.down_proj")]
    streamed = Calibration({name: name for name in names}, find)
    tensors = quillon.from_gguf(tmp_path / "in.gguf", "q4_0", calibration=streamed)
    assert read == names[1:]
    assert torch.equal(tensors["blk.1.ffn_down.weight"].data, quantize(weight, "q4_0", moments=found))
    assert not caplog.records
