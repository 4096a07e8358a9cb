"""The steps of RWKV v4 and v5 models on an XPU, over a whole sequence in one launch.

The operators behind these functions take shapes from one tensor and read the others as they come. Here shapes, element
types and strides are compared first.
"""

from __future__ import annotations

import torch
from torch import Tensor

__all__ = [
    "rwkv_attention_v4",
    "rwkv_attention_v5",
    "rwkv_state_v4",
    "rwkv_state_v5",
    "rwkv_time_shift",
]

_TYPES = (torch.float32, torch.float16)
_HEAD_SIZE = 64


def _check(name: str, given: Tensor, shape: tuple[int, ...], dtype: torch.dtype, device: torch.device) -> None:
    if given.shape != shape or given.dtype != dtype or given.device != device:
        raise ValueError(
            f"{name} must be {dtype} of shape {shape} on {device}, "
            f"got {given.dtype} of shape {tuple(given.shape)} on {given.device}"
        )


def _check_state(name: str, given: Tensor, shape: tuple[int, ...], device: torch.device) -> None:
    _check(name, given, shape, torch.float32, device)
    if not given.is_contiguous():
        raise ValueError(f"{name} is written to in place and must be contiguous, got strides {given.stride()}")


def _check_leading(name: str, given: Tensor, dimensions: str, multiple: int, types: tuple[torch.dtype, ...]) -> None:
    if given.device.type != "xpu":
        raise ValueError(f"{name} must be on an XPU, got device {given.device}")
    if given.dim() != dimensions.count(",") + 1 or given.shape[-1] % multiple or given.dtype not in types:
        allowed = " or ".join(map(str, types))
        raise ValueError(
            f"{name} must be {allowed} of shape ({dimensions}), the last a multiple of {multiple}, "
            f"got {given.dtype} of shape {tuple(given.shape)}"
        )


def rwkv_state_v4(batches: int, channels: int, device: torch.device | str = "xpu") -> tuple[Tensor, Tensor, Tensor]:
    """The three states of :func:`rwkv_attention_v4` before the first token, each float32 (batches, channels)."""
    num, den = torch.zeros(2, batches, channels, device=device)
    return num, den, torch.full((batches, channels), -1e38, device=device)


def rwkv_attention_v4(
    time_decay: Tensor,
    time_first: Tensor,
    key: Tensor,
    value: Tensor,
    num_state: Tensor,
    den_state: Tensor,
    max_state: Tensor,
) -> Tensor:
    """Attention of RWKV v4 over a sequence, (B, T, C), of float32 or float16; C is a multiple of 32.

    time_decay  (C,), what is added to an exponent at each step: the negative exp of the model's parameter
    time_first  (C,), bonus of the current token
    key, value  (B, T, C)
    num_state, den_state, max_state  float32 (B, C), as :func:`rwkv_state_v4` makes them; updated in place

    There is no derivative.
    """
    _check_leading("key", key, "B, T, C", 32, _TYPES)
    batches, _, channels = key.shape
    _check("value", value, tuple(key.shape), key.dtype, key.device)
    for name, given in (("time_decay", time_decay), ("time_first", time_first)):
        _check(name, given, (channels,), key.dtype, key.device)
    for name, given in (("num_state", num_state), ("den_state", den_state), ("max_state", max_state)):
        _check_state(name, given, (batches, channels), key.device)
    operator = torch.ops.quillon_kernels.rwkv_linear_attention_v4
    result: Tensor = operator(
        time_decay.contiguous(),
        time_first.contiguous(),
        key.contiguous(),
        value.contiguous(),
        num_state,
        den_state,
        max_state,
    )
    return result


def rwkv_state_v5(batches: int, heads: int, device: torch.device | str = "xpu") -> Tensor:
    """The state of :func:`rwkv_attention_v5` before the first token, float32 (batches, heads, 64, 64)."""
    return torch.zeros(batches, heads, _HEAD_SIZE, _HEAD_SIZE, device=device)


def rwkv_attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor
) -> Tensor:
    """Attention of RWKV v5 over a sequence, in float32 and with heads of 64 channels. Returns (B, T, H, 64).

    time_decay, time_first   (H, 64): multiplied onto the state's rows at each step, and the bonus of the current token
    receptance, key, value   (B, H, T, 64); views of (B, T, H, 64) are read as they are
    state                    (B, H, 64, 64), as :func:`rwkv_state_v5` makes it; updated in place

    There is no derivative.
    """
    _check_leading("key", key, "B, H, T, 64", _HEAD_SIZE, (torch.float32,))
    batches, heads = key.shape[:2]
    shape = (*key.shape[:3], _HEAD_SIZE)
    for name, given in (("key", key), ("receptance", receptance), ("value", value)):
        _check(name, given, shape, torch.float32, key.device)
    for name, given in (("time_decay", time_decay), ("time_first", time_first)):
        _check(name, given, (heads, _HEAD_SIZE), torch.float32, key.device)
    _check_state("state", state, (batches, heads, _HEAD_SIZE, _HEAD_SIZE), key.device)
    if key.stride(-1) != 1 or not key.stride() == receptance.stride() == value.stride():
        receptance, key, value = receptance.contiguous(), key.contiguous(), value.contiguous()
    operator = torch.ops.quillon_kernels.rwkv_linear_attention_v5
    result: Tensor = operator(time_decay.contiguous(), time_first.contiguous(), receptance, key, value, state)
    return result


def rwkv_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
    """``shifted + mix[m] * (hidden - shifted)`` for each of M mixes: (M, B, S, C). C is a multiple of 64.

    hidden, shifted  (B, S, C), float32 or float16; `shifted` has the row before each row of `hidden`
    mix              (M, C)

    There is no derivative.
    """
    _check_leading("hidden", hidden, "B, S, C", 64, _TYPES)
    _check("shifted", shifted, tuple(hidden.shape), hidden.dtype, hidden.device)
    _check("mix", mix, (mix.shape[0] if mix.dim() else 0, hidden.shape[-1]), hidden.dtype, hidden.device)
    operator = torch.ops.quillon.rwkv_time_shift
    result: Tensor = operator(hidden.contiguous(), shifted.contiguous(), mix.contiguous())
    return result
