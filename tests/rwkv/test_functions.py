"""The functions of quillon.nn for the steps of RWKV models, in eager mode and in compiled graphs."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import pytest
import torch
from torch import Tensor

import vesper_linear
from quillon import nn

from .harness import inputs_v4, inputs_v5, run_v4, run_v5, same_bits, state_v5, states_v4, to_device, to_host

DEVICE = torch.device("xpu", 7)


def v4(dtype: str = "float32") -> list[Tensor]:
    return [to_device(one) for one in (*inputs_v4((2, 6, 64), dtype, 1), *states_v4(2, 64))]


def v5() -> list[Tensor]:
    return [to_device(one) for one in (*inputs_v5(2, 3, 6, 1), state_v5(2, 3, 2))]


def shift() -> list[Tensor]:
    generator = torch.Generator().manual_seed(1)
    return [torch.rand(shape, generator=generator).to(DEVICE) for shape in ((2, 6, 64), (2, 6, 64), (3, 64))]


FUNCTIONS: dict[str, tuple[Callable[..., Tensor], Callable[..., Tensor], Callable[[], list[Tensor]]]] = {
    "v4": (nn.rwkv_attention_v4, vesper_linear.rwkv_linear_attention_v4, v4),
    "v5": (nn.rwkv_attention_v5, vesper_linear.rwkv_linear_attention_v5, v5),
    "shift": (nn.rwkv_time_shift, vesper_linear.rwkv_time_shift, shift),
}
each = pytest.mark.parametrize("name", FUNCTIONS)


def all_equal(some: list[Tensor], others: list[Tensor]) -> bool:
    return all(torch.equal(*both) for both in zip(some, others, strict=True))


@each
def test_the_operators_result(name: str) -> None:
    function, operator, arguments = FUNCTIONS[name]
    given, expected = arguments(), arguments()
    assert torch.equal(function(*given), operator(*expected))
    assert all_equal(given, expected)


def test_states_of_nothing_read() -> None:
    states = nn.rwkv_state_v4(2, 64, DEVICE)
    assert all(same_bits(to_host(one), right) for one, right in zip(states, states_v4(2, 64), strict=True))
    state = nn.rwkv_state_v5(2, 3, DEVICE)
    assert state.shape == (2, 3, 64, 64)
    assert state.dtype == torch.float32
    assert not state.any()


def test_strides_are_made_to_fit() -> None:
    inputs, states = inputs_v4((2, 6, 64), "float32", 3), states_v4(2, 64)
    expected, _ = run_v4(inputs, states)
    key, value = (to_device(one.transpose(2, 1, 0)).permute(2, 1, 0) for one in inputs[2:])
    given = nn.rwkv_attention_v4(to_device(inputs[0]), to_device(inputs[1]), key, value, *map(to_device, states))
    assert same_bits(to_host(given), expected)

    inputs5, state = inputs_v5(2, 3, 6, 3), state_v5(2, 3, 4)
    expected, _ = run_v5(inputs5, state)
    decay, bonus, receptance, key, value = (to_device(one) for one in inputs5)
    value = value.transpose(1, 2).contiguous().transpose(1, 2)
    assert value.stride() != key.stride()
    given = nn.rwkv_attention_v5(decay, bonus, receptance, key, value, to_device(state))
    assert same_bits(to_host(given), expected)


@each
def test_wrong_arguments_are_named(name: str) -> None:
    function, _, arguments = FUNCTIONS[name]
    for place in range(len(arguments())):
        for change in (
            lambda one: one[..., :-1],
            lambda one: one.to(torch.float64),
            lambda one: one.cpu(),
            lambda one: one[None],
        ):
            given = arguments()
            given[place] = change(given[place])
            with pytest.raises(ValueError, match="must be") as error:
                function(*given)
            names = function.__code__.co_varnames[: len(given)]
            assert any(word in str(error.value) for word in names)


def test_a_state_must_be_contiguous() -> None:
    given = v5()
    given[5] = given[5].transpose(2, 3)
    with pytest.raises(ValueError, match="state is written to in place and must be contiguous"):
        nn.rwkv_attention_v5(*given)


@pytest.mark.parametrize(
    ("way", "backend"),
    [("nn", "inductor"), ("vesper_linear", "aot_eager"), ("torch.ops", "aot_eager"), ("torch.ops", "inductor")],
)
@each
def test_compiled(name: str, way: str, backend: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """Two calls in a graph, the second on what the first has made of the states, whose writes no schema tells."""
    monkeypatch.setenv("TORCHINDUCTOR_CACHE_DIR", str(tmp_path))
    torch.compiler.reset()
    function, operator, arguments = FUNCTIONS[name]
    of_the_library = getattr(torch.ops.quillon, operator.__name__)
    called = {"nn": function, "vesper_linear": operator, "torch.ops": of_the_library}[way]

    def twice(*given: Any) -> Tensor:
        return called(*given) + 2 * called(*given)

    compiled = torch.compile(twice, fullgraph=True, backend=backend)
    for _ in range(2):
        given, expected = arguments(), arguments()
        torch.testing.assert_close(compiled(*given), twice(*expected), rtol=1e-6, atol=1e-6)
        assert all_equal(given, expected)


@each
def test_fakes_have_the_shapes_of_results(name: str) -> None:
    _, operator, arguments = FUNCTIONS[name]
    given = arguments()
    expected = operator(*given)
    with torch._subclasses.FakeTensorMode() as mode:
        fake = getattr(torch.ops.quillon, operator.__name__)(*(mode.from_tensor(one) for one in given))
    assert (fake.shape, fake.stride(), fake.dtype, fake.device) == (
        expected.shape,
        expected.stride(),
        expected.dtype,
        expected.device,
    )


def test_a_model_in_half_keeps_its_states_in_float() -> None:
    given = v4("float16")
    output = nn.rwkv_attention_v4(*given)
    assert output.dtype == torch.float16
    assert np.isfinite(to_host(output)).all()
    assert all(one.dtype == torch.float32 for one in given[4:])
