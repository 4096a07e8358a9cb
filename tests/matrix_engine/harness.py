"""Calls of the operator that go to a matrix engine, on host devices of the classes that have one."""

from __future__ import annotations

import numpy as np
import torch
from formats.decoders import FORMATS, Array
from matvec.harness import TORCH, as_dtype, device_of, random_weight

import vesper_linear

# By class: format, first and last batch. Written apart from the tables of the library.
BATCHES = {
    "elm": {"q4_0": (2, 16), "q8_0": (2, 16), "fp8_e4m3": (2, 16), "fp8_e5m2": (2, 16)},
    "oak": {"q4_0": (7, 64), "q8_0": (7, 64), "fp8_e4m3": (2, 64), "fp8_e5m2": (7, 64)},
}
NAMES = tuple(BATCHES["elm"])
TYPES = ("float32", "float16", "bfloat16")


def goes_to_engine(device_class: str, name: str, batch: int) -> bool:
    first, last = BATCHES[device_class][name]
    return first <= batch <= last


def activations(batch: int, k: int, dtype: str, seed: int = 0) -> Array:
    return as_dtype(np.random.default_rng((seed, batch, k)).uniform(-1, 1, (batch, k)), dtype)


def case(name: str, batch: int, n: int, k: int, dtype: str, seed: int = 0) -> tuple[Array, Array]:
    return random_weight(name, n * k // 64, seed + n + k), activations(batch, k, dtype, seed)


def run(name: str, weight: Array, x: Array, dtype: str, device_class: str) -> torch.Tensor:
    device = device_of(device_class)
    rows = torch.from_numpy(np.ascontiguousarray(x)).to(TORCH[dtype]).to(device)
    out = vesper_linear.forward_new(rows, torch.from_numpy(weight).to(device), FORMATS[name].qtype, 0)
    assert out.dtype == TORCH[dtype]
    assert out.device == device
    assert out.is_contiguous()
    return out


def as_float64(out: torch.Tensor) -> Array:
    return out.cpu().to(torch.float64).numpy()


def within(result: Array, interval: tuple[Array, Array]) -> bool:
    """Whether each value lies in its interval. A NaN does not."""
    low, high = interval
    return bool(((low <= result) & (result <= high)).all())
