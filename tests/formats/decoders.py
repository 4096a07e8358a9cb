"""Independent decoders of every storage format, in numpy.

They are written from the storage rules and share nothing with the C++ rules that they check. A weight goes
through two steps: `split` cuts its bytes into named fields, one row per block, and a reader turns the fields
into values. A reader is named like its C++ function:

``decode_<format>``        the value of the format, rounded as its dequantizer rounds, for every element type
``decode_<format>_<who>``  the same bits under the rule of another reader
``expand_<format>``        the fast dense expansions: float32 and float16 only
``operand_<format>``       operands of the matrix engine: the unscaled value as float16 or bfloat16

Results come back flat in raw form: float32 and float64 arrays, and uint16 bit patterns for the 16-bit types.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

from .grid_reference import iq1s_rows, iq2xxs_rows

Array = NDArray[np.generic]
Fields = dict[str, Array]

DTYPES = ("float32", "float64", "float16", "bfloat16")
RAW = {"float32": np.float32, "float64": np.float64, "float16": np.uint16, "bfloat16": np.uint16}


# ---- element types -----------------------------------------------------------------------------------------


def bfloat16_bits(x: Array) -> Array:
    """Round float32 to bfloat16 bits: ties to even, every NaN to 0x7FC0."""
    bits = np.ascontiguousarray(x, np.float32).view(np.uint32)
    rounded = ((bits.astype(np.uint64) + 0x7FFF + ((bits >> 16) & 1)) >> 16).astype(np.uint16)
    return np.where(np.isnan(x), np.uint16(0x7FC0), rounded)


def bfloat16_round(x: Array) -> Array:
    """Round float32 to the nearest bfloat16, kept in float32."""
    return (bfloat16_bits(x).astype(np.uint32) << 16).view(np.float32)


@dataclass(frozen=True)
class Arithmetic:
    """Operations in one element type. bfloat16 values are carried as float32 and rounded after each step."""

    dtype: str

    def cast(self, x: Array) -> Array:
        """Convert integers, float16 or float32 to the element type; all go through float32."""
        single = x.astype(np.float32)
        if self.dtype == "bfloat16":
            return bfloat16_round(single)
        return single.astype(self.dtype)

    def mul(self, a: Array, b: Array) -> Array:
        return self._settle(a * b)

    def add(self, a: Array, b: Array) -> Array:
        return self._settle(a + b)

    def _settle(self, x: Array) -> Array:
        return bfloat16_round(x) if self.dtype == "bfloat16" else x

    def raw(self, x: Array) -> Array:
        if self.dtype == "bfloat16":
            return bfloat16_bits(x)
        return x.view(np.uint16) if self.dtype == "float16" else x


def store(x: Array, dtype: str) -> Array:
    """Convert a finished float32, or a float16, to the raw form of an element type."""
    if dtype == "float16":
        return x.astype(np.float16).view(np.uint16)
    if dtype == "bfloat16":
        return bfloat16_bits(x.astype(np.float32))
    return x.astype(dtype)


def product(a: Array, b: Array, dtype: str) -> Array:
    """Multiply a by b with both operands and the product in the element type."""
    arithmetic = Arithmetic(dtype)
    return arithmetic.raw(arithmetic.mul(arithmetic.cast(a), arithmetic.cast(b)))


def scaled_sum(d: Array, x: Array, m: Array, dtype: str) -> Array:
    """Give d * x + m with every operand, the product and the sum in the element type."""
    arithmetic = Arithmetic(dtype)
    scaled = arithmetic.mul(arithmetic.cast(d), arithmetic.cast(x))
    return arithmetic.raw(arithmetic.add(scaled, arithmetic.cast(m)))


# ---- storage -----------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Field:
    name: str
    dtype: str
    count: int

    @property
    def bytes(self) -> int:
        return np.dtype(self.dtype).itemsize * self.count


@dataclass(frozen=True)
class Format:
    """Fields in storage order. `records`: one block after another; else one array for each group."""

    qtype: int
    name: str
    elements: int
    records: bool
    regions: tuple[tuple[Field, ...], ...]

    @property
    def bytes(self) -> int:
        return sum(field.bytes for region in self.regions for field in region)


def _f(name: str, dtype: str, count: int) -> Field:
    return Field(name, dtype, count)


_D = _f("d", "<f2", 1)
_FORMATS = (
    Format(2, "q4_0", 64, False, ((_f("qs", "u1", 32),), (_D,))),
    Format(3, "q4_1", 64, False, ((_f("qs", "u1", 32),), (_D, _f("m", "<f2", 1)))),
    Format(6, "q5_0", 64, True, ((_D, _f("unused", "<f2", 1), _f("qh", "u1", 8), _f("qs", "u1", 32)),)),
    Format(7, "q5_1", 64, True, ((_D, _f("m", "<f2", 1), _f("qh", "u1", 8), _f("qs", "u1", 32)),)),
    Format(8, "q8_0", 64, False, ((_f("qs", "i1", 64),), (_f("d", "<f4", 1),))),
    Format(9, "q8_1", 32, True, ((_D, _f("s", "<f2", 1), _f("qs", "i1", 32)),)),
    Format(10, "nf4", 64, False, ((_f("qs", "u1", 32),), (_D,))),
    Format(11, "nf3", 64, False, ((_f("qh", "u1", 8), _f("qs", "u1", 16)), (_D,))),
    Format(15, "fp8_e4m3", 64, False, ((_f("qs", "u1", 64),), (_f("d", "<f4", 1),))),
    Format(16, "fp4", 64, False, ((_f("qs", "u1", 32),), (_D,))),
    Format(19, "fp8_e5m2", 64, False, ((_f("qs", "u1", 64),), (_f("d", "<f4", 1),))),
    Format(21, "iq2_xxs", 256, True, ((_D, _f("qs", "u1", 64)),)),
    Format(23, "q2_k", 256, True, ((_f("scales", "u1", 16), _f("qs", "u1", 64), _D, _f("dmin", "<f2", 1)),)),
    Format(24, "iq1_s", 256, True, ((_D, _f("qs", "u1", 32), _f("qh", "<u2", 8)),)),
    Format(
        26,
        "q6_k",
        256,
        False,
        ((_f("qh", "u1", 64),), (_f("ql", "u1", 128),), (_f("scales", "i1", 16),), (_D,)),
    ),
    Format(
        27,
        "q4_k",
        256,
        False,
        ((_f("qs", "u1", 128),), (_f("scales", "u1", 16),), (_D, _f("dmin", "<f2", 1))),
    ),
    Format(
        28,
        "q5_k",
        256,
        True,
        ((_D, _f("dmin", "<f2", 1), _f("scales", "u1", 12), _f("qh", "u1", 32), _f("qs", "u1", 128)),),
    ),
    Format(29, "fp6", 64, False, ((_f("ql", "u1", 32),), (_f("qh", "u1", 16),), (_D,))),
    Format(
        30,
        "fp6_k",
        256,
        False,
        ((_f("ql", "u1", 128),), (_f("qh", "u1", 64),), (_f("scales", "i1", 16),), (_D,)),
    ),
    Format(34, "q4_0_woq", 64, False, ((_f("qs", "u1", 32),), (_D,))),
)
FORMATS: dict[str, Format] = {entry.name: entry for entry in _FORMATS}


def split(entry: Format, weight: NDArray[np.uint8]) -> Fields:
    """Cut flat bytes into fields of shape (blocks, count). Bytes behind the last whole block are left out."""
    blocks = weight.size // entry.bytes
    fields: Fields = {}
    start = 0
    for region in entry.regions:
        width = sum(field.bytes for field in region)
        rows = weight[start : start + blocks * width].reshape(blocks, width)
        column = 0
        for field in region:
            cut = np.ascontiguousarray(rows[:, column : column + field.bytes])
            fields[field.name] = cut.view(field.dtype)
            column += field.bytes
        start += blocks * width
    return fields


def pack(entry: Format, fields: Fields) -> NDArray[np.uint8]:
    """Put fields of shape (blocks, count) together into flat bytes: the inverse of `split`."""
    regions = []
    for region in entry.regions:
        columns = [np.ascontiguousarray(fields[f.name], f.dtype).view(np.uint8) for f in region]
        regions.append(np.concatenate(columns, axis=1).reshape(-1))
    return np.concatenate(regions)


# ---- codes: one integer for each element -------------------------------------------------------------------


def _bits_of_bytes(data: Array) -> Array:
    """Bits of a little-endian word: column i is bit i."""
    return np.unpackbits(data, axis=1, bitorder="little")


def codes_split_nibbles(fields: Fields) -> Array:
    qs = fields["qs"]
    return np.concatenate([qs & 15, qs >> 4], axis=1)


def codes_nf4(fields: Fields) -> Array:
    qs = fields["qs"]
    return np.concatenate([qs >> 4, qs & 15], axis=1)


def codes_q4_0_woq(fields: Fields) -> Array:
    qs = fields["qs"]
    return np.stack([qs & 15, qs >> 4], axis=2).reshape(len(qs), 64)


def codes_q5(fields: Fields) -> Array:
    return codes_split_nibbles(fields) + 16 * _bits_of_bytes(fields["qh"])


def codes_bytes(fields: Fields) -> Array:
    return fields["qs"]


def codes_nf3(fields: Fields) -> Array:
    qs = fields["qs"]
    low = np.stack([(qs >> shift) & 3 for shift in (6, 4, 2, 0)], axis=2).reshape(len(qs), 64)
    return low + 4 * _bits_of_bytes(fields["qh"])


_FLOAT_ORDER = np.array([1, 3, 0, 2])


def _six_bit_planes(fields: Fields, elements: int, order: Array) -> tuple[Array, Array]:
    """Two high bits and four low bits of each element: a group of 16 has one high word and two low words."""
    e = np.arange(elements)
    group, step, byte = e // 16, e % 16 // 4, order[e % 4]
    high_byte = fields["qh"][:, 4 * group + byte]
    low_byte = fields["ql"][:, 8 * group + 4 * (step // 2) + byte]
    high = (high_byte >> (6 - 2 * step).astype(np.uint8)) & 3
    low = np.where(step % 2 == 0, low_byte >> 4, low_byte & 15)
    return high, low


def _codes_fp6(fields: Fields, elements: int) -> Array:
    high, low = _six_bit_planes(fields, elements, _FLOAT_ORDER)
    return (high << 4) | low


def codes_fp6(fields: Fields) -> Array:
    return _codes_fp6(fields, 64)


def codes_fp6_k(fields: Fields) -> Array:
    return _codes_fp6(fields, 256)


def codes_q6_k(fields: Fields) -> Array:
    high, low = _six_bit_planes(fields, 256, np.arange(4))
    return 16 * high + low


def codes_q2_k(fields: Fields) -> Array:
    e = np.arange(256)
    byte = fields["qs"][:, 32 * (e // 128) + e % 32]
    return (byte >> (2 * (e % 128 // 32)).astype(np.uint8)) & 3


def codes_q4_k(fields: Fields) -> Array:
    qs = fields["qs"].reshape(-1, 8, 16)
    return np.concatenate([qs & 15, qs >> 4], axis=2).reshape(-1, 256)


def codes_q5_k(fields: Fields) -> Array:
    e = np.arange(256)
    byte = fields["qs"][:, 32 * (e // 64) + e % 32]
    low = np.where(e % 64 < 32, byte & 15, byte >> 4)
    fifth = (fields["qh"][:, e % 32] >> (e // 32).astype(np.uint8)) & 1
    return low + 16 * fifth


def _words_iq2_xxs(fields: Fields) -> Array:
    return np.ascontiguousarray(fields["qs"].reshape(-1, 8, 8)[:, :, 4:]).view("<u4")[:, :, 0]


def indices_iq2_xxs(fields: Fields) -> Array:
    """Grid indices, one for each vector: shape (blocks, 8 groups, 4 vectors)."""
    return fields["qs"].reshape(-1, 8, 8)[:, :, :4]


def sign_indices_iq2_xxs(fields: Fields) -> Array:
    return (_words_iq2_xxs(fields)[:, :, None] >> (7 * np.arange(4, dtype=np.uint32))) & 127


def indices_iq1_s(fields: Fields) -> Array:
    high = (fields["qh"][:, :, None] >> (3 * np.arange(4, dtype=np.uint16))) & 7
    return fields["qs"].reshape(-1, 8, 4).astype(np.int64) | (high.astype(np.int64) << 8)


CODES: dict[str, Callable[[Fields], Array]] = {
    "q4_0": codes_split_nibbles,
    "q4_1": codes_split_nibbles,
    "q5_0": codes_q5,
    "q5_1": codes_q5,
    "q8_0": codes_bytes,
    "q8_1": codes_bytes,
    "nf4": codes_nf4,
    "nf3": codes_nf3,
    "fp8_e4m3": codes_bytes,
    "fp4": codes_split_nibbles,
    "fp8_e5m2": codes_bytes,
    "q2_k": codes_q2_k,
    "q6_k": codes_q6_k,
    "q4_k": codes_q4_k,
    "q5_k": codes_q5_k,
    "fp6": codes_fp6,
    "fp6_k": codes_fp6_k,
    "q4_0_woq": codes_q4_0_woq,
}

# ---- values of codes ---------------------------------------------------------------------------------------

NF4_BITS = np.array(
    [
        *(0xBF800000, 0xBF3239B1, 0xBF066B30, 0xBECA32A0, 0xBE91A24D, 0xBE3D353F, 0xBDBA7871, 0x00000000),
        *(0x3DA2FAFF, 0x3E24CAE3, 0x3E7C04DD, 0x3EAD033A, 0x3EE1A4B8, 0x3F1007AB, 0x3F3913B3, 0x3F800000),
    ],
    np.uint32,
)
NF3_BITS = np.array(
    [0xBF800000, 0xBEF50EE3, 0xBE5E5A6B, 0x00000000, 0x3E24CAE3, 0x3EAD033A, 0x3F1007AB, 0x3F800000],
    np.uint32,
)
FP4_MAGNITUDES = np.array([0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0], np.float32)


def values_nf4(codes: Array) -> Array:
    return NF4_BITS.view(np.float32)[codes]


def values_nf3(codes: Array) -> Array:
    return NF3_BITS.view(np.float32)[codes]


def values_fp4(codes: Array) -> Array:
    return np.where(codes & 8, -FP4_MAGNITUDES[codes & 7], FP4_MAGNITUDES[codes & 7])


def values_fp6(codes: Array) -> Array:
    """A sign, three exponent bits of bias 15 and two mantissa bits, half a unit above the last of them."""
    sign = np.where(codes & 32, -1.0, 1.0)
    exponent = ((codes >> 2) & 7).astype(np.int64)
    fraction = ((codes & 3) + 0.5) / 4
    magnitude = np.where(exponent > 0, np.ldexp(1 + fraction, exponent - 15), np.ldexp(fraction, -14))
    return (sign * magnitude).astype(np.float16)


def values_fp8_e5m2(codes: Array) -> Array:
    return ((codes.astype(np.uint16) << 8) | 0x0080).view(np.float16)


def _fp8_e4m3_bits(codes: Array) -> Array:
    wide = codes.astype(np.uint16)
    return ((wide & 0x80) << 8) | ((wide & 0x7F) << 7)


def values_fp8_e4m3(codes: Array) -> Array:
    return (_fp8_e4m3_bits(codes) | 0x0040).view(np.float16)


def values_fp8_e4m3_bare(codes: Array) -> Array:
    return _fp8_e4m3_bits(codes).view(np.float16)


# ---- readers -----------------------------------------------------------------------------------------------


def _single(x: Array) -> Array:
    return x.astype(np.float32)


def decode_q4_0(fields: Fields, dtype: str) -> Array:
    return product(fields["d"], codes_split_nibbles(fields).astype(np.int8) - 8, dtype)


def decode_q4_0_woq(fields: Fields, dtype: str) -> Array:
    return product(fields["d"], codes_q4_0_woq(fields).astype(np.int8) - 8, dtype)


def decode_q4_1(fields: Fields, dtype: str) -> Array:
    return scaled_sum(fields["d"], codes_split_nibbles(fields), fields["m"], dtype)


def decode_q5_0(fields: Fields, dtype: str) -> Array:
    return store(_single(fields["d"]) * _single(codes_q5(fields).astype(np.int8) - 16), dtype)


def decode_q5_1(fields: Fields, dtype: str) -> Array:
    return store(_single(fields["d"]) * _single(codes_q5(fields)) + _single(fields["m"]), dtype)


def decode_q5_0_matvec(fields: Fields, dtype: str) -> Array:
    if dtype == "float64":
        return fields["d"].astype(np.float64) * (codes_q5(fields).astype(np.float64) - 16)
    return decode_q5_0(fields, dtype)


def decode_q5_1_matvec(fields: Fields, dtype: str) -> Array:
    return scaled_sum(fields["d"], codes_q5(fields), fields["m"], dtype)


def decode_q8_0(fields: Fields, dtype: str) -> Array:
    return product(fields["d"], fields["qs"], dtype)


def decode_q8_1(fields: Fields, dtype: str) -> Array:
    return store(_single(fields["d"]) * _single(fields["qs"]), dtype)


def decode_nf4(fields: Fields, dtype: str) -> Array:
    return product(values_nf4(codes_nf4(fields)), fields["d"], dtype)


def decode_nf3(fields: Fields, dtype: str) -> Array:
    return store(values_nf3(codes_nf3(fields)) * _single(fields["d"]), dtype)


def decode_fp4(fields: Fields, dtype: str) -> Array:
    return product(fields["d"], values_fp4(codes_split_nibbles(fields)), dtype)


def decode_fp6(fields: Fields, dtype: str) -> Array:
    return product(values_fp6(codes_fp6(fields)), fields["d"], dtype)


def decode_fp8_e4m3(fields: Fields, dtype: str) -> Array:
    return product(values_fp8_e4m3(fields["qs"]), fields["d"], dtype)


def decode_fp8_e5m2(fields: Fields, dtype: str) -> Array:
    values = values_fp8_e5m2(fields["qs"])
    return values.view(np.uint16) if dtype == "float16" else store(values, dtype)


def decode_fp8_e5m2_scaled(fields: Fields, dtype: str) -> Array:
    return product(values_fp8_e5m2(fields["qs"]), fields["d"], dtype)


def decode_q2_k(fields: Fields, dtype: str) -> Array:
    scales = np.repeat(fields["scales"], 16, axis=1)
    d, dmin = _single(fields["d"]), _single(fields["dmin"])
    positive = (d * _single(scales & 15)) * _single(codes_q2_k(fields))
    return store(positive - dmin * _single(scales >> 4), dtype)


def decode_q4_k(fields: Fields, dtype: str) -> Array:
    scale = np.repeat(fields["scales"][:, 0::2], 32, axis=1)
    minimum = np.repeat(fields["scales"][:, 1::2], 32, axis=1)
    positive = (_single(fields["d"]) * _single(scale)) * _single(codes_q4_k(fields))
    return store(positive - _single(fields["dmin"]) * _single(minimum), dtype)


def scales_q5_k(fields: Fields) -> tuple[Array, Array]:
    """6-bit scales and minima, one for each of eight sub-blocks."""
    packed = fields["scales"]
    first, second, third = packed[:, :4], packed[:, 4:8], packed[:, 8:]
    scale = np.concatenate([first & 63, (third & 15) | ((first >> 6) << 4)], axis=1)
    minimum = np.concatenate([second & 63, (third >> 4) | ((second >> 6) << 4)], axis=1)
    return scale, minimum


def decode_q5_k(fields: Fields, dtype: str) -> Array:
    scale, minimum = (np.repeat(part, 32, axis=1) for part in scales_q5_k(fields))
    positive = (_single(fields["d"]) * _single(scale)) * _single(codes_q5_k(fields))
    return store(positive - _single(fields["dmin"]) * _single(minimum), dtype)


def decode_q6_k(fields: Fields, dtype: str) -> Array:
    scale = _single(fields["d"]) * _single(fields["scales"])
    return store(np.repeat(scale, 16, axis=1) * (_single(codes_q6_k(fields)) - 32), dtype)


def decode_fp6_k(fields: Fields, dtype: str) -> Array:
    scale = fields["d"] * fields["scales"].astype(np.float16)
    return product(values_fp6(codes_fp6_k(fields)), np.repeat(scale, 16, axis=1), dtype)


def decode_iq2_xxs(fields: Fields, dtype: str) -> Array:
    word = _words_iq2_xxs(fields)
    scale = ((_single(word >> 28) + np.float32(0.5)) * _single(fields["d"])) * np.float32(0.25)
    magnitude = iq2xxs_rows()[indices_iq2_xxs(fields)]  # (blocks, 8, 4, 8)
    index = sign_indices_iq2_xxs(fields)
    bits = (index[..., None] >> np.arange(7, dtype=np.uint32)) & 1
    negative = np.concatenate([bits, bits.sum(axis=-1, keepdims=True) & 1], axis=-1) == 1
    y = scale[:, :, None, None] * _single(magnitude)
    return store(np.where(negative, -y, y).reshape(len(word), 256), dtype)


def decode_iq1_s(fields: Fields, dtype: str) -> Array:
    qh = fields["qh"]
    scale = _single(fields["d"]) * _single(2 * ((qh >> 12) & 7) + 1)
    delta = np.where(qh & 0x8000, np.float32(-1.125), np.float32(-0.875))
    grid = _single(iq1s_rows()[indices_iq1_s(fields)])
    y = scale[:, :, None, None] * (delta[:, :, None, None] + grid)
    return store(y.reshape(len(qh), 256), dtype)


def _expanded(decode: Callable[[Fields, str], Array]) -> Callable[[Fields, str], Array]:
    """Decode in half precision, then convert."""

    def expand(fields: Fields, dtype: str) -> Array:
        half = decode(fields, "float16")
        return half if dtype == "float16" else half.view(np.float16).astype(np.float32)

    return expand


def _operand(values: Callable[[Fields], Array]) -> Callable[[Fields, str], Array]:
    def operand(fields: Fields, dtype: str) -> Array:
        x = values(fields)
        return x.view(np.uint16) if x.dtype == np.float16 and dtype == "float16" else store(x, dtype)

    return operand


@dataclass(frozen=True)
class Reader:
    format: str
    dtypes: tuple[str, ...]
    read: Callable[[Fields, str], Array]


_HALF_AND_FLOAT = ("float32", "float16")
_OPERANDS = ("float16", "bfloat16")

READERS: dict[str, Reader] = {
    "decode_q4_0": Reader("q4_0", DTYPES, decode_q4_0),
    "decode_q4_0_woq": Reader("q4_0_woq", DTYPES, decode_q4_0_woq),
    "decode_q4_0_woq_in_q4_0_order": Reader("q4_0_woq", DTYPES, decode_q4_0),
    "decode_q4_1": Reader("q4_1", DTYPES, decode_q4_1),
    "decode_q5_0": Reader("q5_0", DTYPES, decode_q5_0),
    "decode_q5_0_matvec": Reader("q5_0", DTYPES, decode_q5_0_matvec),
    "decode_q5_1": Reader("q5_1", DTYPES, decode_q5_1),
    "decode_q5_1_matvec": Reader("q5_1", DTYPES, decode_q5_1_matvec),
    "decode_q8_0": Reader("q8_0", DTYPES, decode_q8_0),
    "decode_q8_1": Reader("q8_1", DTYPES, decode_q8_1),
    "decode_nf4": Reader("nf4", DTYPES, decode_nf4),
    "decode_nf3": Reader("nf3", DTYPES, decode_nf3),
    "decode_fp4": Reader("fp4", DTYPES, decode_fp4),
    "decode_fp6": Reader("fp6", DTYPES, decode_fp6),
    "decode_fp8_e4m3": Reader("fp8_e4m3", DTYPES, decode_fp8_e4m3),
    "decode_fp8_e5m2": Reader("fp8_e5m2", DTYPES, decode_fp8_e5m2),
    "decode_fp8_e5m2_scaled": Reader("fp8_e5m2", DTYPES, decode_fp8_e5m2_scaled),
    "decode_q2_k": Reader("q2_k", DTYPES, decode_q2_k),
    "decode_q4_k": Reader("q4_k", DTYPES, decode_q4_k),
    "decode_q5_k": Reader("q5_k", DTYPES, decode_q5_k),
    "decode_q6_k": Reader("q6_k", DTYPES, decode_q6_k),
    "decode_fp6_k": Reader("fp6_k", DTYPES, decode_fp6_k),
    "decode_iq2_xxs": Reader("iq2_xxs", DTYPES, decode_iq2_xxs),
    "decode_iq1_s": Reader("iq1_s", DTYPES, decode_iq1_s),
    "expand_q4_0": Reader("q4_0", _HALF_AND_FLOAT, _expanded(decode_q4_0)),
    "expand_q4_1": Reader("q4_1", _HALF_AND_FLOAT, _expanded(decode_q4_1)),
    "expand_q8_0": Reader("q8_0", _HALF_AND_FLOAT, _expanded(decode_q8_0)),
    "expand_fp4": Reader("fp4", _HALF_AND_FLOAT, _expanded(decode_fp4)),
    "expand_fp6": Reader("fp6", _HALF_AND_FLOAT, _expanded(decode_fp6)),
    "expand_fp6_k": Reader("fp6_k", _HALF_AND_FLOAT, _expanded(decode_fp6_k)),
    "expand_fp8_e4m3": Reader("fp8_e4m3", _HALF_AND_FLOAT, _expanded(decode_fp8_e4m3)),
    "expand_fp8_e5m2": Reader("fp8_e5m2", _HALF_AND_FLOAT, _expanded(decode_fp8_e5m2)),
    "expand_q4_k": Reader("q4_k", _HALF_AND_FLOAT, decode_q4_k),
    "expand_q6_k": Reader("q6_k", _HALF_AND_FLOAT, decode_q6_k),
    "operand_q4_0": Reader("q4_0", _OPERANDS, _operand(lambda f: _single(codes_split_nibbles(f)) - 8)),
    "operand_q8_0": Reader("q8_0", _OPERANDS, _operand(lambda f: _single(f["qs"]))),
    "operand_fp8_e4m3": Reader("fp8_e4m3", _OPERANDS, _operand(lambda f: values_fp8_e4m3_bare(f["qs"]))),
    "operand_fp8_e5m2": Reader("fp8_e5m2", _OPERANDS, _operand(lambda f: values_fp8_e5m2(f["qs"]))),
}


def read(reader: str, fields: Fields, dtype: str) -> Array:
    """Run a reader on split fields; flat raw values."""
    with np.errstate(all="ignore"):
        return READERS[reader].read(fields, dtype).reshape(-1)


def decode(reader: str, weight: NDArray[np.uint8], dtype: str) -> Array:
    """Run a reader on the flat bytes of a weight; flat raw values."""
    return read(reader, split(FORMATS[READERS[reader].format], weight), dtype)
