"""Reference decoder: packed bytes to the dense matrix that they stand for.

Written for clarity from the storage rules, one function per format, vectorised over blocks with torch on
the CPU.
"""

from __future__ import annotations

from collections.abc import Callable

import torch
from torch import Tensor

from quillon._modes import plain_modes
from quillon._pieces import for_each_piece
from quillon.formats import Format, check_shape, field_offsets
from quillon.tables import FP4_MAGNITUDES, NF3, NF4, iq1s_grid, iq2xxs_grid, ksigns_iq2xs

__all__ = ["dequantize_reference"]

# Fields of some blocks: name -> uint8 (blocks, bytes).
Fields = dict[str, Tensor]


def _aligned(field: Tensor) -> Tensor:
    """A copy that can be viewed as wider elements: fields start at any byte."""
    return field.clone(memory_format=torch.contiguous_format)


def _half(field: Tensor, index: int = 0) -> Tensor:
    """The half at position ``index`` of a field, float16 (blocks, 1)."""
    return _aligned(field[:, 2 * index : 2 * index + 2]).view(torch.float16)


def _float(field: Tensor) -> Tensor:
    """The float32 of a field of four bytes, (blocks, 1)."""
    return _aligned(field).view(torch.float32)


def _bits(field: Tensor, shift: int | Tensor, mask: int) -> Tensor:
    return (field >> shift) & mask


def _word_bits(field: Tensor) -> Tensor:
    """All bits of little-endian words in rising order: (blocks, n bytes) to uint8 (blocks, 8 n)."""
    return _bits(field[:, :, None], torch.arange(8, dtype=torch.uint8), 1).flatten(1)


def _nibbles(qs: Tensor) -> Tensor:
    """Codes of 64 elements from 32 bytes: low nibbles first, then high nibbles."""
    return torch.cat((qs & 15, qs >> 4), dim=1)


def _per_sub_block(scales: Tensor, elements: int = 256) -> Tensor:
    """Repeat each sub-block's number over its elements: (blocks, n) to (blocks, elements)."""
    return scales.repeat_interleave(elements // scales.shape[1], dim=1)


# The formats of 64 elements whose operands are converted to the result's type first, with every operation
# in it.


def _q4_0(f: Fields, dtype: torch.dtype) -> Tensor:
    return _half(f["d"]).to(dtype) * (_nibbles(f["qs"]).to(torch.int8) - 8).to(dtype)


def _q4_0_woq(f: Fields, dtype: torch.dtype) -> Tensor:
    codes = torch.stack((f["qs"] & 15, f["qs"] >> 4), dim=2).flatten(1)
    return _half(f["d"]).to(dtype) * (codes.to(torch.int8) - 8).to(dtype)


def _q4_1(f: Fields, dtype: torch.dtype) -> Tensor:
    return _half(f["dm"], 0).to(dtype) * _nibbles(f["qs"]).to(dtype) + _half(f["dm"], 1).to(dtype)


def _q8_0(f: Fields, dtype: torch.dtype) -> Tensor:
    return _float(f["d"]).to(dtype) * f["qs"].view(torch.int8).to(dtype)


def _nf4(f: Fields, dtype: torch.dtype) -> Tensor:
    codes = torch.cat((f["qs"] >> 4, f["qs"] & 15), dim=1)
    return torch.tensor(NF4, dtype=torch.float32).to(dtype)[codes.int()] * _half(f["d"]).to(dtype)


def _fp4(f: Fields, dtype: torch.dtype) -> Tensor:
    levels = torch.tensor(FP4_MAGNITUDES, dtype=torch.float32)
    levels = torch.cat((levels, -levels)).to(dtype)
    return _half(f["d"]).to(dtype) * levels[_nibbles(f["qs"]).int()]


def _as_half(pattern: Tensor) -> Tensor:
    """Half values of int32 bit patterns from 0 to 65535."""
    return pattern.to(torch.int16).view(torch.float16)


def _fp8_e4m3(f: Fields, dtype: torch.dtype, bit: int = 0x40) -> Tensor:
    byte = f["qs"].int()
    pattern = (byte & 0x80) << 8 | (byte & 0x7F) << 7 | bit
    return _as_half(pattern).to(dtype) * _float(f["d"]).to(dtype)


def _fp8_e5m2(f: Fields, dtype: torch.dtype) -> Tensor:
    return _as_half(f["qs"].int() << 8 | 0x80).to(dtype)


def _six_bits(ql: Tensor, qh: Tensor, byte_of: tuple[int, int, int, int]) -> tuple[Tensor, Tensor]:
    """(4-bit, 2-bit) parts of each element, int32 (blocks, elements).

    16 elements own words 2 g and 2 g + 1 of ``ql`` and word g of ``qh``; element 4 i + p is in byte
    ``byte_of[p]``.
    """
    blocks = len(ql)
    low_words = ql.int().view(blocks, -1, 2, 4)[..., byte_of]
    high_words = qh.int().view(blocks, -1, 1, 4)[..., byte_of]
    # Steps 0 and 1 read the first low word, steps 2 and 3 the second; the even step has the high nibble.
    low = torch.stack((low_words >> 4, low_words & 15), dim=3)
    high = torch.cat([high_words >> shift & 3 for shift in (6, 4, 2, 0)], dim=2)
    return low.flatten(1), high.flatten(1)


def _fp6_levels(f: Fields) -> Tensor:
    low, high = _six_bits(f["ql"], f["qh"], (1, 3, 0, 2))
    return _as_half((high & 2) << 14 | (high & 1) << 12 | low << 8 | 0x80)


def _fp6(f: Fields, dtype: torch.dtype) -> Tensor:
    return _fp6_levels(f).to(dtype) * _half(f["d"]).to(dtype)


def _fp6_k(f: Fields, dtype: torch.dtype) -> Tensor:
    scales = _half(f["d"]) * f["scales"].view(torch.int8).half()
    return _fp6_levels(f).to(dtype) * _per_sub_block(scales).to(dtype)


# The formats that compute in float32 for every result type; the caller converts once.


def _five_bits(f: Fields) -> Tensor:
    return _nibbles(f["qs"]) + (_word_bits(f["qh"]) << 4)


def _q5_0(f: Fields, _: torch.dtype) -> Tensor:
    return _half(f["d"]).float() * (_five_bits(f).float() - 16)


def _q5_1(f: Fields, _: torch.dtype) -> Tensor:
    return _half(f["d"]).float() * _five_bits(f).float() + _half(f["m"]).float()


def _nf3(f: Fields, _: torch.dtype) -> Tensor:
    shifts = torch.tensor((6, 4, 2, 0), dtype=torch.uint8)
    low = _bits(f["qs"][:, 8:, None], shifts, 3).flatten(1)
    codes = low + 4 * _word_bits(f["qs"][:, :8])
    return torch.tensor(NF3, dtype=torch.float32)[codes.int()] * _half(f["d"]).float()


def _two_level(d: Tensor, scales: Tensor, codes: Tensor, dmin: Tensor, minima: Tensor) -> Tensor:
    step = d.float() * _per_sub_block(scales.float())
    return step * codes.float() - dmin.float() * _per_sub_block(minima.float())


def _q2_k(f: Fields, _: torch.dtype) -> Tensor:
    halves = f["qs"].view(-1, 2, 1, 32)
    codes = torch.cat([halves >> shift & 3 for shift in (0, 2, 4, 6)], dim=2).flatten(1)
    return _two_level(_half(f["d"]), f["scales"] & 15, codes, _half(f["dmin"]), f["scales"] >> 4)


def _q4_k(f: Fields, _: torch.dtype) -> Tensor:
    groups = f["qs"].view(-1, 8, 16)
    codes = torch.cat((groups & 15, groups >> 4), dim=2).flatten(1)
    return _two_level(_half(f["dm"], 0), f["scales"][:, 0::2], codes, _half(f["dm"], 1), f["scales"][:, 1::2])


def _q5_k(f: Fields, _: torch.dtype) -> Tensor:
    a, b, c = f["scales"][:, 0:4], f["scales"][:, 4:8], f["scales"][:, 8:12]
    scales = torch.cat((a & 63, c & 15 | a >> 6 << 4), dim=1)
    minima = torch.cat((b & 63, c >> 4 | b >> 6 << 4), dim=1)
    pairs = f["qs"].view(-1, 4, 1, 32)
    low = torch.cat((pairs & 15, pairs >> 4), dim=2).flatten(1)
    fifth = _bits(f["qh"][:, None, :], torch.arange(8, dtype=torch.uint8)[:, None], 1).flatten(1)
    return _two_level(_half(f["d"]), scales, low + 16 * fifth, _half(f["dmin"]), minima)


def _q6_k(f: Fields, _: torch.dtype) -> Tensor:
    low, high = _six_bits(f["ql"], f["qh"], (0, 1, 2, 3))
    scales = _half(f["d"]).float() * f["scales"].view(torch.int8).float()
    return _per_sub_block(scales) * (16 * high + low - 32).float()


def _iq2_xxs(f: Fields, _: torch.dtype) -> Tensor:
    groups = f["qs"].view(-1, 8, 8)
    points = iq2xxs_grid()[groups[..., :4].int()]
    word = (groups[..., 4:].long() << torch.arange(0, 32, 8)).sum(-1)
    patterns = ksigns_iq2xs()[word[..., None] >> torch.arange(0, 28, 7) & 127]
    negative = _bits(patterns[..., None], torch.arange(8, dtype=torch.uint8), 1).bool()
    scale = ((word >> 28).float() + 0.5) * _half(f["d"]).float() * 0.25
    values = scale[:, :, None, None] * points
    return torch.where(negative, -values, values).flatten(1)


def _iq1_s(f: Fields, _: torch.dtype) -> Tensor:
    h = _aligned(f["qh"]).view(torch.int16).int() & 0xFFFF
    high = h[:, :, None] >> torch.arange(0, 12, 3) & 7
    points = iq1s_grid()[f["qs"].view(-1, 8, 4).int() | high << 8]
    shift = torch.where(h >> 15 == 1, -1.125, -0.875)
    scale = _half(f["d"]).float() * (2 * (h >> 12 & 7) + 1).float()
    return (scale[:, :, None, None] * (shift[:, :, None, None] + points)).flatten(1)


_DECODERS: dict[str, Callable[[Fields, torch.dtype], Tensor]] = {
    "q4_0": _q4_0,
    "q4_1": _q4_1,
    "q5_0": _q5_0,
    "q5_1": _q5_1,
    "q8_0": _q8_0,
    "q4_0_woq": _q4_0_woq,
    "nf4": _nf4,
    "nf3": _nf3,
    "fp4": _fp4,
    "fp6": _fp6,
    "fp8_e4m3": _fp8_e4m3,
    "fp8_e5m2": _fp8_e5m2,
    "q2_k": _q2_k,
    "q4_k": _q4_k,
    "q5_k": _q5_k,
    "q6_k": _q6_k,
    "fp6_k": _fp6_k,
    "iq2_xxs": _iq2_xxs,
    "iq1_s": _iq1_s,
}

DTYPES = (torch.float32, torch.float64, torch.float16, torch.bfloat16)
_PIECE_ELEMENTS = 1 << 16


def check_packed(data: Tensor, format: str | int, rows: int, cols: int, dtype: torch.dtype) -> Format:
    """The format, after a check that ``data`` is a weight of this shape in it and ``dtype`` one to expand it to."""
    fmt = check_shape(format, rows, cols)
    if not isinstance(data, Tensor):
        raise TypeError(f"data must be a tensor, got {type(data).__name__}")
    if data.dtype != torch.uint8:
        raise TypeError(f"data must be uint8, got {data.dtype}")
    if dtype not in DTYPES:
        raise TypeError(f"dtype must be float32, float64, float16 or bfloat16, got {dtype}")
    blocks = rows * cols // fmt.elements
    if data.shape != (blocks * fmt.bytes,):
        raise ValueError(
            f"data must have shape ({blocks * fmt.bytes},) for {rows} by {cols} in {fmt.name}, got {tuple(data.shape)}"
        )
    return fmt


@plain_modes()
def dequantize_reference(
    data: Tensor,
    format: str | int,
    rows: int,
    cols: int,
    dtype: torch.dtype = torch.float32,
    *,
    apply_scale: bool = False,
    midpoints: bool = True,
) -> Tensor:
    """Expand a packed weight.

    data         uint8, one dimension, weight_bytes(format, rows, cols) long; on any device
    dtype        float32, float64, float16 or bfloat16
    apply_scale  only of use for fp8_e5m2, where the readers disagree: products of a single activation row and
                 the dense expansions ignore the stored scale (False), the fused MLP and the matrix engine
                 apply it (True)
    midpoints    only of use for fp8_e4m3: the matrix engine takes its codes as they are (False), all other readers
                 set a bit behind each (True)

    Returns (rows, cols) of ``dtype`` on the CPU, with the rounding that the format prescribes for that type.
    Raises ``TypeError`` for wrong element types and ``ValueError`` for sizes that do not fit.
    """
    fmt = check_packed(data, format, rows, cols, dtype)
    blocks = rows * cols // fmt.elements
    data = data.detach().cpu().contiguous()
    sizes = dict(fmt.fields)
    places = field_offsets(fmt.name, blocks)
    out = torch.empty(blocks, fmt.elements, dtype=dtype)

    def expand(first: int, last: int) -> None:
        fields = {
            name: data.as_strided(
                (last - first, sizes[name]), (stride, 1), data.storage_offset() + offset + first * stride
            )
            for name, (offset, stride) in places.items()
        }
        bare = fmt.name == "fp8_e4m3" and not midpoints
        values = _fp8_e4m3(fields, dtype, bit=0) if bare else _DECODERS[fmt.name](fields, dtype)
        if apply_scale and fmt.name == "fp8_e5m2":
            values = values * _float(fields["d"]).to(dtype)
        out[first:last] = values

    for_each_piece(blocks, _PIECE_ELEMENTS // fmt.elements, expand)
    if dtype == torch.bfloat16:
        # There is one NaN in bfloat16 here, whatever the vectorised conversion makes of it.
        out.view(torch.int16)[out.isnan()] = 0x7FC0
    return out.view(rows, cols)
