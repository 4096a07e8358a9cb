"""What the RWKV operators refuse, with which words, and that the states are then as they were."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import torch

import vesper_linear

DEVICE = "xpu:7"
ARGUMENTS = {
    "rwkv_linear_attention_v4": ("time_decay", "time_first", "key", "value", "num_state", "den_state", "max_state"),
    "rwkv_linear_attention_v5": ("time_decay", "time_first", "receptance", "key", "value", "state"),
    "rwkv_time_shift": ("hidden", "shifted", "mix"),
}
LEADING = {"rwkv_linear_attention_v4": "key", "rwkv_linear_attention_v5": "key", "rwkv_time_shift": "hidden"}
SHAPES = {
    "rwkv_linear_attention_v4": ((32,), (32,), (2, 3, 32), (2, 3, 32), (2, 32), (2, 32), (2, 32)),
    "rwkv_linear_attention_v5": ((2, 64), (2, 64), (1, 2, 3, 64), (1, 2, 3, 64), (1, 2, 3, 64), (1, 2, 64, 64)),
    "rwkv_time_shift": ((2, 3, 64), (2, 3, 64), (4, 64)),
}
CASES = [(name, argument) for name, arguments in ARGUMENTS.items() for argument in arguments]

every = pytest.mark.parametrize("name", ARGUMENTS)
each_argument = pytest.mark.parametrize(("name", "argument"), CASES)
routes = pytest.mark.parametrize("route", ["module", "torch.ops"])


def good(name: str) -> dict[str, torch.Tensor]:
    shapes = SHAPES[name]
    return {argument: torch.rand(shape, device=DEVICE) for argument, shape in zip(ARGUMENTS[name], shapes, strict=True)}


def function(name: str, route: str = "module") -> Callable[..., torch.Tensor]:
    found: Callable[..., torch.Tensor] = getattr(vesper_linear if route == "module" else torch.ops.quillon, name)
    return found


def refused(name: str, arguments: dict[str, torch.Tensor], route: str = "module") -> str:
    """The text of the error, all states being untouched."""
    before = {argument: tensor.clone() for argument, tensor in arguments.items() if argument.endswith("state")}
    with pytest.raises(RuntimeError) as error:
        function(name, route)(*arguments.values())
    torch.xpu.synchronize(DEVICE)
    assert all(torch.equal(arguments[argument], tensor) for argument, tensor in before.items())
    return str(error.value).split("\nException raised from")[0]


@every
@routes
def test_good_arguments_are_taken(name: str, route: str) -> None:
    assert function(name, route)(*good(name).values()).isfinite().all()


@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, torch.int32])
@pytest.mark.parametrize("name", ["rwkv_linear_attention_v4", "rwkv_time_shift"])
@routes
def test_element_types(name: str, dtype: torch.dtype, route: str) -> None:
    arguments = good(name)
    arguments[LEADING[name]] = arguments[LEADING[name]].to(dtype)
    text = refused(name, arguments, route)
    assert text == "unsupported dtype, only fp32 and fp16 are supported"


@pytest.mark.parametrize(
    ("name", "argument"), [case for case in CASES if case[0].endswith("v5") or case[1].endswith("state")]
)
@pytest.mark.parametrize("dtype", [torch.float16, torch.float64])
def test_what_must_be_float(name: str, argument: str, dtype: torch.dtype) -> None:
    arguments = good(name)
    arguments[argument] = arguments[argument].to(dtype)
    named = {torch.float16: "Half", torch.float64: "Double"}[dtype]
    assert f"expected scalar type Float but found {named}" in refused(name, arguments)


@pytest.mark.parametrize(
    ("name", "argument"),
    [("rwkv_linear_attention_v4", one) for one in ("time_decay", "value")] + [("rwkv_time_shift", "mix")],
)
def test_element_types_of_the_others_are_not_compared(name: str, argument: str) -> None:
    """Their bytes are read as what the leading tensor is of."""
    arguments = good(name)
    expected = function(name)(*(one.clone() for one in arguments.values()))
    arguments[argument] = arguments[argument].view(torch.int32)
    assert torch.equal(function(name)(*arguments.values()), expected)


@each_argument
def test_devices(name: str, argument: str) -> None:
    arguments, leading = good(name), LEADING[name]
    for device in ("cpu", "xpu:3"):
        moved = arguments | {argument: arguments[argument].to(device)}
        text = refused(name, moved)
        if argument != leading:
            expected = f"{name}: {leading} is on xpu:7 and {argument} on {device}; all must be on one device"
        elif device == "cpu":
            expected = f"{name}: {leading} must be a XPU tensor, got one on cpu"
        else:
            other = next(one for one in arguments if one != leading)
            expected = f"{name}: {leading} is on xpu:3 and {other} on xpu:7; all must be on one device"
        assert text == expected


@pytest.mark.parametrize(
    ("name", "argument"), [(name, argument) for name in LEADING for argument in good(name) if argument != LEADING[name]]
)
def test_too_little_memory(name: str, argument: str) -> None:
    """Shapes are not compared, but nothing behind a tensor is read or written."""
    arguments = good(name)
    whole = arguments[argument]
    short = torch.rand(whole.numel() - 1, device=DEVICE)
    text = refused(name, arguments | {argument: short})
    assert text == (
        f"{name}: {argument} must have {4 * whole.numel()} bytes for the sizes of this call, "
        f"got {4 * whole.numel() - 4} in a tensor of shape [{whole.numel() - 1}]"
    ) or (argument == "mix" and "mix must have" in text)
    repeated = torch.rand(1, device=DEVICE).expand(whole.shape)
    assert f"{argument} must have" in refused(name, arguments | {argument: repeated})
    flat = whole.reshape(-1) if argument != "mix" else whole
    assert torch.equal(
        function(name)(*(one.clone() for one in (arguments | {argument: flat}).values())),
        function(name)(*(one.clone() for one in arguments.values())),
    )


def test_strides_beyond_the_memory() -> None:
    arguments = good("rwkv_linear_attention_v5")
    arguments["key"] = torch.rand(1, 2, 30, 64, device=DEVICE)[:, :, ::10]
    text = refused("rwkv_linear_attention_v5", arguments)
    assert text.startswith("rwkv_linear_attention_v5: value must have")


@pytest.mark.parametrize(
    ("name", "channels", "multiple"), [("rwkv_linear_attention_v4", 48, 32), ("rwkv_time_shift", 96, 64)]
)
def test_channels(name: str, channels: int, multiple: int) -> None:
    arguments = {
        argument: torch.rand(*tensor.shape[:-1], channels, device=DEVICE) for argument, tensor in good(name).items()
    }
    leading = LEADING[name]
    shape = list(arguments[leading].shape)
    assert refused(name, arguments) == (
        f"{name}: the channels of {leading} must be a multiple of {multiple}, got shape {shape}"
    )


@pytest.mark.parametrize("size", [32, 128])
def test_head_size(size: int) -> None:
    name = "rwkv_linear_attention_v5"
    arguments = good(name) | {one: torch.rand(1, 2, 3, size, device=DEVICE) for one in ("receptance", "key", "value")}
    assert refused(name, arguments) == f"{name}: heads have 64 channels, got key of shape [1, 2, 3, {size}]"


@every
def test_too_few_dimensions(name: str) -> None:
    arguments = good(name)
    leading = LEADING[name]
    arguments[leading] = arguments[leading].reshape(-1)
    with pytest.raises(IndexError, match="Dimension out of range"):
        function(name)(*arguments.values())


@every
def test_on_another_stream(name: str) -> None:
    arguments = good(name)
    expected = function(name)(*(one.clone() for one in arguments.values()))
    torch.xpu.synchronize(DEVICE)
    stream = torch.xpu.Stream(DEVICE)
    with torch.xpu.stream(stream):
        found = function(name)(*arguments.values())
    stream.synchronize()
    assert torch.equal(found, expected)
