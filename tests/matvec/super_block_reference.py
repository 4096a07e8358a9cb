"""What the matrix-vector kernels of q4_k, q5_k, q6_k and fp6_k have to compute, operation by operation.

The kinds of number are those of `reference`: `Rounded` gives the bits of a kernel that fuses nothing, `Tracked` a value
close to exact and a bound of the error that roundings can have made.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from formats.decoders import (
    Arithmetic,
    Array,
    Fields,
    codes_fp6_k,
    codes_q4_k,
    codes_q5_k,
    codes_q6_k,
    scales_q5_k,
    values_fp6,
)

from .reference import ROUNDOFF, Number, Rounded, Tracked

BLOCK = 256
CHUNK = 16
CHUNKS = BLOCK // CHUNK

# Formats whose kernels drop the chunks behind the last full round.
WITHOUT_TAIL = ("q4_k", "q6_k")

_CHUNK, _PLACE = np.mgrid[0:CHUNKS, 0:CHUNK]
# The element of a super-block at each place of a chunk's sum.
SPLIT = 32 * (_CHUNK // 2) + 8 * (_CHUNK % 2) + _PLACE // 2 + 16 * (_PLACE % 2)
NEIGHBOURS = 16 * _CHUNK + _PLACE
LANES = 16 * _CHUNK + _PLACE // 4 * 4 + np.array([2, 3, 0, 1])[_PLACE % 4]


def converted(number: Number, dtype: str) -> Number:
    """The same values as another element type; float32 lies between float64 and the 16-bit types."""
    if isinstance(number, Rounded):
        x = number.x.astype(np.float64) if dtype == "float64" else Arithmetic(dtype).cast(number.x)
        return Rounded(dtype, x)
    assert isinstance(number, Tracked)
    if ROUNDOFF[dtype] <= ROUNDOFF[number.dtype]:
        return Tracked(dtype, number.x, number.error)
    one = Tracked(dtype, np.ones_like(number.x), np.zeros_like(number.x))
    return Tracked(dtype, number.x, number.error) * one  # one rounding, underflow included


def left_to_right(terms: Number) -> Number:
    total = terms[..., 0]
    for i in range(1, terms.x.shape[-1]):
        total = total + terms[..., i]
    return total


def _chunked(values: Array, rows: int, places: Array) -> Array:
    """Values of (super-blocks, 256) as (rows, chunks of a row, 16)."""
    return values[:, places].reshape(rows, -1, CHUNK)


def _per_chunk(field: Array, rows: int) -> Array:
    """A field of (super-blocks, n), n dividing 16, as (rows, chunks of a row)."""
    return np.repeat(field, CHUNKS // field.shape[1], axis=1).reshape(rows, -1)


def _shares_q4_k(number: type[Number], dtype: str, fields: Fields, x: Array, rows: int) -> Number:
    def of(values: Array) -> Number:
        return number.of(dtype, values)

    activations = of(_chunked(x.reshape(-1, BLOCK), 1, SPLIT))
    total = left_to_right(of(_chunked(codes_q4_k(fields), rows, SPLIT)) * activations)
    scale, minimum = fields["scales"][:, 0::2], fields["scales"][:, 1::2].astype(np.int16)
    d1 = of(_per_chunk(fields["d"], rows)) * of(_per_chunk(scale, rows))
    minus_m1 = of(_per_chunk(fields["dmin"], rows)) * of(_per_chunk(-minimum, rows))
    return total * d1 + left_to_right(activations) * minus_m1


def _shares_q6_k(number: type[Number], dtype: str, fields: Fields, x: Array, rows: int) -> Number:
    values = codes_q6_k(fields).astype(np.int16) - 32
    terms = number.of(dtype, _chunked(values, rows, NEIGHBOURS)) * number.of(
        dtype, _chunked(x.reshape(-1, BLOCK), 1, NEIGHBOURS)
    )
    total = left_to_right(terms[..., 0:4])
    for step in range(1, 4):
        total = total + left_to_right(terms[..., 4 * step : 4 * step + 4])
    d, scale = _per_chunk(fields["d"], rows), _per_chunk(fields["scales"], rows)
    w = number.of("float32", d) * number.of("float32", scale)
    return converted(w * converted(total, "float32"), dtype)


def _shares_fp6_k(number: type[Number], dtype: str, fields: Fields, x: Array, rows: int) -> Number:
    values = values_fp6(codes_fp6_k(fields))
    total = left_to_right(
        number.of(dtype, _chunked(values, rows, LANES)) * number.of(dtype, _chunked(x.reshape(-1, BLOCK), 1, LANES))
    )
    d, scale = _per_chunk(fields["d"], rows), _per_chunk(fields["scales"], rows)
    return total * converted(number.of("float16", d) * number.of("float16", scale), dtype)


_SHARES: dict[str, Callable[..., object]] = {"q4_k": _shares_q4_k, "q6_k": _shares_q6_k, "fp6_k": _shares_fp6_k}


def tree(leaves: Number) -> Number:
    """Leaves of (rows, a power of two) to (rows,)."""
    while leaves.x.shape[1] > 1:
        stride = leaves.x.shape[1] // 2
        leaves = leaves[:, :stride] + leaves[:, stride:]
    return leaves[:, 0]


def _multiply_q5_k(number: type[Number], dtype: str, fields: Fields, x: Array, rows: int) -> Number:
    tid = np.arange(16)
    first = 4 * (tid % 4) + 2 * (tid // 4 % 2)
    pair = tid // 8
    k, h, j = np.mgrid[0:4, 0:2, 0:2]
    # The element at [tid, own sub-block, half of it, one of two neighbours].
    block = 2 * pair[:, None, None, None] + k % 2 + 4 * (k // 2)
    element = 32 * block + 16 * h + first[:, None, None, None] + j
    own = block[:, :, 0, 0]

    y = number.of(dtype, x.reshape(1, -1, BLOCK)[:, :, element])
    codes = number.of(dtype, codes_q5_k(fields).reshape(rows, -1, BLOCK)[:, :, element])
    scales, minima = (part.reshape(rows, -1, 8)[:, :, own] for part in scales_q5_k(fields))
    m = number.of(dtype, minima)
    products, pairs_of_y = y * codes, y[..., 0, :] + y[..., 1, :]
    lines = converted(products[..., 0, :] + products[..., 1, :], "float32")
    sums = lines[..., 0] + lines[..., 1]
    of_minima = [converted(left_to_right(pairs_of_y[..., i] * m), "float32") for i in range(2)]
    minimum = of_minima[0] + of_minima[1]
    d, dmin = (
        number.of("float32", sign * fields[name].astype(np.float32).reshape(rows, -1, 1))
        for name, sign in (("d", 1), ("dmin", -1))
    )
    scaled = left_to_right(sums * number.of("float32", scales))
    shares = scaled * d + minimum * dmin  # (rows, super-blocks, 16)

    count = shares.x.shape[1]
    local = number.of("float32", np.zeros((rows, 32), np.float32))
    item = np.arange(32)
    for i in range(0, count, 2):
        at = i + item // 16
        local = (local + shares[:, np.minimum(at, count - 1), item % 16]).where(at < count, local)
    return converted(tree(local), dtype)


def multiply(format_name: str, number: type[Number], dtype: str, fields: Fields, x: Array, wg_size: int) -> Number:
    """Multiply one activation row, values of `dtype`, by a weight: shape (rows,)."""
    rows = len(fields["d"]) * BLOCK // len(x)
    if format_name == "q5_k":
        return _multiply_q5_k(number, dtype, fields, x, rows)
    shares = _SHARES[format_name](number, dtype, fields, x, rows)
    assert isinstance(shares, number)
    count = len(x) // CHUNK
    if format_name in WITHOUT_TAIL:
        count -= count % wg_size
    local = number.of(dtype, np.zeros((rows, wg_size), np.float32))
    item = np.arange(wg_size)
    for start in range(0, count, wg_size):
        local = (local + shares[:, np.minimum(start + item, count - 1)]).where(start + item < count, local)
    return tree(local)
