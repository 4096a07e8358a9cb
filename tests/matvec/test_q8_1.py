"""The q8_1 quantizer, byte for byte, and the kernels of iq2_xxs, q2_k and iq1_s.

The blocks never leave the operator. They are read through weights that pick one thing each: a q2_k row whose only code
is a 1 gives d * q of that element, exactly in float; an iq1_s row of zero vectors gives the half s times its shift.
"""

from __future__ import annotations

import ctypes

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array, Fields, bfloat16_round, pack, split

import quillon  # noqa: F401  (brings the host devices up)
import vesper_linear

from .guards import output_guard
from .harness import CLASSES, DTYPES, TORCH, as_dtype, device_of
from .q8_1_reference import ONE_127TH, Blocks, lane_sums, multiply, quantize

NAMES = ("iq2_xxs", "q2_k", "iq1_s")


def run(name: str, fields: Fields, x: Array, dtype: str, device: torch.device) -> Array:
    """Call the operator; the result as float64, in which every element type is exact."""
    weight = torch.from_numpy(pack(FORMATS[name], fields)).to(device)
    row = torch.from_numpy(np.ascontiguousarray(x)).to(TORCH[dtype]).reshape(1, -1).to(device)
    out = vesper_linear.forward_new(row, weight, FORMATS[name].qtype, 0)
    assert out.dtype == TORCH[dtype]
    assert out.device == device
    assert out.shape == (1, len(fields["d"]) * 256 // len(x))
    return out.cpu().to(torch.float64).numpy()[0]


def zero_fields(name: str, blocks: int) -> Fields:
    entry = FORMATS[name]
    return split(entry, np.zeros(blocks * entry.bytes, np.uint8))


def same_bits(a: Array, b: Array) -> bool:
    return bool((a.view(np.uint64) == b.view(np.uint64)).all())


# ---- reading blocks ----------------------------------------------------------------------------------------


def pick_elements() -> Fields:
    """256 rows of one q2_k super-block: row e has the code 1 at element e, and scale 1."""
    fields = zero_fields("q2_k", 256)
    e = np.arange(256)
    fields["qs"][e, 32 * (e // 128) + e % 32] = 1 << (2 * (e % 128 // 32))
    fields["scales"][:] = 1
    fields["d"][:] = 1.0
    return fields


def read_blocks(x: Array, dtype: str, device: torch.device) -> Blocks:
    """Blocks of a row of 256, from the results of the operator in the row's element type.

    In half and bfloat16 the products d * q are rounded, so that the row is given in float instead there: the values
    are the same, and the quantizer's own instantiation for the type is held to them by its results elsewhere.
    """
    products = run("q2_k", pick_elements(), x, dtype, device).reshape(8, 32)
    d = np.abs(products).max(axis=1) / 127
    qs = np.divide(products, d[:, None], out=np.zeros_like(products), where=d[:, None] > 0)
    assert np.array_equal(qs, np.rint(qs))
    sums = []
    zeros = zero_fields("iq1_s", 1)
    zeros["d"][:] = 1.0
    for block in range(8):
        alone = np.zeros_like(x)
        alone[32 * block : 32 * block + 32] = x[32 * block : 32 * block + 32]
        sums.append(run("iq1_s", zeros, alone, dtype, device)[0] / -0.875)
    halves = [np.asarray(part).astype(np.float16) for part in (d, sums)]
    assert np.array_equal(halves[0], d)
    assert np.array_equal(halves[1], sums)
    return Blocks(halves[0], halves[1], qs.astype(np.int8))


def random_rows(dtype: str) -> list[Array]:
    rng = np.random.default_rng(17)
    rows = [rng.standard_normal(256) * 2.0**power for power in (-6, 0, 5)]
    rows += [rng.integers(-127, 128, 256).astype(np.float64), rng.uniform(-1, 1, 256) ** 9]
    rows.append(np.where(np.arange(256) % 32 == 5, 3.0, 0.0) * rng.choice([-1, 1], 256))
    return [as_dtype(row, dtype) for row in rows]


def rows_of_ties(dtype: str) -> list[Array]:
    """Quotients at and next to n + 1/2, where the last bit of a division decides."""
    rng = np.random.default_rng(18)
    rows = []
    for step in (-1, 0, 1):
        row = np.zeros((8, 32))
        for block in row:
            top = as_dtype(np.asarray([rng.uniform(0.5, 2)]), dtype)[0]
            d = np.float32(top) * ONE_127TH
            tie = (rng.permutation(126)[:31] + 0.5) * float(d) * rng.choice([-1, 1], 31)
            near = as_dtype(tie, dtype)
            if dtype in ("float32", "float64"):
                near = near + step * np.spacing(near)
            block[0], block[1:] = top, near
        rows.append(row.reshape(-1))
    return [as_dtype(row, dtype) for row in rows]


def bounds_of_sums(x: Array) -> tuple[Array, Array]:
    """The halves between which s may lie: 31 float additions in any order."""
    single = x.astype(np.float32).astype(np.float64).reshape(-1, 32)
    exact, error = single.sum(axis=1), 31 * 2.0**-24 * np.abs(single).sum(axis=1)
    return (exact - error).astype(np.float16), (exact + error).astype(np.float16)


@pytest.mark.parametrize("dtype", ["float32", "float64"])
def test_blocks(dtype: str) -> None:
    for x in [*random_rows(dtype), *rows_of_ties(dtype)]:
        found, expected = read_blocks(x, dtype, device_of("unknown")), quantize(x, dtype)
        assert np.array_equal(found.d, expected.d)
        assert np.array_equal(found.qs, expected.qs)
        low, high = bounds_of_sums(x)
        assert ((low <= found.s) & (found.s <= high)).all()


@pytest.mark.parametrize("dtype", ["float16", "bfloat16"])
def test_blocks_of_narrow_types(dtype: str) -> None:
    """The results are rounded to the type: compared there, and the quants are told apart by their products with d."""
    for x in [*random_rows(dtype), *rows_of_ties(dtype)]:
        expected = quantize(x, dtype)
        products = expected.d.astype(np.float32)[:, None] * expected.qs
        rounded = as_dtype(products.reshape(-1), dtype).astype(np.float64)
        assert np.array_equal(run("q2_k", pick_elements(), x, dtype, device_of("unknown")), rounded)
        # d itself, and quants one by one: a scale of 8, 4, 2 or 1 shifts no bits out.
        low, high = bounds_of_sums(x)
        zeros = zero_fields("iq1_s", 1)
        zeros["d"][:] = 1.0
        for block in range(8):
            alone = np.zeros_like(x)
            alone[32 * block : 32 * block + 32] = x[32 * block : 32 * block + 32]
            s = run("iq1_s", zeros, alone, dtype, device_of("unknown"))[0]
            allowed = [as_dtype(-0.875 * edge[block : block + 1].astype(np.float32), dtype)[0] for edge in (high, low)]
            assert allowed[0] <= s <= allowed[1]


def test_same_values_give_the_same_blocks_in_every_type() -> None:
    """bfloat16 values are exact in the three other types, and small ones in half."""
    x = bfloat16_round(np.random.default_rng(3).uniform(-4, 4, 256).astype(np.float32))
    blocks = [read_blocks(x.astype(dtype), dtype, device_of("oak")) for dtype in ("float32", "float64")]
    assert np.array_equal(blocks[0].qs, blocks[1].qs)
    assert np.array_equal(blocks[0].d, blocks[1].d)


def test_double_is_divided_in_double() -> None:
    """A double between the floats around a tie: narrowed first it would be the tie, and round away."""
    row = np.zeros(256)
    row[0] = 127.0  # d is 127 * (float) 1/127, just above or below 1
    d = float(np.float32(127) * ONE_127TH)
    row[1] = np.nextafter(2.5 * d, 0) - 2.0**-40
    row[2] = -row[1]
    found = read_blocks(row, "float64", device_of("unknown"))
    expected = quantize(row, "float64")
    assert np.array_equal(found.qs, expected.qs)
    quotient = row[1] / d
    assert quotient < 2.5
    assert found.qs[0, 1] == int(np.trunc(np.float64(np.float32(quotient)) + 0.5))


def test_blocks_of_zeros_and_of_one_value() -> None:
    row = np.zeros(256, np.float32)
    row[40] = 127 * 2.0**-10
    found = read_blocks(row, "float32", device_of("unknown"))
    assert found.qs[1, 8] == 127
    assert np.count_nonzero(found.qs) == 1
    assert np.array_equal(found.d, [0, np.float16(np.float32(127 * 2.0**-10) * ONE_127TH), 0, 0, 0, 0, 0, 0])
    assert np.array_equal(found.s, np.eye(8)[1].astype(np.float16) * np.float16(127 * 2.0**-10))


def test_ties_go_away_from_zero() -> None:
    row = np.zeros(256, np.float32)
    d = np.float32(127) * ONE_127TH
    row[0], row[1], row[2], row[3] = 127, 2.5 * d, -2.5 * d, 1.5 * d
    assert np.float32(row[1] / d) == 2.5
    assert read_blocks(row, "float32", device_of("unknown")).qs[0, :4].tolist() == [127, 3, -3, 2]


@pytest.mark.parametrize("exponent", [-140, -130, -120, -45, -30, 18, 24, 60, 120])
def test_scales_out_of_range_of_half(exponent: int) -> None:
    """Where d leaves the range of half it is 0 or infinite, and the quants with it are lost or give infinities."""
    x = (np.random.default_rng(5).uniform(0.5, 1, 256) * 2.0**exponent).astype(np.float32)
    expected = quantize(x, "float32")
    with np.errstate(invalid="ignore"):
        products = (expected.d.astype(np.float32)[:, None] * expected.qs).reshape(-1).astype(np.float64)
    result = run("q2_k", pick_elements(), x, "float32", device_of("unknown"))
    if np.isinf(expected.d).all():
        # Work-items of other codes have 0 * infinity.
        assert np.isnan(result).all()
    else:
        assert np.array_equal(result, products)
    ones = zero_fields("iq1_s", 1)
    ones["d"][:] = 1.0
    shifted = run("iq1_s", ones, x, "float32", device_of("unknown"))[0]
    if np.isinf(expected.s).any():
        assert not np.isfinite(shifted)


def test_the_readers_see_every_wrong_byte() -> None:
    """The expected blocks with one thing wrong are never what is read."""
    x = rows_of_ties("float32")[1]
    found, expected = read_blocks(x, "float32", device_of("unknown")), quantize(x, "float32")
    reciprocal = np.abs(x).reshape(8, 32).max(axis=1) / np.float32(127)
    assert not np.array_equal(found.d.astype(np.float64), reciprocal.astype(np.float64))
    in_float = x.reshape(8, 32) / (np.abs(x).reshape(8, 32).max(axis=1, keepdims=True) * ONE_127TH)
    assert not np.array_equal(found.qs, np.rint(in_float))  # ties to even
    assert not np.array_equal(found.qs, np.trunc(in_float))
    assert np.array_equal(found.qs, expected.qs)


# ---- dot kernels -------------------------------------------------------------------------------------------


def weight_fields(name: str, blocks: int, seed: int) -> Fields:
    """Random codes, scales of both signs and of any mantissa."""
    rng = np.random.default_rng(seed)
    entry = FORMATS[name]
    fields = split(entry, rng.integers(0, 256, blocks * entry.bytes, np.uint8))
    for field in ("d", "dmin"):
        if field in fields:
            sizes = np.exp2(rng.uniform(-9, -6, (blocks, 1))) * rng.choice([-1.0, 1.0], (blocks, 1))
            fields[field] = sizes.astype(np.float16)
    return fields


def row_of_steps(k: int, seed: int) -> Array:
    """Multiples of 1/64 below 4, exact in every element type: so are all sums of a block, in any order."""
    return np.random.default_rng(seed).integers(-255, 256, k) / 64


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ["iq2_xxs", "q2_k"])
@pytest.mark.parametrize("device_class", CLASSES)
def test_bit_for_bit(device_class: str, name: str, dtype: str) -> None:
    for k, rows in ((256, 5), (512, 3), (768, 4), (1024, 7), (1280, 2), (4096, 9), (14336, 3)):
        fields, x = weight_fields(name, rows * k // 256, k), row_of_steps(k, k)
        expected = multiply(name, fields, quantize(x, dtype), dtype)
        result = run(name, fields, as_dtype(x, dtype), dtype, device_of(device_class))
        assert same_bits(result, expected), (k, result, expected)


def to_type(x: Array, dtype: str) -> Array:
    return as_dtype(x.astype(np.float32), dtype).astype(np.float64)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_iq1_s_is_summed_in_float_in_any_order(device_class: str, dtype: str) -> None:
    """The work-items' sums are those of the reference; 31 float additions join them, and one rounding to the type."""
    for k, rows in ((256, 5), (512, 3), (768, 4), (1024, 7), (1280, 2), (4096, 9), (14336, 3)):
        fields, x = weight_fields("iq1_s", rows * k // 256, k), row_of_steps(k, k)
        sums = lane_sums("iq1_s", fields, quantize(x, dtype)).astype(np.float64)
        error = 31 * 2.0**-24 * np.abs(sums).sum(axis=1)
        exact = sums.sum(axis=1)
        result = run("iq1_s", fields, as_dtype(x, dtype), dtype, device_of(device_class))
        if dtype == "float64":
            assert np.array_equal(result, result.astype(np.float32))
        low, high = ((exact + sign * error) for sign in (-1, 1))
        assert (to_type(low, dtype) <= result).all(), k
        assert (result <= to_type(high, dtype)).all(), k


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_exact_data_is_exact(device_class: str, name: str, dtype: str) -> None:
    """Activations of a power-of-two scale: d and every product are exact, and the result of iq1_s has one value."""
    k, rows = 1280, 5
    fields = weight_fields(name, rows * k // 256, 3)
    for field in ("d", "dmin"):
        if field in fields:
            fields[field] = np.exp2(np.rint(np.log2(np.abs(fields[field].astype(np.float64))))).astype(np.float16)
    # 127 / d with d = 127 * (float) 1/127, which is 1: the quants are the activations.
    x = np.zeros(k)
    x[::32] = 127
    x[5::96] = -3
    blocks = quantize(x, dtype)
    assert (blocks.d == 1).all()
    sums = lane_sums(name, fields, blocks)
    exact = sums.astype(np.float64).sum(axis=1)
    assert np.array_equal(exact, exact.astype(np.float32))
    result = run(name, fields, as_dtype(x, dtype), dtype, device_of(device_class))
    if name == "iq1_s":
        assert same_bits(result, to_type(exact, dtype))
    else:
        assert same_bits(result, multiply(name, fields, blocks, dtype))
        if dtype in ("float32", "float64"):
            assert np.array_equal(result, exact)


def test_iq1_s_shift_counts() -> None:
    """Bit 15 of a group's word moves the result by -0.25 * d * scale * s and nothing else."""
    fields = zero_fields("iq1_s", 1)
    fields["d"][:] = 2.0
    x = np.full(256, 0.5)
    clear = run("iq1_s", fields, x, "float32", device_of("unknown"))[0]
    fields["qh"][0, 3] = 0x8000 | (7 << 12)
    moved = run("iq1_s", fields, x, "float32", device_of("unknown"))[0]
    assert clear == -0.875 * 2 * 128
    assert moved == -0.875 * 2 * (128 - 16) - 1.125 * 2 * 15 * 16


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("dtype", DTYPES)
def test_zero_activations_give_zero(name: str, dtype: str) -> None:
    fields = weight_fields(name, 4 * 3, 1)
    result = run(name, fields, np.zeros(768), dtype, device_of("unknown"))
    assert np.array_equal(result, np.zeros(4))


# ---- bounds of the arrays, failures ------------------------------------------------------------------------


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_odd_row_counts_touch_nothing_else(device_class: str, name: str) -> None:
    """Behind the last row of the weight lie NaN scales, and behind the output a guard."""
    k, entry, device = 1024, FORMATS[name], device_of(device_class)
    fields = weight_fields(name, 3 * k // 256, 2)
    weight = pack(entry, fields)
    held = np.full(weight.size + entry.bytes * k // 256 + 64, 0xFF, np.uint8)
    held[: weight.size] = weight
    inside = torch.from_numpy(held).to(device)[: weight.size]
    for dtype in DTYPES:
        x = row_of_steps(k, 3)
        row = torch.from_numpy(x).to(TORCH[dtype])[None].to(device)
        with output_guard(3, TORCH[dtype], device) as address:
            out = vesper_linear.forward_new(row, inside, entry.qtype, 0)
            assert address in (None, out.data_ptr())
        result = out.cpu().to(torch.float64).numpy()[0]
        assert np.isfinite(result).all()
        if name != "iq1_s":
            assert same_bits(result, multiply(name, fields, quantize(x, dtype), dtype))


@pytest.mark.parametrize("name", NAMES)
def test_records_at_any_even_address(name: str) -> None:
    entry, device, k = FORMATS[name], device_of("unknown"), 768
    fields, x = weight_fields(name, 3 * k // 256, 2), row_of_steps(k, 3)
    weight = pack(entry, fields)
    row = torch.from_numpy(x).to(torch.float32)[None].to(device)
    results = []
    for shift in range(0, 16, 2):
        held = torch.zeros(weight.size + 16, dtype=torch.uint8)
        held[shift : shift + weight.size] = torch.from_numpy(weight)
        moved = held.to(device)[shift : shift + weight.size]
        results.append(vesper_linear.forward_new(row, moved, entry.qtype, 0).cpu())
    assert all(torch.equal(result, results[0]) for result in results)


@pytest.mark.parametrize("name", NAMES)
def test_failures(name: str) -> None:
    entry, device = FORMATS[name], device_of("unknown")
    weight = torch.zeros(entry.bytes * 3, dtype=torch.uint8, device=device)
    with pytest.raises(RuntimeError, match=r"^\"qlinear_forward_xpu\" not implemented for 'Int'"):
        vesper_linear.forward_new(torch.ones(1, 256, dtype=torch.int32, device=device), weight, entry.qtype, 0)
    floats = torch.zeros(entry.bytes, device=device)
    with pytest.raises(RuntimeError, match="expected scalar type Byte but found Float"):
        vesper_linear.forward_new(torch.ones(1, 256, device=device), floats, entry.qtype, 0)
    # A row that is not whole super-blocks.
    with pytest.raises(RuntimeError, match=r"state_size must be a multiple of 256.*got 384"):
        vesper_linear.forward_new(torch.ones(1, 384, device=device), weight, entry.qtype, 0)


@pytest.mark.parametrize("name", NAMES)
def test_the_result_is_there_on_return(name: str) -> None:
    """The launchers wait: the output's memory has its values before anything is synchronized."""
    k, rows, device = 4096, 512, device_of("unknown")
    fields, x = weight_fields(name, rows * k // 256, 2), row_of_steps(k, 3)
    weight = torch.from_numpy(pack(FORMATS[name], fields)).to(device)
    row = torch.from_numpy(x).to(torch.float32)[None].to(device)
    expected = vesper_linear.forward_new(row, weight, FORMATS[name].qtype, 0).cpu().numpy().tobytes()
    for _ in range(5):
        block = torch.zeros(1, rows, device=device)
        torch.xpu.synchronize(device)
        address = block.data_ptr()
        del block
        out = vesper_linear.forward_new(row, weight, FORMATS[name].qtype, 0)
        assert ctypes.string_at(out.data_ptr(), 4 * rows) == expected
        assert address in (None, out.data_ptr())


# ---- the comparison itself ---------------------------------------------------------------------------------


@pytest.mark.parametrize("name", NAMES)
def test_the_comparison_catches_faults(name: str) -> None:
    """Each fault moves every row of the reference away from its result."""
    k, rows = 512, 12
    fields, x = weight_fields(name, rows * k // 256, 8), row_of_steps(k, 9)
    blocks = quantize(x, "float32")
    right = lane_sums(name, fields, blocks).astype(np.float64)
    result = run(name, fields, x.astype(np.float32), "float32", device_of("unknown"))

    def outside(sums: Array) -> Array:
        return np.abs(result - sums.sum(axis=1)) > 31 * 2.0**-24 * np.abs(sums).sum(axis=1)

    assert not outside(right).any()
    faults: dict[str, tuple[Fields, Blocks]] = {
        "bytes of codes": ({**fields, "qs": fields["qs"][:, ::-1].copy()}, blocks),
        "next block's scale": ({**fields, "d": np.roll(fields["d"], 1, axis=0)}, blocks),
        "next activations' scale": (fields, Blocks(np.roll(blocks.d, 1), blocks.s, blocks.qs)),
        "one quant": (fields, Blocks(blocks.d, blocks.s, blocks.qs + np.eye(len(blocks.d), 32, dtype=np.int8))),
    }
    if name == "q2_k":
        faults["no minimum"] = ({**fields, "dmin": np.zeros_like(fields["dmin"])}, blocks)
        faults["next scale"] = ({**fields, "scales": np.roll(fields["scales"], 1, axis=1)}, blocks)
    if name == "iq1_s":
        faults["no shift"] = (fields, Blocks(blocks.d, np.zeros_like(blocks.s), blocks.qs))
        faults["next word"] = ({**fields, "qh": np.roll(fields["qh"], 1, axis=1)}, blocks)
    for what, (wrong, of) in faults.items():
        caught = outside(lane_sums(name, wrong, of).astype(np.float64)).mean()
        assert caught > 0.7, (what, caught)
