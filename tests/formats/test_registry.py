"""Block tables, and the starts of regions with their 32-bit arithmetic."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from hypothesis import given
from hypothesis import strategies as st
from shim.process import output_of

from quillon import formats as quillon_formats

from .decoders import FORMATS, Format
from .shim import Shim

# Elements and bytes of a block, by qtype, of the formats and of two codes without one. No other code has any.
BLOCK_TABLE = {entry.qtype: (entry.elements, entry.bytes) for entry in FORMATS.values()} | {
    22: (256, 74),
    25: (256, 56),
}


def test_block_tables(shim: Shim) -> None:
    for qtype in range(36):
        assert shim.format(qtype)[2:] == BLOCK_TABLE.get(qtype, (0, 0)), qtype


def test_fields(shim: Shim) -> None:
    """Regions, or the fields of a record, have the bytes that the decoders cut."""
    for entry in FORMATS.values():
        fields = quillon_formats.get_format(entry.qtype).fields
        assert [size for _, size in fields] == sizes_of_fields(entry)
        for name, size in fields:
            assert shim.field_bytes(entry.qtype, name) == size
        assert shim.field_bytes(entry.qtype, "no such field") == 0


def sizes_of_fields(entry: Format) -> list[int]:
    if entry.records:
        return [field.bytes for region in entry.regions for field in region]
    return [sum(field.bytes for field in region) for region in entry.regions]


def test_python_has_the_same_table() -> None:
    assert [(f.code, f.name, f.elements, f.bytes) for f in quillon_formats.FORMATS.values()] == [
        (entry.qtype, name, entry.elements, entry.bytes) for name, entry in FORMATS.items()
    ]
    for name, entry in FORMATS.items():
        assert quillon_formats.FORMATS[name].storage == ("records" if entry.records else "regions")
    assert quillon_formats.MAX_ELEMENTS == 2**31 - 1


def test_python_reads_formats_without_torch_or_compiled_code() -> None:
    text = """
        import importlib.util, sys, types
        package = types.ModuleType("quillon")  # in place of the package's own start
        package.__path__ = importlib.util.find_spec("quillon").submodule_search_locations
        sys.modules["quillon"] = package
        import quillon.formats
        assert quillon.formats.get_format("q4_0").bytes == 34
        print([name for name in ("torch", "numpy", "vesper_linear") if name in sys.modules])
    """
    assert output_of(text) == "[]\n"


def test_names_and_storage(shim: Shim) -> None:
    by_code = {entry.qtype: entry for entry in FORMATS.values()}
    for qtype in range(36):
        name, storage, elements, size = shim.format(qtype)
        if qtype in by_code:
            entry = by_code[qtype]
            assert (name, elements, size) == (entry.name, entry.elements, entry.bytes)
            assert storage == (1 if entry.records else 2)
        else:
            assert (name, storage) == ("", 0)


# ---- the rules again, in Python's unbounded integers -------------------------------------------------------


def signed32(x: int) -> int:
    return (x + 2**31) % 2**32 - 2**31


def divided(x: int, by: int) -> int:
    """Division that truncates toward zero."""
    return x // by if x >= 0 else -(-x // by)


def starts_of_nibbles(count: int) -> list[int]:
    return [signed32(count) >> 1]


def starts_of_super_blocks(*bytes_before: int, from_product: bool) -> Callable[[int], list[int]]:
    def starts(count: int) -> list[int]:
        blocks = signed32((count % 2**64) >> 8) if from_product else divided(signed32(count), 256)
        return [blocks * size for size in bytes_before]

    return starts


def starts_of_fp6(count: int) -> list[int]:
    blocks = divided(signed32(count), 64)
    return [blocks * 32, blocks * 48]


RULES = {
    **dict.fromkeys(["q4_0", "nf4", "fp4", "q4_1"], starts_of_nibbles),
    "q8_0": lambda count: [signed32(count)],
    "nf3": lambda count: [divided(signed32(count), 64) * 24],
    **dict.fromkeys(["fp8_e4m3", "fp8_e5m2"], lambda count: [signed32(count) // 64 * 64]),
    "fp6": starts_of_fp6,
    "q4_0_woq": lambda count: [count % 2**32 // 64 * 32],
    "q4_k": starts_of_super_blocks(128, 144, from_product=True),
    "q6_k": starts_of_super_blocks(64, 192, 208, from_product=True),
    "fp6_k": starts_of_super_blocks(128, 192, 208, from_product=False),
    **dict.fromkeys(["q5_0", "q5_1", "q8_1", "iq2_xxs", "q2_k", "iq1_s", "q5_k"], lambda count: []),
}

# The matrix-vector kernels: whole blocks, truncated, but for the bytes, whose low six bits are cleared.
MATVEC_RULES = {
    **dict.fromkeys(["q4_0", "nf4", "fp4", "q4_1", "q4_0_woq"], lambda count: [divided(signed32(count), 64) * 32]),
    **dict.fromkeys(["q8_0", "fp8_e4m3", "fp8_e5m2"], lambda count: [signed32(count) // 64 * 64]),
    "nf3": RULES["nf3"],
    "fp6": starts_of_fp6,
    "q4_k": starts_of_super_blocks(128, 144, from_product=False),
    "q6_k": starts_of_super_blocks(64, 192, 208, from_product=False),
    "fp6_k": RULES["fp6_k"],
    **dict.fromkeys(["q5_0", "q5_1", "q8_1", "iq2_xxs", "q2_k", "iq1_s", "q5_k"], lambda count: []),
}

OTHER_RULES = {
    "matvec_nibble": lambda count: [divided(signed32(count), 64) * 32],
    "matvec_q8_0": lambda count: [signed32(count) // 64 * 64],
    "matvec_super_blocks": lambda count: [divided(signed32(count), 256)],
    "tile_fp6": lambda count: [32 * (signed32(count) >> 6), 3 * (count % 2**32 >> 2)],
}

# Exact and ragged counts, then around the wrap of the sign, and at and past the wrap of the product.
SIZES = [
    *((64, 1), (256, 1), (4096, 4096), (100, 3), (96, 7), (1, 1), (0, 5), (64, 0)),
    *((2**31 - 1, 1), (65536, 32768), (32768, 65536), (46341, 46341), (65536, 65535), (65536, 65536)),
    *((65536, 65537), (2**32 + 64, 3), (2**33, 2**20), (4096, 2**20 + 1), (2**40, 2**30)),
]


def padded(starts: list[int]) -> list[int]:
    return [0, *starts, 0, 0, 0][:4]


@pytest.mark.parametrize("name", list(RULES))
def test_region_starts(shim: Shim, name: str) -> None:
    for state_size, output_size in SIZES:
        expected = padded(RULES[name](state_size * output_size))
        assert shim.regions_of(FORMATS[name].qtype, state_size, output_size) == expected, (
            state_size,
            output_size,
        )


@given(name=st.sampled_from(list(RULES)), state_size=st.integers(0, 2**34), output_size=st.integers(0, 2**34))
def test_region_starts_at_any_size(shim: Shim, name: str, state_size: int, output_size: int) -> None:
    expected = padded(RULES[name](state_size * output_size))
    assert shim.regions_of(FORMATS[name].qtype, state_size, output_size) == expected


@pytest.mark.parametrize("name", list(MATVEC_RULES))
def test_region_starts_of_matvec_kernels(shim: Shim, name: str) -> None:
    for state_size, output_size in SIZES:
        expected = padded(MATVEC_RULES[name](state_size * output_size))
        assert shim.matvec_regions_of(FORMATS[name].qtype, state_size, output_size) == expected, (
            state_size,
            output_size,
        )


@given(name=st.sampled_from(list(MATVEC_RULES)), state_size=st.integers(0, 2**34), output_size=st.integers(0, 2**34))
def test_region_starts_of_matvec_kernels_at_any_size(shim: Shim, name: str, state_size: int, output_size: int) -> None:
    expected = padded(MATVEC_RULES[name](state_size * output_size))
    assert shim.matvec_regions_of(FORMATS[name].qtype, state_size, output_size) == expected


@given(
    name=st.sampled_from(list(OTHER_RULES)),
    state_size=st.integers(0, 2**34),
    output_size=st.integers(0, 2**34),
)
def test_starts_of_other_readers(shim: Shim, name: str, state_size: int, output_size: int) -> None:
    expected = padded(OTHER_RULES[name](state_size * output_size))
    assert shim.offset_rule(name, state_size, output_size) == expected


@pytest.mark.parametrize(
    ("name", "state_size", "output_size", "starts"),
    [
        ("q4_0", 65536, 32768, [-(2**30)]),
        ("q4_0", 65536, 65536, [0]),
        ("q4_0", 100, 3, [150]),
        ("q4_0_woq", 65536, 32768, [2**30]),
        ("q4_0_woq", 100, 3, [128]),
        ("q8_0", 65536, 32768, [-(2**31)]),
        ("q8_0", 100, 3, [300]),
        ("fp8_e4m3", 100, 3, [256]),
        ("fp8_e5m2", 46341, 46341, [46341**2 - 2**32 - (46341**2 - 2**32) % 64]),
        ("nf3", 65536, 32768, [-(2**25) * 24]),
        ("nf3", 46341, 46341, [-(-(46341**2 - 2**32) // 64) * 24]),
        ("fp6", 65536, 32768, [-(2**30), -(2**25) * 48]),
        ("q4_k", 65536, 32768, [2**30, 2**23 * 144]),
        ("q4_k", 65536, 65536, [2**31, 2**24 * 144]),
        ("q6_k", 65536, 32768, [2**29, 2**23 * 192, 2**23 * 208]),
        ("fp6_k", 65536, 32768, [-(2**30), -(2**23) * 192, -(2**23) * 208]),
        ("fp6_k", 65536, 65536, [0, 0, 0]),
    ],
)
def test_region_starts_by_hand(shim: Shim, name: str, state_size: int, output_size: int, starts: list[int]) -> None:
    assert shim.regions_of(FORMATS[name].qtype, state_size, output_size) == padded(starts)


def test_readers_that_differ_by_hand(shim: Shim) -> None:
    """The matrix-vector kernels count whole blocks where the dequantizers shift, and truncate toward zero."""
    assert shim.offset_rule("matvec_nibble", 100, 3)[1] == 128
    assert shim.offset_rule("matvec_q8_0", 100, 3)[1] == 256
    # 46341^2 is -2147479015 as a signed 32-bit product, 25 past a multiple of 64 and 217 past one of 256.
    assert shim.offset_rule("matvec_nibble", 46341, 46341)[1] == -33554359 * 32
    assert shim.regions_of(2, 46341, 46341)[1] == -1073739508
    assert shim.offset_rule("matvec_super_blocks", 65536, 65536)[1] == 0
    assert shim.offset_rule("tile_fp6", 65536, 32768)[1:3] == [-(2**30), 3 * 2**29]


@pytest.mark.parametrize("name", [name for name, entry in FORMATS.items() if not entry.records])
def test_regions_are_dense_for_exact_counts(shim: Shim, name: str) -> None:
    """For whole blocks and below 2^31 elements, each region starts where the one before it ends."""
    entry = FORMATS[name]
    for state_size, output_size in [(256, 1), (4096, 4096), (11008, 4096), (256, 2**23 - 1)]:
        blocks = state_size * output_size // entry.elements
        starts, end = [], 0
        for region in entry.regions:
            starts.append(end)
            end += blocks * sum(field.bytes for field in region)
        assert shim.regions_of(entry.qtype, state_size, output_size) == [*starts, 0, 0][:4]
        assert shim.matvec_regions_of(entry.qtype, state_size, output_size) == [*starts, 0, 0][:4]
        assert shim.dense_regions_of(entry.qtype, state_size, output_size) == [*starts, 0, 0][:4]
        if entry.elements == 256:
            assert shim.offset_rule("matvec_super_blocks", state_size, output_size)[1] == blocks
        if entry.name in ("q4_0", "q4_1", "nf4", "fp4", "q4_0_woq"):
            assert shim.offset_rule("matvec_nibble", state_size, output_size)[1] == starts[1]


def test_dense_rules_do_not_wrap(shim: Shim) -> None:
    """The fast expansions and the matrix engine count in 64 bits."""
    assert shim.dense_regions_of(FORMATS["q4_0"].qtype, 65536, 65536)[1] == 2**31
    assert shim.dense_regions_of(FORMATS["q8_0"].qtype, 65536, 32769)[1] == 65536 * 32769
    assert shim.dense_regions_of(FORMATS["fp6"].qtype, 65536, 65536)[1:3] == [2**31, 2**26 * 48]
    assert shim.dense_regions_of(FORMATS["q6_k"].qtype, 65536, 65536) == [0, 2**30, 2**24 * 192, 2**24 * 208]
