"""A format for each layer within a number of bits."""

from __future__ import annotations

import re
from typing import Any

import pytest
import torch
from test_calibration import generator, small_model, some_batches
from torch import Tensor, nn

import quillon
from quillon.budget import Sensitivity, choose_formats, measure_sensitivity
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


@pytest.mark.parametrize("bits", [2.0, 3.5, 4.5, 5.5, 9.0])
def test_the_budget_is_kept_and_used(bits: float) -> None:
    given = weights(*[(8, 256)] * 6)
    found = choose_formats(given, bits, everything, {})
    assert bits_of(given, found) <= bits
    if bits < 8:  # a step up of one of six equal layers is all that can be left
        assert bits_of(given, found) > bits - 1.6 / 6 - 0.2


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
    inputs: dict[str, list[Tensor]] = {name: [] for name in names}

    def look(name: str) -> Any:
        def keep(_: nn.Module, given: tuple[Tensor, ...], output: Tensor) -> None:
            output.retain_grad()
            outputs[name] = output
            inputs[name].append(given[0][0].detach())

        return keep

    for name in names:
        model.get_submodule(name).register_forward_hook(look(name))
    drawing, sums = generator(5), dict.fromkeys(names, torch.tensor(0.0))
    for batch in batches:
        logits = model(batch)[0]
        drawn = torch.multinomial(logits.detach().softmax(1), 1, generator=drawing)[:, 0]
        loss: Any = -logits.log_softmax(1).gather(1, drawn[:, None]).sum()
        loss.backward()
        for name in names:
            gradient = outputs[name].grad
            assert gradient is not None
            sums[name] = sums[name] + gradient[0].square().sum(0)
    for name in names:
        torch.testing.assert_close(found[name].rows, sums[name].double() / 100, rtol=1e-4, atol=1e-9)
        torch.testing.assert_close(
            found[name].columns, torch.cat(inputs[name]).double().square().mean(0), rtol=1e-4, atol=1e-9
        )


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
