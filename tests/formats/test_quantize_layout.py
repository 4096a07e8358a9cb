"""Hand-made bytes against the reference decoder and the quantizers; the rounding of each element type."""

from __future__ import annotations

import struct
from collections.abc import Callable

import pytest
import torch
from torch import Tensor

from quillon.formats import FORMATS, WEIGHT_FORMATS, weight_bytes
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference
from quillon.tables import NF3, NF4, iq1s_grid, iq2xxs_grid, ksigns_iq2xs


def half(*values: float) -> bytes:
    return struct.pack(f"<{len(values)}e", *values)


def single(*values: float) -> bytes:
    return struct.pack(f"<{len(values)}f", *values)


def tensor(data: bytes | bytearray) -> Tensor:
    return torch.tensor(list(data), dtype=torch.uint8)


# Two blocks, all bytes zero but those given by position; then values of some elements of the two blocks,
# and the value of all the others.
Case = tuple[dict[int, bytes], dict[int, float], Callable[[int], float]]

LEVEL_E4M3 = 2.0**-15 * 0.125  # code 0: pattern 0x0040
LEVEL_E5M2 = 2.0**-17  # code 0: pattern 0x0080

DECODE: dict[str, Case] = {
    "q4_0": (
        {5: b"\x87", 32 + 31: b"\x0f", 64: half(1.0, 2.0)},
        {5: -1.0, 37: 0.0, 64 + 31: 14.0},
        lambda e: -8.0 if e < 64 else -16.0,
    ),
    "q4_0_woq": (
        {5: b"\x87", 32 + 31: b"\x0f", 64: half(1.0, 2.0)},
        {10: -1.0, 11: 0.0, 64 + 62: 14.0},
        lambda e: -8.0 if e < 64 else -16.0,
    ),
    "q4_1": (
        {5: b"\x87", 32 + 31: b"\x0f", 64: half(1.0, 0.5, 2.0, -3.0)},
        {5: 7.5, 37: 8.5, 64 + 31: 27.0},
        lambda e: 0.5 if e < 64 else -3.0,
    ),
    # Bytes 2 and 3 of a q5_0 record mean nothing.
    "q5_0": (
        {
            0: half(1.0, 9.0),
            5: b"\x02",
            12 + 3: b"\x21",
            44: half(2.0),
            44 + 11: b"\x80",
            44 + 12 + 31: b"\xf0",
        },
        {3: -15.0, 9: 0.0, 35: -14.0, 64 + 63: 30.0},
        lambda e: -16.0 if e < 64 else -32.0,
    ),
    "q5_1": (
        {
            0: half(1.0, 9.0),
            5: b"\x02",
            12 + 3: b"\x21",
            44: half(2.0),
            44 + 11: b"\x80",
            44 + 12 + 31: b"\xf0",
        },
        {3: 10.0, 9: 25.0, 35: 11.0, 64 + 63: 62.0},
        lambda e: 9.0 if e < 64 else 0.0,
    ),
    "q8_0": (
        {1: b"\x80\x7f", 64 + 63: b"\xff", 128: single(0.1, 3.0)},
        {
            1: -128 * struct.unpack("f", single(0.1))[0],
            2: 127 * struct.unpack("f", single(0.1))[0],
            127: -3.0,
        },
        lambda e: 0.0,
    ),
    "nf4": (
        {5: b"\x7f", 32 + 31: b"\x80", 64: half(1.0, 2.0)},
        {5: 0.0, 37: 1.0, 64 + 31: 2 * NF4[8]},
        lambda e: -1.0 if e < 64 else -2.0,
    ),
    # Element 1 has its two low bits at bits 5 and 4 of byte 8, element 9 its top bit at bit 1 of byte 1.
    "nf3": (
        {1: b"\x02", 8: b"\x30", 24 + 7: b"\x80", 24 + 8 + 15: b"\x03", 48: half(1.0, 2.0)},
        {1: 0.0, 9: NF3[4], 64 + 63: 2.0},
        lambda e: -1.0 if e < 64 else -2.0,
    ),
    "fp4": (
        {5: b"\x7f", 32 + 31: b"\x81", 64: half(1.0, 2.0)},
        {5: -6.0, 37: 6.0, 64 + 31: 1.0, 64 + 63: -0.0625},
        lambda e: 0.03125 if e < 64 else 0.0625,
    ),
    "fp8_e4m3": (
        {1: b"\x38\x7f\x80", 64 + 63: b"\xff", 128: single(1.0, 3.0)},
        {1: 0.004150390625, 2: 1.9375, 3: -LEVEL_E4M3, 127: -5.8125},
        lambda e: LEVEL_E4M3 if e < 64 else 3 * LEVEL_E4M3,
    ),
    # The stored scales are not read.
    "fp8_e5m2": (
        {1: b"\x3c\x7b\x80", 64 + 63: b"\xbc", 128: single(7.0, 3.0)},
        {1: 1.125, 2: 61440.0, 3: -LEVEL_E5M2, 127: -1.125},
        lambda e: LEVEL_E5M2,
    ),
    # Element 0 is in byte 1 of the words; element 22 = 16 + 4 + 2 is step 1 of group 1, byte 0; element 63 is step
    # 3 of group 3, byte 2. A block's low plane has 32 bytes, its high plane 16.
    "fp6": (
        {
            1: b"\x50",
            8: b"\x0f",
            32 + 24 + 4 + 2: b"\x01",
            64 + 1: b"\x80",
            64 + 4: b"\x30",
            64 + 16 + 12 + 2: b"\x01",
            96: half(1.0, 2.0),
        },
        {
            0: -(2.0**-14) * (1 + 1.5 / 4),
            22: -(2.0**-8) * (1 + 3.5 / 4),
            64 + 63: 2 * 2.0**-11 * (1 + 1.5 / 4),
        },
        lambda e: 2.0**-17 if e < 64 else 2.0**-16,
    ),
    # Element 1 has code 3; element 33 = 32 + 1 the next two bits of the same byte; element 511 the last.
    "q2_k": (
        {
            0: b"\x21",
            2: b"\x05",
            16 + 1: b"\x0b",
            80: half(1.0, 1.0),
            84 + 15: b"\x3f",
            84 + 16 + 63: b"\x80",
            84 + 80: half(0.5, 2.0),
        },
        {
            **dict.fromkeys(range(16), -2.0),
            1: 1.0,
            33: 10.0,
            **{256 + e: -6.0 for e in range(240, 256)},
            511: 0.5 * 15 * 2 - 6,
        },
        lambda e: 0.0,
    ),
    "q4_k": (
        {
            0: b"\xa5",
            128 + 127: b"\x10",
            256: b"\x03\x02",
            256 + 16 + 14: b"\xff\xff",
            288: half(1.0, 1.0, 0.5, 2.0),
        },
        {
            **dict.fromkeys(range(32), -2.0),
            0: 13.0,
            16: 28.0,
            **{256 + e: -510.0 for e in range(224, 256)},
            511: 127.5 - 510,
        },
        lambda e: 0.0,
    ),
    # Sub-block 0: scale 5, minimum 1. Sub-block 5: scale 2 + 16 * 3, minimum 7 + 16 * 2, its top bits in
    # bytes 1 and 5, where sub-block 1 has scale and minimum 0.
    "q5_k": (
        {
            0: half(1.0, 0.5),
            4: b"\x05\xc0\x00\x00\x01\x80\x00\x00\x00\x72",
            16 + 2: b"\x21",
            48 + 2: b"\x03",
            48 + 64 + 2: b"\x40",
            176: half(1.0),
            176 + 4 + 11: b"\x01",
            176 + 16 + 31: b"\x80",
        },
        {
            **dict.fromkeys(range(32), -0.5),
            2: 5 * 19 - 0.5,
            **{160 + e: -19.5 for e in range(32)},
            160 + 2: 50 * (16 + 4) - 19.5,
            256 + 255: 16.0,
        },
        lambda e: 0.0,
    ),
    # Region order: high plane, low plane, scales, d. Element 0: bits 7 and 6 of byte 0 and the high nibble
    # of low byte 0; element 7: step 1, byte 3; element 511: step 3 of group 15, byte 3.
    "q6_k": (
        {
            0: b"\x80",
            3: b"\x30",
            64 + 63: b"\x01",
            128: b"\xf0",
            128 + 3: b"\x01",
            128 + 128 + 127: b"\x02",
            384: b"\x01\xff",
            384 + 16 + 15: b"\x80",
            416: half(1.0, 0.5),
        },
        {
            **dict.fromkeys(range(16), -32.0),
            0: 15.0,
            7: 17.0,
            **{16 + e: 32.0 for e in range(16)},
            **{256 + e: 2048.0 for e in range(240, 256)},
            511: -64.0 * (16 + 2 - 32),
        },
        lambda e: 0.0,
    ),
    # Region order: low plane, high plane, scales, d; bytes in the order of fp6. The other sub-blocks have scale 0.
    "fp6_k": (
        {
            1: b"\x50",
            128 + 124 + 2: b"\x0f",
            256 + 1: b"\x80",
            256 + 64 + 60 + 2: b"\x03",
            384: b"\x01",
            384 + 16 + 15: b"\xfe",
            416: half(1.0, 0.5),
        },
        {
            **dict.fromkeys(range(16), 2.0 ** (-17)),
            0: -(2.0**-14) * (1 + 1.5 / 4),
            **{256 + e: -(2.0**-17) for e in range(240, 256)},
            511: 2.0**-8 * (1 + 3.5 / 4),
        },
        lambda e: 0.0,
    ),
    # Group 0, vector 0: point 1 = 2B 08 08 ...; group 7 of the second record: scale 15, vector 3 has signs 1.
    "iq2_xxs": (
        {
            0: half(1.0),
            2: b"\x01",
            66: half(1.0),
            66 + 2 + 56 + 4: struct.pack("<I", 15 << 28 | 1 << 21),
        },
        {
            0: 43 * 0.125,
            **{256 + e: 31.0 for e in range(224, 256)},
            256 + 248: -31.0,
            256 + 255: -31.0,
        },
        lambda e: 1.0,
    ),
    # Group 0, vector 1: point 1 = 0x00000002, a two in position 0. Second record: group 7 has scale 7, the
    # lower shift, and in vector 3 the last point, all twos.
    "iq1_s": (
        {
            0: half(1.0),
            2 + 1: b"\x01",
            50: half(1.0),
            50 + 2 + 31: b"\xff",
            50 + 34 + 14: struct.pack("<H", 1 << 15 | 7 << 12 | 7 << 9),
        },
        {
            8: 1.125,
            **{256 + e: 15 * -1.125 for e in range(224, 248)},
            **{256 + e: 15 * 0.875 for e in range(248, 256)},
        },
        lambda e: -0.875,
    ),
}


def hand_made(name: str) -> tuple[Tensor, Tensor]:
    """The bytes of two blocks, and the values they stand for."""
    pokes, some, others = DECODE[name]
    count = 2 * FORMATS[name].elements
    data = bytearray(weight_bytes(name, 1, count))
    for position, content in pokes.items():
        assert position + len(content) <= len(data)
        data[position : position + len(content)] = content
    return tensor(data), torch.tensor([some.get(e, others(e)) for e in range(count)], dtype=torch.float32)


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_decode_of_hand_made_bytes(name: str) -> None:
    data, expected = hand_made(name)
    for rows in (1, 2):
        values = dequantize_reference(data, name, rows, len(expected) // rows)
        torch.testing.assert_close(values.flatten(), expected, rtol=0, atol=0)


def test_the_other_reader_of_fp8_e5m2_applies_the_scale() -> None:
    data = bytearray(b"\x3c" * 64 + single(3.0))
    assert float(dequantize_reference(tensor(data), "fp8_e5m2", 1, 64)[0, 0]) == 1.125
    assert float(dequantize_reference(tensor(data), "fp8_e5m2", 1, 64, apply_scale=True)[0, 0]) == 3.375


def test_tables() -> None:
    assert [int(v) for v in ksigns_iq2xs()[:16]] == [
        0, 129, 130, 3, 132, 5, 6, 135, 136, 9, 10, 139, 12, 141, 142, 15,
    ]  # fmt: skip
    assert [int(v) for v in ksigns_iq2xs()[-4:]] == [252, 125, 126, 255]
    assert all(int(v).bit_count() % 2 == 0 for v in ksigns_iq2xs())

    small = iq1s_grid()
    assert small.shape == (2048, 8)
    assert set(small.flatten().tolist()) == {0.0, 1.0, 2.0}
    assert len({tuple(row.tolist()) for row in small}) == 2048
    assert float(small[0].sum()) == 0
    assert float(small[-1].sum()) == 16
    # 0x00010001: ones in positions 0 and 2; 0x11101211: low nibbles 1 1 0 1, high nibbles 1 1 1 1 and a two.
    assert small[5].tolist() == [1, 0, 1, 0, 0, 0, 0, 0]
    assert small[1024].tolist() == [1, 2, 0, 1, 1, 1, 1, 1]

    large = iq2xxs_grid()
    assert large.shape == (256, 8)
    assert set(large.flatten().tolist()) == {8.0, 25.0, 43.0}
    assert large[1].tolist() == [43, 8, 8, 8, 8, 8, 8, 8]
    assert large[255].tolist() == [8, 25, 8, 8, 25, 43, 43, 43]
    words = [sum(int(v) << 8 * p for p, v in enumerate(row.tolist())) for row in large]
    assert words == sorted(set(words))


# What the quantizers write, byte by byte. Two blocks; the codes reach both ends, so no other scale is as
# good.

CODES_16 = [(7 * e) % 16 for e in range(64)]
CODES_32 = [(13 * e) % 32 for e in range(64)]


def low_high(codes: list[int]) -> bytes:
    return bytes(codes[j] | codes[j + 32] << 4 for j in range(32))


def fifth_bits(codes: list[int]) -> bytes:
    return sum((c >> 4) << e for e, c in enumerate(codes)).to_bytes(8, "little")


def low_nibbles(codes: list[int]) -> bytes:
    return low_high([c & 15 for c in codes])


def written(values: list[float], name: str) -> bytes:
    """Bytes of a row of the values followed by their double."""
    row = torch.tensor([values + [2 * v for v in values]], dtype=torch.float32)
    return bytes(quantize(row, name).tolist())


def test_written_q4_0() -> None:
    values = [(c - 8) * 0.5 for c in CODES_16]
    assert written(values, "q4_0") == 2 * low_high(CODES_16) + half(0.5, 1.0)


def test_written_q4_0_woq() -> None:
    values = [(c - 8) * 0.5 for c in CODES_16]
    pairs = bytes(CODES_16[2 * j] | CODES_16[2 * j + 1] << 4 for j in range(32))
    assert written(values, "q4_0_woq") == 2 * pairs + half(0.5, 1.0)


def test_written_q4_1() -> None:
    values = [c * 0.5 - 3 for c in CODES_16]
    assert written(values, "q4_1") == 2 * low_high(CODES_16) + half(0.5, -3.0, 1.0, -6.0)


def test_written_q5_0() -> None:
    values = [(c - 16) * 0.5 for c in CODES_32]
    tail = bytes(2) + fifth_bits(CODES_32) + low_nibbles(CODES_32)
    assert written(values, "q5_0") == half(0.5) + tail + half(1.0) + tail


def test_written_q5_1() -> None:
    values = [c * 0.5 - 3 for c in CODES_32]
    tail = fifth_bits(CODES_32) + low_nibbles(CODES_32)
    assert written(values, "q5_1") == half(0.5, -3.0) + tail + half(1.0, -6.0) + tail


def test_written_q8_0() -> None:
    codes = [-128 + 4 * e for e in range(63)] + [127]
    values = [0.5 * c for c in codes]
    assert written(values, "q8_0") == 2 * bytes(c & 255 for c in codes) + single(0.5, 1.0)


def test_written_nf4() -> None:
    values = [0.5 * NF4[c] for c in CODES_16]
    swapped = bytes(CODES_16[j] << 4 | CODES_16[j + 32] for j in range(32))
    assert written(values, "nf4") == 2 * swapped + half(0.5, 1.0)


def test_written_nf3() -> None:
    codes = [(3 * e) % 8 for e in range(64)]
    high = sum((c >> 2) << e for e, c in enumerate(codes)).to_bytes(8, "little")
    low = bytes(sum((codes[4 * k + i] & 3) << (6 - 2 * i) for i in range(4)) for k in range(16))
    assert written([0.5 * NF3[c] for c in codes], "nf3") == 2 * (high + low) + half(0.5, 1.0)


def test_written_fp4() -> None:
    # The first of the largest elements is positive, which settles the sign of the scale.
    codes = [7, *CODES_16[1:]]
    levels = [0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0]
    values = [0.5 * levels[c & 7] * (-1 if c & 8 else 1) for c in codes]
    assert written(values, "fp4") == 2 * low_high(codes) + half(0.5, 1.0)


def small_float(code: int, exponent_bits: int, mantissa_bits: int) -> float:
    sign, rest = code >> (exponent_bits + mantissa_bits), code & ((1 << (exponent_bits + mantissa_bits)) - 1)
    exponent, mantissa = rest >> mantissa_bits, rest & ((1 << mantissa_bits) - 1)
    fraction = (mantissa + 0.5) / (1 << mantissa_bits)
    value = 2.0**-14 * fraction if exponent == 0 else 2.0 ** (exponent - 15) * (1 + fraction)
    return -value if sign else value


def test_written_fp6() -> None:
    codes = [31, *((29 * e) % 64 for e in range(1, 64))]
    low, high = bytearray(32), bytearray(16)
    for e, code in enumerate(codes):
        group, step, byte = e // 16, e % 16 // 4, (1, 3, 0, 2)[e % 4]
        low[8 * group + 4 * (step // 2) + byte] |= (code & 15) << (0 if step % 2 else 4)
        high[4 * group + byte] |= (code >> 4) << (6 - 2 * step)
    values = [128 * small_float(c, 3, 2) for c in codes]
    assert written(values, "fp6") == 2 * bytes(low) + 2 * bytes(high) + half(128.0, 256.0)


def test_written_fp8_e4m3() -> None:
    codes = [127, *((37 * e) % 256 for e in range(1, 64))]
    values = [0.5 * small_float(c, 4, 3) for c in codes]
    assert written(values, "fp8_e4m3") == 2 * bytes(codes) + single(0.5, 1.0)


def test_written_fp8_e5m2() -> None:
    # Twice a value is the next exponent, four codes on; so only codes from 4 to 119 and their negatives.
    codes = [4 + (7 * e) % 112 | (e % 2) << 7 for e in range(64)]
    values = [small_float(c, 5, 2) for c in codes]
    assert written(values, "fp8_e5m2") == bytes(codes) + bytes(c + 4 for c in codes) + single(1.0, 1.0)


# Rounding by element type ---------------------------------------------------------------------------------

OTHER_TYPES = (torch.float16, torch.bfloat16, torch.float64)


def random_weight(name: str) -> Tensor:
    """Random bytes with finite scales, two rows of 512."""
    generator = torch.Generator().manual_seed(3)
    data = torch.randint(0, 256, (weight_bytes(name, 2, 512),), generator=generator, dtype=torch.uint8)
    return data


@pytest.mark.parametrize(
    "name", ["q5_0", "q5_1", "nf3", "q2_k", "q4_k", "q5_k", "q6_k", "iq2_xxs", "iq1_s", "fp8_e5m2"]
)
@pytest.mark.parametrize("dtype", OTHER_TYPES)
def test_formats_of_the_float_group_round_once(name: str, dtype: torch.dtype) -> None:
    data = random_weight(name)
    values = dequantize_reference(data, name, 2, 512)
    other = dequantize_reference(data, name, 2, 512, dtype)
    finite = values.isfinite()
    assert torch.equal(other[finite], values[finite].to(dtype))


D = 0.0999755859375  # a half of 11 significant bits


def rounded(x: float, dtype: torch.dtype) -> float:
    return float(torch.tensor(x, dtype=torch.float64).to(dtype))


@pytest.mark.parametrize("dtype", [torch.float32, *OTHER_TYPES])
def test_formats_of_the_other_group_compute_in_the_type(dtype: torch.dtype) -> None:
    def first(data: bytes, name: str) -> float:
        return float(dequantize_reference(tensor(data), name, 1, 64, dtype)[0, 0])

    def r(x: float) -> float:
        return rounded(x, dtype)

    minimum = 0.33349609375
    assert first(b"\xff" * 32 + half(D), "q4_0") == r(r(D) * 7)
    assert first(b"\xff" * 32 + half(D), "q4_0_woq") == r(r(D) * 7)
    assert first(b"\xff" * 32 + half(D, minimum), "q4_1") == r(r(r(D) * 15) + r(minimum))
    scale = struct.unpack("f", single(0.1))[0]
    assert first(b"\x6d" * 64 + single(0.1), "q8_0") == r(r(scale) * 109)
    assert first(b"\xdd" * 32 + half(D), "nf4") == r(r(NF4[13]) * r(D))
    assert first(b"\x55" * 32 + half(D), "fp4") == r(r(D) * 3)
    assert first(b"\xff" * 48 + half(D), "fp6") == r(-(2.0**-8) * 1.875 * r(D))
    assert first(b"\x7f" * 64 + single(0.1), "fp8_e4m3") == r(1.9375 * r(scale))


@pytest.mark.parametrize("dtype", [torch.float32, *OTHER_TYPES])
def test_scale_of_fp6_k_is_a_half_product(dtype: torch.dtype) -> None:
    data = bytearray(weight_bytes("fp6_k", 1, 256))
    data[192:208] = b"\x6d" * 16
    data[208:210] = half(D)
    scale = rounded(rounded(D * 109, torch.float16), dtype)
    value = dequantize_reference(tensor(data), "fp6_k", 1, 256, dtype)[0, 0]
    assert float(value) == rounded(2.0**-17 * scale, dtype)


def test_nan_codes_of_fp8_e5m2() -> None:
    data = tensor(b"\x7c\x7f\xfc\xff" * 16 + single(1.0))
    halves = dequantize_reference(data, "fp8_e5m2", 1, 64, torch.float16)
    patterns = halves.view(torch.int16)[0, :4] & 0xFFFF
    assert [int(p) & 0xFFFF for p in patterns] == [0x7C80, 0x7F80, 0xFC80, 0xFF80]
    brains = dequantize_reference(data, "fp8_e5m2", 1, 64, torch.bfloat16)
    assert {int(p) & 0xFFFF for p in brains.view(torch.int16).flatten()} == {0x7FC0}
    assert bool(dequantize_reference(data, "fp8_e5m2", 1, 64).isnan().all())
