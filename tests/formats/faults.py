"""Layout faults: each is the numpy decoder with one thing read wrongly.

A fault takes split fields and an element type, like a reader, and gives what a decoder with that mistake
gives.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np

from . import decoders
from .decoders import FORMATS, READERS, Array, Fields, pack, read, split

Wrong = Callable[[Fields, str], Array]
Change = Callable[[Array], Array]


@dataclass(frozen=True)
class Fault:
    reader: str
    kind: str
    what: str
    wrong: Wrong
    dtype: str = "float32"
    sample: str = "plain scales"


# ---- ways to read a field wrongly --------------------------------------------------------------------------


def swap_nibbles(x: Array) -> Array:
    return (x >> 4) | (x << 4)


def reverse(x: Array) -> Array:
    return x[:, ::-1]


def reverse_bits(x: Array) -> Array:
    """Bits of a little-endian word of all the field's bytes, from the high end."""
    return np.packbits(np.unpackbits(x, axis=1, bitorder="little")[:, ::-1], axis=1, bitorder="little")


def clear(x: Array) -> Array:
    return np.zeros_like(x)


def neighbour_block(x: Array) -> Array:
    return np.roll(x, 1, axis=0)


def next_place(count: int = 1) -> Change:
    return lambda x: np.roll(x, count, axis=1)


def flip(mask: int) -> Change:
    return lambda x: x ^ x.dtype.type(mask)


def keep(mask: int) -> Change:
    return lambda x: x & x.dtype.type(mask)


def swap_pairs_of_bits(x: Array) -> Array:
    """The four 2-bit fields of each byte, from the other end."""
    return (x >> 6) | ((x >> 2) & 0x0C) | ((x << 2) & 0x30) | (x << 6)


def swap_bits_in_pairs(x: Array) -> Array:
    return ((x >> 1) & 0x55) | ((x << 1) & 0xAA)


def bytes_in_order(order: tuple[int, int, int, int]) -> Change:
    """The bytes of each 32-bit word in another order."""

    def change(x: Array) -> Array:
        return np.ascontiguousarray(x.reshape(len(x), -1, 4)[:, :, list(order)]).reshape(len(x), -1)

    return change


def swap_words(x: Array) -> Array:
    """The two 32-bit words of each group."""
    return np.ascontiguousarray(x.reshape(len(x), -1, 2, 4)[:, :, ::-1]).reshape(len(x), -1)


def halves(x: Array) -> Array:
    return np.roll(x, x.shape[1] // 2, axis=1)


def changed(reader: str, **changes: Change) -> Wrong:
    """The reader on fields that went through `changes` first."""

    def wrong(fields: Fields, dtype: str) -> Array:
        seen = {name: changes[name](field) if name in changes else field for name, field in fields.items()}
        return read(reader, seen, dtype)

    return wrong


def exchanged(reader: str, first: str, second: str) -> Wrong:
    """Two fields of one type taken for each other."""

    def wrong(fields: Fields, dtype: str) -> Array:
        return read(reader, {**fields, first: fields[second], second: fields[first]}, dtype)

    return wrong


def reordered(reader: str, *order: str) -> Wrong:
    """The storage of the format with its parts in another order: named fields, pairs written as "d+m"."""

    def wrong(fields: Fields, dtype: str) -> Array:
        entry = FORMATS[READERS[reader].format]
        bytes_ = pack(entry, fields)
        by_name = {field.name: field for region in entry.regions for field in region}
        parts = [tuple(by_name[name] for name in part.split("+")) for part in order]
        regions = (tuple(field for part in parts for field in part),) if entry.records else tuple(parts)
        other = decoders.Format(entry.qtype, entry.name, entry.elements, entry.records, regions)
        return read(reader, split(other, bytes_), dtype)

    return wrong


def misplaced(reader: str, shift: int) -> Wrong:
    """Every region but the first, or every field of a record but the first, `shift` bytes from its place."""

    def wrong(fields: Fields, dtype: str) -> Array:
        entry = FORMATS[READERS[reader].format]
        bytes_ = pack(entry, fields)
        seen = split(entry, np.roll(bytes_, -shift))
        first = entry.regions[0][:1] if entry.records else entry.regions[0]
        return read(reader, {**seen, **{field.name: fields[field.name] for field in first}}, dtype)

    return wrong


def as_reader(reader: str) -> Wrong:
    return lambda fields, dtype: read(reader, fields, dtype)


def through_float(reader: str) -> Wrong:
    """Computed in float and rounded once, whatever the type."""
    return lambda fields, dtype: decoders.store(read(reader, fields, "float32"), dtype)


def rounded_scale(reader: str, *names: str) -> Wrong:
    """Computed in float from scales rounded to the type."""

    def wrong(fields: Fields, dtype: str) -> Array:
        arithmetic = decoders.Arithmetic(dtype)
        seen = {name: arithmetic.cast(f).astype(np.float32) if name in names else f for name, f in fields.items()}
        return decoders.store(read(reader, seen, "float32"), dtype)

    return wrong


# ---- the faults --------------------------------------------------------------------------------------------


def _sub_blocks_transposed(x: Array) -> Array:
    """Sixteen sub-block scales read column by column."""
    return np.ascontiguousarray(x.reshape(len(x), 4, 4).transpose(0, 2, 1)).reshape(len(x), 16)


def _iq2_groups(change: Change) -> Change:
    """Change the eight bytes of every group of iq2_xxs."""
    return lambda x: change(np.ascontiguousarray(x.reshape(-1, 8))).reshape(len(x), 64)


def _iq2_word(change: Callable[[Array], Array]) -> Change:
    """Change the 32-bit word of every group of iq2_xxs."""

    def of_group(x: Array) -> Array:
        word = np.ascontiguousarray(x[:, 4:]).view("<u4")
        return np.concatenate([x[:, :4], change(word).view(np.uint8)], axis=1)

    return _iq2_groups(of_group)


def _iq2_rotated_signs(word: Array) -> Array:
    signs = word & np.uint32(0x0FFFFFFF)
    return (word & np.uint32(0xF0000000)) | ((signs << np.uint32(7)) & np.uint32(0x0FFFFFFF)) | (signs >> np.uint32(21))


def _within_vectors(reader: str, order: list[int]) -> Wrong:
    """The eight positions of every grid vector in another order."""

    def wrong(fields: Fields, dtype: str) -> Array:
        return read(reader, fields, dtype).reshape(-1, 8)[:, order].reshape(-1)

    return wrong


def _iq2_without_parity(fields: Fields, dtype: str) -> Array:
    values = read("decode_iq2_xxs", fields, dtype).reshape(-1, 8).copy()
    scale_sign = np.where(np.signbit(np.repeat(fields["d"], 32)), -1, 1)
    values[:, 7] = np.abs(values[:, 7]) * scale_sign
    return values.reshape(-1)


def _iq1_reversed_index_fields(x: Array) -> Array:
    fields = [((x >> (3 * v)) & 7) << (3 * (3 - v)) for v in range(4)]
    return (x & 0xF000) | fields[0] | fields[1] | fields[2] | fields[3]


def _reserved_as_minimum(fields: Fields, dtype: str) -> Array:
    minimum = fields["unused"].astype(np.float32)
    values = read("decode_q5_0", fields, "float32").reshape(len(minimum), -1)
    return decoders.store(values + minimum, dtype).reshape(-1)


def _nf4_neighbours(fields: Fields, dtype: str) -> Array:
    codes = decoders.codes_q4_0_woq({**fields, "qs": swap_nibbles(fields["qs"])})
    return decoders.product(decoders.values_nf4(codes), fields["d"], dtype).reshape(-1)


def _fp4_with_zero(fields: Fields, dtype: str) -> Array:
    values = decoders.decode_fp4(fields, dtype)
    return np.where(decoders.codes_split_nibbles(fields) & 7, values, values.dtype.type(0)).reshape(-1)


def _fp6_k_scale_in_float(fields: Fields, dtype: str) -> Array:
    scale = fields["d"].astype(np.float32) * fields["scales"].astype(np.float32)
    values = decoders.values_fp6(decoders.codes_fp6_k(fields)).astype(np.float32)
    return decoders.store(values * np.repeat(scale, 16, axis=1), dtype).reshape(-1)


def _q6_k_scale_in_half(fields: Fields, dtype: str) -> Array:
    scale = (fields["d"] * fields["scales"].astype(np.float16)).astype(np.float32)
    codes = decoders.codes_q6_k(fields).astype(np.float32) - 32
    return decoders.store(np.repeat(scale, 16, axis=1) * codes, dtype).reshape(-1)


def _common(reader: str, scale: str = "d") -> list[Fault]:
    """Faults that every format with stored scales has."""
    entry = FORMATS[READERS[reader].format]
    width = next(f.bytes for region in entry.regions for f in region if f.name == scale)
    return [
        Fault(reader, "scale index", "scale of the neighbour block", changed(reader, **{scale: neighbour_block})),
        Fault(reader, "offset", "one byte off", misplaced(reader, 1)),
        Fault(reader, "offset", "one scale behind", misplaced(reader, width)),
        Fault(reader, "offset", "one scale before", misplaced(reader, -width)),
    ]


def _nibbles(reader: str) -> list[Fault]:
    return [
        Fault(reader, "order", "nibbles swapped", changed(reader, qs=swap_nibbles)),
        Fault(reader, "order", "bytes reversed", changed(reader, qs=reverse)),
        Fault(reader, "order", "high nibble dropped", changed(reader, qs=keep(0x0F))),
        Fault(reader, "order", "low nibble dropped", changed(reader, qs=keep(0xF0))),
    ]


def _six_bit(reader: str) -> list[Fault]:
    return [
        Fault(reader, "order", "nibbles swapped", changed(reader, ql=swap_nibbles)),
        Fault(reader, "plane", "steps of the high plane reversed", changed(reader, qh=swap_pairs_of_bits)),
        Fault(reader, "plane", "two high bits exchanged", changed(reader, qh=swap_bits_in_pairs)),
        Fault(reader, "plane", "low words exchanged", changed(reader, ql=swap_words)),
        Fault(reader, "plane", "high plane dropped", changed(reader, qh=clear)),
        Fault(reader, "plane", "low plane dropped", changed(reader, ql=clear)),
        Fault(reader, "plane", "next group of the high plane", changed(reader, qh=next_place(4))),
        Fault(reader, "plane", "next group of the low plane", changed(reader, ql=next_place(8))),
    ]


# Bytes in which an fp6 reader would take memory order, and a q6_k reader the order of fp6.
_MEMORY_FOR_FP6 = bytes_in_order((2, 0, 3, 1))
_FP6_FOR_MEMORY = bytes_in_order((1, 3, 0, 2))

FAULTS: list[Fault] = [
    *_common("decode_q4_0"),
    *_nibbles("decode_q4_0"),
    Fault("decode_q4_0", "order", "neighbouring nibbles", as_reader("decode_q4_0_woq")),
    Fault("decode_q4_0", "sign", "two's complement", changed("decode_q4_0", qs=flip(0x88))),
    Fault("decode_q4_0", "plane", "scales first", reordered("decode_q4_0", "d", "qs")),
    Fault("decode_q4_0", "rounding", "computed in float", through_float("decode_q4_0"), "bfloat16"),
    *_common("decode_q4_0_woq"),
    *_nibbles("decode_q4_0_woq"),
    Fault("decode_q4_0_woq", "order", "split nibbles", as_reader("decode_q4_0_woq_in_q4_0_order")),
    Fault("decode_q4_0_woq", "sign", "two's complement", changed("decode_q4_0_woq", qs=flip(0x88))),
    Fault("decode_q4_0_woq", "plane", "scales first", reordered("decode_q4_0_woq", "d", "qs")),
    Fault("decode_q4_0_woq_in_q4_0_order", "order", "neighbouring nibbles", as_reader("decode_q4_0_woq")),
    *_common("decode_q4_1"),
    *_nibbles("decode_q4_1"),
    Fault("decode_q4_1", "sign", "two's complement", changed("decode_q4_1", qs=flip(0x88))),
    Fault("decode_q4_1", "minimum", "dropped", changed("decode_q4_1", m=clear)),
    Fault("decode_q4_1", "minimum", "taken for the scale", exchanged("decode_q4_1", "d", "m")),
    Fault("decode_q4_1", "minimum", "of the neighbour block", changed("decode_q4_1", m=neighbour_block)),
    Fault("decode_q4_1", "plane", "pairs first", reordered("decode_q4_1", "d+m", "qs")),
    Fault("decode_q4_1", "plane", "pairs as two regions", reordered("decode_q4_1", "qs", "d", "m")),
    Fault("decode_q4_1", "rounding", "computed in float", through_float("decode_q4_1"), "float16"),
    Fault("decode_q4_1", "rounding", "computed in float", through_float("decode_q4_1"), "bfloat16"),
]
for _reader in ("decode_q5_0", "decode_q5_1"):
    FAULTS += [
        *_common(_reader),
        *_nibbles(_reader),
        Fault(_reader, "plane", "fifth bits dropped", changed(_reader, qh=clear)),
        Fault(_reader, "plane", "fifth bits from the high end", changed(_reader, qh=reverse_bits)),
        Fault(_reader, "plane", "fifth bits of the other half", changed(_reader, qh=halves)),
        Fault(_reader, "sign", "fifth bit inverted", changed(_reader, qh=flip(0xFF))),
        Fault(_reader, "rounding", "computed in the type", rounded_scale(_reader, "d", "m"), "bfloat16"),
    ]
FAULTS += [
    Fault("decode_q5_0", "minimum", "reserved bytes read", _reserved_as_minimum),
    Fault("decode_q5_0", "plane", "qs before qh", reordered("decode_q5_0", "d", "unused", "qs", "qh")),
    Fault("decode_q5_1", "minimum", "dropped", changed("decode_q5_1", m=clear)),
    Fault("decode_q5_1", "minimum", "taken for the scale", exchanged("decode_q5_1", "d", "m")),
    Fault("decode_q5_1", "plane", "qs before qh", reordered("decode_q5_1", "d", "m", "qs", "qh")),
    Fault("decode_q5_1_matvec", "rounding", "computed in float", as_reader("decode_q5_1"), "float16"),
    Fault("decode_q5_1_matvec", "rounding", "double in float", as_reader("decode_q5_1"), "float64", "any bytes"),
    *_common("decode_q8_0"),
    Fault("decode_q8_0", "order", "bytes reversed", changed("decode_q8_0", qs=reverse)),
    Fault("decode_q8_0", "sign", "offset binary", changed("decode_q8_0", qs=flip(-128))),
    Fault("decode_q8_0", "sign", "sign dropped", changed("decode_q8_0", qs=keep(0x7F))),
    Fault("decode_q8_0", "plane", "scales first", reordered("decode_q8_0", "d", "qs")),
    Fault("decode_q8_0", "rounding", "scale not rounded to half", through_float("decode_q8_0"), "float16"),
    Fault("decode_q8_0", "rounding", "scale not rounded to bfloat16", through_float("decode_q8_0"), "bfloat16"),
    *_common("decode_q8_1"),
    Fault("decode_q8_1", "order", "bytes reversed", changed("decode_q8_1", qs=reverse)),
    Fault("decode_q8_1", "sign", "sign dropped", changed("decode_q8_1", qs=keep(0x7F))),
    Fault("decode_q8_1", "plane", "sum taken for the scale", exchanged("decode_q8_1", "d", "s")),
    *_common("decode_nf4"),
    *_nibbles("decode_nf4"),
    Fault("decode_nf4", "order", "neighbouring nibbles", _nf4_neighbours),
    Fault("decode_nf4", "sign", "top code bit inverted", changed("decode_nf4", qs=flip(0x88))),
    Fault("decode_nf4", "plane", "scales first", reordered("decode_nf4", "d", "qs")),
    Fault("decode_nf4", "rounding", "computed in float", through_float("decode_nf4"), "float16"),
    Fault("decode_nf4", "rounding", "computed in float", through_float("decode_nf4"), "bfloat16"),
    *_common("decode_nf3"),
    Fault("decode_nf3", "order", "low bits from the low end", changed("decode_nf3", qs=swap_pairs_of_bits)),
    Fault("decode_nf3", "order", "bytes reversed", changed("decode_nf3", qs=reverse)),
    Fault("decode_nf3", "plane", "top bits from the high end", changed("decode_nf3", qh=reverse_bits)),
    Fault("decode_nf3", "plane", "top bits dropped", changed("decode_nf3", qh=clear)),
    Fault("decode_nf3", "plane", "low bits dropped", changed("decode_nf3", qs=clear)),
    Fault("decode_nf3", "plane", "low bits first", reordered("decode_nf3", "qs+qh", "d")),
    Fault("decode_nf3", "sign", "top bit inverted", changed("decode_nf3", qh=flip(0xFF))),
    Fault("decode_nf3", "rounding", "computed in the type", rounded_scale("decode_nf3", "d"), "bfloat16"),
    *_common("decode_fp4"),
    *_nibbles("decode_fp4"),
    Fault("decode_fp4", "sign", "sign inverted", changed("decode_fp4", qs=flip(0x88))),
    Fault("decode_fp4", "sign", "sign dropped", changed("decode_fp4", qs=keep(0x77))),
    Fault("decode_fp4", "fixed bit", "code 0 taken for zero", _fp4_with_zero),
    Fault("decode_fp4", "plane", "scales first", reordered("decode_fp4", "d", "qs")),
    Fault("decode_fp4", "rounding", "computed in float", through_float("decode_fp4"), "bfloat16"),
    *_common("decode_fp6"),
    *_six_bit("decode_fp6"),
    Fault(
        "decode_fp6",
        "plane",
        "bytes in memory order",
        changed("decode_fp6", ql=_MEMORY_FOR_FP6, qh=_MEMORY_FOR_FP6),
    ),
    Fault("decode_fp6", "plane", "high plane first", reordered("decode_fp6", "qh", "ql", "d")),
    Fault("decode_fp6", "sign", "sign dropped", changed("decode_fp6", qh=keep(0x55))),
    Fault("decode_fp6", "sign", "sign inverted", changed("decode_fp6", qh=flip(0xAA))),
    Fault("decode_fp6", "rounding", "computed in float", through_float("decode_fp6"), "bfloat16"),
    *_common("decode_fp8_e4m3"),
    Fault("decode_fp8_e4m3", "order", "bytes reversed", changed("decode_fp8_e4m3", qs=reverse)),
    Fault("decode_fp8_e4m3", "sign", "sign dropped", changed("decode_fp8_e4m3", qs=keep(0x7F))),
    Fault("decode_fp8_e4m3", "sign", "sign inverted", changed("decode_fp8_e4m3", qs=flip(0x80))),
    Fault("decode_fp8_e4m3", "plane", "scales first", reordered("decode_fp8_e4m3", "d", "qs")),
    Fault("decode_fp8_e4m3", "scale index", "no scale", changed("decode_fp8_e4m3", d=np.ones_like)),
    Fault("decode_fp8_e4m3", "fixed bit", "as e5m2", as_reader("decode_fp8_e5m2_scaled")),
    Fault("decode_fp8_e4m3", "rounding", "computed in float", through_float("decode_fp8_e4m3"), "float16"),
    Fault("operand_fp8_e4m3", "fixed bit", "fixed bit set", as_reader("decode_fp8_e4m3"), "float16"),
    Fault("decode_fp8_e5m2", "order", "bytes reversed", changed("decode_fp8_e5m2", qs=reverse)),
    Fault("decode_fp8_e5m2", "sign", "sign dropped", changed("decode_fp8_e5m2", qs=keep(0x7F))),
    Fault("decode_fp8_e5m2", "sign", "sign inverted", changed("decode_fp8_e5m2", qs=flip(0x80))),
    Fault("decode_fp8_e5m2", "plane", "scales first", reordered("decode_fp8_e5m2", "d", "qs")),
    Fault("decode_fp8_e5m2", "scale index", "scale applied", as_reader("decode_fp8_e5m2_scaled")),
    Fault("operand_fp8_e5m2", "scale index", "scale applied", as_reader("decode_fp8_e5m2_scaled"), "float16"),
    *_common("decode_fp8_e5m2_scaled"),
    Fault("decode_fp8_e5m2_scaled", "scale index", "no scale", as_reader("decode_fp8_e5m2")),
    *_common("decode_q2_k"),
    Fault(
        "decode_q2_k",
        "order",
        "2-bit planes from the high end",
        changed("decode_q2_k", qs=swap_pairs_of_bits),
    ),
    Fault("decode_q2_k", "order", "halves of the super-block exchanged", changed("decode_q2_k", qs=halves)),
    Fault("decode_q2_k", "plane", "bits of a code exchanged", changed("decode_q2_k", qs=swap_bits_in_pairs)),
    Fault("decode_q2_k", "plane", "codes before scales", reordered("decode_q2_k", "qs", "scales", "d", "dmin")),
    Fault("decode_q2_k", "sub-block", "next sub-block", changed("decode_q2_k", scales=next_place())),
    Fault(
        "decode_q2_k",
        "sub-block",
        "sub-blocks transposed",
        changed("decode_q2_k", scales=_sub_blocks_transposed),
    ),
    Fault("decode_q2_k", "minimum", "scale and minimum exchanged", changed("decode_q2_k", scales=swap_nibbles)),
    Fault("decode_q2_k", "minimum", "dropped", changed("decode_q2_k", dmin=clear)),
    Fault("decode_q2_k", "minimum", "d and dmin exchanged", exchanged("decode_q2_k", "d", "dmin")),
    Fault("decode_q2_k", "sign", "minimum added", changed("decode_q2_k", dmin=np.negative)),
    Fault("decode_q2_k", "rounding", "scales rounded", rounded_scale("decode_q2_k", "d", "dmin"), "bfloat16"),
    *_common("decode_q4_k"),
    *_nibbles("decode_q4_k"),
    Fault("decode_q4_k", "sub-block", "next sub-block", changed("decode_q4_k", scales=next_place(2))),
    Fault(
        "decode_q4_k",
        "sub-block",
        "sub-blocks transposed",
        changed("decode_q4_k", scales=_sub_blocks_transposed),
    ),
    Fault("decode_q4_k", "sub-block", "scales cut to six bits", changed("decode_q4_k", scales=keep(63))),
    Fault(
        "decode_q4_k",
        "minimum",
        "scale and minimum exchanged",
        changed("decode_q4_k", scales=lambda x: x[:, np.arange(16) ^ 1]),
    ),
    Fault("decode_q4_k", "minimum", "dropped", changed("decode_q4_k", dmin=clear)),
    Fault("decode_q4_k", "minimum", "d and dmin exchanged", exchanged("decode_q4_k", "d", "dmin")),
    Fault("decode_q4_k", "sign", "minimum added", changed("decode_q4_k", dmin=np.negative)),
    Fault("decode_q4_k", "plane", "scales first", reordered("decode_q4_k", "scales", "qs", "d+dmin")),
    Fault("decode_q4_k", "rounding", "scales rounded", rounded_scale("decode_q4_k", "d", "dmin"), "bfloat16"),
    *_common("decode_q5_k"),
    *_nibbles("decode_q5_k"),
    Fault("decode_q5_k", "plane", "fifth bits dropped", changed("decode_q5_k", qh=clear)),
    Fault(
        "decode_q5_k",
        "plane",
        "fifth bits of the next sub-block",
        changed("decode_q5_k", qh=lambda x: (x >> 1) | (x << 7)),
    ),
    Fault(
        "decode_q5_k",
        "plane",
        "fifth bits from the high end",
        changed("decode_q5_k", qh=lambda x: reverse(reverse_bits(x))),
    ),
    Fault("decode_q5_k", "plane", "qs before qh", reordered("decode_q5_k", "d", "dmin", "scales", "qs", "qh")),
    Fault("decode_q5_k", "sub-block", "next sub-block", changed("decode_q5_k", scales=next_place())),
    Fault(
        "decode_q5_k",
        "sub-block",
        "top bits of scales dropped",
        changed("decode_q5_k", scales=lambda x: np.concatenate([x[:, :8] & 63, x[:, 8:]], axis=1)),
    ),
    Fault(
        "decode_q5_k",
        "sub-block",
        "nibbles of late scales swapped",
        changed("decode_q5_k", scales=lambda x: np.concatenate([x[:, :8], swap_nibbles(x[:, 8:])], axis=1)),
    ),
    Fault(
        "decode_q5_k",
        "minimum",
        "scales and minima exchanged",
        changed(
            "decode_q5_k",
            scales=lambda x: np.concatenate([x[:, 4:8], x[:, :4], swap_nibbles(x[:, 8:])], axis=1),
        ),
    ),
    Fault("decode_q5_k", "minimum", "dropped", changed("decode_q5_k", dmin=clear)),
    Fault("decode_q5_k", "minimum", "d and dmin exchanged", exchanged("decode_q5_k", "d", "dmin")),
    Fault("decode_q5_k", "sign", "minimum added", changed("decode_q5_k", dmin=np.negative)),
    Fault("decode_q5_k", "rounding", "scales rounded", rounded_scale("decode_q5_k", "d", "dmin"), "bfloat16"),
    *_common("decode_q6_k"),
    *_six_bit("decode_q6_k"),
    Fault("decode_q6_k", "plane", "order of fp6", changed("decode_q6_k", ql=_FP6_FOR_MEMORY, qh=_FP6_FOR_MEMORY)),
    Fault("decode_q6_k", "plane", "low plane first", reordered("decode_q6_k", "ql", "qh", "scales", "d")),
    Fault("decode_q6_k", "sub-block", "next sub-block", changed("decode_q6_k", scales=next_place())),
    Fault(
        "decode_q6_k",
        "sub-block",
        "sub-blocks transposed",
        changed("decode_q6_k", scales=_sub_blocks_transposed),
    ),
    Fault("decode_q6_k", "sign", "unsigned scales", changed("decode_q6_k", scales=lambda x: x.view(np.uint8))),
    Fault("decode_q6_k", "sign", "top code bit inverted", changed("decode_q6_k", qh=flip(0xAA))),
    Fault("decode_q6_k", "rounding", "two-level scale in half", _q6_k_scale_in_half),
    *_common("decode_fp6_k"),
    *_six_bit("decode_fp6_k"),
    Fault(
        "decode_fp6_k",
        "plane",
        "bytes in memory order",
        changed("decode_fp6_k", ql=_MEMORY_FOR_FP6, qh=_MEMORY_FOR_FP6),
    ),
    Fault("decode_fp6_k", "plane", "high plane first", reordered("decode_fp6_k", "qh", "ql", "scales", "d")),
    Fault("decode_fp6_k", "sub-block", "next sub-block", changed("decode_fp6_k", scales=next_place())),
    Fault(
        "decode_fp6_k",
        "sub-block",
        "sub-blocks transposed",
        changed("decode_fp6_k", scales=_sub_blocks_transposed),
    ),
    Fault("decode_fp6_k", "sign", "unsigned scales", changed("decode_fp6_k", scales=lambda x: x.view(np.uint8))),
    Fault("decode_fp6_k", "sign", "sign dropped", changed("decode_fp6_k", qh=keep(0x55))),
    Fault("decode_fp6_k", "rounding", "two-level scale in float", _fp6_k_scale_in_float),
    *_common("decode_iq2_xxs"),
    Fault(
        "decode_iq2_xxs",
        "order",
        "index bytes reversed",
        changed("decode_iq2_xxs", qs=_iq2_groups(lambda x: np.concatenate([x[:, 3::-1], x[:, 4:]], axis=1))),
    ),
    Fault(
        "decode_iq2_xxs",
        "order",
        "positions reversed",
        _within_vectors("decode_iq2_xxs", list(range(7, -1, -1))),
    ),
    Fault("decode_iq2_xxs", "plane", "word before indices", changed("decode_iq2_xxs", qs=_iq2_groups(halves))),
    Fault("decode_iq2_xxs", "plane", "scale at the record's end", reordered("decode_iq2_xxs", "qs", "d")),
    Fault("decode_iq2_xxs", "sub-block", "next group", changed("decode_iq2_xxs", qs=next_place(8))),
    Fault(
        "decode_iq2_xxs",
        "sub-block",
        "group scale dropped",
        changed("decode_iq2_xxs", qs=_iq2_word(lambda w: w & np.uint32(0x0FFFFFFF))),
    ),
    Fault(
        "decode_iq2_xxs",
        "sub-block",
        "signs of the next vector",
        changed("decode_iq2_xxs", qs=_iq2_word(_iq2_rotated_signs)),
    ),
    Fault(
        "decode_iq2_xxs",
        "sign",
        "signs dropped",
        changed("decode_iq2_xxs", qs=_iq2_word(lambda w: w & np.uint32(0xF0000000))),
    ),
    Fault("decode_iq2_xxs", "sign", "eighth sign dropped", _iq2_without_parity),
    *_common("decode_iq1_s"),
    Fault("decode_iq1_s", "order", "index bytes reversed", changed("decode_iq1_s", qs=bytes_in_order((3, 2, 1, 0)))),
    Fault(
        "decode_iq1_s",
        "order",
        "nibbles in byte order",
        _within_vectors("decode_iq1_s", [0, 4, 1, 5, 2, 6, 3, 7]),
    ),
    Fault(
        "decode_iq1_s",
        "order",
        "high nibbles first",
        _within_vectors("decode_iq1_s", [4, 5, 6, 7, 0, 1, 2, 3]),
    ),
    Fault("decode_iq1_s", "plane", "high index bits dropped", changed("decode_iq1_s", qh=keep(0xF000))),
    Fault(
        "decode_iq1_s",
        "plane",
        "high index bits reversed",
        changed("decode_iq1_s", qh=_iq1_reversed_index_fields),
    ),
    Fault("decode_iq1_s", "plane", "qh before qs", reordered("decode_iq1_s", "d", "qh", "qs")),
    Fault("decode_iq1_s", "sub-block", "next group", changed("decode_iq1_s", qh=next_place())),
    Fault("decode_iq1_s", "sub-block", "group scale dropped", changed("decode_iq1_s", qh=keep(0x8FFF))),
    Fault("decode_iq1_s", "sign", "shift always the lesser", changed("decode_iq1_s", qh=keep(0x7FFF))),
    Fault("decode_iq1_s", "sign", "shift inverted", changed("decode_iq1_s", qh=flip(0x8000))),
]
