"""Parts of packed weights have the values of the part, and of a file no byte outside the part is read."""

from __future__ import annotations

import os
from pathlib import Path

import numpy as np
import pytest
import torch

from quillon import dequantize_reference, slicing
from quillon.formats import WEIGHT_FORMATS, get_format, weight_bytes

from .decoders import FORMATS
from .samples import plain_scales

ROWS, BLOCKS_OF_ROW = 6, 5


def weight(name: str) -> tuple[torch.Tensor, int]:
    """A packed weight of six rows of five blocks, and its row length."""
    cols = BLOCKS_OF_ROW * get_format(name).elements
    return torch.from_numpy(plain_scales(FORMATS[name], ROWS * BLOCKS_OF_ROW, 7)), cols


def assert_same(got: torch.Tensor, expected: torch.Tensor) -> None:
    torch.testing.assert_close(got, expected, rtol=0, atol=0, equal_nan=True)


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_rows(name: str) -> None:
    packed, cols = weight(name)
    dense = dequantize_reference(packed, name, ROWS, cols)
    for part in (range(0, 6), range(0, 1), range(2, 5), range(5, 6)):
        got = slicing.cut_rows(packed, name, ROWS, cols, part)
        assert_same(dequantize_reference(got, name, len(part), cols), dense[part.start : part.stop])


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_columns_and_their_way_back(name: str) -> None:
    packed, cols = weight(name)
    unit = get_format(name).elements
    dense = dequantize_reference(packed, name, ROWS, cols)
    again = torch.zeros_like(packed)
    for part in (range(0, 2 * unit), range(2 * unit, 3 * unit), range(3 * unit, 5 * unit)):
        got = slicing.cut_columns(packed, name, ROWS, cols, part)
        assert_same(dequantize_reference(got, name, ROWS, len(part)), dense[:, part.start : part.stop])
        slicing.paste(again, slicing.strips_of(name, ROWS, cols, [range(ROWS)], part), got)
    assert torch.equal(again, packed)


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_several_ranges_of_rows_in_some_columns(name: str) -> None:
    packed, cols = weight(name)
    unit = get_format(name).elements
    strips = slicing.strips_of(name, ROWS, cols, [range(4, 6), range(1, 2)], range(unit, 3 * unit))
    got = dequantize_reference(slicing.cut(packed, strips), name, 3, 2 * unit)
    dense = dequantize_reference(packed, name, ROWS, cols)
    assert_same(got, dense[[4, 5, 1], unit : 3 * unit])


def test_rows_are_one_range_for_each_region() -> None:
    for name in WEIGHT_FORMATS:
        entry = get_format(name)
        strips = slicing.strips_of(name, ROWS, 5 * entry.elements, [range(1, 3)], range(5 * entry.elements))
        assert len(strips) == (1 if entry.storage == "records" else len(entry.fields)), name
        assert all(strip.count == 1 for strip in strips), name
        assert sum(strip.bytes for strip in strips) == weight_bytes(name, 2, 5 * entry.elements), name


@pytest.mark.parametrize("name", ["q4_0", "q5_0", "q6_k", "q2_k"])
def test_a_file_is_read_at_the_part_alone(name: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    packed, cols = weight(name)
    unit = get_format(name).elements
    path = tmp_path / "weights"
    path.write_bytes(bytes(13) + packed.numpy().tobytes())
    read: list[int] = []
    stock = os.preadv

    def counted(file: int, buffers: list[memoryview], offset: int) -> int:
        # Three bytes at a time at first: a read may end early.
        count = stock(file, [buffers[0][: 3 if not read else None]], offset)
        read.extend(range(offset, offset + count))
        return count

    monkeypatch.setattr(os, "preadv", counted)
    for ranges, columns in (([range(1, 4)], range(cols)), ([range(ROWS)], range(unit, 3 * unit))):
        strips = slicing.strips_of(name, ROWS, cols, ranges, columns)
        read.clear()
        with path.open("rb") as file:
            got = slicing.read_strips(file.fileno(), 13, strips)
        assert torch.equal(got, slicing.cut(packed, strips))
        assert len(read) == len(set(read)) == got.numel()
        inside = np.zeros(13 + packed.numel(), bool)
        for strip in strips:
            for index in range(strip.count):
                inside[13 + strip.start + index * strip.step :][: strip.length] = True
        assert inside[read].all()


def test_a_file_that_ends_early(tmp_path: Path) -> None:
    packed, cols = weight("q4_0")
    path = tmp_path / "weights"
    path.write_bytes(packed.numpy().tobytes()[:-1])
    strips = slicing.strips_of("q4_0", ROWS, cols, [range(5, 6)], range(cols))
    with path.open("rb") as file, pytest.raises(EOFError, match="the file ends at byte"):
        slicing.read_strips(file.fileno(), 0, strips)


def test_refusals() -> None:
    packed, cols = weight("q4_0")
    with pytest.raises(ValueError, match="whole blocks of 64 for q4_0, got 32 to 96"):
        slicing.cut_columns(packed, "q4_0", ROWS, cols, range(32, 96))
    with pytest.raises(ValueError, match="rows of a part must be a range inside 0 to 6"):
        slicing.cut_rows(packed, "q4_0", ROWS, cols, range(5, 7))
    with pytest.raises(ValueError, match="rows of a part must be a range"):
        slicing.cut_rows(packed, "q4_0", ROWS, cols, range(3, 3))
    with pytest.raises(ValueError, match="packed must be uint8 of shape"):
        slicing.cut_rows(packed[:-1], "q4_0", ROWS, cols, range(0, 1))
