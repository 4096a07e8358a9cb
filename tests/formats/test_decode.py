"""Two independent decoders, C++ and numpy, agree on every format, element type and reader."""

from __future__ import annotations

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from .decoders import (
    CODES,
    DTYPES,
    FORMATS,
    READERS,
    Fields,
    decode,
    indices_iq1_s,
    indices_iq2_xxs,
    pack,
    read,
    scales_q5_k,
    sign_indices_iq2_xxs,
    split,
    values_fp8_e5m2,
)
from .samples import same, sample
from .shim import Shim

# Readers that pass a half pattern through without arithmetic: their NaNs have defined bits.
PASS_THROUGH = {"decode_fp8_e5m2", "expand_fp8_e5m2", "operand_fp8_e4m3", "operand_fp8_e5m2"}

CASES = [(name, dtype) for name, reader in READERS.items() for dtype in reader.dtypes]


def shape_of(format_name: str, weight: np.ndarray) -> tuple[int, int]:
    """Some state_size and output_size that the weight fills exactly."""
    entry = FORMATS[format_name]
    return entry.elements, weight.size // entry.bytes


def test_every_rule_has_a_second_decoder(shim: Shim) -> None:
    assert sorted(shim.readers()) == sorted(READERS)
    assert {reader.format for reader in READERS.values()} == set(FORMATS)


@pytest.mark.parametrize("kind", ["any bytes", "plain scales"])
@pytest.mark.parametrize(("reader", "dtype"), CASES)
def test_decoders_agree(shim: Shim, reader: str, dtype: str, kind: str) -> None:
    format_name = READERS[reader].format
    weight = sample(format_name, kind)
    compiled = shim.decode(reader, weight, dtype, *shape_of(format_name, weight))
    exact_nan = reader in PASS_THROUGH and dtype == "float16"
    assert same(compiled, decode(reader, weight, dtype), dtype, exact_nan)


# ---- the samples reach every code --------------------------------------------------------------------------

CODE_COUNTS = {
    **dict.fromkeys(["q4_0", "q4_1", "q4_0_woq", "nf4", "fp4", "q4_k"], 16),
    **dict.fromkeys(["q5_0", "q5_1", "q5_k"], 32),
    **dict.fromkeys(["q8_0", "q8_1", "fp8_e4m3", "fp8_e5m2"], 256),
    **dict.fromkeys(["fp6", "fp6_k", "q6_k"], 64),
    "nf3": 8,
    "q2_k": 4,
}


def assert_each_column_has(values: np.ndarray, count: int) -> None:
    """Every column of a (blocks, ...) array takes `count` different values."""
    columns = values.reshape(len(values), -1)
    for i in range(columns.shape[1]):
        assert np.unique(columns[:, i]).size == count, f"place {i}"


@pytest.mark.parametrize("kind", ["any bytes", "plain scales"])
@pytest.mark.parametrize("name", list(CODE_COUNTS))
def test_samples_hit_every_code_at_every_element(name: str, kind: str) -> None:
    fields = split(FORMATS[name], sample(name, kind))
    assert_each_column_has(CODES[name](fields), CODE_COUNTS[name])


@pytest.mark.parametrize("kind", ["any bytes", "plain scales"])
def test_samples_hit_every_sub_block_scale(kind: str) -> None:
    for name in ("q2_k", "q4_k", "q6_k", "fp6_k"):
        assert_each_column_has(split(FORMATS[name], sample(name, kind))["scales"], 256)
    for part in scales_q5_k(split(FORMATS["q5_k"], sample("q5_k", kind))):
        assert_each_column_has(part, 64)


@pytest.mark.parametrize("kind", ["any bytes", "plain scales"])
def test_samples_hit_every_grid_point_sign_and_shift(kind: str) -> None:
    iq2 = split(FORMATS["iq2_xxs"], sample("iq2_xxs", kind))
    assert_each_column_has(indices_iq2_xxs(iq2), 256)
    assert_each_column_has(sign_indices_iq2_xxs(iq2), 128)
    assert_each_column_has(iq2["qs"].reshape(-1, 8, 8)[:, :, 7] >> 4, 16)
    iq1 = split(FORMATS["iq1_s"], sample("iq1_s", kind))
    assert np.unique(indices_iq1_s(iq1)).size == 2048
    assert_each_column_has(iq1["qh"] >> 12, 16)


# ---- shapes ------------------------------------------------------------------------------------------------


@settings(max_examples=150, deadline=None)
@given(
    case=st.sampled_from(CASES),
    row_blocks=st.integers(1, 24),
    output_size=st.integers(1, 24),
    surplus=st.integers(0, 33),
    seed=st.integers(0, 2**32 - 1),
)
def test_decoders_agree_on_any_shape(
    shim: Shim, case: tuple[str, str], row_blocks: int, output_size: int, surplus: int, seed: int
) -> None:
    """Rows of any multiple of 64 elements: a super-block may straddle them. Surplus bytes are not read."""
    reader, dtype = case
    entry = FORMATS[READERS[reader].format]
    state_size = 64 * row_blocks
    if state_size * output_size % entry.elements:
        output_size *= 4
    blocks = state_size * output_size // entry.elements
    bytes_ = np.random.default_rng(seed).integers(0, 256, blocks * entry.bytes, np.uint8)
    behind = np.full(min(surplus, entry.bytes - 1), 0xA5, np.uint8)
    compiled = shim.decode(reader, bytes_, dtype, state_size, output_size)
    assert same(compiled, decode(reader, np.concatenate([bytes_, behind]), dtype), dtype)


@pytest.mark.parametrize("name", list(FORMATS))
def test_split_and_pack_are_inverse(name: str) -> None:
    entry = FORMATS[name]
    weight = sample(name, "any bytes")
    assert np.array_equal(pack(entry, split(entry, weight)), weight)


# ---- worked examples ---------------------------------------------------------------------------------------


def one_block(name: str, **changes: object) -> np.ndarray:
    """A block of zero bytes with `d` one, and then some fields changed (a scalar fills a field)."""
    entry = FORMATS[name]
    fields: Fields = split(entry, np.zeros(entry.bytes, np.uint8))
    fields["d"][:] = 1
    for field, value in changes.items():
        fields[field][0, :] = value
    return pack(entry, fields)


def both(shim: Shim, reader: str, weight: np.ndarray, dtype: str = "float32") -> np.ndarray:
    """Values that the C++ rule and the numpy rule give alike."""
    name = READERS[reader].format
    compiled = shim.decode(reader, weight, dtype, *shape_of(name, weight))
    assert same(compiled, decode(reader, weight, dtype), dtype)
    return compiled


def first_byte(byte: int, length: int) -> list[int]:
    return [byte] + [0] * (length - 1)


def test_nibble_order_examples(shim: Shim) -> None:
    values = both(shim, "decode_q4_0", one_block("q4_0", qs=0x87))
    assert (values[:32] == -1).all()
    assert (values[32:] == 0).all()
    values = both(shim, "decode_q4_0_woq", one_block("q4_0_woq", qs=0x87))
    assert (values[0::2] == -1).all()
    assert (values[1::2] == 0).all()
    values = both(shim, "decode_nf4", one_block("nf4", qs=0x7F))
    assert (values[:32] == 0).all()
    assert (values[32:] == 1).all()
    values = both(shim, "decode_fp4", one_block("fp4", qs=0x7F))
    assert (values[:32] == -6).all()
    assert (values[32:] == 6).all()
    values = both(shim, "decode_q4_k", one_block("q4_k", qs=first_byte(0xA5, 128), scales=1))
    assert values[0] == 5
    assert values[16] == 10


def test_q4_0_extremes(shim: Shim) -> None:
    assert (both(shim, "decode_q4_0", one_block("q4_0", qs=0x88, d=3)) == 0).all()
    assert (both(shim, "decode_q4_0", one_block("q4_0", qs=0x00, d=3)) == -24).all()


def test_q4_1_zero_quants_are_the_minimum(shim: Shim) -> None:
    assert (both(shim, "decode_q4_1", one_block("q4_1", m=-2.5)) == -2.5).all()


def test_q5_0_extremes_and_unread_bytes(shim: Shim) -> None:
    assert (both(shim, "decode_q5_0", one_block("q5_0", d=2)) == -32).all()
    assert (both(shim, "decode_q5_0", one_block("q5_0", d=2, qh=255, qs=255)) == 30).all()
    weight = sample("q5_0", "plain scales")
    fields = split(FORMATS["q5_0"], weight)
    fields["unused"] = np.full_like(fields["unused"], np.nan)
    changed = pack(FORMATS["q5_0"], fields)
    assert np.array_equal(both(shim, "decode_q5_0", weight), both(shim, "decode_q5_0", changed))


def test_q8_0_is_not_clamped(shim: Shim) -> None:
    assert (both(shim, "decode_q8_0", one_block("q8_0", qs=-128, d=0.5)) == -64).all()


def test_nf3_codes(shim: Shim) -> None:
    assert (both(shim, "decode_nf3", one_block("nf3", d=3)) == -3).all()
    assert (both(shim, "decode_nf3", one_block("nf3", qs=0xFF)) == 0).all()


def test_small_floats_have_no_zero(shim: Shim) -> None:
    assert (both(shim, "decode_fp4", one_block("fp4", d=2)) == 0.0625).all()
    assert (both(shim, "decode_fp6", one_block("fp6")) == 7.62939453125e-06).all()
    largest = both(shim, "decode_fp6", one_block("fp6", ql=255, qh=0x55))
    assert (largest == 0.00732421875).all()


@pytest.mark.parametrize(
    ("reader", "byte", "value"),
    [
        ("decode_fp8_e5m2", 0x00, 7.62939453125e-06),
        ("decode_fp8_e5m2", 0x80, -7.62939453125e-06),
        ("decode_fp8_e5m2", 0x3C, 1.125),
        ("decode_fp8_e5m2", 0x7B, 61440.0),
        ("decode_fp8_e4m3", 0x00, 3.814697265625e-06),
        ("decode_fp8_e4m3", 0x80, -3.814697265625e-06),
        ("decode_fp8_e4m3", 0x38, 0.004150390625),
        ("decode_fp8_e4m3", 0x7F, 1.9375),
        ("operand_fp8_e4m3", 0x00, 0.0),
        ("operand_fp8_e4m3", 0x38, 0.00390625),
    ],
)
def test_fp8_examples(shim: Shim, reader: str, byte: int, value: float) -> None:
    weight = one_block(READERS[reader].format, qs=byte)
    if reader.startswith("operand"):
        assert (both(shim, reader, weight, "float16").view(np.float16) == value).all()
    else:
        assert (both(shim, reader, weight) == value).all()


def test_fp8_e5m2_nans(shim: Shim) -> None:
    """Exponent 31 is a NaN for all its codes: half keeps the pattern, bfloat16 has one NaN."""
    codes = [*range(0x7C, 0x80), *range(0xFC, 0x100)] * 8
    weight = one_block("fp8_e5m2", qs=codes)
    assert np.isnan(both(shim, "decode_fp8_e5m2", weight)).all()
    assert (both(shim, "decode_fp8_e5m2", weight, "bfloat16") == 0x7FC0).all()
    half = shim.decode("decode_fp8_e5m2", weight, "float16", 64, 1)
    assert half.tolist() == [(code << 8) | 0x80 for code in codes]
    everything = values_fp8_e5m2(np.arange(256, dtype=np.uint8))
    assert np.isnan(everything).sum() == 8
    assert not np.isinf(everything).any()
    assert (everything != 0).all()


def test_fp8_e5m2_scale_is_read_by_the_scaled_reader_alone(shim: Shim) -> None:
    weight = one_block("fp8_e5m2", qs=0x3C, d=4)
    assert (both(shim, "decode_fp8_e5m2", weight) == 1.125).all()
    assert (both(shim, "expand_fp8_e5m2", weight) == 1.125).all()
    assert (both(shim, "decode_fp8_e5m2_scaled", weight) == 4.5).all()


def test_q2_k_example(shim: Shim) -> None:
    weight = one_block("q2_k", scales=first_byte(0x21, 16), qs=first_byte(0x03, 64), dmin=1)
    assert both(shim, "decode_q2_k", weight)[0] == 1


def test_q5_k_top_bits_of_scales(shim: Shim) -> None:
    """Bits 6 and 7 of bytes 0 to 3 and 4 to 7 belong to sub-blocks 4 to 7 alone."""
    scales = [0xC0] * 4 + [0x00] * 4 + [0x00] * 4
    values = both(shim, "decode_q5_k", one_block("q5_k", scales=scales, qs=0x11))
    assert (values[:128] == 0).all()
    assert (values[128:] == 48).all()
    scales = [0x00] * 4 + [0xC0] * 4 + [0x00] * 4
    values = both(shim, "decode_q5_k", one_block("q5_k", scales=scales, dmin=1))
    assert (values[:128] == 0).all()
    assert (values[128:] == -48).all()


def test_q6_k_scale_is_signed(shim: Shim) -> None:
    plus = both(shim, "decode_q6_k", one_block("q6_k", scales=1))
    minus = both(shim, "decode_q6_k", one_block("q6_k", scales=-1))
    assert (plus == -32).all()
    assert (minus == 32).all()


def test_fp6_k_zero_scale_gives_zero(shim: Shim) -> None:
    values = both(shim, "decode_fp6_k", one_block("fp6_k", scales=[0] + [1] * 15))
    assert (values[:16] == 0).all()
    assert (values[16:] == 7.62939453125e-06).all()


def test_iq2_xxs_examples(shim: Shim) -> None:
    assert (both(shim, "decode_iq2_xxs", one_block("iq2_xxs")) == 1).all()
    group = [0, 0, 0, 0, 0, 0, 0, 0xF0]
    assert (both(shim, "decode_iq2_xxs", one_block("iq2_xxs", qs=group * 8)) == 8 * 3.875).all()
    group = [0, 0, 0, 0, 1, 0, 0, 0]
    values = both(shim, "decode_iq2_xxs", one_block("iq2_xxs", qs=group * 8)).reshape(8, 32)
    assert (np.flatnonzero(values[0] < 0) == [0, 7]).all()


def test_iq1_s_examples(shim: Shim) -> None:
    assert (both(shim, "decode_iq1_s", one_block("iq1_s")) == -0.875).all()
    assert (both(shim, "decode_iq1_s", one_block("iq1_s", qh=0x7000)) == 15 * -0.875).all()
    assert (both(shim, "decode_iq1_s", one_block("iq1_s", qh=0x8000)) == -1.125).all()
    weight = sample("iq1_s", "plain scales")
    fields = split(FORMATS["iq1_s"], weight)
    fields["d"][:] = 1
    fields["qh"] &= 0x8FFF
    values = both(shim, "decode_iq1_s", pack(FORMATS["iq1_s"], fields))
    assert set(np.unique(values)) == {-1.125, -0.875, -0.125, 0.125, 0.875, 1.125}


# ---- rounding ----------------------------------------------------------------------------------------------


def test_rounding_groups(shim: Shim) -> None:
    """One hand-made case for each group whose result tells in which type it was computed."""
    # The float scale of q8_0 goes to half first, up to 1 + 2^-10; unrounded, the product is lower.
    d = 1 + 2**-11 + 2**-13
    rounded, unrounded = np.float16(np.float16(d) * np.float16(3)), np.float16(np.float32(d) * np.float32(3))
    assert rounded != unrounded
    weight = one_block("q8_0", qs=3, d=d)
    assert both(shim, "decode_q8_0", weight, "float16").view(np.float16)[0] == rounded
    assert both(shim, "decode_q8_0", weight)[0] == np.float32(d) * np.float32(3)
    # q4_1 rounds its product to half before the sum; q5_1 does not.
    scale, code, minimum = np.float16(1.0009765625), 3, np.float16(-3)
    low = {"d": scale, "m": minimum, "qs": 0x33}
    rounded = np.float16(scale * np.float16(code)) + minimum
    exact = np.float16(np.float32(scale) * np.float32(code) + np.float32(minimum))
    assert rounded != exact
    q4_1 = both(shim, "decode_q4_1", one_block("q4_1", **low), "float16").view(np.float16)
    q5_1 = both(shim, "decode_q5_1", one_block("q5_1", **low), "float16").view(np.float16)
    matvec = both(shim, "decode_q5_1_matvec", one_block("q5_1", **low), "float16").view(np.float16)
    assert q4_1[0] == rounded
    assert q5_1[0] == exact
    assert matvec[0] == rounded


@pytest.mark.parametrize("name", ["q5_0", "q5_1", "nf3", "q2_k", "q4_k", "q5_k", "q6_k", "iq2_xxs", "iq1_s"])
def test_float_group_stays_float_for_double(shim: Shim, name: str) -> None:
    weight = sample(name, "plain scales")
    double = both(shim, f"decode_{name}", weight, "float64")
    single = both(shim, f"decode_{name}", weight, "float32")
    assert np.array_equal(double, single.astype(np.float64))


@pytest.mark.parametrize("name", ["q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp6"])
def test_typed_group_is_wider_for_double(shim: Shim, name: str) -> None:
    """In double nothing is lost, so the float result is the double result rounded, and some were inexact."""
    weight = sample(name, "plain scales")
    double = both(shim, f"decode_{name}", weight, "float64")
    single = both(shim, f"decode_{name}", weight, "float32")
    if name == "q4_1":
        fields = split(FORMATS[name], weight)
        exact = fields["d"].astype(np.float64) * CODES[name](fields) + fields["m"].astype(np.float64)
        assert np.array_equal(double, exact.reshape(-1))
    else:
        assert np.array_equal(double.astype(np.float32), single)
    if name in ("q8_0", "nf4"):
        assert (double != single.astype(np.float64)).any()


@pytest.mark.parametrize("name", ["q4_0", "q4_1", "q8_0", "fp4", "fp6", "fp6_k", "fp8_e4m3"])
def test_expansions_to_float_are_half_values(shim: Shim, name: str) -> None:
    weight = sample(name, "plain scales")
    half = both(shim, f"expand_{name}", weight, "float16").view(np.float16)
    single = both(shim, f"expand_{name}", weight, "float32")
    assert np.array_equal(single, half.astype(np.float32))
    assert not np.array_equal(single, both(shim, f"decode_{name}", weight, "float32"))


# ---- four elements at a time -------------------------------------------------------------------------------


@pytest.mark.parametrize(("name", "reader"), [("fp6", "fp6"), ("fp6_k", "fp6")])
def test_fp6_words_give_the_elements(shim: Shim, name: str, reader: str) -> None:
    fields = split(FORMATS[name], sample(name, "any bytes"))
    patterns = shim.by_words(reader, fields["qh"], fields["ql"], np.uint16)
    codes = CODES[name](fields).reshape(-1).astype(np.uint16)
    spread = ((codes & 32) << 2) | (codes & 31)
    assert np.array_equal(patterns, (spread << 8) | 0x80)


def test_q6_k_words_give_the_elements(shim: Shim) -> None:
    fields = split(FORMATS["q6_k"], sample("q6_k", "any bytes"))
    assert np.array_equal(
        shim.by_words("q6_k", fields["qh"], fields["ql"], np.uint8), CODES["q6_k"](fields).reshape(-1)
    )


def test_readers_name_known_types() -> None:
    for name, reader in READERS.items():
        assert set(reader.dtypes) <= set(DTYPES), name
        fields = split(FORMATS[reader.format], np.zeros(FORMATS[reader.format].bytes, np.uint8))
        for dtype in reader.dtypes:
            assert read(name, fields, dtype).shape == (FORMATS[reader.format].elements,)
