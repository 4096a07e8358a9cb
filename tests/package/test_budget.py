"""A format for each layer within a number of bits."""

from __future__ import annotations

import re
from typing import Any

import pytest
import torch
from test_calibration import generator, small_model, some_batches
from torch import Tensor, nn

import quillon
from quillon._pieces import serial_operators
from quillon.budget import (
    FormatCosts,
    Sensitivity,
    choose_formats,
    format_costs,
    formats_within,
    measure_sensitivity,
)
from quillon.formats import BUDGET_FORMATS, FORMATS, WEIGHT_FORMATS, weight_bytes


def everything(name: str, format: Any) -> bool:
    return True


def weights(*shapes: tuple[int, int]) -> dict[str, list[Tensor]]:
    return {f"layer{i}": [torch.randn(*shape, generator=generator(i))] for i, shape in enumerate(shapes)}


def bits_of(weights: dict[str, list[Tensor]], formats: dict[str, str]) -> float:
    total = sum(weight_bytes(formats[name], *one.shape) for name, parts in weights.items() for one in parts)
    return 8 * total / sum(one.numel() for parts in weights.values() for one in parts)


def test_the_formats_are_weight_formats() -> None:
    assert set(BUDGET_FORMATS) < set(WEIGHT_FORMATS)


@pytest.fixture(scope="module")
def costs() -> list[FormatCosts]:
    return format_costs(weights(*[(8, 256)] * 6), everything, {})


@pytest.mark.parametrize("bits", [2.0, 3.5, 4.5, 5.5, 9.0])
def test_the_budget_is_kept_and_used(bits: float, costs: list[FormatCosts]) -> None:
    given = weights(*[(8, 256)] * 6)
    found = formats_within(costs, bits, 6 * 8 * 256)
    assert bits_of(given, found) <= bits
    better = []
    for one in costs:
        (name,) = one.names
        cost_of = {choice.format: choice.cost for choice in one.choices}
        assert set(cost_of) == set(BUDGET_FORMATS)
        better += [(name, format) for format, cost in cost_of.items() if cost < cost_of[found[name]]]
    assert better or bits == 9.0, "the budget has bounded nothing"
    assert [one for one in better if bits_of(given, found | dict([one])) <= bits] == []


def test_what_counts_more_gets_more() -> None:
    given = weights(*[(8, 256)] * 4)
    even = torch.ones(256, dtype=torch.float64)
    measured = {
        name: Sensitivity(name, even, torch.full((8,), 1000.0 if name == "layer2" else 1.0, dtype=torch.float64))
        for name in given
    }
    found = choose_formats(given, 4.5, everything, measured)
    sizes = {name: FORMATS[format].bits_per_weight for name, format in found.items()}
    assert all(sizes["layer2"] > size for name, size in sizes.items() if name != "layer2")


def test_layers_of_one_input_get_one_format() -> None:
    given = weights((8, 256), (8, 256), (8, 256))
    even = torch.ones(256, dtype=torch.float64)
    rows = [torch.full((8,), scale, dtype=torch.float64) for scale in (1.0, 100.0, 1e-3)]
    inputs = ["a", "a", "b"]
    measured = {name: Sensitivity(inputs[i], even, rows[i]) for i, name in enumerate(given)}
    found = choose_formats(given, 4.5, everything, measured)
    assert found["layer0"] == found["layer1"] != found["layer2"]


def test_sensitivity_is_that_of_a_plain_computation() -> None:
    model, batches = small_model(), some_batches(2)
    names = ["blocks.0.gate", "blocks.2.down", "head"]
    before = {name: one.detach().clone() for name, one in model.named_parameters()}
    found = measure_sensitivity(model, batches, {name: model.get_submodule(name) for name in names}, seed=5)
    assert all(torch.equal(before[name], one) and one.requires_grad for name, one in model.named_parameters())
    assert not any(one._forward_hooks for one in model.modules())

    outputs: dict[str, Tensor] = {}
    columns = dict.fromkeys(names, torch.tensor(0.0, dtype=torch.float64))

    def look(name: str) -> Any:
        def keep(_: nn.Module, given: tuple[Tensor, ...], output: Tensor) -> None:
            output.retain_grad()
            outputs[name] = output
            columns[name] = columns[name] + given[0][0].detach().double().square().sum(0)

        return keep

    for name in names:
        model.get_submodule(name).register_forward_hook(look(name))
    sums = dict.fromkeys(names, torch.tensor(0.0, dtype=torch.float64))
    with serial_operators():
        for number, batch in enumerate(batches):
            logits = model(batch)[0]
            drawn = torch.multinomial(logits.detach().softmax(1), 1, generator=generator(5 + number))[:, 0]
            loss: Any = nn.functional.cross_entropy(logits, drawn, reduction="sum")
            loss.backward()
            for name in names:
                gradient = outputs[name].grad
                assert gradient is not None
                sums[name] = sums[name] + gradient[0].double().square().sum(0)
    # The same operations on the same floats.
    for name in names:
        assert torch.equal(found[name].rows, sums[name] / 100)
        assert torch.equal(found[name].columns, columns[name] / 100)


def test_equal_seeds_and_any_number_of_threads_give_the_same() -> None:
    model, batches = small_model(), some_batches(5)
    layers = {name: model.get_submodule(name) for name in ("blocks.0.gate", "blocks.2.down", "head")}
    before, results = torch.get_num_threads(), []
    try:
        for threads in (1, 2, 5):
            torch.set_num_threads(threads)
            results.append(measure_sensitivity(model, batches, layers, seed=3))
            assert torch.get_num_threads() == threads
    finally:
        torch.set_num_threads(before)
    other = measure_sensitivity(model, batches, layers, seed=40)
    for name, one in results[0].items():
        assert all(torch.equal(one.rows, found[name].rows) for found in results)
        assert all(torch.equal(one.columns, found[name].columns) for found in results)
        assert not torch.equal(one.rows, other[name].rows)


def test_only_as_many_batches_as_are_needed_count(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr("quillon.budget._TOKENS", 90)
    model, batches = small_model(), some_batches(6)
    layers = {"head": model.head}
    before = torch.get_num_threads()
    try:
        for threads in (1, 5):  # batches of 50 tokens: two of them, whatever runs beside the second
            torch.set_num_threads(threads)
            found = measure_sensitivity(model, batches, layers)["head"]
            assert torch.equal(found.rows, measure_sensitivity(model, batches[:2], layers)["head"].rows)
    finally:
        torch.set_num_threads(before)


def test_an_error_of_a_layer_names_it() -> None:
    given = weights((8, 256), (8, 256))
    given["layer1"][0][3, 5] = float("nan")
    with pytest.raises(ValueError, match="layer1: weight must be finite"):
        choose_formats(given, 4.5, everything, {})


def test_a_model_within_a_budget() -> None:
    model = small_model()
    report = quillon.quantize_model(model, bits=5.0, calibration=some_batches())
    assert set(report.replaced) == {
        f"blocks.{i}.{name}" for i in range(3) for name in ("gate", "up", "down", "idle")
    } | {"head"}
    dense = sum(one.numel() for name, one in small_model().named_parameters() if name.endswith("weight"))
    assert 4.0 < 8 * report.packed_bytes / dense <= 5.0
    for i in range(3):
        assert report.replaced[f"blocks.{i}.gate"] == report.replaced[f"blocks.{i}.up"]
    assert not {"q2_k", "q4_k", "iq2_xxs", "iq1_s"} & set(report.replaced.values())  # rows of 64 and 128
    again = small_model()
    assert quillon.quantize_model(again, bits=5.0, calibration=some_batches()).replaced == report.replaced
    assert all(torch.equal(one, model.get_buffer(name)) for name, one in again.named_buffers())
    with pytest.raises(ValueError, match=re.escape("bits must be at least 3.25 for these layers, got 3")):
        quillon.quantize_model(small_model(), bits=3)


def test_a_layer_that_was_not_measured_counts_as_the_mean_of_the_others() -> None:
    same = weights((8, 256))["layer0"]
    given = {"measured": same, "other": same}
    ones = Sensitivity("measured", torch.ones(256, dtype=torch.float64), torch.ones(8, dtype=torch.float64))
    found = choose_formats(given, 2 * FORMATS["q4_0"].bits_per_weight, everything, {"measured": ones})
    assert found["measured"] == found["other"]


def test_on_a_device_and_behind_numbers_that_are_none() -> None:
    batches = some_batches()
    expected = quillon.quantize_model(small_model(), bits=5.0, calibration=batches).replaced
    model = small_model().to("xpu")
    with torch.inference_mode():
        assert set(quillon.quantize_model(model, bits=5.0, calibration=batches).replaced) == set(expected)
    batches[1][0, 7, 3] = float("nan")
    batches[4][0, :2] = 1e30
    assert set(quillon.quantize_model(small_model(), bits=5.0, calibration=batches).replaced) == set(expected)


def test_layers_before_operations_in_place() -> None:
    model = nn.Sequential(nn.Linear(64, 64), nn.ReLU(inplace=True), nn.Linear(64, 64))
    batches = [torch.randn(1, 30, 64, generator=generator(3))]
    found = measure_sensitivity(model, batches, {"0": model[0], "2": model[2]})
    assert all(bool((one.rows > 0).any()) for one in found.values())


def test_what_is_wrong_with_a_call() -> None:
    model = small_model()
    for options in ({}, {"format": "q4_0", "bits": 4.5}):
        with pytest.raises(ValueError, match="either format or bits must be given"):
            quillon.quantize_model(model, **options)  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="fallback belongs to a format"):
        quillon.quantize_model(model, bits=4.5, fallback="q8_0")
    for wrong in (torch.zeros(1, 3, 64), "statistics"):
        with pytest.raises(TypeError, match=r"calibration must be what quillon\.calibrate found, or batches"):
            quillon.quantize_model(model, "q4_0", calibration=wrong)  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="calibration must hold at least one batch, got none"):
        quillon.quantize_model(model, bits=4.5, calibration=[])
    for bits in (0, -1.0, float("nan"), float("inf")):
        with pytest.raises(ValueError, match="bits must be a positive number"):
            quillon.quantize_model(model, bits=bits)
