"""What FakeTensor and torch.compile have to know of the operators of torch.ops.quillon.

Shapes and element types of results, which operator a function of the module ``vesper_linear`` stands for, and what is
asked of the device while a graph is made.
"""

from __future__ import annotations

import functools
from collections.abc import Callable, Mapping
from typing import Any

import torch
from torch import Tensor
from torch._subclasses.functional_tensor import FunctionalTensorMode

import vesper_linear
from quillon import nn
from quillon._patch_after_import import patch_after_import
from quillon.formats import get_format


def _rows(operator: str, input: Tensor, weight: Tensor, qtype: int) -> int:
    """Rows of the weight, by its bytes; what the operator itself would refuse is refused in its words."""
    found, columns = get_format(qtype), input.size(1)
    torch._check(  # type: ignore[no-untyped-call]
        columns != 0,
        lambda: (
            f"{operator}: input has rows of 0 elements (shape {list(input.shape)}); "
            "a row needs at least one block of the format"
        ),
    )
    return found.elements * (weight.size(0) // found.bytes) // columns


def _forward_new(input: Tensor, weight: Tensor, qtype: int, input_size: int) -> Tensor:
    return input.new_empty(input.size(0), _rows("forward_new", input, weight, qtype))


def _dequant(input: Tensor, weight: Tensor, qtype: int) -> Tensor:
    return input.new_empty(_rows("dequant", input, weight, qtype), input.size(1))


def _dequantize_rows(input: Tensor, weight: Tensor, qtype: int, state_size: int, output_size: int) -> Tensor:
    return weight.new_empty(input.size(0), input.size(1), state_size, dtype=torch.float32)


def _expand_weight(weight: Tensor, output: Tensor, qtype: int) -> None:
    pass


def _expand_rows_of(weight: Tensor, output: Tensor, qtype: int, output_size: int, row_start: int) -> None:
    pass


def _attention_v4(time_decay: Tensor, time_first: Tensor, key: Tensor, value: Tensor, *states: Tensor) -> Tensor:
    return key.new_empty(key.shape)


def _attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor
) -> Tensor:
    batches, heads, steps, size = key.shape
    return key.new_empty(batches, steps, heads, size)


def _time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
    return hidden.new_empty(mix.size(0), *hidden.shape)


def _mlp_forward(
    input: Tensor,
    weight1: Tensor,
    weight2: Tensor,
    batch_size: int,
    state_size: int,
    output_size: int,
    act_type: int,
    qtype: int,
) -> Tensor:
    return input.new_empty(batch_size, output_size)


_FAKES: Mapping[str, Mapping[str, Callable[..., Any]]] = {
    "quillon": {
        "forward_new": _forward_new,
        "dequant": _dequant,
        "dequantize_rows": _dequantize_rows,
        "mlp_forward_xpu": _mlp_forward,
        "rwkv_linear_attention_v4": _attention_v4,
        "rwkv_linear_attention_v5": _attention_v5,
        "rwkv_time_shift": _time_shift,
    },
    "quillon_kernels": {
        "rwkv_linear_attention_v4": _attention_v4,
        "rwkv_linear_attention_v5": _attention_v5,
        "expand_weight": _expand_weight,
        "expand_weight_fast": _expand_weight,
        "expand_rows_of": _expand_rows_of,
    },
}
"""By library, every operator that takes tensors."""


def _traced(name: str) -> Callable[..., Tensor]:
    """What a graph calls in place of a function of the module."""

    def call(*arguments: Any) -> Tensor:
        result: Tensor = getattr(torch.ops.quillon, name)(*arguments)
        return result

    return call


def _functional_rule(name: str) -> Callable[..., Any]:
    """What becomes of an operator whose schema does not say what it writes to: its namesake, whose schema does."""

    def call(mode: FunctionalTensorMode, *arguments: Any, **named: Any) -> Any:
        with mode:
            return getattr(torch.ops.quillon_kernels, name)(*arguments, **named)

    return call


def _class_of_device(device: torch.device) -> str:
    return vesper_linear.get_xpu_device_name(device)


def _traced_device_name(device: torch.device) -> str:
    return _class_of_device(device)


@functools.cache
def register() -> None:
    """Register all of it. Called by ``import quillon``."""
    # Not by register_fake, which gives an operator a kernel for the key Meta beside the fake: XPU is the only key.
    for library, fakes in _FAKES.items():
        for name, fake in fakes.items():
            entry = torch._library.simple_registry.singleton.find(f"{library}::{name}")
            entry.fake_impl.kernels.append(torch._library.utils.Kernel(fake, source=__file__))
    for name in _FAKES["quillon"].keys() & _FAKES["quillon_kernels"].keys():
        getattr(torch.ops.quillon, name).default.py_impl(FunctionalTensorMode)(_functional_rule(name))
    # The dynamo takes seconds to import, and few programs want it.
    patch_after_import("torch._dynamo", _substitute)


def _substitute(_dynamo: Any) -> None:
    traced = {name: _traced(name) for name in _FAKES["quillon"]} | {"get_xpu_device_name": _traced_device_name}
    for name, function in traced.items():
        torch.compiler.substitute_in_graph(getattr(vesper_linear, name), skip_signature_check=True)(function)
    # What a cache is around, because the dynamo looks through it.
    for constant in (nn._rows_at_once.__wrapped__, nn._mlp_is_served, _class_of_device):
        torch.compiler.assume_constant_result(constant)  # type: ignore[no-untyped-call]
