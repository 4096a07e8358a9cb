"""What the kernels must not read, must not write, and must not depend on; and the ends of the number range."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array, pack, split

import vesper_linear

from .guards import output_guard
from .harness import (
    CLASSES,
    DTYPES,
    TORCH,
    WG_SIZE,
    as_dtype,
    device_of,
    random_activations,
    random_weight,
    rounded,
    run,
    same_bits,
    to_device,
)
from .reference import KERNELS

GUARD = 4096


def embedded(data: torch.Tensor, device: torch.device) -> torch.Tensor:
    """The data in the middle of a larger tensor, between guards in which every float and half is a NaN."""
    raw = data.contiguous().view(torch.uint8).reshape(-1)
    memory = torch.full((GUARD + raw.numel() + GUARD,), 0xFF, dtype=torch.uint8, device=device)
    memory[GUARD : GUARD + raw.numel()] = raw.to(device)
    return memory[GUARD : GUARD + raw.numel()].view(data.dtype)


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("device_class", ["elm", "legacy", "unknown"])
@pytest.mark.parametrize("rows", [1, 7])
@pytest.mark.parametrize("k", [64, 192])
@pytest.mark.parametrize("format_name", KERNELS)
def test_nothing_behind_the_tensors_counts(format_name: str, k: int, rows: int, device_class: str) -> None:
    """An odd count of rows, and for q5 on elm of blocks: what lies behind is NaN, and does not show."""
    device = device_of(device_class)
    weight, x = random_weight(format_name, rows * k // 64, 1), random_activations(k, "bfloat16", 2)
    row = embedded(torch.from_numpy(x).to(torch.bfloat16), device).reshape(1, k)
    packed = embedded(torch.from_numpy(weight), device)
    out = vesper_linear.forward_new(row, packed, FORMATS[format_name].qtype, 0)
    expected = rounded(format_name, split(FORMATS[format_name], weight), x, "bfloat16", WG_SIZE[device_class])
    assert same_bits(out.cpu().to(torch.float64).numpy()[0], expected)
    assert torch.equal(packed.cpu(), torch.from_numpy(weight))
    assert torch.equal(row.cpu()[0], torch.from_numpy(x).to(torch.bfloat16))


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("device_class", ["elm", "legacy", "unknown"])
@pytest.mark.parametrize("dtype", ["float32", "float16"])
@pytest.mark.parametrize("format_name", KERNELS)
def test_nothing_behind_the_output_is_written(format_name: str, dtype: str, device_class: str) -> None:
    k, rows = 128, 9
    device = device_of(device_class)
    row = to_device(random_activations(k, dtype, 2), dtype, device)
    packed = torch.from_numpy(random_weight(format_name, rows * k // 64, 1)).to(device)
    first = vesper_linear.forward_new(row, packed, FORMATS[format_name].qtype, 0).cpu()
    torch.xpu.synchronize(device)
    with output_guard(rows, TORCH[dtype], device) as address:
        out = vesper_linear.forward_new(row, packed, FORMATS[format_name].qtype, 0)
        assert address in (None, out.data_ptr())
    assert torch.equal(out.cpu(), first)


@pytest.mark.parametrize("device_class", ["elm", "unknown"])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(("format_name", "field"), [("fp8_e5m2", "d"), ("q5_0", "unused")])
def test_unread_bytes(format_name: str, field: str, dtype: str, device_class: str) -> None:
    """The scales of fp8_e5m2, and bytes 2 and 3 of a q5_0 block."""
    k, rows = 192, 5
    weight, x = random_weight(format_name, rows * k // 64, 1), random_activations(k, dtype, 2)
    expected = run(format_name, weight, x, dtype, device_of(device_class))
    fields = split(FORMATS[format_name], weight.copy())
    for filler in (0, 0x7F, 0xFF):
        fields[field].view(np.uint8)[:] = filler
        other = pack(FORMATS[format_name], fields)
        assert not np.array_equal(other, weight)
        assert same_bits(run(format_name, other, x, dtype, device_of(device_class)), expected)


@pytest.mark.parametrize("device_class", CLASSES)
def test_smallest_codes_of_small_floats(device_class: str) -> None:
    """No code of fp4, fp6 and the fp8 formats is zero."""
    for name, value in (("fp4", 2.0**-5), ("fp6", 2.0**-17), ("fp8_e4m3", 2.0**-18), ("fp8_e5m2", 2.0**-17)):
        entry = FORMATS[name]
        fields = split(entry, np.zeros(entry.bytes, np.uint8))
        fields["d"][:] = 1.0
        x = np.zeros(64, np.float32)
        x[40] = 1.0
        assert run(name, pack(entry, fields), x, "float32", device_of(device_class)) == [value]


def bits_of(values: torch.Tensor) -> list[int]:
    return [bits & 0xFFFF for bits in values.view(torch.int16).flatten().tolist()]


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("pattern", [0x7FC0, 0x7F81, 0xFFC1, 0xFFFF, 0x7F80])
@pytest.mark.parametrize("format_name", KERNELS)
def test_bfloat16_nan(format_name: str, pattern: int) -> None:
    """A NaN among the activations, of whatever bits, comes out as 0x7FC0, and so does infinity minus infinity."""
    k, rows = 128, 3
    x = torch.ones(k, dtype=torch.bfloat16)
    x.view(torch.int16)[[5, 69]] = torch.tensor([pattern, pattern ^ 0x8000]).to(torch.int16)
    fields = split(FORMATS[format_name], random_weight(format_name, rows * k // 64, 1))
    for name in ("qs", "ql", "qh"):  # one code throughout: both of the two have the same weight
        if name in fields:
            fields[name].view(np.uint8)[:] = 0x22
    for name, value in (("d", 0.5), ("m", 0.25)):
        if name in fields:
            fields[name][:] = value
    packed = torch.from_numpy(pack(FORMATS[format_name], fields)).to("xpu:7")
    out = vesper_linear.forward_new(x.reshape(1, k).to("xpu:7"), packed, FORMATS[format_name].qtype, 0)
    assert bits_of(out.cpu()) == [0x7FC0] * rows


def nan_scales(format_name: str) -> Array:
    fields = split(FORMATS[format_name], random_weight(format_name, 3, 1))
    if FORMATS[format_name].qtype in (8, 15):
        fields["d"].view(np.uint32)[:] = np.array([[0x7F800001], [0xFFFFFFFF], [0x3F800000]])
    elif format_name == "fp8_e5m2":
        fields["qs"][:2, 3] = (0x7C, 0xFF)
    else:
        fields["d"].view(np.uint16)[:] = np.array([[0x7C01], [0xFFFF], [0x3C00]])
    return pack(FORMATS[format_name], fields)


@pytest.mark.parametrize("format_name", KERNELS)
def test_bfloat16_nan_in_the_weight(format_name: str) -> None:
    """Scales whose NaN has low bits only, which rounding could carry away; the third row is sound."""
    x = torch.ones(1, 64, dtype=torch.bfloat16)
    packed = torch.from_numpy(nan_scales(format_name)).to("xpu:7")
    out = bits_of(vesper_linear.forward_new(x.to("xpu:7"), packed, FORMATS[format_name].qtype, 0).cpu())
    assert out[:2] == [0x7FC0] * 2
    assert out[2] & 0x7FFF < 0x7F80


@pytest.mark.parametrize("dtype", ["float16", "bfloat16"])
@pytest.mark.parametrize("format_name", KERNELS)
def test_overflow(format_name: str, dtype: str) -> None:
    """Activations up to the end of the range: infinities come where the emulation has them, some rows keep clear."""
    k, rows = 192, 21
    weight = random_weight(format_name, rows * k // 64, 1)
    fields = split(FORMATS[format_name], weight)
    largest = {"float16": 65504.0, "bfloat16": 3.38e38}[dtype]
    values = np.abs(fields["d"] if KERNELS[format_name].scaled else 1.0)
    typical = np.median(np.abs(KERNELS[format_name].values(fields).astype(np.float64))) * np.median(values)
    x = as_dtype(np.clip(random_activations(k, "float64", 2) * largest / (4 * typical), -largest, largest), dtype)
    expected = rounded(format_name, fields, x, dtype, 32)
    result = run(format_name, weight, x, dtype, device_of("unknown"))
    if dtype == "bfloat16":
        assert same_bits(result, expected)
    else:  # a fused product may stay finite; what is finite in both is close
        finite = np.isfinite(result) & np.isfinite(expected)
        assert np.allclose(result[finite], expected[finite], rtol=0.1, atol=largest / 16)
