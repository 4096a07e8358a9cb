"""What FakeTensor and torch.compile have to know of the operators of torch.ops.quillon.

Shapes and element types of results, which operator a function of the module ``vesper_linear`` stands for, and what is
asked of the device while a graph is made.
"""

from __future__ import annotations

import functools
from typing import Any

import torch
from torch import Tensor

import vesper_linear
from quillon import nn
from quillon._patch_after_import import patch_after_import
from quillon.formats import get_format


def _forward_new(input: Tensor, weight: Tensor, qtype: int, input_size: int) -> Tensor:
    found = get_format(qtype)
    return input.new_empty(input.size(0), found.elements * (weight.size(0) // found.bytes) // input.size(1))


def _dequant(input: Tensor, weight: Tensor, qtype: int) -> Tensor:
    found = get_format(qtype)
    columns = input.size(1)
    return input.new_empty(found.elements * (weight.size(0) // found.bytes) // columns, columns)


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


_FAKES = (
    ("quillon::forward_new", _forward_new),
    ("quillon::dequant", _dequant),
    ("quillon::dequantize_rows", _dequantize_rows),
    ("quillon::mlp_forward_xpu", _mlp_forward),
    ("quillon::rwkv_linear_attention_v4", _attention_v4),
    ("quillon::rwkv_linear_attention_v5", _attention_v5),
    ("quillon::rwkv_time_shift", _time_shift),
    ("quillon_kernels::rwkv_linear_attention_v4", _attention_v4),
    ("quillon_kernels::rwkv_linear_attention_v5", _attention_v5),
    ("quillon_kernels::expand_weight", _expand_weight),
    ("quillon_kernels::expand_rows_of", _expand_rows_of),
)


def _traced_forward_new(input: Tensor, weight: Tensor, qtype: int, n: int) -> Tensor:
    result: Tensor = torch.ops.quillon.forward_new(input, weight, qtype, n)
    return result


def _traced_dequant(input: Tensor, weight: Tensor, qtype: int) -> Tensor:
    result: Tensor = torch.ops.quillon.dequant(input, weight, qtype)
    return result


def _traced_dequantize_rows(input: Tensor, weight: Tensor, qtype: int, state_size: int, output_size: int) -> Tensor:
    result: Tensor = torch.ops.quillon.dequantize_rows(input, weight, qtype, state_size, output_size)
    return result


def _traced_mlp_forward(
    input: Tensor, weight1: Tensor, weight2: Tensor, batch: int, state: int, output: int, act_type: int, qtype: int
) -> Tensor:
    operator = torch.ops.quillon.mlp_forward_xpu
    result: Tensor = operator(input, weight1, weight2, batch, state, output, act_type, qtype)
    return result


# In graphs the operators of RWKV are those whose schemas say what they write to.


def _traced_attention_v4(
    time_decay: Tensor, time_first: Tensor, key: Tensor, value: Tensor, num: Tensor, den: Tensor, top: Tensor
) -> Tensor:
    operator = torch.ops.quillon_kernels.rwkv_linear_attention_v4
    result: Tensor = operator(time_decay, time_first, key, value, num, den, top)
    return result


def _traced_attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor
) -> Tensor:
    operator = torch.ops.quillon_kernels.rwkv_linear_attention_v5
    result: Tensor = operator(time_decay, time_first, receptance, key, value, state)
    return result


def _traced_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
    result: Tensor = torch.ops.quillon.rwkv_time_shift(hidden, shifted, mix)
    return result


def _class_of_device(device: torch.device) -> str:
    return vesper_linear.get_xpu_device_name(device)


def _traced_device_name(device: torch.device) -> str:
    return _class_of_device(device)


@functools.cache
def register() -> None:
    """Register all of it. Called by ``import quillon``."""
    # Not by register_fake, which gives an operator a kernel for the key Meta beside the fake: XPU is the only key.
    for name, fake in _FAKES:
        entry = torch._library.simple_registry.singleton.find(name)
        entry.fake_impl.kernels.append(torch._library.utils.Kernel(fake, source=__file__))
    # The dynamo takes seconds to import, and few programs want it.
    patch_after_import("torch._dynamo", _substitute)


def _substitute(_dynamo: Any) -> None:
    for function, traced in (
        (vesper_linear.forward_new, _traced_forward_new),
        (vesper_linear.dequant, _traced_dequant),
        (vesper_linear.dequantize_rows, _traced_dequantize_rows),
        (vesper_linear.mlp_forward_xpu, _traced_mlp_forward),
        (vesper_linear.rwkv_linear_attention_v4, _traced_attention_v4),
        (vesper_linear.rwkv_linear_attention_v5, _traced_attention_v5),
        (vesper_linear.rwkv_time_shift, _traced_time_shift),
        (vesper_linear.get_xpu_device_name, _traced_device_name),
    ):
        torch.compiler.substitute_in_graph(function, skip_signature_check=True)(traced)
    # What a cache is around, because the dynamo looks through it.
    for constant in (nn._rows_at_once.__wrapped__, nn._mlp_is_served, _class_of_device):
        torch.compiler.assume_constant_result(constant)  # type: ignore[no-untyped-call]
