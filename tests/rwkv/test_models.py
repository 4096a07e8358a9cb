"""The models of examples/rwkv.py, by the operators and step by step, with states that go through many calls."""

from __future__ import annotations

import copy
import importlib.util
import sys
from pathlib import Path
from typing import Any

import numpy as np
import pytest
import torch
from torch import Tensor

from quillon import nn

from .naive import EXACT_EXP, attention_v4, attention_v5, within

DEVICE = torch.device("xpu", 7)
EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "rwkv.py"


@pytest.fixture(scope="module")
def example() -> Any:
    spec = importlib.util.spec_from_file_location("rwkv_example", EXAMPLE)
    assert spec is not None
    assert spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules["rwkv_example"] = module
    spec.loader.exec_module(module)
    return module


def model_of(example: Any, version: int, steps: int) -> Any:
    torch.manual_seed(version)
    model = example.RWKV(version)
    first = example.train(model, 1)
    assert example.train(model, steps) < 0.9 * first, "nothing is learnt"
    return model


def to_numpy(*tensors: Tensor) -> list[Any]:
    return [one.detach().cpu().numpy().copy() for one in tensors]


class Checked:
    """The functions of quillon.nn, each call held to the bound of its own operations."""

    def __init__(self) -> None:
        self.calls = 0

    def attention_v4(self, *given: Tensor) -> Tensor:
        before = to_numpy(*given)
        output = nn.rwkv_attention_v4(*given)
        expected, states = attention_v4(*before[:4], tuple(before[4:]), EXACT_EXP)  # type: ignore[arg-type]
        assert within(*to_numpy(output), expected)
        assert all(within(*both) for both in zip(to_numpy(*given[4:]), states, strict=True))
        self.calls += 1
        return output

    def attention_v5(self, *given: Tensor) -> Tensor:
        before = to_numpy(*given)
        output = nn.rwkv_attention_v5(*given)
        expected, state = attention_v5(*before)
        assert within(*to_numpy(output), expected)
        assert within(*to_numpy(given[5]), state)
        self.calls += 1
        return output

    def time_shift(self, hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
        output = nn.rwkv_time_shift(hidden, shifted, mix)
        h, x, m = to_numpy(hidden, shifted, mix)
        assert np.array_equal(to_numpy(output)[0], x + m[:, None, None] * (h - x))
        self.calls += 1
        return output


@pytest.mark.parametrize("version", [4, 5])
def test_both_ways_give_one_text(example: Any, version: int) -> None:
    model = model_of(example, version, 25)
    outcome = example.compare(model, DEVICE, 40)
    assert outcome.texts[0] == outcome.texts[1]
    # The operators round no more than the recurrence does: what either is off from float64 is of one size.
    assert 0 < outcome.difference < 8 * outcome.own_error
    assert outcome.own_error < 1e-3


@pytest.mark.parametrize("version", [4, 5])
def test_each_call_of_a_model_keeps_to_its_bound(example: Any, version: int) -> None:
    model = model_of(example, version, 10).to(DEVICE)
    checked = Checked()
    tokens = example.text_tokens()[: sum(example.PIECES)].to(DEVICE)
    by = example.Recurrences(checked.attention_v4, checked.attention_v5, checked.time_shift)
    logits, _ = example.read(model, tokens, by)
    assert checked.calls == len(example.PIECES) * len(model.blocks) * 3
    assert logits.isfinite().all()


@pytest.mark.parametrize("version", [4, 5])
def test_a_lost_state_shows(example: Any, version: int) -> None:
    """Without what the first pieces left behind the logits are others."""
    model = model_of(example, version, 10).to(DEVICE)
    tokens = example.text_tokens()[:80].to(DEVICE)
    states = model.start(1)
    with torch.no_grad():
        model(tokens[None, :70], states, example.OPERATORS)
        whole = model(tokens[None, 70:], copy.deepcopy(states), example.OPERATORS)
        for state, fresh in zip(states, model.start(1), strict=True):
            state.attention = fresh.attention
        lost = model(tokens[None, 70:], states, example.OPERATORS)
    assert (whole - lost).abs().max() > 1e-2
