"""Tensors for the RWKV operators, and calls of them."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import torch

import vesper_linear

from .naive import HALF, Array

TYPES = {"float32": torch.float32, "float16": torch.float16}
ROUNDOFF = {"float32": 0.0, "float16": HALF}
BACKINGS = ("vectors", "items")
DEVICE = torch.device("xpu", 7)


def to_device(x: Array, device: torch.device = DEVICE) -> torch.Tensor:
    """A copy on the device."""
    return torch.from_numpy(np.ascontiguousarray(x)).to(device, copy=True)


def to_host(x: torch.Tensor) -> Array:
    return x.cpu().numpy()


def states_v4(batches: int, channels: int, rng: np.random.Generator | None = None) -> tuple[Array, Array, Array]:
    """The states of nothing read so far, or, with a generator, of some past."""
    shape = (batches, channels)
    if rng is None:
        empty = np.zeros(shape, np.float32)
        return empty, empty.copy(), np.full(shape, -1e38, np.float32)
    den = rng.uniform(0.5, 4, shape)
    num, top = den * rng.uniform(-1, 1, shape), rng.uniform(-3, 3, shape)
    return num.astype(np.float32), den.astype(np.float32), top.astype(np.float32)


def inputs_v4(shape: tuple[int, int, int], dtype: str, seed: int) -> tuple[Array, Array, Array, Array]:
    """Decay, bonus, keys and values."""
    rng = np.random.default_rng(seed)
    channels = shape[2]
    made = (
        -rng.uniform(0.01, 2, channels),
        rng.uniform(-2, 2, channels),
        3 * rng.standard_normal(shape),
        rng.standard_normal(shape),
    )
    return tuple(one.astype(dtype) for one in made)  # type: ignore[return-value]


def run_v4(inputs: Sequence[Array], states: Sequence[Array]) -> tuple[Array, tuple[Array, ...]]:
    """Output and states of one call."""
    given = [to_device(one) for one in (*inputs, *states)]
    output = vesper_linear.rwkv_linear_attention_v4(*given)
    assert output.dtype == given[2].dtype
    assert output.device == DEVICE
    assert output.shape == given[2].shape
    assert all(same_bits(to_host(one), before) for one, before in zip(given, inputs, strict=False))
    return to_host(output), tuple(to_host(one) for one in given[4:])


def inputs_v5(batches: int, heads: int, steps: int, seed: int) -> tuple[Array, ...]:
    """Decay, bonus, receptance, keys and values."""
    rng = np.random.default_rng(seed)
    made = (
        rng.uniform(0.3, 0.999, (heads, 64)),
        rng.uniform(-1, 1, (heads, 64)),
        *rng.standard_normal((3, batches, heads, steps, 64)),
    )
    return tuple(one.astype(np.float32) for one in made)


def state_v5(batches: int, heads: int, seed: int) -> Array:
    return np.random.default_rng(seed).standard_normal((batches, heads, 64, 64)).astype(np.float32)


def run_v5(inputs: Sequence[Array], state: Array) -> tuple[Array, Array]:
    """Output and state of one call."""
    given = [to_device(one) for one in (*inputs, state)]
    output = vesper_linear.rwkv_linear_attention_v5(*given)
    batches, heads, steps, size = inputs[2].shape
    assert output.dtype == torch.float32
    assert output.shape == (batches, steps, heads, size)
    assert output.is_contiguous()
    return to_host(output), to_host(given[5])


def same_bits(a: Array, b: Array) -> bool:
    return a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()
