"""Weights for the fused MLP, the call, and what has to come out.

The sums over the rows of both weights are those of a product with one weight, in the same order, so that `forward_new`
gives their bits: it has tests of its own. Only fp8_e5m2 differs, whose scales `forward_new` leaves out. What the
activation makes of the sums is computed here in float64, and compared within what its own few operations can round.
"""

from __future__ import annotations

from functools import cache

import numpy as np
import torch
from formats.decoders import FORMATS, Array, pack, split, values_fp8_e5m2
from matvec.harness import DTYPES, TORCH, device_of, random_activations, random_weight
from matvec.reference import Kernel, Rounded, Tracked, multiply

import vesper_linear
from quillon._device_table import DEVICE_CLASSES as CLASSES
from quillon._kernels import MLP_KERNELS

__all__ = ["CLASSES", "DTYPES", "TORCH", "device_of"]

NAMES = tuple(MLP_KERNELS)
SILU, GELU = 0, 1

# One of each launcher table.
CLASS_OF_TABLE = ("elm", "legacy", "unknown")

# Unit roundoff of what is stored, beside the float in which the activation is computed.
STORED = {"float32": 0.0, "float64": 0.0, "float16": 2.0**-11, "bfloat16": 2.0**-8}

SCALED_FP8 = Kernel("fp8_e5m2", "fp8_e5m2", lambda f: values_fp8_e5m2(f["qs"]), "neighbours", 8, 8)


def classes_of(name: str) -> list[str]:
    """One class of each launcher table that has the format."""
    return [one for one in CLASS_OF_TABLE if MLP_KERNELS[name].runs_on(one)]


def code_of(name: str) -> int:
    return FORMATS[name].qtype


def elements_of(name: str) -> int:
    return FORMATS[name].elements


@cache
def weight_of(name: str, rows: int, k: int, seed: int) -> Array:
    """A random weight whose sums with activations below 1 are of the size that matters to the activations: around 1."""
    if name == "iq2_xxs":
        entry, rng = FORMATS[name], np.random.default_rng(seed)
        weight = rng.integers(0, 256, rows * k // 256 * entry.bytes, np.uint8).reshape(-1, entry.bytes)
        scale = (rng.uniform(0.5, 1, len(weight)) * rng.choice([-1, 1], len(weight)) / (60 * k**0.5)).astype(np.float16)
        weight[:, :2] = scale[:, None].view(np.uint8)
        return weight.reshape(-1)
    weight = random_weight(name, rows * k // 64, seed)
    entry = FORMATS[name]
    fields = split(entry, weight.copy())
    size = {"fp8_e5m2": 6.0, "fp6": 0.004, "fp4": 2.0}.get(name, 3.0)
    fields["d"][:] = (fields["d"].astype(np.float64) / (size * k**0.5)).astype(fields["d"].dtype)
    return pack(entry, fields)


def activations_of(k: int, dtype: str, seed: int = 7) -> Array:
    return random_activations(k, dtype, seed)


def to_device(x: Array, dtype: str, device: torch.device) -> torch.Tensor:
    return torch.from_numpy(np.ascontiguousarray(x)).to(TORCH[dtype]).reshape(1, -1).to(device)


def call(
    name: str, x: torch.Tensor, weights: tuple[torch.Tensor, torch.Tensor], rows: int, k: int, act: int = SILU
) -> torch.Tensor:
    return vesper_linear.mlp_forward_xpu(x, *weights, 1, k, rows, act, code_of(name))


def on_device(
    name: str, rows: int, k: int, dtype: str, device: torch.device
) -> tuple[torch.Tensor, tuple[torch.Tensor, torch.Tensor]]:
    """Activations, gate and up projection."""
    gate, up = (torch.from_numpy(weight_of(name, rows, k, seed)).to(device) for seed in (1, 2))
    return to_device(activations_of(k, dtype), dtype, device), (gate, up)


def sums_of(name: str, x: torch.Tensor, weights: tuple[torch.Tensor, torch.Tensor]) -> tuple[Array, Array]:
    """The sums over the rows of gate and up, as `forward_new` has them, in float64."""
    assert name != "fp8_e5m2"
    gate, up = (vesper_linear.forward_new(x, weight, code_of(name), 0) for weight in weights)
    return gate.cpu().double().numpy()[0], up.cpu().double().numpy()[0]


def rounded_sums_fp8(k: int, rows: int, dtype: str, wg_size: int) -> tuple[Array, Array]:
    """The same of fp8_e5m2 with its scales, where nothing is fused."""
    fields = (split(FORMATS["fp8_e5m2"], weight_of("fp8_e5m2", rows, k, seed)) for seed in (1, 2))
    x = activations_of(k, dtype)
    gate, up = (multiply(SCALED_FP8, Rounded, dtype, one, x, rows, wg_size) for one in fields)
    return gate.x.astype(np.float64), up.x.astype(np.float64)


def tracked_sums_fp8(k: int, rows: int, dtype: str, wg_size: int) -> tuple[Tracked, Tracked]:
    """Close to exact, with a bound of their roundings."""
    fields = (split(FORMATS["fp8_e5m2"], weight_of("fp8_e5m2", rows, k, seed)) for seed in (1, 2))
    x = activations_of(k, dtype)
    gate, up = (multiply(SCALED_FP8, Tracked, dtype, one, x, rows, wg_size) for one in fields)
    return gate, up


def wg_size(name: str, device_class: str) -> int:
    return MLP_KERNELS[name].geometry(device_class).lanes


def factor(g: Array, act: int) -> Array:
    """What u is multiplied by."""
    with np.errstate(over="ignore"):
        if act == SILU:
            return g / (np.exp(-g) + 1)
        c1, c2 = float(np.float32(0.7978845834732056)), float(np.float32(0.044714998453855515))
        return g * 0.5 * (np.tanh(g * c1 + g**3 * c2) + 1)


def expected(gate: Array, up: Array, dtype: str, act: int, form: str | None = None) -> tuple[Array, Array]:
    """The output for these sums, and how far a kernel may be from it: eight operations of float, and the stored type.

    `form` is the type whose form of the activation is taken, where that is not the sums'.
    """
    single = gate.astype(np.float32).astype(np.float64)
    u = up if (form or dtype) == "float64" else up.astype(np.float32).astype(np.float64)
    output = factor(single, act) * u
    error = 8 * 2.0**-24 * np.abs(single * u) + 1e-37
    narrow = {"float16": 2.0**-24, "bfloat16": 1e-38}.get(dtype, 0.0)
    return output, error + STORED[dtype] * (np.abs(output) + error) + narrow


def is_expected(given: torch.Tensor, gate: Array, up: Array, dtype: str, act: int, form: str | None = None) -> bool:
    output, error = expected(gate, up, dtype, act, form)
    return bool((np.abs(given.cpu().double().numpy()[0] - output) <= error).all())


def form_of(name: str) -> str | None:
    """The kernel of iq2_xxs narrows both sums to float, whatever the type."""
    return "float32" if name == "iq2_xxs" else None
