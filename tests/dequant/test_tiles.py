"""Tiles of rows: the same bits as the whole weight, and what is particular to fp6."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from formats.decoders import DTYPES, FORMATS, read, split

from quillon._kernels import EXPANSIONS

from .harness import (
    BACKINGS,
    BOTH_CLASSES,
    agrees,
    device_of,
    expand_tile,
    expansion_index,
    expected_of,
    is_untouched,
    raw,
    untouched,
    walk,
    weight_of,
)

TILED = ("q4_0", "q8_0", "fp8_e5m2")
KERNELS = {
    "q4_0": ("q4_0_1x4", "q4_0_1x2"), "q8_0": ("q8_0_1x1",) * 2, "fp8_e5m2": ("fp8_e5m2_1x1",) * 2,
    "fp6": ("fp6_1x16",) * 2,
}  # fmt: skip


@pytest.mark.grid(0.3)
@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", TILED)
def test_tiles_are_parts_of_the_whole(
    name: str, dtype: str, device_class: str, backing: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of(device_class)
    for state_size, rows in ((64, 13), (576, 7), (1024, 5)):
        blocks = state_size * rows // 64
        weight = torch.from_numpy(weight_of(name, blocks)).to(device)
        whole = expected_of(name, blocks, dtype).reshape(rows, state_size)
        for tile_rows in (1, 3, rows):
            for first in range(0, rows, tile_rows):
                count = min(tile_rows, rows - first)
                output = untouched(count * state_size, dtype, device)
                expand_tile(name, weight, output, state_size, rows, count, first)
                result = raw(output)
                tile = whole[first : first + count].reshape(-1)
                assert agrees(name, result[: tile.size], tile, dtype), (state_size, tile_rows, first)
                assert is_untouched(result[tile.size :]), (state_size, tile_rows, first)


def written_columns(state_size: int) -> int:
    """How far the rounds of fp6 go: whole ones, of 16 elements for each of 64, 128 or 256 work-items."""
    step = 4096 if state_size % 4096 == 0 else 2048 if state_size % 2048 == 0 else 1024
    return state_size // step * step


@pytest.mark.parametrize("backing", BACKINGS)
@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
def test_fp6(dtype: str, device_class: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """A tile has the codes of the first rows under the scales of its own, in whole rounds of every row."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    device = device_of(device_class)
    for state_size, rows in ((64, 3), (960, 2), (1024, 5), (1536, 3), (2048, 3), (4096, 2), (5120, 2)):
        of_row = state_size // 64
        packed = weight_of("fp6", rows * of_row)
        fields = split(FORMATS["fp6"], packed)
        weight = torch.from_numpy(packed).to(device)
        columns = written_columns(state_size)
        for first, count in ((0, rows), (1, rows - 1), (rows - 1, 1)):
            output = untouched(count * state_size, dtype, device)
            expand_tile("fp6", weight, output, state_size, rows, count, first)
            mixed = {name: fields[name][: count * of_row] for name in ("ql", "qh")}
            mixed["d"] = fields["d"][first * of_row : (first + count) * of_row]
            expected = read("decode_fp6", mixed, dtype).reshape(count, state_size)
            result = raw(output)
            written = result[: count * state_size].reshape(count, state_size)
            assert agrees("fp6", written[:, :columns].copy(), expected[:, :columns].copy(), dtype), (state_size, first)
            assert is_untouched(written[:, columns:])
            assert is_untouched(result[count * state_size :])


def test_how_work_groups_walk_over_a_row_of_fp6() -> None:
    for state_size in range(64, 20000, 64):
        work_group = 256 if state_size % 4096 == 0 else 128 if state_size % 2048 == 0 else 64
        step = 16 * work_group
        rounds = (state_size // work_group) >> 4
        assert walk("tile", "fp6", "unknown", state_size) == (work_group, step, step // 64, rounds)


@pytest.mark.parametrize("name", KERNELS)
def test_which_kernel_a_class_runs(name: str) -> None:
    for device_class, kernel, size in zip(BOTH_CLASSES, KERNELS[name], (32, 16), strict=True):
        row = EXPANSIONS[expansion_index("tile", name, device_class)]
        assert row.name == f"qlinear_xpu_tile_dequantize_kernel_{kernel}"
        assert row.geometry(device_class).sub_group == size


@pytest.mark.parametrize("device_class", BOTH_CLASSES)
@pytest.mark.parametrize("name", KERNELS)
def test_row_lengths_that_are_refused(name: str, device_class: str) -> None:
    device = device_of(device_class)
    weight = torch.zeros(70 * FORMATS[name].bytes, dtype=torch.uint8, device=device)
    with pytest.raises(RuntimeError) as caught:
        expand_tile(name, weight, torch.empty(4097, device=device), 4097, 1, 1, 0)
    assert str(caught.value).split("\nException raised from")[0] == "%d must be a multiple of 644097"


def test_rows_that_the_weight_has_not() -> None:
    weight = torch.zeros(3 * 34, dtype=torch.uint8, device="xpu:7")
    for count, first in ((4, 0), (1, 3), (2, 2), (1, -1), (1, 2**63 - 1)):
        with pytest.raises(RuntimeError, match=f"expand_rows_of: {count} rows from row {first} on of a weight of 3"):
            expand_tile("q4_0", weight, torch.empty(64 * count, device="xpu:7"), 64, 3, count, first)
    with pytest.raises(RuntimeError, match="expand_rows_of: "):
        expand_tile("q4_0", weight, torch.empty(64, device="xpu:7"), 64, 4, 1, 0)


def test_the_first_tile_of_fp6_has_nothing_of_the_second() -> None:
    """The scales differ by row, so that a tile under the wrong ones is seen."""
    scales = split(FORMATS["fp6"], weight_of("fp6", 80))["d"].view(np.uint16).reshape(5, 16)
    assert len(np.unique(scales, axis=0)) == 5
