"""The interface of the quantizers: checks, element types, pieces, extremes."""

from __future__ import annotations

import io
import sys
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager

import pytest
import torch
from hypothesis import given, settings
from hypothesis import strategies as st
from torch import Tensor

from quillon import formats, quantizers
from quillon.formats import FORMATS, WEIGHT_FORMATS
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference

from .decoders import FORMATS as LAYOUTS

ALL = pytest.mark.parametrize("name", WEIGHT_FORMATS)


def randn(rows: int, cols: int, seed: int = 0) -> Tensor:
    return torch.randn(rows, cols, generator=torch.Generator().manual_seed(seed))


def decoded(weight: Tensor, name: str, **options: object) -> Tensor:
    return dequantize_reference(quantize(weight, name, **options), name, *weight.shape)


# The format table ----


def test_format_table() -> None:
    assert [n for n in FORMATS if n not in WEIGHT_FORMATS] == ["q8_1"]
    assert len(WEIGHT_FORMATS) == 19
    for name, entry in LAYOUTS.items():
        assert formats.format_code(name) == formats.format_code(entry.qtype) == entry.qtype
        assert formats.format_name(entry.qtype) == formats.format_name(name.upper()) == name
        if name != "q8_1":
            assert formats.row_multiple(entry.qtype) == entry.elements
            assert formats.weight_bytes(name, 3, 512) == 3 * 512 // entry.elements * entry.bytes


REGIONS = {
    "q4_0": {"qs": 0, "d": 32},
    "q4_1": {"qs": 0, "dm": 32},
    "q8_0": {"qs": 0, "d": 64},
    "q4_0_woq": {"qs": 0, "d": 32},
    "nf4": {"qs": 0, "d": 32},
    "nf3": {"qs": 0, "d": 24},
    "fp4": {"qs": 0, "d": 32},
    "fp6": {"ql": 0, "qh": 32, "d": 48},
    "fp8_e4m3": {"qs": 0, "d": 64},
    "fp8_e5m2": {"qs": 0, "d": 64},
    "q4_k": {"qs": 0, "scales": 128, "dm": 144},
    "q6_k": {"qh": 0, "ql": 64, "scales": 192, "d": 208},
    "fp6_k": {"ql": 0, "qh": 128, "scales": 192, "d": 208},
}
RECORDS = {
    "q5_0": {"d": 0, "m": 2, "qh": 4, "qs": 12},
    "q5_1": {"d": 0, "m": 2, "qh": 4, "qs": 12},
    "q2_k": {"scales": 0, "qs": 16, "d": 80, "dmin": 82},
    "q5_k": {"d": 0, "dmin": 2, "scales": 4, "qh": 16, "qs": 48},
    "iq2_xxs": {"d": 0, "qs": 2},
    "iq1_s": {"d": 0, "qs": 2, "qh": 34},
}


@ALL
def test_where_the_fields_lie(name: str) -> None:
    blocks = 7
    offsets = {field: start for field, (start, _) in formats.field_offsets(name, blocks).items()}
    strides = {field: stride for field, (_, stride) in formats.field_offsets(name, blocks).items()}
    if name in REGIONS:
        assert offsets == {field: per_block * blocks for field, per_block in REGIONS[name].items()}
        assert strides == dict(FORMATS[name].fields)
    else:
        assert offsets == RECORDS[name]
        assert set(strides.values()) == {FORMATS[name].bytes}


# Errors ----


@pytest.mark.parametrize(
    ("call", "error", "message"),
    [
        (lambda: quantize(randn(2, 64), "q3_0"), ValueError, r"unknown format 'q3_0'; allowed: q4_0 \(2\)"),
        (lambda: quantize(randn(2, 64), 22), ValueError, "unknown format 22; allowed: "),
        (lambda: quantize(randn(2, 64), "q8_1"), ValueError, r"q8_1 \(9\) holds activations, not weights"),
        (
            lambda: quantize(randn(2, 64), 2.0),
            TypeError,
            "format must be a name or an integer code, got float",
        ),
        (
            lambda: quantize(randn(2, 64), True),
            TypeError,
            "format must be a name or an integer code, got bool",
        ),
        (lambda: quantize(randn(2, 96), "q4_0"), ValueError, "multiple of 64 for q4_0, got 2 by 96"),
        (lambda: quantize(randn(2, 320), "q4_k"), ValueError, "multiple of 256 for q4_k, got 2 by 320"),
        (lambda: quantize(randn(0, 64), "q4_0"), ValueError, "must be positive, got 0 by 64"),
        (
            lambda: quantize(randn(2, 64)[0], "q4_0"),
            ValueError,
            r"two dimensions \(rows, cols\), got shape \(64,\)",
        ),
        (lambda: quantize([[0.0] * 64], "q4_0"), TypeError, "weight must be a tensor, got list"),
        (
            lambda: quantize(randn(2, 64).double(), "q4_0"),
            TypeError,
            "must be float32, float16 or bfloat16, got torch.float64",
        ),
        (
            lambda: quantize(torch.zeros(1).expand(1 << 25, 64), "q4_0"),
            ValueError,
            "at most 2147483647 elements, got 33554432 by 64 = 2147483648",
        ),
        (
            lambda: quantize(torch.full((1, 64), torch.nan), "q4_0"),
            ValueError,
            "finite; rows 0 to 0 hold NaN",
        ),
        (lambda: quantize(torch.full((1, 64), -torch.inf), "q4_0"), ValueError, "weight must be finite"),
        (
            lambda: quantize(torch.full((1, 64), -500.0), "fp6"),
            ValueError,
            r"within \+-479 for fp6, got a magnitude of 500",
        ),
        (
            lambda: quantize(randn(2, 64), "q4_0", importance=torch.ones(2)),
            ValueError,
            r"importance must have shape \(64,\), one number per column, got \(2,\)",
        ),
        (
            lambda: quantize(randn(2, 64), "q4_0", importance=-torch.ones(64)),
            ValueError,
            "importance must be finite and not negative, with at least one positive number",
        ),
        (
            lambda: quantize(randn(2, 64), "q4_0", importance=torch.ones(64, dtype=torch.int32)),
            TypeError,
            "importance must be a floating-point tensor, got torch.int32",
        ),
        (
            lambda: dequantize_reference(torch.zeros(33, dtype=torch.uint8), "q4_0", 1, 64),
            ValueError,
            r"data must have shape \(34,\) for 1 by 64 in q4_0, got \(33,\)",
        ),
        (
            lambda: dequantize_reference(torch.zeros(34), "q4_0", 1, 64),
            TypeError,
            "data must be uint8, got torch.float32",
        ),
        (
            lambda: dequantize_reference(torch.zeros(34, dtype=torch.uint8), "q4_0", 1, 64, torch.int8),
            TypeError,
            "dtype must be float32, float64, float16 or bfloat16, got torch.int8",
        ),
    ],
)
def test_errors(call: object, error: type[Exception], message: str) -> None:
    with pytest.raises(error, match=message):
        call()  # type: ignore[operator]


# Behaviour ----


@ALL
@settings(max_examples=8, deadline=None)
@given(rows=st.integers(1, 5), blocks=st.integers(1, 5), seed=st.integers(0, 1000))
def test_any_shape(name: str, rows: int, blocks: int, seed: int) -> None:
    weight = randn(rows, blocks * FORMATS[name].elements, seed)
    data = quantize(weight, name)
    assert data.dtype == torch.uint8
    assert data.shape == (formats.weight_bytes(name, rows, weight.shape[1]),)
    values = dequantize_reference(data, name, rows, weight.shape[1])
    assert values.shape == weight.shape
    assert float((values - weight).norm() / weight.norm()) < 0.55


@ALL
def test_bytes_do_not_depend_on_the_chunks(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    weight = randn(9, 512)
    columns = torch.linspace(0.1, 1, 512)
    whole = [quantize(weight, name), quantize(weight, name, importance=columns)]
    monkeypatch.setattr(quantizers, "_PIECE_ELEMENTS", 4 * 512)
    parts = [quantize(weight, name), quantize(weight, name, importance=columns)]
    for a, b in zip(whole, parts, strict=True):
        # The order of a sum may follow the length of a piece, and a tie between two codes with it.
        values = [dequantize_reference(data, name, 9, 512) for data in (a, b)]
        assert float((values[0] - values[1]).abs().gt(1e-6).float().mean()) < 2e-3


@ALL
def test_deterministic(name: str) -> None:
    weight = randn(4, 512)
    assert torch.equal(quantize(weight, name), quantize(weight, name))


@ALL
def test_bytes_do_not_depend_on_the_threads(name: str) -> None:
    weight = randn(300, 512) if FORMATS[name].bits_per_weight > 2 else randn(130, 512)
    threads = torch.get_num_threads()
    results = []
    try:
        for count in (1, 2, 3):
            torch.set_num_threads(count)
            data = quantize(weight, name)
            results.append((data, dequantize_reference(data, name, *weight.shape)))
            assert torch.get_num_threads() == count
    finally:
        torch.set_num_threads(threads)
    for data, values in results[1:]:
        assert torch.equal(data, results[0][0])
        assert torch.equal(values, results[0][1])


@contextmanager
def default_dtype(dtype: torch.dtype) -> Iterator[None]:
    before = torch.get_default_dtype()
    torch.set_default_dtype(dtype)
    try:
        yield
    finally:
        torch.set_default_dtype(before)


MODES: dict[str, Callable[[], AbstractContextManager[object]]] = {
    "inference": torch.inference_mode,
    "meta": lambda: torch.device("meta"),
    "xpu": lambda: torch.device("xpu"),
    "double": lambda: default_dtype(torch.float64),
    "half": lambda: default_dtype(torch.float16),
    "autocast": lambda: torch.autocast("cpu"),
}


@ALL
def test_bytes_and_values_do_not_depend_on_the_callers_modes(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(quantizers, "_PIECE_ELEMENTS", 4096)  # several pieces, and so threads
    weight = randn(20, 512)
    importance = torch.rand(512) + 0.1
    packed = quantize(weight, name, importance=importance)
    values = dequantize_reference(packed, name, 20, 512)
    for mode, enter in MODES.items():
        with enter():
            found = quantize(weight, name, importance=importance)
            expanded = dequantize_reference(packed, name, 20, 512)
        assert found.device.type == expanded.device.type == "cpu", mode
        assert torch.equal(found, packed), mode
        assert torch.equal(expanded, values), mode
        assert not found.is_inference(), mode


def test_the_first_bad_chunk_is_named_and_the_threads_come_back() -> None:
    weight = randn(4096, 64)
    weight[2000, 3] = torch.nan
    weight[4000, 3] = torch.nan
    threads = torch.get_num_threads()
    with pytest.raises(ValueError, match="rows 1024 to 2047 hold NaN"):
        quantize(weight, "q4_0")
    assert torch.get_num_threads() == threads


@ALL
@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16])
def test_element_types(name: str, dtype: torch.dtype) -> None:
    weight = randn(4, 512).to(dtype)
    assert torch.equal(quantize(weight, name), quantize(weight.float(), name))


@ALL
def test_rows_are_independent(name: str) -> None:
    weight = randn(6, 256)
    values = decoded(weight, name)
    for row in range(6):
        torch.testing.assert_close(decoded(weight[row : row + 1], name)[0], values[row], rtol=0.02, atol=0.02)


def test_codes_names_and_views_give_the_same_bytes() -> None:
    weight = randn(8, 128)
    expected = quantize(weight, "q4_0")
    assert torch.equal(quantize(weight, 2), expected)
    assert torch.equal(quantize(weight, "Q4_0"), expected)
    assert torch.equal(quantize(weight.t().contiguous().t(), "q4_0"), expected)
    assert torch.equal(quantize(torch.nn.Parameter(weight), "q4_0"), expected)
    part = torch.cat((torch.zeros(5, dtype=torch.uint8), expected))[5:]
    torch.testing.assert_close(
        dequantize_reference(part, "q4_0", 8, 128), dequantize_reference(expected, "q4_0", 8, 128)
    )


# Zero is no code of the small floats: fp8_e5m2 has no scale that could be zero instead.
@ALL
def test_zero(name: str) -> None:
    values = decoded(torch.zeros(2, 256), name)
    smallest = 2.0**-17 if name == "fp8_e5m2" else 0.0
    assert float(values.abs().max()) == smallest


@ALL
@pytest.mark.parametrize("value", [0.75, -0.75])
def test_constant(name: str, value: float) -> None:
    values = decoded(torch.full((1, 256), value), name)
    # An even number of signs, or one shared shift, lets no grid point be constant.
    bound = {"iq2_xxs": 0.03, "iq1_s": 0.05, "fp8_e5m2": 0.13, "q2_k": 0.03}.get(name, 0.01)
    assert float((values / value - 1).abs().max()) <= bound


# All weights of one sign: the affine super-blocks need a minimum of the other sign.
@ALL
@pytest.mark.parametrize("sign", [1, -1])
def test_one_sided(name: str, sign: int) -> None:
    weight = sign * (randn(4, 512).abs() + 3)
    error = float((decoded(weight, name) - weight).norm() / weight.norm())
    affine = {"q4_1": 0.02, "q5_1": 0.01, "q4_k": 0.02, "q5_k": 0.01, "q2_k": 0.08}
    assert error < affine.get(name, 0.3)


@ALL
@pytest.mark.parametrize("scale", [1e-30, 1e-6, 1e-3, 1e2])
def test_magnitudes(name: str, scale: float) -> None:
    weight = scale * randn(2, 256)
    values = decoded(weight, name)
    assert bool(values.isfinite().all())
    error = float((values - weight).norm())
    # The step of the smallest scales is 2^-24, and codes are at most 16 of them from zero; the smallest
    # fp8_e5m2 value is 2^-17.
    floor = {"fp8_e5m2": 2.0**-16}.get(name, 2.0**-20) * weight.numel() ** 0.5
    assert error <= 0.55 * float(weight.norm()) + floor


def test_wide_range_with_float_scales() -> None:
    for name in ("q8_0", "fp8_e4m3"):
        for scale in (1e-25, 1e12):
            weight = scale * randn(2, 256)
            assert float((decoded(weight, name) / scale - weight / scale).norm() / (weight / scale).norm()) < 0.03


def test_unimportant_columns_may_be_wrong_but_not_undefined() -> None:
    columns = torch.zeros(256)
    columns[3] = 1.0
    weight = randn(4, 256)
    for name in WEIGHT_FORMATS:
        assert bool(decoded(weight, name, importance=columns).isfinite().all())


# Progress ----


class Terminal(io.StringIO):
    def isatty(self) -> bool:
        return True


@pytest.mark.parametrize(
    ("stream", "progress", "shown"),
    [
        (io.StringIO, None, False),
        (io.StringIO, True, True),
        (Terminal, False, False),
        (Terminal, True, True),
        # On a terminal, but far too short a job.
        (Terminal, None, False),
    ],
)
def test_progress(
    stream: type[io.StringIO], progress: bool | None, shown: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(sys, "stderr", stream())
    quantize(randn(2, 64), "q4_0", progress=progress)
    text = sys.stderr.getvalue()  # type: ignore[attr-defined]
    assert ("quantize q4_0" in text and "100%" in text) is shown
    assert shown or text == ""


def test_progress_of_a_long_job(monkeypatch: pytest.MonkeyPatch) -> None:
    from quillon.quantizers import _progress

    now = iter(range(0, 100, 3))
    monkeypatch.setattr(_progress.time, "monotonic", lambda: next(now))
    monkeypatch.setattr(sys, "stderr", Terminal())
    monkeypatch.setattr(quantizers, "_PIECE_ELEMENTS", 128)
    quantize(randn(4, 64), "q4_0")
    assert " 50%" in sys.stderr.getvalue()  # type: ignore[attr-defined]
