"""quillon.dequantize_reference against the decoders that check the C++ rules: three readings of one storage rule."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import quillon

from . import decoders

DTYPES = {
    "float32": torch.float32,
    "float64": torch.float64,
    "float16": torch.float16,
    "bfloat16": torch.bfloat16,
}
ROWS, COLUMNS = 3, 512


def raw(tensor: torch.Tensor) -> np.ndarray:
    """Values as the decoders give them: float arrays, and bit patterns of the 16-bit types."""
    flat = tensor.reshape(-1)
    return flat.view(torch.uint16).numpy() if flat.element_size() == 2 else flat.numpy()


def as_float(values: np.ndarray, dtype: str) -> np.ndarray:
    if dtype == "bfloat16":
        return (values.astype(np.uint32) << 16).view(np.float32)
    return values.view(np.float16).astype(np.float32) if dtype == "float16" else values


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", quillon.formats.WEIGHT_FORMATS)
def test_random_bytes_decode_alike(name: str, dtype: str) -> None:
    size = quillon.formats.weight_bytes(name, ROWS, COLUMNS)
    packed = np.random.default_rng(7).integers(0, 256, size, dtype=np.uint8)
    entry = decoders.FORMATS[name]
    with np.errstate(all="ignore"):
        expected = getattr(decoders, f"decode_{name}")(decoders.split(entry, packed), dtype).reshape(-1)
    actual = raw(quillon.dequantize_reference(torch.from_numpy(packed), name, ROWS, COLUMNS, dtype=DTYPES[dtype]))
    # Random scales are now and then NaN, whose payload is nobody's business; everything else is the same bits.
    nan = np.isnan(as_float(expected, dtype))
    assert np.array_equal(np.isnan(as_float(actual, dtype)), nan)
    assert np.array_equal(actual[~nan], expected[~nan])
    assert np.unique(actual[~nan]).size > 100


def test_fp8_as_the_matrix_engine_reads_it() -> None:
    packed = np.random.default_rng(7).integers(
        0, 256, quillon.formats.weight_bytes("fp8_e4m3", ROWS, COLUMNS), dtype=np.uint8
    )
    fields = decoders.split(decoders.FORMATS["fp8_e4m3"], packed)
    with np.errstate(all="ignore"):
        expected = decoders.product(decoders.values_fp8_e4m3_bare(fields["qs"]), fields["d"], "float64").reshape(-1)
        data = torch.from_numpy(packed)
        actual = quillon.dequantize_reference(data, "fp8_e4m3", ROWS, COLUMNS, torch.float64, midpoints=False)
    assert np.array_equal(actual.reshape(-1).numpy(), expected, equal_nan=True)


def test_a_swapped_nibble_is_seen() -> None:
    packed = np.random.default_rng(8).integers(0, 256, quillon.formats.weight_bytes("q4_0", 1, 64), dtype=np.uint8)
    swapped = packed.copy()
    swapped[0] = (packed[0] << 4) | (packed[0] >> 4)
    assert swapped[0] != packed[0]
    expected = decoders.decode_q4_0(decoders.split(decoders.FORMATS["q4_0"], packed), "float32").reshape(-1)
    actual = quillon.dequantize_reference(torch.from_numpy(swapped), "q4_0", 1, 64).reshape(-1).numpy()
    assert not np.array_equal(actual, expected)
