"""Weights and activations for the kernels, the call, and the two comparisons."""

from __future__ import annotations

import numpy as np
import torch
from formats.decoders import FORMATS, Array, Fields, bfloat16_round, pack, split

import vesper_linear
from quillon._device_table import DEVICE_CLASSES as CLASSES  # in the order of the session's host devices
from quillon._kernels import KERNELS as KERNELS_OF_PRODUCT

from .reference import BLOCK, KERNELS, Rounded, Tracked, multiply

DTYPES = ("float32", "float64", "float16", "bfloat16")
TORCH = {name: getattr(torch, name) for name in DTYPES}

# Work-group sizes of the launcher tables, by device class.
WG_SIZE = {name: KERNELS_OF_PRODUCT["q4_0"].geometry(name).lanes for name in CLASSES}

# Bits of a significand, the hidden one included.
PRECISION = {"float32": 24, "float64": 53, "float16": 11, "bfloat16": 8}


def device_of(device_class: str) -> torch.device:
    return torch.device("xpu", CLASSES.index(device_class))


def as_dtype(x: Array, dtype: str) -> Array:
    """Round to an element type; bfloat16 values stay in float32."""
    return bfloat16_round(x.astype(np.float32)) if dtype == "bfloat16" else x.astype(dtype)


# ---- data --------------------------------------------------------------------------------------------------


def random_weight(format_name: str, blocks: int, seed: int) -> Array:
    """Random codes, with scales and minima of both signs within a factor of eight; fp8_e5m2 without its ends."""
    entry, rng = FORMATS[format_name], np.random.default_rng(seed)
    fields = split(entry, rng.integers(0, 256, blocks * entry.bytes, np.uint8))
    for name in ("d", "m"):
        if name in fields:
            sizes = np.exp2(rng.uniform(-3, 0, (blocks, 1))) * rng.choice([-1.0, 1.0], (blocks, 1))
            fields[name] = sizes.astype(fields[name].dtype)
    if format_name == "fp8_e5m2":
        exponents = rng.integers(10, 18, fields["qs"].shape, np.uint8)
        fields["qs"] = (fields["qs"] & 0x83) | (exponents << 2)
    return pack(entry, fields)


def random_activations(k: int, dtype: str, seed: int) -> Array:
    return as_dtype(np.random.default_rng(seed).uniform(-1, 1, k), dtype)


# Codes whose values are small multiples of one unit, so that sums of many stay exact in eight bits. The bytes of the
# nibble formats are made of two of them; q5 takes them as the bits of its low nibbles.
_SMALL = {
    "q4_0": (6, 7, 8, 9, 10),
    "q4_0_woq": (6, 7, 8, 9, 10),
    "q4_1": (0, 1, 2, 3),
    "q5_0": (0, 1, 14, 15),
    "q5_1": (0, 1, 2, 3),
    "nf4": (0, 7, 15),
    "fp4": (1, 2, 3, 9, 10, 11),
    "q8_0": (253, 254, 255, 0, 1, 2, 3),
    "fp8_e4m3": (0x38, 0x3B, 0x3F, 0xB8, 0xBB, 0xBF),
    "fp8_e5m2": (0x3C, 0x3F, 0xBC, 0xBF),
}


def exact_weight(format_name: str, blocks: int, seed: int) -> Array:
    """A weight of small multiples of one unit, with scales and minima of plus or minus a quarter."""
    entry, rng = FORMATS[format_name], np.random.default_rng(seed)
    fields = split(entry, rng.integers(0, 256, blocks * entry.bytes, np.uint8))
    if format_name == "nf3":  # codes 0, 3 and 7: -1, 0 and 1
        codes = rng.choice([0, 3, 7], (blocks, BLOCK))
        low = (codes & 3).reshape(blocks, 16, 4)
        fields["qs"] = (low << np.array([6, 4, 2, 0])).sum(axis=2).astype(np.uint8)
        fields["qh"] = np.packbits((codes >> 2).astype(np.uint8), axis=1, bitorder="little")
    elif format_name == "fp6":  # the exponents 4 and 5: top bit set, second bit clear
        fields["ql"] &= 0x77
        fields["qh"] |= 0x55
    else:
        shape, small = fields["qs"].shape, _SMALL[format_name]
        bytes_ = rng.choice(small, shape)
        if entry.bytes < 64:  # two codes in a byte
            bytes_ = bytes_ + 16 * rng.choice(small, shape)
        fields["qs"] = bytes_.astype(np.uint8).view(fields["qs"].dtype)
        if format_name == "q5_0":  # nibbles 0 and 1 are 0 and 1 with the fifth bit, 14 and 15 are -2 and -1 without
            nibbles = np.concatenate([fields["qs"] & 15, fields["qs"] >> 4], axis=1)
            fields["qh"] = np.packbits((nibbles < 8).astype(np.uint8), axis=1, bitorder="little")
        if format_name == "q5_1":
            fields["qh"] &= rng.integers(0, 256, fields["qh"].shape, np.uint8) & 0x11
    for name in ("d", "m"):
        if name in fields:
            fields[name] = rng.choice([-0.25, 0.25], (blocks, 1)).astype(fields[name].dtype)
    return pack(entry, fields)


def exact_activations(format_name: str, fields: Fields, k: int, dtype: str, seed: int) -> Array:
    """-1, 0 and 1, as many of them other than 0 as keep sums exact in the element type."""
    rng = np.random.default_rng(seed)
    values = KERNELS[format_name].values(fields).astype(np.float64)
    if KERNELS[format_name].minimum:
        values = np.abs(values) + 1
    unit = 2.0 ** np.floor(np.log2(np.min(np.abs(values[values != 0])))) / 16
    rms = np.sqrt(np.mean(values**2))
    while np.all(values % (2 * unit) == 0):
        unit *= 2
    limit = 2.0 ** PRECISION[dtype] * unit / (5 * rms)
    count = int(min(k, max(1, limit**2)))
    x = np.zeros(k)
    x[rng.choice(k, count, replace=False)] = rng.choice([-1.0, 1.0], count)
    return as_dtype(x, dtype)


# ---- calls -------------------------------------------------------------------------------------------------


def to_device(x: Array, dtype: str, device: torch.device) -> torch.Tensor:
    return torch.from_numpy(np.ascontiguousarray(x)).to(TORCH[dtype]).reshape(1, -1).to(device)


def run(format_name: str, weight: Array, x: Array, dtype: str, device: torch.device) -> Array:
    """Call the operator; the result as float64, in which every element type is exact."""
    entry = FORMATS[format_name]
    row, packed = to_device(x, dtype, device), torch.from_numpy(weight).to(device)
    out = vesper_linear.forward_new(row, packed, entry.qtype, 0)
    assert out.dtype == TORCH[dtype]
    assert out.device == device
    assert out.shape == (1, weight.size // entry.bytes * entry.elements // len(x))
    return out.cpu().to(torch.float64).numpy()[0]


# ---- comparisons -------------------------------------------------------------------------------------------


def _rows(fields: Fields, k: int) -> int:
    return len(next(iter(fields.values()))) * BLOCK // k


def rounded(format_name: str, fields: Fields, x: Array, dtype: str, wg_size: int) -> Array:
    with np.errstate(over="ignore", invalid="ignore"):
        result = multiply(KERNELS[format_name], Rounded, dtype, fields, x, _rows(fields, len(x)), wg_size)
    return result.x.astype(np.float64)


def tracked(format_name: str, fields: Fields, x: Array, dtype: str, wg_size: int) -> Tracked:
    return multiply(KERNELS[format_name], Tracked, dtype, fields, x, _rows(fields, len(x)), wg_size)


def same_bits(a: Array, b: Array) -> bool:
    """Equal values and signs; a NaN equals a NaN."""
    return bool((((a == b) & (np.signbit(a) == np.signbit(b))) | (np.isnan(a) & np.isnan(b))).all())


def within(a: Array, reference: Tracked) -> bool:
    """Whether every value keeps to its bound. A NaN does not."""
    return bool((np.abs(a.astype(np.longdouble) - reference.x) <= reference.error).all())
