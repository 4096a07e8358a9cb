"""Rows that do not fill a tile, outputs that nobody computes, and memory around all tensors."""

from __future__ import annotations

import ctypes

import pytest
import torch
from matvec.guards import output_guard
from matvec.test_edges import embedded

import vesper_linear
from quillon._kernels import MLP_KERNELS
from quillon.formats import get_format
from quillon.joined import _arrays

from .harness import NAMES, SILU, TORCH, call, classes_of, code_of, device_of, on_device

UNTOUCHED = 0xFF  # as new memory is where the allocator puts it between unreadable pages
BACKINGS = ("items", "vectors")
LEAVES = [name for name in NAMES if MLP_KERNELS[name].leaves_short_tile]
CASES = [(name, device_class) for name in NAMES for device_class in classes_of(name)]


def tile_of(name: str, device_class: str) -> int:
    return MLP_KERNELS[name].geometry(device_class).rows


def test_which_formats_leave_rows() -> None:
    assert LEAVES == ["q4_0", "q4_0_woq", "fp4"]
    assert {name: tile_of(name, "legacy") for name in NAMES} == {
        "q4_0": 8, "q4_0_woq": 8, "fp4": 2, "fp8_e5m2": 2, "fp6": 8, "iq2_xxs": 2,
    }  # fmt: skip
    assert {tile_of(name, "elm") for name in NAMES} == {2}


def into_known_memory(
    name: str, device_class: str, rows: int, k: int, dtype: str, batch: int = 1
) -> tuple[torch.Tensor, torch.Tensor]:
    """The output, in memory whose bytes were UNTOUCHED before, and all rows as a larger weight has them."""
    device = device_of(device_class)
    x, (gate, up) = on_device(name, 40, k, dtype, device)
    whole = call(name, x, (gate, up), 40, k)
    # Regions move with the number of rows: the first rows are packed again.
    gate, up = (first_rows(name, weight, 40, rows, k) for weight in (gate, up))
    with output_guard(batch * rows, TORCH[dtype], device) as address:
        if address is not None:
            ctypes.memset(address, UNTOUCHED, batch * rows * TORCH[dtype].itemsize)
        output = vesper_linear.mlp_forward_xpu(x, gate, up, batch, k, rows, SILU, code_of(name))
        torch.xpu.synchronize(device)
        assert address in (None, output.data_ptr()), "the allocator gave other memory: the test sees nothing"
        copied = output.cpu()
    return copied, whole.cpu()[:, :rows]


def first_rows(name: str, weight: torch.Tensor, rows: int, wanted: int, k: int) -> torch.Tensor:
    format = get_format(name)
    blocks = wanted * k // format.elements
    return torch.cat(_arrays(format, weight, 0, blocks))


def untouched(output: torch.Tensor) -> bool:
    return bool((output.contiguous().view(torch.uint8) == UNTOUCHED).all())


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("dtype", ["float32", "float16"])
@pytest.mark.parametrize(("name", "device_class"), CASES)
def test_rows_that_do_not_fill_a_tile(
    name: str, device_class: str, dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """They are left out where the kernel says so, and else computed; nothing behind the output is written."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    tile = tile_of(name, device_class)
    for rows in (1, 7, 17, 19, 23, 24):
        output, whole = into_known_memory(name, device_class, rows, 512, dtype)
        computed = rows // tile * tile if name in LEAVES else rows
        assert torch.equal(output[:, :computed], whole[:, :computed]), rows
        assert untouched(output[:, computed:]), rows


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("name", NAMES)
def test_rows_of_a_batch(name: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """The result has as many, and the first alone is computed."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    output, whole = into_known_memory(name, "elm", 24, 512, "float32", batch=3)
    assert output.shape == (3, 24)
    assert torch.equal(output[:1], whole)
    assert untouched(output[1:])


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize(("name", "device_class"), CASES)
def test_nothing_behind_the_tensors_counts(
    name: str, device_class: str, backing: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Around weights and activations all bytes are those of NaNs; rows are odd."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of(device_class)
    for rows in (1, 2, 8, 9, 23):
        k = 256
        x, weights = on_device(name, rows, k, "float32", device)
        expected = call(name, x, weights, rows, k).cpu()
        guarded = embedded(x.cpu(), device).reshape(1, k)
        gate, up = (embedded(weight.cpu(), device) for weight in weights)
        given = call(name, guarded, (gate, up), rows, k).cpu()
        computed = rows // tile_of(name, device_class) * tile_of(name, device_class) if name in LEAVES else rows
        assert torch.equal(given[:, :computed], expected[:, :computed])
        assert given[:, :computed].isfinite().all()


@pytest.mark.parametrize("name", NAMES)
def test_views_at_odd_addresses(name: str) -> None:
    device, k = device_of("elm"), 256
    x, weights = on_device(name, 24, k, "float16", device)
    expected = call(name, x, weights, 24, k)
    moved = [torch.cat([weight.new_zeros(3), weight])[3:] for weight in weights]
    shifted = torch.cat([x.new_zeros(1), x.reshape(-1)])[1:]
    assert torch.equal(call(name, shifted, (moved[0], moved[1]), 24, k), expected)


@pytest.mark.parametrize("name", NAMES)
def test_one_weight_for_both(name: str) -> None:
    device, k = device_of("elm"), 256
    x, (gate, _) = on_device(name, 24, k, "float32", device)
    assert torch.equal(call(name, x, (gate, gate), 24, k), call(name, x, (gate, gate.clone()), 24, k))


@pytest.mark.parametrize("name", NAMES)
def test_no_rows(name: str) -> None:
    x, weights = on_device(name, 24, 256, "float32", device_of("elm"))
    result = vesper_linear.mlp_forward_xpu(x, *weights, 0, 256, 24, 0, code_of(name))
    assert result.shape == (0, 24)


def test_what_lies_behind_an_input_at_an_odd_address() -> None:
    """Elements are read from the first one on, whatever strides and shape say, and wherever that is."""
    device, k = device_of("elm"), 256
    x, weights = on_device("q4_0", 24, k, "float32", device)
    expected = call("q4_0", x, weights, 24, k)
    moved = torch.cat([x.new_zeros(1), x.reshape(-1), x.new_ones(k)])
    assert torch.equal(call("q4_0", moved[1:2], weights, 24, k), expected)
    assert torch.equal(call("q4_0", moved[1 : 2 * k : 2], weights, 24, k), expected)
