"""The two forms of every kernel on the host device, lanes as work-items and lanes in vectors: the same bits."""

from __future__ import annotations

from functools import cache

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array, Fields, pack, split

import vesper_linear
from quillon.formats import WEIGHT_FORMATS

from .guards import output_guard
from .harness import DTYPES, TORCH, device_of, random_activations, to_device

CLASSES = ("elm", "legacy", "unknown")  # one of each launcher table

# One block (part of one vector of lanes); chunks that fill vectors and work-groups in part; a full round of either
# size; many rounds.
ROW_LENGTHS = (64, 256, 576, 640, 768, 1024, 1088, 4096, 4160)
ROWS = (1, 17, 33)


@cache
def finite_fields(name: str, blocks: int, seed: int) -> Fields:
    """Random bytes with scales of both signs and of moderate size; fp8_e5m2 without its ends."""
    entry, rng = FORMATS[name], np.random.default_rng(seed)
    fields = split(entry, rng.integers(0, 256, blocks * entry.bytes, np.uint8))
    for field in ("d", "m", "dmin"):
        if field in fields:
            sizes = np.exp2(rng.uniform(-9, -5, (blocks, 1))) * rng.choice([-1.0, 1.0], (blocks, 1))
            fields[field] = sizes.astype(fields[field].dtype)
    if name == "fp8_e5m2":
        fields["qs"] = (fields["qs"] & 0x83) | (rng.integers(8, 18, fields["qs"].shape, np.uint8) << 2)
    return fields


def lengths(name: str) -> list[int]:
    return [k for k in ROW_LENGTHS if k % FORMATS[name].elements == 0]


def both(
    name: str, weight: Array, x: Array, dtype: str, device_class: str, monkeypatch: pytest.MonkeyPatch
) -> tuple[torch.Tensor, torch.Tensor]:
    """The operator's result as bits, a NaN as one pattern, by work-items and by vectors."""
    device = device_of(device_class)
    row, packed = to_device(x, dtype, device), torch.from_numpy(weight).to(device)
    bits = []
    for backing in ("items", "vectors"):
        monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
        out = vesper_linear.forward_new(row, packed, FORMATS[name].qtype, 0).cpu()
        out[out.isnan()] = float("nan")
        bits.append(out.view({2: torch.int16, 4: torch.int32, 8: torch.int64}[TORCH[dtype].itemsize]))
    return bits[0], bits[1]


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_the_same_bits(name: str, dtype: str, device_class: str, monkeypatch: pytest.MonkeyPatch) -> None:
    for k in lengths(name):
        x = random_activations(k, dtype, k)
        for rows in ROWS:
            weight = pack(FORMATS[name], finite_fields(name, rows * k // FORMATS[name].elements, k + rows))
            items, vectors = both(name, weight, x, dtype, device_class, monkeypatch)
            assert torch.equal(items, vectors), (k, rows)


def with_bad_rows(name: str, rows: int, k: int) -> tuple[Array, Array]:
    """A weight of finite scales, and the same with NaN in the first row of three and infinities in the second."""
    entry = FORMATS[name]
    blocks = k // entry.elements
    sound = finite_fields(name, rows * blocks, 3)
    bad = {field: values.copy() for field, values in sound.items()}
    for first, value in ((0, np.nan), (1, np.inf)):
        for row in range(first, rows, 3):
            if name == "fp8_e5m2":
                bad["qs"][row * blocks : (row + 1) * blocks] = 0x7F
            for field in ("d", "m", "dmin"):
                if field in bad:
                    bad[field][row * blocks : (row + 1) * blocks] = value
    return pack(entry, sound), pack(entry, bad)


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", ["elm", "unknown"])
@pytest.mark.parametrize("dtype", ["float32", "float16"])
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_nothing_leaks_from_neighbouring_rows(
    name: str, dtype: str, device_class: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Lanes behind a row's last chunk read the next row, and must not count, whatever they find."""
    rows = 11
    for k in (lengths(name)[0], 768, 1280):
        x = random_activations(k, dtype, 5)
        sound, bad = with_bad_rows(name, rows, k)
        items, vectors = both(name, bad, x, dtype, device_class, monkeypatch)
        assert torch.equal(items, vectors), k
        good = range(2, rows, 3)
        of_sound, _ = both(name, sound, x, dtype, device_class, monkeypatch)
        assert torch.equal(items[0, good], of_sound[0, good]), k
        if name not in ("q4_k", "q6_k") or k >= 1024:  # below a full round there is no sum at all
            assert not torch.equal(items, of_sound), k


@pytest.mark.parametrize("backing", ["items", "vectors"])
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_nothing_behind_the_output_is_written(name: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """With a number of rows that no tile divides."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    rows, k, device = 9, 512, device_of("unknown")
    row = to_device(random_activations(k, "float32", 1), "float32", device)
    weight = pack(FORMATS[name], finite_fields(name, rows * k // FORMATS[name].elements, 2))
    packed = torch.from_numpy(weight).to(device)
    with output_guard(rows, torch.float32, device) as address:
        out = vesper_linear.forward_new(row, packed, FORMATS[name].qtype, 0)
        torch.xpu.synchronize(device)
        assert address in (None, out.data_ptr()), "the allocator gave other memory: the test sees nothing"
