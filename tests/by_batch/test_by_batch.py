"""The kernels for a handful of activation rows, against the independent reference and against one row at a time."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array, split
from matvec.guards import output_guard
from matvec.harness import (
    CLASSES,
    DTYPES,
    TORCH,
    WG_SIZE,
    device_of,
    random_activations,
    random_weight,
    rounded,
    same_bits,
    tracked,
    within,
)

import quillon
import vesper_linear

# Largest batch, the format in whose order the kernel reads the bytes, and whether class elm has the road.
ROADS = {"q4_0": (7, "q4_0", False), "q4_0_woq": (7, "q4_0", False), "nf4": (14, "nf4", True)}
LAUNCHERS = ("elm", "legacy", "unknown")  # a class of each launcher table
CASES = [(f, t, c) for f in ROADS for t in DTYPES for c in LAUNCHERS if c != "elm" or ROADS[f][2]]

# Chunks that fill a vector of lanes, a work-group and a full round in part; odd numbers of rows.
SHAPES = ((64, 1), (576, 13), (1024, 9), (4160, 5))


def activations(batch: int, k: int, dtype: str) -> Array:
    return np.stack([random_activations(k, dtype, 100 * batch + b) for b in range(batch)])


def run(name: str, weight: Array, x: Array, dtype: str, device_class: str) -> Array:
    device = device_of(device_class)
    rows = torch.from_numpy(x).to(TORCH[dtype]).to(device)
    out = vesper_linear.forward_new(rows, torch.from_numpy(weight).to(device), FORMATS[name].qtype, 0)
    assert out.dtype == TORCH[dtype]
    assert out.device == device
    return as_float64(out)


def as_float64(out: torch.Tensor) -> Array:
    return out.cpu().to(torch.float64).numpy()


def batches(name: str) -> tuple[int, ...]:
    most = ROADS[name][0]
    return (2, 3, 4, 5, most)


@pytest.mark.parametrize(("name", "dtype", "device_class"), CASES)
def test_values(name: str, dtype: str, device_class: str) -> None:
    lanes, order = WG_SIZE[device_class], ROADS[name][1]
    for i, batch in enumerate(batches(name)):
        k, n = SHAPES[i % len(SHAPES)]
        weight = random_weight(name, n * k // 64, k + batch)
        fields = split(FORMATS[order], weight)
        x = activations(batch, k, dtype)
        result = run(name, weight, x, dtype, device_class)
        assert result.shape == (batch, n)
        for b in range(batch):
            assert within(result[b], tracked(order, fields, x[b], dtype, lanes)), (batch, k, b)
            if dtype == "bfloat16":  # nothing can be fused: to the bit
                assert same_bits(result[b], rounded(order, fields, x[b], dtype, lanes)), (batch, k, b)


@pytest.mark.parametrize("backing", ["items", "vectors"])
@pytest.mark.parametrize(("name", "dtype", "device_class"), CASES)
def test_the_bits_of_one_row_at_a_time(
    name: str, dtype: str, device_class: str, backing: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    order = ROADS[name][1]
    for batch in range(2, ROADS[name][0] + 1):
        k, n = SHAPES[batch % len(SHAPES)]
        weight = random_weight(name, n * k // 64, k)
        x = activations(batch, k, dtype)
        monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
        result = run(name, weight, x, dtype, device_class)
        monkeypatch.delenv("QUILLON_HOST_BACKING")
        alone = np.concatenate([run(order, weight, x[b : b + 1], dtype, device_class) for b in range(batch)])
        assert same_bits(result, alone), batch


@pytest.mark.grid(0.15)
@pytest.mark.parametrize("k", [16, 80, 4176])
@pytest.mark.parametrize(("name", "dtype", "device_class"), CASES)
def test_rows_that_end_inside_a_block(name: str, dtype: str, device_class: str, k: int) -> None:
    """The addressing there is that of one activation row by a kernel with tiles of two rows, which legacy has not."""
    device, entry, order = device_of(device_class), FORMATS[name], FORMATS[ROADS[name][1]]
    batch, blocks = 3, (5 * k + 63) // 64
    weight = torch.from_numpy(random_weight(name, blocks, k)).to(device)
    memory = torch.from_numpy(activations(1, (batch + 1) * k + 64, dtype)[0]).to(TORCH[dtype]).to(device)
    rows = memory[: batch * k].view(batch, k)
    result = vesper_linear.forward_new(rows, weight, entry.qtype, 0)
    two_rows = device_of("unknown" if device_class == "legacy" else device_class)
    memory, weight = memory.to(two_rows), weight.to(two_rows)
    alone = [
        vesper_linear.forward_new(memory[b * k : (b + 1) * k].view(1, k), weight, order.qtype, 0) for b in range(batch)
    ]
    assert same_bits(as_float64(result), as_float64(torch.cat(alone)))


@pytest.mark.parametrize("name", ROADS)
def test_reads_behind_the_activations_are_refused(name: str) -> None:
    device = device_of("unknown")
    weight = torch.from_numpy(random_weight(name, 5, 1)).to(device)
    with pytest.raises(RuntimeError, match=r"whose kernel then reads 264 activations, and input has 240"):
        vesper_linear.forward_new(torch.ones(3, 80, device=device), weight, FORMATS[name].qtype, 0)


@pytest.mark.parametrize("backing", ["items", "vectors"])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ROADS)
def test_guard_bytes(name: str, dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Of odd numbers of rows all are written, and nothing behind them."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of("unknown")
    batch, n, k = 3, 7, 128
    packed = torch.from_numpy(random_weight(name, n * k // 64, 2)).to(device)
    x = torch.from_numpy(activations(batch, k, dtype)).to(TORCH[dtype]).to(device)
    with output_guard(batch * n, TORCH[dtype], device) as address:
        out = vesper_linear.forward_new(x, packed, FORMATS[name].qtype, 0)
        assert address in (None, out.data_ptr())
        assert out.shape == (batch, n)
        written = as_float64(out)
    for b in range(batch):
        row = vesper_linear.forward_new(x[b : b + 1], packed, FORMATS[ROADS[name][1]].qtype, 0)
        assert same_bits(written[b], as_float64(row)[0])


@pytest.mark.parametrize("name", ROADS)
def test_check_of_the_row_length(name: str) -> None:
    device = device_of("unknown")
    weight = torch.zeros(FORMATS[name].bytes * 6, dtype=torch.uint8, device=device)
    with pytest.raises(RuntimeError) as caught:
        vesper_linear.forward_new(torch.ones(2, 24, device=device), weight, FORMATS[name].qtype, 0)
    assert str(caught.value).startswith("%d must be a multiple of %d2416")


@pytest.mark.parametrize("name", ROADS)
def test_no_rows(name: str) -> None:
    device = device_of("unknown")
    weight = torch.zeros(FORMATS[name].bytes * 6, dtype=torch.uint8, device=device)
    assert vesper_linear.forward_new(torch.ones(0, 64, device=device), weight, FORMATS[name].qtype, 0).shape == (0, 6)


def test_every_class_but_elm_has_the_road_of_q4_0() -> None:
    for name, (_, _, on_elm) in ROADS.items():
        for device_class in CLASSES:
            device = device_of(device_class)
            weight = torch.zeros(FORMATS[name].bytes * 5, dtype=torch.uint8, device=device)
            x = torch.ones(3, 64, device=device)
            with quillon.record_launches() as launches:
                result = vesper_linear.forward_new(x.half(), weight, FORMATS[name].qtype, 0)
            assert result.shape == (3, 5)
            took_it = any("_batch<" in launch.kernel for launch in launches)
            assert took_it is (on_elm or device_class != "elm")
