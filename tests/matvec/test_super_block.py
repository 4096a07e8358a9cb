"""The kernels of q4_k, q5_k, q6_k and fp6_k, held against numpy on a device of every class."""

from __future__ import annotations

import itertools
import os
import subprocess
import sys

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, READERS, Array, Fields, pack, read, split

import quillon  # noqa: F401  (brings the host devices up)
import vesper_linear

from .guards import output_guard
from .harness import CLASSES, DTYPES, TORCH, WG_SIZE, as_dtype, device_of
from .reference import Rounded, Tracked
from .super_block_reference import WITHOUT_TAIL, multiply

NAMES = ("q4_k", "q5_k", "q6_k", "fp6_k")

# Elements of a row: one block (no full round), an uneven second round at both work-group sizes, one full round of each
# size, and many rounds.
ROW_LENGTHS = (256, 512, 768, 1024, 1280, 4096, 14336)


def weight_fields(name: str, blocks: int, seed: int, spread: int) -> Fields:
    """Random codes and sub-block scales; half scales of both signs over `spread` powers of two.

    Scales are such that sums of 14336 products stay below 65504.
    """
    rng = np.random.default_rng(seed)
    entry = FORMATS[name]
    fields = split(entry, rng.integers(0, 256, blocks * entry.bytes, np.uint8))
    # The products of two scale levels and codes reach some 2^12, 2^11, 2^12 and 2^9.
    top = {"q4_k": -11, "q5_k": -9, "q6_k": -10, "fp6_k": -4}[name]
    for field in ("d", "dmin"):
        if field in fields:
            sizes = np.exp2(top - rng.uniform(0, spread, (blocks, 1)))
            fields[field] = (sizes * rng.choice([-1.0, 1.0], (blocks, 1))).astype(np.float16)
    return fields


def power_of_two_fields(name: str, blocks: int, seed: int) -> Fields:
    """Random codes; scales such that every decoded value is exact in bfloat16, minima included."""
    rng = np.random.default_rng(seed)
    fields = weight_fields(name, blocks, seed, 0)
    for field in ("d", "dmin"):
        if field in fields:
            fields[field] = np.full((blocks, 1), 0.25, np.float16) * rng.choice([-1.0, 1.0], (blocks, 1))
            fields[field] = fields[field].astype(np.float16)
    powers = 2 ** rng.integers(0, 3, fields["scales"].shape)
    if name == "q5_k":  # scales 1, 2 or 4 in both packings, minima 0
        low = powers[:, :4] | 0
        fields["scales"] = np.concatenate([low, np.zeros_like(low), powers[:, 8:]], axis=1).astype(np.uint8)
    elif name == "q4_k":
        powers[:, 1::2] = 0
        fields["scales"] = powers.astype(np.uint8)
    else:
        fields["scales"] = (powers * rng.choice([-1, 1], powers.shape)).astype(np.int8)
    return fields


def run(name: str, fields: Fields, x: Array, dtype: str, device: torch.device) -> Array:
    """Call the operator; the result as float64, in which every element type is exact."""
    weight = torch.from_numpy(pack(FORMATS[name], fields)).to(device)
    row = torch.from_numpy(np.ascontiguousarray(x)).to(TORCH[dtype]).reshape(1, -1).to(device)
    out = vesper_linear.forward_new(row, weight, FORMATS[name].qtype, 0)
    assert out.dtype == TORCH[dtype]
    assert out.device == device
    assert out.shape == (1, len(fields["d"]) * 256 // len(x))
    return out.cpu().to(torch.float64).numpy()[0]


def random_row(k: int, dtype: str, seed: int) -> Array:
    return as_dtype(np.random.default_rng(seed).uniform(-1, 1, k), dtype)


def outside(result: Array, expected: Tracked) -> Array:
    """Where a result is farther from the reference than its roundings allow. A NaN is."""
    return ~(np.abs(result.astype(np.longdouble) - expected.x) <= expected.error)


def same_bits(a: Array, b: Array) -> bool:
    return bool((a.view(np.uint64) == b.view(np.uint64)).all())


# ---- values ------------------------------------------------------------------------------------------------


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_within_the_error_of_its_roundings(device_class: str, name: str, dtype: str) -> None:
    for k, rows in zip(ROW_LENGTHS, (3, 2, 5, 4, 1, 7, 3), strict=True):
        fields = weight_fields(name, rows * k // 256, k, 3)
        x = random_row(k, dtype, k + 1)
        expected = multiply(name, Tracked, dtype, fields, x, WG_SIZE[device_class])
        result = run(name, fields, x, dtype, device_of(device_class))
        assert not outside(result, expected).any(), k


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", ["unknown", "elm"])
def test_bfloat16_gives_the_bits_of_single_roundings(device_class: str, name: str) -> None:
    """A bfloat16 operation cannot be fused.

    The float steps of q5_k can: there a result may move by one place.
    """
    for k, rows in ((512, 40), (1280, 31), (4096, 16)):
        fields = weight_fields(name, rows * k // 256, k, 3)
        x = random_row(k, "bfloat16", k)
        expected = multiply(name, Rounded, "bfloat16", fields, x, WG_SIZE[device_class]).x
        result = run(name, fields, x, "bfloat16", device_of(device_class))
        if name == "q5_k":
            moved = np.abs(result - expected) / np.maximum(np.abs(expected), 2.0**-40)
            assert (moved <= 2.0**-7).all()
            assert (moved > 0).mean() < 0.05
        else:
            assert same_bits(result, expected.astype(np.float64)), k


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", ["unknown", "elm"])
def test_unit_activations_give_the_decoded_columns(device_class: str, name: str, dtype: str) -> None:
    """Every element is at its place: activation row e_k gives column k, which is exact in every type here."""
    k, rows = (1024, 3)
    fields = power_of_two_fields(name, rows * k // 256, 5)
    columns = read(f"decode_{name}", fields, "float32").reshape(rows, k)
    device = device_of(device_class)
    weight = torch.from_numpy(pack(FORMATS[name], fields)).to(device)
    rows_of_ones = torch.eye(k, dtype=TORCH[dtype]).to(device)
    results = [vesper_linear.forward_new(row[None], weight, FORMATS[name].qtype, 0) for row in rows_of_ones]
    found = torch.cat(results).cpu().to(torch.float32).numpy().T
    assert np.array_equal(found, columns)


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_exact_data_is_exact(device_class: str, name: str, dtype: str) -> None:
    """Few small activations: every partial sum is exact in every element type, whatever is fused."""
    k, rows = 3072, 9
    fields = power_of_two_fields(name, rows * k // 256, 11)
    if name == "fp6_k":  # one exponent throughout, so that sums keep to eight bits
        fields["ql"] &= 0x33
        fields["ql"] |= 0x04
        fields["qh"] &= 0xAA
    x = np.zeros(k)
    x[::777] = [1, -1, 0.5, 1]
    whole = k - k % (16 * WG_SIZE[device_class]) if name in WITHOUT_TAIL else k
    columns = read(f"decode_{name}", fields, "float64").reshape(rows, k)
    exact = columns[:, :whole] @ x[:whole]
    partial = np.abs(columns) @ np.abs(x)
    unit = 2.0**-17 if name == "fp6_k" else 2.0**-3
    if dtype == "bfloat16":  # otherwise the data would not be what this test says
        keep = partial / unit < 256
        assert keep.sum() >= 4
    else:
        keep = partial / unit < 2048
        assert keep.all()
    result = run(name, fields, x, dtype, device_of(device_class))
    assert np.array_equal(result[keep], exact[keep])


def test_sub_group_sizes_agree_bit_for_bit() -> None:
    """The kernel of q5_k has another sub-group size where 8 does not exist, and the same order of sums."""
    fields = weight_fields("q5_k", 6 * 5, 3, 3)
    for dtype in DTYPES:
        x = random_row(1280, dtype, 4)
        results = [run("q5_k", fields, x, dtype, device_of(name)) for name in CLASSES]
        # Fusing is the compiler's choice in each of the two instantiations.
        expected = multiply("q5_k", Tracked, dtype, fields, x, 32)
        for result in results:
            assert not outside(result, expected).any()
        for name, result in zip(CLASSES, results, strict=True):
            twin = results[CLASSES.index("elm" if name in ("elm", "fir", "yew") else "oak")]
            assert same_bits(result, twin)


# ---- which part of a row is summed -------------------------------------------------------------------------


@pytest.mark.parametrize("name", WITHOUT_TAIL)
@pytest.mark.parametrize("device_class", CLASSES)
def test_rows_below_a_full_round_give_zero(device_class: str, name: str) -> None:
    unit = 16 * WG_SIZE[device_class]
    for k in range(256, unit, 256):
        fields = weight_fields(name, 3 * k // 256, k, 0)
        for dtype in DTYPES:
            result = run(name, fields, random_row(k, dtype, 1), dtype, device_of(device_class))
            assert same_bits(result, np.zeros(3)), (k, dtype)


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_tail(device_class: str, name: str) -> None:
    """Changing what lies behind the last full round changes nothing with q4_k and q6_k, and counts with the others."""
    unit, k = 16 * WG_SIZE[device_class], 1280
    fields = weight_fields(name, 4 * k // 256, 21, 1)
    x = random_row(k, "float32", 22)
    other = x.copy()
    other[k - k % unit :] += 1
    assert k % unit
    device = device_of(device_class)
    results = [run(name, fields, row, "float32", device) for row in (x, other)]
    if name in WITHOUT_TAIL:
        assert same_bits(*results)
        other[k - k % unit :] = np.nan
        assert same_bits(results[0], run(name, fields, other, "float32", device))
    else:
        assert (np.abs(results[0] - results[1]) > 1e-4).all()


# ---- precision exceptions ----------------------------------------------------------------------------------


def test_q5_k_accumulates_in_float_in_half() -> None:
    """65536 + 1 needs more than half has, and more than half reaches; the accumulator is float."""
    fields = weight_fields("q5_k", 1 * 16, 1, 0)
    fields["d"][:] = 1.0
    fields["dmin"][:] = 0.0
    fields["qs"][:] = 0x11
    fields["qh"][:] = 0
    fields["scales"][:] = np.array([16, 16, 16, 16, 0, 0, 0, 0, 0, 0, 0, 0])
    x = np.tile(np.repeat([16.0, -16.0], 1024), 2)
    x[-256] += 1.0
    assert run("q5_k", fields, x, "float16", device_of("unknown"))[0] == 16.0


def test_q6_k_scales_in_float_in_double_and_half() -> None:
    fields = weight_fields("q6_k", 2, 1, 0)
    fields["d"][:] = np.float16(0.1)
    fields["scales"][:] = 127
    x = np.zeros(512)
    x[0] = 1 / 3
    columns = read("decode_q6_k", fields, "float64").reshape(1, 512)
    code = round(float(columns[0, 0]) / (float(np.float16(0.1)) * 127))
    w = np.float32(np.float16(0.1)) * np.float32(127)
    in_half = np.float16(1 / 3) * np.float16(code)
    for dtype, chunk in (("float64", np.float32(code * x[0])), ("float16", np.float32(in_half))):
        expected = w * chunk
        if dtype == "float16":
            expected = np.float16(expected)
        assert run("q6_k", fields, x, dtype, device_of("unknown"))[0] == float(expected)


def test_fp6_k_scale_is_a_half_product_in_double() -> None:
    fields = weight_fields("fp6_k", 1, 1, 0)
    fields["d"][:] = np.float16(0.1)
    fields["scales"][:] = 127
    x = np.zeros(256)
    x[3] = 1.0
    unscaled = weight_fields("fp6_k", 1, 1, 0)
    unscaled["d"][:] = 1.0
    unscaled["scales"][:] = 1
    value = read("decode_fp6_k", unscaled, "float64")[3]
    half_scale = np.float16(0.1) * np.float16(127)
    assert float(half_scale) != float(np.float16(0.1)) * 127
    assert run("fp6_k", fields, x, "float64", device_of("unknown"))[0] == value * float(half_scale)


# ---- bounds of the arrays, failures, odd values ------------------------------------------------------------


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_odd_row_counts_touch_nothing_else(device_class: str, name: str) -> None:
    """Behind the last row of the weight lie NaN scales, and behind the output a guard."""
    k, entry, device = 1024, FORMATS[name], device_of(device_class)
    fields = weight_fields(name, 3 * k // 256, 2, 1)
    weight = pack(entry, fields)
    held = np.full(weight.size + entry.bytes * k // 256 + 64, 0xFF, np.uint8)
    held[: weight.size] = weight
    inside = torch.from_numpy(held).to(device)[: weight.size]
    for dtype in DTYPES:
        x = random_row(k, dtype, 3)
        row = torch.from_numpy(x).to(TORCH[dtype])[None].to(device)
        with output_guard(3, TORCH[dtype], device) as address:
            out = vesper_linear.forward_new(row, inside, entry.qtype, 0)
            result = out.cpu().to(torch.float64).numpy()[0]
            assert address in (None, out.data_ptr())
        assert not outside(result, multiply(name, Tracked, dtype, fields, x, WG_SIZE[device_class])).any()


@pytest.mark.parametrize("name", ["q4_k", "q6_k", "fp6_k"])
@pytest.mark.parametrize("device_class", CLASSES)
def test_row_length_check(device_class: str, name: str) -> None:
    device, entry = device_of(device_class), FORMATS[name]
    weight = torch.zeros(entry.bytes * 16, dtype=torch.uint8, device=device)
    for k, dtype in itertools.product((8, 24, 260), DTYPES):
        row = torch.ones(1, k, dtype=TORCH[dtype], device=device)
        with pytest.raises(RuntimeError) as failure:
            vesper_linear.forward_new(row, weight, entry.qtype, 0)
        assert str(failure.value).splitlines()[0] == f"%d must be a multiple of %d{k}16"


def test_row_length_check_names_the_kernel() -> None:
    """With C++ traces on, PyTorch tells where a check stands."""
    script = """
import quillon, torch
row, weight = torch.ones(1, 24, device="xpu"), torch.zeros(840, dtype=torch.uint8, device="xpu")
for name, qtype in (("q4_k", 27), ("q6_k", 26), ("fp6_k", 30)):
    try:
        torch.ops.quillon.forward_new(row, weight, qtype, 24)
    except RuntimeError as failure:
        print(name, f"Exception raised from qlinear_xpu_kernel_{name}_2x16 at" in str(failure))
"""
    environment = {**os.environ, "TORCH_SHOW_CPP_STACKTRACES": "1", "TORCH_DISABLE_ADDR2LINE": "1"}
    done = subprocess.run(
        [sys.executable, "-c", script], env=environment, capture_output=True, text=True, timeout=300, check=True
    )
    assert done.stdout.split() == ["q4_k", "True", "q6_k", "True", "fp6_k", "True"]


@pytest.mark.parametrize("name", NAMES)
def test_other_element_types(name: str) -> None:
    device, entry = device_of("unknown"), FORMATS[name]
    weight = torch.zeros(entry.bytes * 2, dtype=torch.uint8, device=device)
    with pytest.raises(RuntimeError, match=r"^\"qlinear_forward_xpu\" not implemented for 'Int'"):
        vesper_linear.forward_new(torch.ones(1, 512, dtype=torch.int32, device=device), weight, entry.qtype, 0)
    floats = torch.zeros(entry.bytes * 2, device=device)
    with pytest.raises(RuntimeError, match="expected scalar type Byte but found Float"):
        vesper_linear.forward_new(torch.ones(1, 512, device=device), floats, entry.qtype, 0)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", NAMES)
def test_infinities_and_nans_reach_the_output(name: str, dtype: str) -> None:
    """Of three rows the second has a NaN for a scale, and the third an infinite one."""
    k, device = 1024, device_of("unknown")
    fields = weight_fields(name, 3 * k // 256, 6, 1)
    fields["d"][4 + 1] = np.nan
    fields["d"][8 + 2] = np.inf
    x = np.abs(random_row(k, dtype, 7)) + np.float32(0.0)
    result = run(name, fields, x, dtype, device)
    assert np.isfinite(result[0])
    assert np.isnan(result[1])
    assert not np.isfinite(result[2])
    x[0] = np.inf
    assert not np.isfinite(run(name, fields, x, dtype, device)).any()


# ---- the comparison itself ---------------------------------------------------------------------------------


def _swapped_nibbles(fields: Fields, part: str) -> Fields:
    return {**fields, part: (fields[part] >> 4 | fields[part] << 4).astype(fields[part].dtype)}


@pytest.mark.parametrize("dtype", ["float32", "float64", "float16"])
@pytest.mark.parametrize("name", NAMES)
def test_the_bound_catches_faults(name: str, dtype: str) -> None:
    """Each fault in the reference puts most rows outside their bounds. bfloat16 is compared bit for bit instead."""
    k, rows = 1024, 16
    fields = weight_fields(name, rows * k // 256, 8, 3)
    x = random_row(k, dtype, 9)
    result = run(name, fields, x, dtype, device_of("unknown"))
    low = "ql" if "ql" in fields else "qs"
    words = fields[low].reshape(rows * k // 256, -1, 4)
    neighbour = {"q4_k": 2, "q5_k": 1, "q6_k": 1, "fp6_k": 1}[name]
    faults = {
        "nibbles": _swapped_nibbles(fields, low),
        "next block's scale": {**fields, "d": np.roll(fields["d"], 1, axis=0)},
        "next sub-block's scale": {**fields, "scales": np.roll(fields["scales"], neighbour, axis=1)},
        "byte order": {**fields, low: words[:, :, ::-1].reshape(fields[low].shape)},
    }
    if "dmin" in fields:
        faults["no minimum"] = {**fields, "dmin": np.zeros_like(fields["dmin"])}
    if "qh" in fields:
        faults["high bits"] = {**fields, "qh": np.zeros_like(fields["qh"])}
    assert not outside(result, multiply(name, Tracked, dtype, fields, x, 32)).any()
    for what, wrong in faults.items():
        caught = outside(result, multiply(name, Tracked, dtype, wrong, x, 32)).mean()
        assert caught > 0.5, (what, caught)


def test_every_reader_is_known() -> None:
    assert {f"decode_{name}" for name in NAMES} <= READERS.keys()
