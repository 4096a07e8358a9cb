"""RWKV v5 attention against the recurrence step by step."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import vesper_linear

from .harness import BACKINGS, DEVICE, inputs_v5, run_v5, same_bits, state_v5, to_device, to_host
from .naive import attention_v5, attention_v5_bits, within


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize(("batches", "heads", "steps"), [(1, 1, 1), (2, 3, 12), (5, 1, 3), (1, 7, 5)])
def test_bits(batches: int, heads: int, steps: int, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs, state = inputs_v5(batches, heads, steps, 1), state_v5(batches, heads, 2)
    expected, expected_after = attention_v5_bits(*inputs, state)
    output, after = run_v5(inputs, state)
    assert same_bits(output, expected)
    assert same_bits(after, expected_after)


def test_values() -> None:
    inputs, state = inputs_v5(2, 2, 30, 3), state_v5(2, 2, 4)
    output, after = run_v5(inputs, state)
    expected, expected_after = attention_v5(*inputs, state)
    assert within(output, expected)
    assert within(after, expected_after)
    assert np.max(expected.error) < 1e-4 * np.std(output), "the bound says nothing"


def test_a_long_sequence() -> None:
    """Decays close to 1, so that the state remembers all of it."""
    inputs, state = list(inputs_v5(1, 1, 4096, 5)), state_v5(1, 1, 6)
    inputs[0] = 1 - (1 - inputs[0]) * np.float32(1e-3)
    output, after = run_v5(inputs, state)
    expected, expected_after = attention_v5_bits(*inputs, state)
    assert same_bits(output, expected)
    assert same_bits(after, expected_after)
    assert np.abs(after).max() > 20


@pytest.mark.parametrize("place", range(5))
def test_the_bound_catches(place: int) -> None:
    """A change of one number of any input shows."""
    inputs, state = list(inputs_v5(2, 2, 10, 7)), state_v5(2, 2, 8)
    output, _ = run_v5(inputs, state)
    assert within(output, attention_v5(*inputs, state)[0])
    changed = inputs[place].copy()
    changed.reshape(-1)[changed.size // 2] += 0.01
    inputs[place] = changed
    assert not within(output, attention_v5(*inputs, state)[0])


def test_rows_of_the_state_are_key_channels() -> None:
    inputs, state = inputs_v5(1, 1, 4, 9), state_v5(1, 1, 10)
    output, _ = run_v5(inputs, state)
    assert not within(output, attention_v5(*inputs, state.swapaxes(2, 3))[0])


def test_the_order_of_a_sum_shows_in_bits() -> None:
    inputs, state = inputs_v5(1, 2, 6, 11), state_v5(1, 2, 12)
    output, _ = run_v5(inputs, state)
    backwards = [one[..., ::-1] for one in inputs[:4]]
    expected, _ = attention_v5_bits(*backwards, inputs[4], state[:, :, ::-1])
    assert not same_bits(output, expected)
    np.testing.assert_allclose(output, expected, rtol=1e-4, atol=1e-4)


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("cut", [0, 1, 7, 12])
def test_a_sequence_in_two_calls(cut: int, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs, state = inputs_v5(2, 3, 12, 13), state_v5(2, 3, 14)
    whole, after = run_v5(inputs, state)
    first, between = run_v5((*inputs[:2], *(one[:, :, :cut] for one in inputs[2:])), state)
    second, at_end = run_v5((*inputs[:2], *(one[:, :, cut:] for one in inputs[2:])), between)
    assert same_bits(np.concatenate([first, second], 1), whole)
    assert same_bits(at_end, after)
    assert cut > 0 or same_bits(between, state)


@pytest.mark.parametrize("backing", BACKINGS)
def test_strides_are_those_of_key(backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Three views of (B, T, H, 64), as models have them; the result is laid out in their order."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs, state = inputs_v5(2, 3, 5, 15), state_v5(2, 3, 16)
    output, after = run_v5(inputs, state)
    decay, bonus, *rest = (to_device(one) for one in inputs)
    views = [one.transpose(1, 2).contiguous().transpose(1, 2) for one in rest]
    assert views[0].stride() == (5 * 3 * 64, 64, 3 * 64, 1)
    given = to_device(state)
    found = vesper_linear.rwkv_linear_attention_v5(decay, bonus, *views, given)
    assert found.is_contiguous()
    assert same_bits(to_host(found), output)
    assert same_bits(to_host(given), after)
    # A value of other strides is read by those of key.
    wrong = vesper_linear.rwkv_linear_attention_v5(decay, bonus, *views[:2], rest[2], to_device(state))
    as_read = rest[2].reshape(2, 5, 3, 64).transpose(1, 2)
    expected, _ = run_v5((*inputs[:4], to_host(as_read.contiguous())), state)
    assert same_bits(to_host(wrong), expected)
    assert not same_bits(expected, output)


@pytest.mark.parametrize("backing", BACKINGS)
def test_a_state_in_a_larger_tensor(backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs, state = inputs_v5(1, 2, 6, 17), state_v5(1, 2, 18)
    output, after = run_v5(inputs, state)
    memory = torch.full((3, 1, 2, 64, 64), float("nan"), device=DEVICE)
    memory[1] = to_device(state)
    found = vesper_linear.rwkv_linear_attention_v5(*(to_device(one) for one in inputs), memory[1])
    assert same_bits(to_host(found), output)
    assert same_bits(to_host(memory[1]), after)
    assert memory[::2].isnan().all()


def test_one_tensor_for_three_inputs() -> None:
    inputs, state = inputs_v5(1, 2, 6, 19), state_v5(1, 2, 20)
    expected, _ = run_v5((*inputs[:3], inputs[2], inputs[2]), state)
    decay, bonus, shared = (to_device(one) for one in inputs[:3])
    found = vesper_linear.rwkv_linear_attention_v5(decay, bonus, shared, shared, shared, to_device(state))
    assert same_bits(to_host(found), expected)


def test_nothing_to_do() -> None:
    for batches, heads, steps in ((2, 2, 0), (0, 2, 3), (2, 0, 3)):
        state = state_v5(batches, heads, 1)
        output, after = run_v5(inputs_v5(batches, heads, steps, 1), state)
        assert output.size == 0
        assert same_bits(after, state)
