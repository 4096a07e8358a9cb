"""Every kernel, in every element type, on a device of every class."""

from __future__ import annotations

from functools import cache

import numpy as np
import pytest
from formats.decoders import FORMATS, Array, Fields, pack, split

from .harness import (
    CLASSES,
    DTYPES,
    PRECISION,
    WG_SIZE,
    as_dtype,
    device_of,
    exact_activations,
    exact_weight,
    random_activations,
    random_weight,
    rounded,
    run,
    same_bits,
    tracked,
    within,
)
from .reference import KERNELS, Tracked

# One block; rounds that the chunks do not fill; and a long row, which one depending on the case. Rows are odd.
SHORT = (64, 576)
LONG = (768, 1024, 4096, 14336)
CASES = [(f, t) for f in KERNELS for t in DTYPES]
SHAPES = [(f, t, k) for i, (f, t) in enumerate(CASES) for k in (*SHORT, LONG[(i + i // 4) % 4])]


def rows_of(k: int) -> int:
    return 5 if k > 4000 else 13


@cache
def random_case(format_name: str, dtype: str, k: int) -> tuple[Array, Fields, Array]:
    weight = random_weight(format_name, rows_of(k) * k // 64, k)
    return weight, split(FORMATS[format_name], weight), random_activations(k, dtype, k + 1)


@cache
def exact_case(format_name: str, dtype: str, k: int) -> tuple[Array, Fields, Array]:
    weight = exact_weight(format_name, rows_of(k) * k // 64, k)
    fields = split(FORMATS[format_name], weight)
    return weight, fields, exact_activations(format_name, fields, k, dtype, k + 1)


@cache
def bounds(format_name: str, dtype: str, k: int, wg_size: int) -> Tracked:
    _, fields, x = random_case(format_name, dtype, k)
    return tracked(format_name, fields, x, dtype, wg_size)


@cache
def bits(case: object, format_name: str, dtype: str, k: int, wg_size: int) -> Array:
    _, fields, x = case(format_name, dtype, k)  # type: ignore[operator]
    return rounded(format_name, fields, x, dtype, wg_size)


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize(("format_name", "dtype", "k"), SHAPES)
def test_random_data(format_name: str, dtype: str, k: int, device_class: str) -> None:
    weight, _, x = random_case(format_name, dtype, k)
    result = run(format_name, weight, x, dtype, device_of(device_class))
    assert within(result, bounds(format_name, dtype, k, WG_SIZE[device_class]))
    if dtype == "bfloat16":  # nothing can be fused: to the bit
        assert same_bits(result, bits(random_case, format_name, dtype, k, WG_SIZE[device_class]))


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize(("format_name", "dtype", "k"), SHAPES)
def test_exact_data(format_name: str, dtype: str, k: int, device_class: str) -> None:
    weight, fields, x = exact_case(format_name, dtype, k)
    expected = bits(exact_case, format_name, dtype, k, WG_SIZE[device_class])
    exact = tracked(format_name, fields, x, dtype, WG_SIZE[device_class])
    assert np.array_equal(expected.astype(np.longdouble), exact.x), "the data does not stay exact"
    assert np.count_nonzero(expected) > 0
    assert np.array_equal(run(format_name, weight, x, dtype, device_of(device_class)), expected)


# A code of value 1, or of a value with few bits where there is no 1.
UNIT_BYTE = {
    "q4_0": 0x99, "q4_0_woq": 0x99, "q4_1": 0x11, "nf4": 0xFF, "fp4": 0x22, "q8_0": 1,
    "fp8_e4m3": 0x38, "fp8_e5m2": 0x3C, "q5_0": 0x11, "q5_1": 0x11, "nf3": 0xFF, "fp6": 0x00,
}  # fmt: skip


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("device_class", ["elm", "legacy", "unknown"])
@pytest.mark.parametrize(("format_name", "dtype"), CASES)
def test_each_sum_is_rounded(format_name: str, dtype: str, device_class: str) -> None:
    """A large term swallows the small ones behind it, as the element type demands; products are exact."""
    k, entry = 2048, FORMATS[format_name]
    fields = split(entry, np.full(3 * k // 64 * entry.bytes, UNIT_BYTE[format_name], np.uint8))
    if "qh" in fields:
        fields["qh"][:] = 0x55 if format_name == "fp6" else 0xFF
    for name, value in (("d", 1.0), ("m", 0.0)):
        if name in fields:
            fields[name][:] = value
    x = np.full(k, 1.0)
    x[::8] = 2.0 ** PRECISION[dtype]
    x = as_dtype(x, dtype)
    weight, wg_size = pack(entry, fields), WG_SIZE[device_class]
    expected = rounded(format_name, fields, x, dtype, wg_size)
    exact = tracked(format_name, fields, x, dtype, wg_size)
    assert not np.array_equal(expected.astype(np.longdouble), exact.x), "nothing is swallowed"
    assert same_bits(run(format_name, weight, x, dtype, device_of(device_class)), expected)
