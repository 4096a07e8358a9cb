"""Packed weights for the tests, and the comparison of raw values."""

from __future__ import annotations

import numpy as np
from numpy.typing import NDArray

from .decoders import FORMATS, Array, Fields, Format, pack, split

# Blocks that make every code at every place likely beyond doubt (the coverage test asserts it).
BLOCKS = {32: 8192, 64: 8192, 256: 4096}


def any_bytes(entry: Format, blocks: int, seed: int) -> NDArray[np.uint8]:
    """Random bytes throughout: scales take any pattern, infinities and NaNs among them."""
    return np.random.default_rng(seed).integers(0, 256, blocks * entry.bytes, np.uint8)


def plain_scales(entry: Format, blocks: int, seed: int) -> NDArray[np.uint8]:
    """Random bytes, with scales and minima of both signs between 2^-6 and 4."""
    rng = np.random.default_rng(seed)
    fields: Fields = split(entry, any_bytes(entry, blocks, seed))
    for name in ("d", "m", "dmin"):
        if name in fields:
            values = np.exp2(rng.uniform(-6, 2, (blocks, 1))) * rng.choice([-1.0, 1.0], (blocks, 1))
            fields[name] = values.astype(fields[name].dtype)
    return pack(entry, fields)


def sample(format_name: str, kind: str) -> NDArray[np.uint8]:
    """The weight that most tests of a format use; `kind` is "any bytes" or "plain scales"."""
    entry = FORMATS[format_name]
    make = {"any bytes": any_bytes, "plain scales": plain_scales}[kind]
    return make(entry, BLOCKS[entry.elements], entry.qtype)


def same(a: Array, b: Array, dtype: str, exact_nan: bool = False) -> bool:
    """Whether raw values agree bit for bit.

    A NaN of an arithmetic operation has no defined bits, except in bfloat16, so any two NaNs agree there
    unless `exact_nan` is set.
    """
    if a.shape != b.shape or a.dtype != b.dtype:
        return False
    width = {4: np.uint32, 8: np.uint64, 2: np.uint16}[a.dtype.itemsize]
    equal = a.view(width) == b.view(width)
    if dtype == "bfloat16" or exact_nan:
        return bool(equal.all())
    floats = [x.view(np.float16) if dtype == "float16" else x for x in (a, b)]
    return bool((equal | (np.isnan(floats[0]) & np.isnan(floats[1]))).all())
