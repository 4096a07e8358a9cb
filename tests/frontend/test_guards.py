"""Device and contiguity checks and profiler records of the three guarded operators, by both routes."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import torch
from shim.process import output_of
from torch.profiler import ProfilerActivity, profile

import vesper_linear

Call = Callable[[torch.Tensor, torch.Tensor], torch.Tensor]

# Operator, the word for its weight in messages, further arguments, profiler record, which tensor is recorded.
GUARDED = {
    "forward_new": ("weights", (2, 0), "sorrel_qlinear_forward", "input"),
    "dequant": ("weight", (2,), "sorrel_xpu_dequant", "weight"),
    "dequantize_rows": ("weight", (27, 256, 8), "sorrel_dequantize_rows", "input"),
}
SITES = {"forward_new": "linear_forward_new", "dequant": "dequant", "dequantize_rows": "dequantize_rows"}

guarded = pytest.mark.parametrize("name", GUARDED)
routes = pytest.mark.parametrize("route", ["module", "torch.ops"])


def _call(name: str, route: str) -> Call:
    function = getattr(vesper_linear if route == "module" else torch.ops.quillon, name)
    return lambda input, weight: function(input, weight, *GUARDED[name][1])


def _input(name: str) -> torch.Tensor:
    """A contiguous, accepted `input`: two row numbers for dequantize_rows, else one activation row."""
    if name == "dequantize_rows":
        return torch.tensor([[1, 0]], device="xpu")
    return torch.ones(1, 64, device="xpu")


def _weight() -> torch.Tensor:
    return torch.zeros(34 * 64, dtype=torch.uint8, device="xpu")


def _strided(tensor: torch.Tensor) -> torch.Tensor:
    """A tensor of the same shape and place that is not contiguous."""
    return torch.stack([tensor, tensor], -1)[..., 0]


def _message(call: Call, input: torch.Tensor, weight: torch.Tensor) -> str:
    with pytest.raises(RuntimeError) as error:
        call(input, weight)
    assert type(error.value) is RuntimeError
    return str(error.value)


@guarded
@routes
def test_texts_in_order(name: str, route: str) -> None:
    call, word = _call(name, route), GUARDED[name][0]
    good_input, good_weight = _input(name), _weight()
    bad_inputs = [
        (good_input.cpu(), "input must be a XPU tensor"),
        (_strided(good_input).cpu(), "input must be a XPU tensor"),
        (_strided(good_input), "input must be contiguous"),
    ]
    bad_weights = [
        (good_weight.cpu(), f"{word} must be a XPU tensor"),
        (_strided(good_weight).cpu(), f"{word} must be a XPU tensor"),
        (_strided(good_weight), f"{word} must be contiguous"),
    ]
    for input, text in bad_inputs:
        assert _message(call, input, good_weight) == text
        for weight, _ in bad_weights:
            # Two tensors off the XPU never get past PyTorch's dispatcher.
            if route == "module" or input.is_xpu or weight.is_xpu:
                assert _message(call, input, weight) == text
    for weight, text in bad_weights:
        assert _message(call, good_input, weight) == text


def test_transposed_weight_is_not_contiguous() -> None:
    weight = torch.zeros(34, 64, dtype=torch.uint8, device="xpu").t()
    assert _message(_call("forward_new", "module"), _input("forward_new"), weight) == "weights must be contiguous"


@guarded
@routes
def test_tensors_on_different_devices(name: str, route: str) -> None:
    """Eight host devices share their memory, so that nothing else would tell: on a GPU the kernel would fault."""
    call = _call(name, route)
    text = _message(call, _input(name).to("xpu:2"), _weight().to("xpu:1"))
    assert text == f"{name}: input is on xpu:2 and weight on xpu:1; both must be on one device"
    call(_input(name).to("xpu:2"), _weight().to("xpu:2"))


@routes
def test_tensor_that_stands_for_its_negative(route: str) -> None:
    call, input = _call("forward_new", route), _input("forward_new")
    weight = torch.full((34 * 64,), 0x31, dtype=torch.uint8, device="xpu")
    expected = call(-input, weight)
    assert (expected != 0).all()
    assert torch.equal(call(torch._neg_view(input), weight), expected)


@guarded
def test_guards_come_before_the_code_and_the_environment(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TILE_THRESHOLD", "no number")
    function = getattr(vesper_linear, name)
    arguments = (-1, *GUARDED[name][1][1:])
    with pytest.raises(RuntimeError, match=r"^input must be a XPU tensor$"):
        function(_input(name).cpu(), _weight(), *arguments)


@guarded
def test_integers_are_cut_to_the_code_of_32_bits(name: str) -> None:
    """A code of 2^32 + 2 is code 2: it must act, or fail, as that one does."""
    function, rest = getattr(vesper_linear, name), GUARDED[name][1][1:]

    def outcome(qtype: int) -> object:
        try:
            return function(_input(name), _weight(), qtype, *rest).tolist()
        except RuntimeError as error:
            return str(error)

    assert outcome(2**32 + 2) == outcome(2)
    assert outcome(2**32 + 2) != outcome(2**32 + 5)


def test_check_sites() -> None:
    """The backtrace that a user can ask PyTorch for begins with the check's site, by both routes."""
    text = """
        import torch, quillon, vesper_linear
        x, w = torch.ones(1, 64, device="xpu"), torch.zeros(34 * 64, dtype=torch.uint8, device="xpu")
        rows = torch.tensor([[0]], device="xpu")
        for module in (vesper_linear, torch.ops.quillon):
            for function, arguments in (
                (module.forward_new, (x, w.cpu(), 2, 0)),
                (module.dequant, (x, w.cpu(), 2)),
                (module.dequantize_rows, (rows, w.cpu(), 2, 64, 64)),
                (module.forward_new, (x[:, :40].contiguous(), w, 2, 0)),
                (module.dequant, (x[:, :40].contiguous(), w, 2)),
                (module.dequant, (x[:, :40].contiguous(), w, 21)),
                (module.dequantize_rows, (rows, w, 23, 40, 1)),
                (module.dequantize_rows, (rows, w, 27, 40, 1)),
                (module.forward_new, (x.int(), w, 2, 0)),
            ):
                try:
                    function(*arguments)
                except RuntimeError as error:
                    print(str(error).splitlines()[1].split(" at ")[0])
    """
    sites = ["linear_forward_new", "dequant", "dequantize_rows", "qlinear_xpu_kernel_q4_0_2x16"]
    sites += ["qlinear_xpu_dequantize_kernel_q4_0_1x2", "qlinear_xpu_dequantize_kernel_iq2_xxs"]
    sites += ["xpu_dequantize_rows_kernel_q2_k", "xpu_dequantize_rows_kernel_q4_k", "operator()"]
    lines = output_of(text, TORCH_SHOW_CPP_STACKTRACES="1", TORCH_DISABLE_ADDR2LINE="1").splitlines()
    assert lines == [f"Exception raised from {site}" for site in sites] * 2


# ---- profiler records ----------------------------------------------------------------------------------------


@guarded
@routes
@pytest.mark.parametrize("shapes", [True, False])
def test_record(name: str, route: str, shapes: bool) -> None:
    input, weight = _input(name), _weight()
    with profile(activities=[ProfilerActivity.CPU], record_shapes=shapes) as session:
        _call(name, route)(input, weight)
    _, _, record, recorded = GUARDED[name]
    events = [event for event in session.events() if event.name.startswith("sorrel_")]
    assert [event.name for event in events] == [record]
    expected = {"input": input, "weight": weight}[recorded]
    assert events[0].input_shapes == ([list(expected.shape)] if shapes else [])
    assert events[0].sequence_nr == -1
    outer = events[0].cpu_parent.name if events[0].cpu_parent else None
    assert outer == (None if route == "module" else f"quillon::{name}")


def test_record_closes_when_the_call_fails() -> None:
    with profile(activities=[ProfilerActivity.CPU]) as session:
        with pytest.raises(RuntimeError):
            vesper_linear.forward_new(torch.ones(1, 64, dtype=torch.int32, device="xpu"), _weight(), 2, 0)
        torch.ones(3) + 1
    events = session.events()
    assert [event.name for event in events].count("sorrel_qlinear_forward") == 1
    addition = next(event for event in events if event.name == "aten::add")
    assert addition.cpu_parent is None


@guarded
def test_no_record_of_a_call_that_the_guards_refuse(name: str) -> None:
    with profile(activities=[ProfilerActivity.CPU]) as session, pytest.raises(RuntimeError):
        _call(name, "module")(_input(name).cpu(), _weight())
    assert not [event.name for event in session.events() if event.name.startswith("sorrel_")]


@guarded
def test_guards_run_and_nothing_is_recorded_with_the_profiler_off(name: str) -> None:
    session = profile(activities=[ProfilerActivity.CPU])
    with session:
        torch.ones(1) + 1
    _call(name, "module")(_input(name), _weight())
    assert _message(_call(name, "module"), _input(name).cpu(), _weight()) == "input must be a XPU tensor"
    names = [event.name for event in session.events()]
    assert "aten::add" in names
    assert not [recorded for recorded in names if recorded.startswith("sorrel_")]
