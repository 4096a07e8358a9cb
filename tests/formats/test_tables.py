"""Facts of the constant tables that can be told without their data, and bit patterns of the small floats."""

from __future__ import annotations

import numpy as np

from quillon import tables

from .decoders import FP4_MAGNITUDES, NF3_BITS, NF4_BITS
from .grid_reference import iq1s_rows, iq1s_words, iq2xxs_rows, iq2xxs_words
from .shim import Shim


def test_sign_masks(shim: Shim) -> None:
    assert shim.table("kmask_iq2xs", np.uint8).tolist() == [1, 2, 4, 8, 16, 32, 64, 128]


def test_signs(shim: Shim) -> None:
    signs = shim.table("ksigns_iq2xs", np.uint8)
    assert signs.tolist() == [i | ((i.bit_count() & 1) << 7) for i in range(128)]
    assert signs[:16].tolist() == [0, 129, 130, 3, 132, 5, 6, 135, 136, 9, 10, 139, 12, 141, 142, 15]
    assert signs[-4:].tolist() == [252, 125, 126, 255]
    assert all(int(entry).bit_count() % 2 == 0 for entry in signs)


def test_iq2xxs_grid(shim: Shim) -> None:
    words = shim.table("iq2xxs_grid", np.uint64)
    assert np.array_equal(words, iq2xxs_words())
    assert words.size == 256
    assert (words[:-1] < words[1:]).all()
    assert set(np.unique(words.view(np.uint8))) == {8, 25, 43}
    assert words[0] == 0x0808080808080808
    assert words[1] == 0x080808080808082B
    assert words[127] == 0x082B192B2B190808
    assert words[128] == 0x082B2B0808082B08
    assert words[255] == 0x2B2B2B1908081908
    assert iq2xxs_rows()[1].tolist() == [43, 8, 8, 8, 8, 8, 8, 8]


def test_iq1s_grid(shim: Shim) -> None:
    words = shim.table("iq1s_grid", np.uint32)
    assert np.array_equal(words, iq1s_words())
    assert words.size == 2048
    assert np.unique(words).size == 2048
    assert words[:8].tolist() == [
        *(0x00000000, 0x00000002, 0x00000101, 0x00000200),
        *(0x00000202, 0x00010001, 0x00010101, 0x00020000),
    ]
    assert words[1024:1028].tolist() == [0x11101211, 0x11111010, 0x11111011, 0x11111012]
    assert words[-4:].tolist() == [0x22222020, 0x22222022, 0x22222220, 0x22222222]
    rows = iq1s_rows()
    assert set(np.unique(rows)) == {0, 1, 2}
    sums = rows.sum(axis=1)
    assert sums.min() == 0
    assert sums.max() == 16
    assert np.flatnonzero(sums == 0).tolist() == [0]
    assert np.flatnonzero(sums == 16).tolist() == [2047]


def test_python_has_the_same_tables() -> None:
    assert np.array_equal(tables.iq2xxs_grid().numpy(), iq2xxs_rows())
    assert np.array_equal(tables.iq1s_grid().numpy(), iq1s_rows())
    assert np.array_equal(np.float32(tables.NF4).view(np.uint32), NF4_BITS)
    assert np.array_equal(np.float32(tables.NF3).view(np.uint32), NF3_BITS)
    assert np.array_equal(np.float64(tables.NF4), np.float64(np.float32(tables.NF4)))
    assert tuple(FP4_MAGNITUDES.tolist()) == tables.FP4_MAGNITUDES


def test_code_books(shim: Shim) -> None:
    nf4, nf3 = shim.table("dequantNF4", np.float32), shim.table("dequantNF3", np.float32)
    assert np.array_equal(nf4.view(np.uint32), NF4_BITS)
    assert np.array_equal(nf3.view(np.uint32), NF3_BITS)
    for book in (nf4, nf3):
        assert (np.diff(book) > 0).all()
        assert book[0] == -1
        assert book[-1] == 1
        assert (book == 0).sum() == 1


def test_fp4_patterns(shim: Shim) -> None:
    """The float and the half form give the eight magnitudes, with bit 3 as the sign."""
    codes = np.arange(16, dtype=np.uint32)
    values = np.concatenate([FP4_MAGNITUDES, -FP4_MAGNITUDES])
    assert np.array_equal(shim.patterns("fp4_float", codes).view(np.float32), values)
    half = shim.patterns("fp4_half", codes).astype(np.uint16).view(np.float16)
    assert np.array_equal(half, values.astype(np.float16))
    assert (shim.patterns("fp4_half", codes) & 0xFF == 0).all()


def test_fp6_patterns(shim: Shim) -> None:
    """2^(E - 15) * (1 + (M + 0.5) / 4) for E of one and more, 2^-14 * (M + 0.5) / 4 for E of zero."""
    codes = np.arange(32, dtype=np.uint32)
    half = shim.patterns("fp6_half", codes).astype(np.uint16).view(np.float16)
    exponent, mantissa = codes >> 2, codes & 3
    normal = 2.0 ** (exponent.astype(int) - 15) * (1 + (mantissa + 0.5) / 4)
    assert np.array_equal(half, np.where(exponent > 0, normal, 2.0**-14 * (mantissa + 0.5) / 4).astype(np.float16))
    negative = shim.patterns("fp6_half", codes | 0x80).astype(np.uint16).view(np.float16)
    assert np.array_equal(negative, -half)
    # Bits 5 and 6 of a spread code are not part of it.
    assert np.array_equal(shim.patterns("fp6_half", codes | 0x60), shim.patterns("fp6_half", codes))


def test_fp8_patterns(shim: Shim) -> None:
    codes = np.arange(256, dtype=np.uint32)
    assert np.array_equal(shim.patterns("fp8_e5m2_half", codes), codes * 256 + 0x80)
    e4m3 = shim.patterns("fp8_e4m3_half", codes)
    assert np.array_equal(e4m3, (codes >> 7 << 15) + (codes % 128) * 128 + 0x40)
    assert np.array_equal(shim.patterns("fp8_e4m3_half_bare", codes), e4m3 - 0x40)
    values = e4m3.astype(np.uint16).view(np.float16)
    assert np.isfinite(values).all()
    assert (values != 0).all()
    assert np.abs(values).max() == 1.9375
