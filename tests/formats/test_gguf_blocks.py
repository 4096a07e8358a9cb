"""Block types of GGUF files that a format holds as they are, against the gguf package's own decoder."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
import torch

from quillon.formats import WEIGHT_FORMATS, weight_bytes
from quillon.gguf_blocks import EQUAL_FORMATS, rearrange
from quillon.gguf_import import from_gguf
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference

from .blocks import BYTES, random_blocks

gguf = pytest.importorskip("gguf", reason="the gguf package is not installed: pip install 'quillon[gguf]'")

each_type = pytest.mark.parametrize("kind", EQUAL_FORMATS)


@each_type
@pytest.mark.parametrize(("rows", "cols"), [(1, 256), (7, 512), (37, 1024), (4099, 256)])
def test_values_are_those_of_the_other_decoder(kind: str, rows: int, cols: int) -> None:
    blocks = random_blocks(kind, rows, cols, seed=rows)
    expected = gguf.quants.dequantize(blocks, gguf.GGMLQuantizationType[kind])
    format = EQUAL_FORMATS[kind]
    packed = rearrange(torch.tensor(blocks), format, rows, cols)
    assert packed.shape == (weight_bytes(format, rows, cols),)
    found = dequantize_reference(packed, format, rows, cols)
    assert np.array_equal(found.numpy().view(np.int32), expected.view(np.int32))


@each_type
def test_every_byte_goes_where_its_values_are(kind: str) -> None:
    """One bit of a block differs: the rearranged bytes do, and stand for what the other decoder makes of it."""
    block, format = random_blocks(kind, 1, 256, seed=5, scale=1.0), EQUAL_FORMATS[kind]
    before = rearrange(torch.tensor(block), format, 1, 256)
    for byte in range(BYTES[kind]):
        for bit in (0, 3, 7):
            changed = block.copy()
            changed[0, byte] ^= 1 << bit
            packed = rearrange(torch.tensor(changed), format, 1, 256)
            assert not torch.equal(packed, before)
            expected = gguf.quants.dequantize(changed, gguf_type(kind))
            found = dequantize_reference(packed, format, 1, 256).numpy()
            assert np.array_equal(found, expected, equal_nan=True), (byte, bit)


def gguf_type(kind: str) -> object:
    return gguf.GGMLQuantizationType[kind]


def test_other_sizes_and_formats_are_refused() -> None:
    blocks = torch.zeros(2 * 144, dtype=torch.uint8)
    with pytest.raises(
        ValueError, match=r"blocks must be 432 bytes of uint8 for 3 by 256 in q4_k, got 288 of torch.uint8"
    ):
        rearrange(blocks, "q4_k", 3, 256)
    with pytest.raises(ValueError, match=r"got 288 of torch.int8"):
        rearrange(blocks.view(torch.int8), "q4_k", 2, 256)
    with pytest.raises(ValueError, match="no block type of GGUF files holds the values of q4_0; allowed: q2_k, "):
        rearrange(blocks, "q4_0", 2, 256)


@pytest.fixture(scope="module")
def path(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A file with a matrix of each block type, one of 32-element blocks, and one whose rows kernels do not cover."""
    path = tmp_path_factory.mktemp("gguf") / "types.gguf"
    writer = gguf.GGUFWriter(path, "llama")
    for kind in EQUAL_FORMATS:
        writer.add_tensor(f"{kind}.weight", random_blocks(kind, 6, 1024), raw_dtype=gguf_type(kind))
    writer.add_tensor("short.weight", random_blocks("Q4_K", 6, 256), raw_dtype=gguf_type("Q4_K"))
    small = gguf.quants.quantize(
        np.random.default_rng(1).standard_normal((6, 512)).astype(np.float32), gguf_type("Q8_0")
    )
    writer.add_tensor("small.weight", small, raw_dtype=gguf_type("Q8_0"))
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return path


@pytest.mark.parametrize("format", WEIGHT_FORMATS)
def test_from_gguf_rearranges_the_type_of_the_format(format: str, path: Path) -> None:
    read = from_gguf(path, format, tensors="*Q*")
    for name, tensor in read.items():
        kind = name.removesuffix(".weight")
        assert tensor.format == format
        assert tensor.exact == (EQUAL_FORMATS[kind] == format)
        values = torch.tensor(gguf.quants.dequantize(random_blocks(kind, 6, 1024), gguf_type(kind)))
        if tensor.exact:
            assert torch.equal(tensor.dense(), values)
        else:
            assert torch.equal(tensor.data, quantize(values, format))


def test_keep_uses_the_formats_of_the_file(path: Path) -> None:
    read = from_gguf(path, "q4_0", keep=True)
    found = {name: (tensor.format, tensor.exact) for name, tensor in read.items()}
    assert found == {
        **{f"{kind}.weight": (format, True) for kind, format in EQUAL_FORMATS.items()},
        "short.weight": ("q4_0", False),  # its format's kernels sum rounds of 512
        "small.weight": ("q4_0", False),
    }


def test_rearranging_computes_nothing(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def refuse(*_: object, **__: object) -> None:
        raise AssertionError("computed")

    monkeypatch.setattr("quillon.gguf_import.quantize", refuse)
    monkeypatch.setattr(gguf.quants, "dequantize", refuse)
    assert all(tensor.exact for tensor in from_gguf(path, "q4_0", keep=True, tensors="*Q*").values())
