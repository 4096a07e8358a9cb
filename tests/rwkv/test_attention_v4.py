"""RWKV v4 attention against the recurrence step by step."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import vesper_linear

from .harness import BACKINGS, DEVICE, ROUNDOFF, TYPES, inputs_v4, run_v4, same_bits, states_v4, to_device, to_host
from .naive import EXACT_EXP, NATIVE_EXP, Array, attention_v4, attention_v4_in_float, within

EXP = {"vectors": EXACT_EXP, "items": NATIVE_EXP}

# One work-group; several, of an odd number; many batches; no step, no batch.
SHAPES = ((1, 5, 32), (3, 40, 96), (7, 3, 64), (2, 1, 160), (2, 0, 32), (0, 4, 32))


def check(
    inputs: tuple[Array, ...], states: tuple[Array, Array, Array], dtype: str, backing: str = "vectors"
) -> tuple[Array, tuple[Array, ...]]:
    output, after = run_v4(inputs, states)
    expected, expected_after = attention_v4(*inputs, states, EXP[backing])  # type: ignore[arg-type]
    assert within(output, expected, ROUNDOFF[dtype])
    assert all(within(*both) for both in zip(after, expected_after, strict=True))
    return output, after


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [shape for shape in SHAPES if 0 not in shape], ids=str)
def test_values(shape: tuple[int, int, int], dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs = inputs_v4(shape, dtype, 1)
    check(inputs, states_v4(shape[0], shape[2]), dtype, backing)
    check(inputs, states_v4(shape[0], shape[2], np.random.default_rng(2)), dtype, backing)


@pytest.mark.parametrize("dtype", TYPES)
def test_a_long_sequence(dtype: str) -> None:
    inputs = inputs_v4((2, 4096, 64), dtype, 3)
    check(inputs, states_v4(2, 64), dtype)
    expected, _ = attention_v4(*inputs, states_v4(2, 64), EXACT_EXP)
    errors = expected.error / np.std(expected.x)
    assert np.median(errors) < 1e-4, "the bound says nothing"
    assert np.max(errors) < 0.1, "the bound says nothing in the channels that decay most slowly"


@pytest.mark.parametrize("dtype", TYPES)
def test_exponents_near_the_limits(dtype: str) -> None:
    """Keys whose exp has no place in any type, over a long time, and a start at minus infinity."""
    decay, bonus, key, value = inputs_v4((1, 4096, 64), dtype, 4)
    limit = {"float32": 1e30, "float16": 3e4}[dtype]
    sizes = np.exp(np.random.default_rng(5).uniform(0, np.log(limit), key.shape))
    key = (np.sign(key) * sizes).astype(dtype)
    states = states_v4(1, 64)
    states[2][:] = -np.inf
    output, after = run_v4((decay, bonus, key, value), states)
    expected = attention_v4_in_float(decay, bonus, key, value, states)
    assert np.isfinite(output).all()
    np.testing.assert_allclose(output, expected[0], rtol=2e-3 if dtype == "float16" else 2e-5, atol=1e-6)
    for given, right in zip(after, expected[1:], strict=True):
        np.testing.assert_allclose(given, right, rtol=1e-5)


def wrong(inputs: tuple[Array, ...], which: str) -> tuple[Array, ...]:
    decay, bonus, key, value = inputs
    if which == "no bonus":
        return decay, 0 * bonus, key, value
    if which == "no decay":
        return 0 * decay, bonus, key, value
    if which == "negated decay":
        return -decay, bonus, key, value
    if which == "one value":
        value = value.copy()
        value[1, 7, 11] += 0.01
        return decay, bonus, key, value
    assert which == "decay and bonus swapped"
    return bonus, decay, key, value


@pytest.mark.parametrize("which", ["no bonus", "no decay", "negated decay", "one value", "decay and bonus swapped"])
def test_the_bound_catches(which: str) -> None:
    inputs, states = inputs_v4((3, 40, 96), "float32", 6), states_v4(3, 96)
    output, _ = run_v4(inputs, states)
    assert within(output, attention_v4(*inputs, states, EXACT_EXP)[0])
    assert not within(output, attention_v4(*wrong(inputs, which), states, EXACT_EXP)[0])  # type: ignore[arg-type]


def test_the_output_has_the_state_before_its_step() -> None:
    """With a state after it, a sequence of one step and no past would not give back its value."""
    inputs, states = inputs_v4((2, 1, 32), "float32", 7), states_v4(2, 32)
    output, after = run_v4(inputs, states)
    assert same_bits(output, inputs[3])
    assert same_bits(after[0], inputs[3][:, 0])
    assert same_bits(after[2], inputs[2][:, 0])
    assert (after[1] == 1).all()
    states[2][:] = -np.inf
    assert same_bits(run_v4(inputs, states)[0], inputs[3])


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("cut", [0, 1, 17, 40])
def test_a_sequence_in_two_calls(cut: int, dtype: str) -> None:
    decay, bonus, key, value = inputs_v4((3, 40, 64), dtype, 8)
    states = states_v4(3, 64, np.random.default_rng(9))
    whole, after = run_v4((decay, bonus, key, value), states)
    first, between = run_v4((decay, bonus, key[:, :cut], value[:, :cut]), states)
    second, at_end = run_v4((decay, bonus, key[:, cut:], value[:, cut:]), between)
    assert same_bits(np.concatenate([first, second], 1), whole)
    assert all(same_bits(*both) for both in zip(at_end, after, strict=True))
    assert cut > 0 or all(same_bits(*both) for both in zip(between, states, strict=True))


@pytest.mark.parametrize("shape", [shape for shape in SHAPES if 0 in shape], ids=str)
def test_nothing_to_do(shape: tuple[int, int, int]) -> None:
    states = states_v4(shape[0], shape[2], np.random.default_rng(1))
    output, after = run_v4(inputs_v4(shape, "float32", 1), states)
    assert output.size == 0
    assert all(same_bits(*both) for both in zip(after, states, strict=True))


def test_many_calls_of_one_step_are_one_call_of_many() -> None:
    """Each call updates the states once, in the memory that they have."""
    inputs, states = inputs_v4((2, 60, 32), "float32", 10), states_v4(2, 32)
    whole, after = run_v4(inputs, states)
    given = [to_device(one) for one in (*inputs, *states)]
    addresses = [state.data_ptr() for state in given[4:]]
    for step in range(60):
        one = given[2][:, step : step + 1].contiguous(), given[3][:, step : step + 1].contiguous()
        output = vesper_linear.rwkv_linear_attention_v4(given[0], given[1], *one, *given[4:])
        assert same_bits(to_host(output), whole[:, step : step + 1])
    assert all(same_bits(to_host(state), right) for state, right in zip(given[4:], after, strict=True))
    assert [state.data_ptr() for state in given[4:]] == addresses


@pytest.mark.parametrize("backing", BACKINGS)
def test_states_in_one_tensor(backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Views of a larger tensor are updated in place, and what lies between them is left alone."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    inputs, states = inputs_v4((2, 9, 32), "float32", 11), states_v4(2, 32, np.random.default_rng(12))
    output, after = run_v4(inputs, states)
    memory = torch.full((7, 2, 32), float("nan"), device=DEVICE)
    for place, state in zip((1, 3, 5), states, strict=True):
        memory[place] = to_device(state)
    given = [to_device(one) for one in inputs]
    found = vesper_linear.rwkv_linear_attention_v4(*given, memory[1], memory[3], memory[5])
    assert same_bits(to_host(found), output)
    assert all(same_bits(to_host(memory[place]), right) for place, right in zip((1, 3, 5), after, strict=True))
    assert memory[::2].isnan().all()


def test_one_tensor_as_key_and_value() -> None:
    decay, bonus, key, _ = inputs_v4((2, 9, 32), "float32", 13)
    states = states_v4(2, 32)
    expected, _ = run_v4((decay, bonus, key, key.copy()), states)
    given = [to_device(one) for one in (decay, bonus, key, *states)]
    found = vesper_linear.rwkv_linear_attention_v4(given[0], given[1], given[2], given[2], *given[3:])
    assert same_bits(to_host(found), expected)


def test_tensors_are_read_as_dense() -> None:
    """Strides are not looked at: a transposed key is read in the order of its memory."""
    decay, bonus, key, value = inputs_v4((2, 32, 32), "float32", 14)
    states = states_v4(2, 32)
    expected, _ = run_v4((decay, bonus, key, value), states)
    given = [to_device(one) for one in (decay, bonus, key, value, *states)]
    given[2] = given[2].transpose(1, 2)
    assert same_bits(to_host(vesper_linear.rwkv_linear_attention_v4(*given)), expected)


@pytest.mark.parametrize("backing", BACKINGS)
def test_what_is_no_number_stays_in_its_channel(backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    decay, bonus, key, value = inputs_v4((2, 9, 64), "float32", 15)
    states = states_v4(2, 64)
    sound, _ = run_v4((decay, bonus, key, value), states)
    key[0, 3, 5], key[1, 2, 40], value[1, 4, 63] = np.nan, np.inf, np.inf
    output, after = run_v4((decay, bonus, key, value), states)
    expected = attention_v4_in_float(decay, bonus, key, value, states)
    for given, right in zip((output, *after), expected, strict=True):
        assert np.array_equal(np.isnan(given), np.isnan(right))
        assert np.array_equal(np.isinf(given), np.isinf(right))
    others = np.ones(64, bool)
    others[[5, 40, 63]] = False
    assert same_bits(output[..., others], sound[..., others])
    assert np.isnan(output[0, 3:, 5]).all()


def test_rising_exponents() -> None:
    """A positive decay is taken as it is."""
    decay, bonus, key, value = inputs_v4((1, 200, 32), "float32", 16)
    check((-decay, bonus, key, value), states_v4(1, 32), "float32")
