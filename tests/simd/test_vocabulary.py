"""The vocabulary of explicit-SIMD kernels: its vectors on the host device, to the bit; and that GPUs take it."""

from __future__ import annotations

import numpy as np
import pytest
from formats.decoders import Array, bfloat16_bits, bfloat16_round
from gpu_compile.ocloc import MISSING_OCLOC, assembly, compile_for_gpu, device_argument, find_ocloc
from gpu_compile.spirv import dump_spirv

from .run import HEADERS, run

HEADER = "vocabulary_kernels.h"
NUMPY = {
    "float": np.float32,
    "c10::Half": np.float16,
    "uint8_t": np.uint8,
    "int8_t": np.int8,
    "uint16_t": np.uint16,
    "uint32_t": np.uint32,
}


def random_bytes(count: int, seed: int = 0) -> Array:
    return np.random.default_rng(seed).integers(0, 256, count, np.uint8)


@pytest.mark.parametrize("element", ["uint8_t", "c10::Half", "float"])
def test_loads_cuts_and_stores(element: str) -> None:
    data = random_bytes(3 * 256)
    quarters = data.reshape(3, 4, 64)
    assert np.array_equal(run(HEADER, f"copied_whole<{element}>", data, data.size, 3), data)
    result = run(HEADER, f"copied_quarters<{element}>", data, data.size, 3)
    assert np.array_equal(result.reshape(3, 4, 64), quarters[:, [2, 1, 3, 0]])


@pytest.mark.parametrize("element", ["c10::Half", "float", "uint32_t"])
def test_gathers(element: str) -> None:
    dtype = np.dtype(NUMPY[element])
    held = random_bytes(40 * dtype.itemsize, 1)
    offsets = np.random.default_rng(2).integers(0, 40, 16).astype(np.uint32) * dtype.itemsize
    data = np.concatenate([offsets.view(np.uint8), held])
    result = run(HEADER, f"gathered<{element}>", data, 16 * dtype.itemsize)
    expected = held.reshape(40, -1)[offsets // dtype.itemsize]
    assert np.array_equal(result, expected.reshape(-1))


def every_half_and_between() -> Array:
    """Floats at every half and bfloat16, midway between neighbours and beside that; signs, infinities and NaNs too."""
    halves = np.arange(2**16, dtype=np.uint16).view(np.float16)
    numbers = halves[np.isfinite(halves)].astype(np.float32)
    numbers = np.unique(numbers)
    middle = (numbers[1:].astype(np.float64) + numbers[:-1]) / 2
    of_half = [numbers, middle.astype(np.float32)]
    of_half += [np.nextafter(of_half[1], np.float32(to)) for to in (-np.inf, np.inf)]
    bits = np.arange(0, 2**32, 2**16, dtype=np.uint64)[:, None] + np.array([0, 1, 0x7FFF, 0x8000, 0x8001, 0xFFFF])
    floats = np.concatenate([*of_half, bits.astype(np.uint32).view(np.float32).reshape(-1)])
    return np.resize(floats, -(-floats.size // 16) * 16)


def same(a: Array, b: Array) -> bool:
    """The same bits, a NaN being as good as another."""
    return bool(((a == b) & (np.signbit(a) == np.signbit(b)) | (np.isnan(a) & np.isnan(b))).all())


def test_floats_to_halves_and_back() -> None:
    floats = every_half_and_between()
    result = run(HEADER, "converted<c10::Half>", floats, floats.size * 6, floats.size // 16)
    with np.errstate(over="ignore"):
        expected = floats.astype(np.float16)
    assert same(result[: 2 * floats.size].view(np.float16), expected)
    assert same(result[2 * floats.size :].view(np.float32), expected.astype(np.float32))


def test_floats_to_bfloat16_and_back() -> None:
    floats = every_half_and_between()
    result = run(HEADER, "converted<c10::BFloat16>", floats, floats.size * 6, floats.size // 16)
    bits = result[: 2 * floats.size].view(np.uint16)
    back = result[2 * floats.size :].view(np.float32)
    assert np.array_equal(back.view(np.uint32), bits.astype(np.uint32) << 16)
    expected = bfloat16_round(floats)
    assert same(back, expected)
    assert set(bits[np.isnan(floats)].tolist()) == {0x7FC0}


@pytest.mark.parametrize("element", ["uint8_t", "int8_t"])
def test_numbers_of_bytes(element: str) -> None:
    data = np.arange(256, dtype=np.uint8)
    result = run(HEADER, f"numbers_of_bytes<{element}>", data, 256 * 6, 4)
    numbers = data.view(NUMPY[element])
    assert np.array_equal(result[:512].view(np.float16), numbers.astype(np.float16))
    assert np.array_equal(result[512:].view(np.float32), numbers.astype(np.float32))


@pytest.mark.parametrize("element", ["uint8_t", "uint16_t", "uint32_t"])
def test_arrangements(element: str) -> None:
    dtype = np.dtype(NUMPY[element])
    a, b = random_bytes(32 * dtype.itemsize, 5).view(dtype).reshape(2, 16)
    size = dtype.itemsize
    result = run(HEADER, f"arranged<{element}>", np.concatenate([a, b]), 208 * size + 8 * size)
    whole = result[: 208 * size].view(dtype)
    expected = {
        0: np.stack([a, b], 1).reshape(-1),
        32: np.concatenate([b, a]),
        64: np.concatenate([a[::2], b[1::2]]),
        80: a[1:12:3],
        96: a & dtype.type(15),
        112: b >> dtype.type(4) & dtype.type(15),
        128: (a << dtype.type(3)) | dtype.type(1),
        144: np.full(16, a[5]),
        160: a,
        176: np.repeat(a[3:7], 4),
        192: a << np.resize([0, 2, 4, 6], 16).astype(dtype),
    }
    for at, values in expected.items():
        assert np.array_equal(whole[at : at + values.size], values), at
    assert np.array_equal(result[208 * size :], a.view(np.uint8)[::2])


@pytest.mark.parametrize("element", ["c10::Half", "float"])
def test_operations_round_each_time(element: str) -> None:
    dtype = NUMPY[element]
    rng = np.random.default_rng(7)
    a, b = rng.uniform(0.5, 2, (2, 32)).astype(dtype)
    c = -(a * b) * dtype(1 + 2**-9)  # nearly cancels: a fused operation would show the product's rounding error
    result = run(HEADER, f"rounded_each_time<{element}>", np.concatenate([a, b, c]), 64 * a.itemsize).view(dtype)
    assert np.array_equal(result[:32], a * b + c)
    assert np.array_equal(result[32:], a * b - c)
    exact = a.astype(np.float64) * b + c
    assert not np.array_equal(result[:32].astype(np.float64), exact.astype(dtype))


@pytest.mark.parametrize("element", ["c10::Half", "float"])
def test_local_memory(element: str) -> None:
    groups = 5
    data = random_bytes(groups * 8 * 8 * 16, 9).reshape(groups, 8, 8, 16)
    result = run(HEADER, f"exchanged<{element}>", data, data.size, groups)
    assert np.array_equal(result.reshape(data.shape), data.transpose(0, 2, 1, 3))


def of_sixteen_bits(values: Array, kind: str) -> tuple[Array, Array]:
    """Rounded values in float64, and their bits."""
    if kind == "c10::Half":
        halves = values.astype(np.float16)
        return halves.astype(np.float64), halves.view(np.uint16)
    bits = bfloat16_bits(values.astype(np.float32))
    return (bits.astype(np.uint32) << 16).view(np.float32).astype(np.float64), bits


@pytest.mark.parametrize("columns", [8, 16])
@pytest.mark.parametrize("rows", [1, 3, 8])
@pytest.mark.parametrize("kind", ["c10::Half", "c10::BFloat16"])
def test_tiles_are_multiplied(kind: str, rows: int, columns: int) -> None:
    rng = np.random.default_rng(rows)
    left, left_bits = of_sixteen_bits(rng.uniform(-1, 1, (rows, 16)), kind)
    right, right_bits = of_sixteen_bits(rng.uniform(-1, 1, (16, columns)), kind)
    sums = rng.uniform(-1, 1, (rows, columns)).astype(np.float32)
    data = np.concatenate([part.reshape(-1).view(np.uint8) for part in (left_bits, right_bits, sums)])
    name = f"tiles_multiplied<{kind},{rows},{columns}>"
    result = run(HEADER, name, data, sums.nbytes).view(np.float32).reshape(sums.shape)
    bound = 17 * 2.0**-24 * (np.abs(left) @ np.abs(right) + np.abs(sums))
    assert (np.abs(result - (left @ right + sums)) <= bound).all()


@pytest.mark.gpu_compile
@pytest.mark.skipif(find_ocloc() is None, reason=MISSING_OCLOC)
@pytest.mark.parametrize(("architecture", "columns"), [(0x30DC00800, 8), (0x30F000700, 16)])
def test_gpus_multiply_tiles_in_one_operation(architecture: int, columns: int) -> None:
    names = [
        f"tiles_multiplied<{kind},{rows},{columns}>" for kind in ("c10::Half", "c10::BFloat16") for rows in (1, 3, 8)
    ]
    for name, kernel in dump_spirv(HEADER, names, root=HEADERS).items():
        module = compile_for_gpu(kernel.module, architecture)
        assert module.kernels[kernel.entry].has_dpas, name
        # Before a long one the compiler puts an atomic one, whose result nobody reads.
        operations = [line for line in assembly(module)[kernel.entry].splitlines() if "dpas." in line]
        assert len([line for line in operations if "{Atomic}" not in line]) == 1, name


GPU_KERNELS = [
    *(f"copied_whole<{element}>" for element in ("uint8_t", "float")),
    *(f"copied_quarters<{element}>" for element in ("uint8_t", "float")),
    *(f"gathered<{element}>" for element in ("c10::Half", "float")),
    "converted<c10::Half>",
    "numbers_of_bytes<int8_t>",
    "arranged<uint8_t>",
    "arranged<uint32_t>",
    "rounded_each_time<c10::Half>",
    "exchanged<c10::Half>",
]


@pytest.mark.gpu_compile
@pytest.mark.skipif(find_ocloc() is None, reason=MISSING_OCLOC)
@pytest.mark.parametrize("architecture", [0x30DC00800, 0x30F000700, 0x501000400], ids=device_argument)
def test_gpus_take_it(architecture: int) -> None:
    spirv = dump_spirv(HEADER, [*GPU_KERNELS, "converted<c10::BFloat16>"], root=HEADERS)
    for name, kernel in spirv.items():
        info = compile_for_gpu(kernel.module, architecture).kernels[kernel.entry]
        assert (info.simd_size, info.spill_size, info.private_size) == (1, 0, 0), name
        assert info.slm_size == (1024 if name.startswith("exchanged") else 0), name
