"""The q8_1 quantizer and the kernels of iq2_xxs, q2_k and iq1_s, in numpy, operation by operation."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from formats.decoders import (
    Array,
    Fields,
    codes_q2_k,
    indices_iq1_s,
    indices_iq2_xxs,
    sign_indices_iq2_xxs,
)
from formats.grid_reference import iq1s_rows, iq2xxs_rows

from .reference import Rounded
from .super_block_reference import tree

ONE_127TH = np.uint32(0x3C010204).view(np.float32)
LANES = 32


@dataclass(frozen=True)
class Blocks:
    """The q8_1 blocks of a row."""

    d: Array  # float16
    s: Array  # float16
    qs: Array  # int8, (blocks, 32)


def round_half_away(x: Array) -> Array:
    return np.trunc(x + np.copysign(np.asarray(0.5, np.float64), x.astype(np.float64)))


def quantize(x: Array, dtype: str) -> Blocks:
    """Blocks of a row of `dtype`; bfloat16 values come as float32. The sums are rounded once, from exact ones."""
    with np.errstate(over="ignore", under="ignore", invalid="ignore", divide="ignore"):
        single = x.astype(np.float32).reshape(-1, 32)
        d = np.abs(single).max(axis=1) * ONE_127TH
        source = x.astype(np.float64).reshape(-1, 32) if dtype == "float64" else single
        quotient = (source / d[:, None].astype(source.dtype)).astype(np.float32)
        quants = np.where(d[:, None] == 0, 0, round_half_away(np.nan_to_num(quotient)))
        sums = single.astype(np.float64).sum(axis=1).astype(np.float32).astype(np.float16)
        return Blocks(d.astype(np.float16), sums, quants.astype(np.int8))


def _single(x: Array) -> Array:
    return x.astype(np.float32)


def _dot_iq2_xxs(fields: Fields, blocks: Blocks, rows: int) -> Array:
    """Slices of all super-blocks: shape (rows, super-blocks, 8)."""
    index = sign_indices_iq2_xxs(fields)
    bits = (index[..., None] >> np.arange(7, dtype=np.uint32)) & 1
    negative = np.concatenate([bits, bits.sum(axis=-1, keepdims=True) & 1], axis=-1)
    codes = iq2xxs_rows()[indices_iq2_xxs(fields)].astype(np.int64) * (1 - 2 * negative.astype(np.int64))
    scale = np.ascontiguousarray(fields["qs"].reshape(-1, 8, 8)[:, :, 4:]).view("<u4")[:, :, 0] >> 28
    quants = blocks.qs.reshape(1, -1, 8, 32).astype(np.int64)
    total = (codes.reshape(rows, -1, 8, 32) * quants).sum(axis=-1)
    factor = (_single(scale) + np.float32(0.5)) * _single(fields["d"])
    d8 = _single(blocks.d).reshape(1, -1, 8)
    return ((factor.reshape(rows, -1, 8) * d8) * np.float32(0.25)) * _single(total)


def _dot_iq1_s(fields: Fields, blocks: Blocks, rows: int) -> Array:
    qh = fields["qh"]
    codes = iq1s_rows()[indices_iq1_s(fields)].astype(np.int64)
    total = (codes.reshape(rows, -1, 8, 32) * blocks.qs.reshape(1, -1, 8, 32).astype(np.int64)).sum(axis=-1)
    delta = np.where(qh & 0x8000, np.float32(-1.125), np.float32(-0.875)).reshape(rows, -1, 8)
    d1 = (_single(fields["d"]) * _single(2 * ((qh >> 12) & 7) + 1)).reshape(rows, -1, 8)
    d8, s8 = (_single(part).reshape(1, -1, 8) for part in (blocks.d, blocks.s))
    return (d1 * d8) * _single(total) + (d1 * s8) * delta


def _dot_q2_k(fields: Fields, blocks: Blocks, rows: int) -> Array:
    """Shape (rows, super-blocks, 16): slice 8n + v holds elements 128n + 32i + 4v + b for i, b below 4."""

    def sliced(x: Array) -> Array:  # (blocks, 256) to (blocks, 16 slices, i, b)
        return x.reshape(-1, 2, 4, 8, 4).transpose(0, 1, 3, 2, 4).reshape(-1, 16, 4, 4)

    codes = sliced(codes_q2_k(fields)).reshape(rows, -1, 16, 4, 4).astype(np.int64)
    quants = sliced(blocks.qs.reshape(-1, 256)).astype(np.int64)[None]
    scales = sliced(np.repeat(fields["scales"], 16, axis=1))[..., 0].reshape(rows, -1, 16, 4).astype(np.int64)
    d8 = sliced(np.repeat(_single(blocks.d).reshape(-1, 8), 32, axis=1))[..., 0][None]
    of_codes = _single((codes * quants).sum(axis=-1) * (scales & 15)) * d8
    of_minima = _single((scales >> 4) * quants.sum(axis=-1)) * d8
    sumd, summ = (((part[..., 0] + part[..., 1]) + part[..., 2]) + part[..., 3] for part in (of_codes, of_minima))
    d, dmin = (_single(fields[name]).reshape(rows, -1, 1) for name in ("d", "dmin"))
    return d * sumd - dmin * summ


_DOTS: dict[str, Callable[[Fields, Blocks, int], Array]] = {
    "iq2_xxs": _dot_iq2_xxs,
    "iq1_s": _dot_iq1_s,
    "q2_k": _dot_q2_k,
}


def lane_sums(name: str, fields: Fields, blocks: Blocks) -> Array:
    """What each of a row's 32 work-items adds up, in float: shape (rows, 32)."""
    rows = len(fields["d"]) * 8 // len(blocks.d)
    slices = _DOTS[name](fields, blocks, rows)
    assert slices.dtype == np.float32
    at_once = LANES // slices.shape[2]
    sums = np.zeros((rows, at_once, slices.shape[2]), np.float32)
    for first in range(0, slices.shape[1], at_once):
        part = slices[:, first : first + at_once]
        sums[:, : part.shape[1]] = sums[:, : part.shape[1]] + part
    return sums.reshape(rows, LANES)


def multiply(name: str, fields: Fields, blocks: Blocks, dtype: str) -> Array:
    """The bits of iq2_xxs and q2_k. Not for iq1_s, whose last sum is in an order of the device's own."""
    assert name != "iq1_s"
    return tree(Rounded.of(dtype, lane_sums(name, fields, blocks))).x.astype(np.float64)
