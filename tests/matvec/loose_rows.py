"""What the kernels compute where rows need not start on a block: the addresses of every chunk, from the bytes.

A row's start is rounded down to a whole unit, a block or a part of one; which part of its unit a lane reads follows
from the lane's number alone. So such rows share blocks, and read other elements than a matrix in row-major order has.
"""

from __future__ import annotations

import numpy as np
from formats.decoders import FORMATS, Array, Fields, codes_fp6_k, codes_q6_k, split, values_fp6

from .reference import KERNELS, Number
from .super_block_reference import LANES, NEIGHBOURS, WITHOUT_TAIL, converted, left_to_right, tree
from .super_block_reference import multiply as multiply_super_blocks

# Elements of the unit that the start of a row is rounded down to; 64 where nothing is said.
UNIT = {"q4_k": 32, "q6_k": 16, "fp6_k": 16}


def _fields_at(name: str, weight: Array, blocks: Array, whole_blocks: int) -> Fields:
    """The fields of blocks, by their numbers, of a matrix with that many whole blocks: (number of `blocks`, ...)."""
    entry, parts, start = FORMATS[name], [], 0
    for region in entry.regions:
        width = sum(field.bytes for field in region)
        parts.append(weight[(start + blocks.reshape(-1, 1) * width) + np.arange(width)].reshape(-1))
        start += whole_blocks * width
    return split(entry, np.concatenate(parts))


def _at_places(values: Array, places: Array, rows: int) -> Array:
    """Of values of (rows x chunks, elements) those at places of (chunks, n): (rows, chunks, n)."""
    return np.take_along_axis(values.reshape(rows, len(places), -1), places[None], axis=2)


def _sums(number: type[Number], dtype: str, values: Array, x: Array) -> Number:
    return left_to_right(number.of(dtype, values) * number.of(dtype, x[None]))


def _shares_64(
    name: str, number: type[Number], dtype: str, weight: Array, x: Array, unit: Array, lane: Array, whole: int
) -> Number:
    kernel = KERNELS[name]
    rows, chunks = unit.shape
    per_block = 64 // kernel.chunk
    fields = _fields_at(name, weight, unit, whole)
    activations = x[64 * (np.arange(chunks) // per_block)[:, None] + kernel.elements[lane % per_block]]
    total = _sums(
        number, dtype, _at_places(kernel.values(fields), kernel.elements[lane % per_block], rows), activations
    )
    if not kernel.scaled:
        return total
    total = total * number.of(dtype, fields["d"].reshape(rows, chunks))
    if not kernel.minimum:
        return total
    return total + left_to_right(number.of(dtype, activations[None])) * number.of(
        dtype, fields["m"].reshape(rows, chunks)
    )


def _shares_q4_k(
    number: type[Number], dtype: str, weight: Array, x: Array, unit: Array, lane: Array, whole: int
) -> Number:
    rows, chunks = unit.shape
    place = np.arange(16)
    byte = weight[(unit * 16 + lane % 2 * 8)[..., None] + place // 2]
    codes = np.where(place % 2 == 0, byte & 15, byte >> 4)
    activations = x[(32 * (np.arange(chunks) // 2) + 8 * (lane % 2))[:, None] + place // 2 + 16 * (place % 2)]
    fields = _fields_at("q4_k", weight, unit // 8, whole)
    scales = fields["scales"].reshape(rows, chunks, 16)
    group = np.broadcast_to(lane % 16 // 2, unit.shape)[..., None]
    scale = np.take_along_axis(scales, 2 * group, axis=2)[..., 0]
    minimum = np.take_along_axis(scales, 2 * group + 1, axis=2)[..., 0].astype(np.int16)
    d1 = number.of(dtype, fields["d"].reshape(rows, chunks)) * number.of(dtype, scale)
    minus_m1 = number.of(dtype, fields["dmin"].reshape(rows, chunks)) * number.of(dtype, -minimum)
    return _sums(number, dtype, codes, activations) * d1 + left_to_right(number.of(dtype, activations[None])) * minus_m1


def _shares_6_bits(
    name: str, number: type[Number], dtype: str, weight: Array, x: Array, unit: Array, lane: Array, whole: int
) -> Number:
    rows, chunks = unit.shape
    fields = _fields_at(name, weight, unit // 16, whole)
    c = lane % 16
    scale = np.take_along_axis(fields["scales"].reshape(rows, chunks, 16), np.broadcast_to(c, unit.shape)[..., None], 2)
    scale, d = scale[..., 0], fields["d"].reshape(rows, chunks)
    first = 16 * np.arange(chunks)[:, None]
    if name == "q6_k":  # codes by the chunk's number in its block
        values = _at_places(codes_q6_k(fields).astype(np.int16) - 32, NEIGHBOURS[c], rows)
        terms = number.of(dtype, values) * number.of(dtype, x[first + np.arange(16)][None])
        total = left_to_right(terms[..., 0:4])
        for step in range(1, 4):
            total = total + left_to_right(terms[..., 4 * step : 4 * step + 4])
        w = number.of("float32", d) * number.of("float32", scale)
        return converted(w * converted(total, "float32"), dtype)
    # Codes by the number of the unit.
    all_values = values_fp6(codes_fp6_k(fields)).reshape(rows, chunks, 256)
    values = np.take_along_axis(all_values, LANES[unit % 16], axis=2)
    total = _sums(number, dtype, values, x[first + LANES[0]])
    return total * converted(number.of("float16", d) * number.of("float16", scale), dtype)


def _multiply_q5(
    name: str, number: type[Number], dtype: str, weight: Array, x: Array, k: int, rows: int, wg_size: int
) -> Number:
    """Blocks by the pair of elements; of a row that ends inside a block, the whole blocks alone."""
    item, row = np.arange(wg_size), np.arange(rows)[:, None]
    local = number.of(dtype, np.zeros((rows, wg_size), np.float32))
    for i in range(0, k // wg_size, 2):
        block = (row * k + 2 * item) // 64 + i // 2 * (wg_size // 32)
        first = 2 * item // 64 * 64 + item % 32 + i * wg_size
        inside = first // 64 < k // 64
        block, first = np.where(inside, block, 0), np.where(inside, first, 0)
        fields = _fields_at(name, weight, block, 0)
        places = np.stack([item % 32, item % 32 + 32], axis=1)
        codes = _at_places(KERNELS[name].values(fields), places, rows)
        d = fields["d"].reshape(rows, wg_size, 1)
        if name == "q5_1":
            weights = number.of(dtype, codes) * number.of(dtype, d) + number.of(dtype, fields["m"].reshape(d.shape))
        else:
            weights = number.of(dtype, d.astype(np.float64) * codes)
        activations = number.of(dtype, x[first[:, None] + np.array([0, 32])][None])
        local = (local + left_to_right(weights * activations)).where(inside, local)
    return tree(local)


def multiply(
    name: str, number: type[Number], dtype: str, weight: Array, x: Array, k: int, wg_size: int, tile: int
) -> Number:
    """Multiply the first `k` elements of `x`, values of `dtype`, by a weight's bytes: shape (rows,).

    Behind them `x` has what lies behind the row in memory: a row's last chunks may reach to the end of a block.
    """
    entry = FORMATS[name]
    rows = weight.size // entry.bytes * entry.elements // k
    if name in ("q5_0", "q5_1"):
        return _multiply_q5(name, number, dtype, weight, x, k, rows, wg_size)
    if name == "q5_k":  # whole blocks alone, also in the counting of rows
        blocks = k // 256
        if blocks == 0:
            return number.of(dtype, np.zeros(rows, np.float32))
        fields = split(entry, weight[: rows * blocks * entry.bytes])
        return multiply_super_blocks(name, number, dtype, fields, x[: 256 * blocks], wg_size)
    chunk = KERNELS[name].chunk if name in KERNELS else 16
    unit_size = UNIT.get(name, 64)
    count = k // chunk
    c = np.arange(count)
    lane, row = c % wg_size, np.arange(rows)[:, None]
    unit = (row // tile * tile * k + chunk * lane) // unit_size
    unit = unit + c // wg_size * (chunk * wg_size // unit_size) + row % tile * (k // unit_size)
    arguments = (number, dtype, weight, x, unit, lane, rows * k // entry.elements)
    if name == "q4_k":
        shares = _shares_q4_k(*arguments)
    elif name in UNIT:
        shares = _shares_6_bits(name, *arguments)
    else:
        shares = _shares_64(name, *arguments)
    if name in WITHOUT_TAIL:
        count -= count % wg_size
    local = number.of(dtype, np.zeros((rows, wg_size), np.float32))
    item = np.arange(wg_size)
    for start in range(0, count, wg_size):
        local = (local + shares[:, np.minimum(start + item, count - 1)]).where(start + item < count, local)
    return tree(local)
