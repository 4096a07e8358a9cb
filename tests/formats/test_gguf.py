"""Reading GGUF files: a small file of many kinds of tensors, and the model of the demo."""

from __future__ import annotations

import builtins
from pathlib import Path

import numpy as np
import pytest
import torch

from quillon.formats import WEIGHT_FORMATS, row_multiple, weight_bytes
from quillon.gguf_import import from_gguf
from quillon.quantizers import quantize

from . import weights

gguf = pytest.importorskip("gguf", reason="the gguf package is not installed: pip install 'quillon[gguf]'")


@pytest.fixture(scope="module")
def values() -> dict[str, np.ndarray]:
    random = np.random.default_rng(0)
    return {
        "wide.weight": random.standard_normal((6, 512), dtype=np.float32),
        "narrow.weight": random.standard_normal((10, 192), dtype=np.float32),
        "half.weight": random.standard_normal((4, 1024), dtype=np.float32).astype(np.float16),
        "norm.weight": random.standard_normal(512, dtype=np.float32),
        "experts.weight": random.standard_normal((2, 3, 64), dtype=np.float32),
        "quarter.weight": random.standard_normal((3, 256), dtype=np.float32),
        "odd.weight": random.standard_normal((5, 30), dtype=np.float32),
    }


@pytest.fixture(scope="module")
def path(values: dict[str, np.ndarray], tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("gguf") / "small.gguf"
    writer = gguf.GGUFWriter(path, "llama")
    for name, array in values.items():
        if name == "wide.weight":
            kind = gguf.GGMLQuantizationType.Q8_0
            packed = gguf.quants.quantize(array, kind)
            writer.add_tensor(name, packed, raw_dtype=kind)
            values[name] = gguf.quants.dequantize(packed, kind)
        else:
            writer.add_tensor(name, array)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return path


@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_matrices_are_packed_as_quantize_packs_them(name: str, path: Path, values: dict[str, np.ndarray]) -> None:
    read = from_gguf(path, name, tensors=["wide.*", "half.*"])
    assert list(read) == ["wide.weight", "half.weight"]
    for key, imported in read.items():
        original = torch.tensor(values[key]).float()
        assert imported.format == name
        assert imported.shape == original.shape
        assert imported.data.shape == (weight_bytes(name, *original.shape),)
        assert torch.equal(imported.data, quantize(original, name))
        assert float((imported.dense() - original).norm() / original.norm()) < 0.55


def test_what_is_no_matrix_stays_dense(path: Path, values: dict[str, np.ndarray]) -> None:
    read = from_gguf(path, "q4_0", tensors=("norm.*", "experts.*", "wide.*"), dense="wide.*")
    assert set(read) == {"norm.weight", "experts.weight", "wide.weight"}
    for key, imported in read.items():
        assert imported.format is None
        assert imported.data.dtype == torch.float32
        assert imported.shape == values[key].shape == imported.data.shape
        assert torch.equal(imported.data, torch.tensor(values[key]))
        assert imported.dense() is imported.data


def test_fallback_for_rows_that_do_not_fit(path: Path) -> None:
    read = from_gguf(path, "q4_k", dense="odd.*", fallback="q5_0")
    assert {name: imported.format for name, imported in read.items()} == {
        "wide.weight": "q4_k",
        "narrow.weight": "q5_0",
        "half.weight": "q4_k",
        "quarter.weight": "q5_0",
        "norm.weight": None,
        "experts.weight": None,
        "odd.weight": None,
    }


def test_errors(path: Path, tmp_path: Path) -> None:
    with pytest.raises(
        ValueError, match=r"narrow.weight has 192 columns, which is no multiple of the 256 that .* q5_k"
    ):
        from_gguf(path, "q5_k", tensors="narrow.*")
    with pytest.raises(ValueError, match=r"odd.weight has 30 columns, .* name a fallback format"):
        from_gguf(path, "q4_k", fallback="q4_0")
    with pytest.raises(ValueError, match=r"no tensor of .* matches 'blk\.\*'; it has wide.weight, "):
        from_gguf(path, "q4_0", tensors="blk.*")
    with pytest.raises(ValueError, match=r"no tensor of .* matches 'lm_head'"):
        from_gguf(path, "q4_0", dense=["odd.*", "lm_head"])
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        from_gguf(path, "q9")
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        from_gguf(path, "q4_0", fallback="q9")
    with pytest.raises(FileNotFoundError):
        from_gguf(tmp_path / "none.gguf", "q4_0")


@pytest.mark.parametrize("name", ["q4_k", "q6_k"])
def test_rows_that_a_kernel_would_cut_short(name: str, path: Path) -> None:
    """The storage holds 256 columns; the kernels sum whole rounds of 512, or 1024 on elm, alone."""
    with pytest.raises(
        ValueError, match=rf"quarter.weight has 256 .* the 512 that the kernel of {name} needs on .* oak"
    ):
        from_gguf(path, name, tensors="quarter.*")
    from_gguf(path, name, tensors="wide.*", device_class="legacy")
    with pytest.raises(ValueError, match=r"wide.weight has 512 columns, .* the 1024 that .* on device class elm"):
        from_gguf(path, name, tensors="wide.*", device_class="elm")
    assert from_gguf(path, name, tensors="wide.*", device_class="elm", fallback="q5_k")["wide.weight"].format == "q5_k"
    assert from_gguf(path, name, tensors="half.*", device_class="elm")["half.weight"].format == name


def test_device_class_at_hand(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    with torch.xpu.device(1), pytest.raises(ValueError, match=r"the 1024 that .* on device class elm"):
        from_gguf(path, "q4_k", tensors="wide.*")
    with pytest.raises(ValueError, match="unknown device class 'Elm'; allowed: oak, elm, ash, "):
        from_gguf(path, "q4_k", tensors="wide.*", device_class="Elm")
    # Nothing at hand: what is packed has to run anywhere.
    monkeypatch.setattr(torch.xpu, "is_available", lambda: False)
    with pytest.raises(ValueError, match="the 1024 that"):
        from_gguf(path, "q4_k", tensors="wide.*")


def test_files_that_are_cut_short(path: Path, tmp_path: Path) -> None:
    """Wherever the file ends, in the header or in the data, the message is about the file."""
    whole, short = path.read_bytes(), tmp_path / "short.gguf"
    end = len(whole) - 8  # the last tensor is padded to a multiple of 32 bytes
    for length in (*range(4, 400, 7), 500, 600, 700, end // 2, end - 100, end - 1):
        short.write_bytes(whole[:length])
        with pytest.raises(
            ValueError, match=r"^\S+short.gguf cannot be read as a GGUF file: it is cut short, damaged, or"
        ):
            from_gguf(short, "q4_0", tensors="wide.*")


@pytest.mark.parametrize("content", [b"", b"GG", b"PK\x03\x04 a zip file"])
def test_files_of_another_kind(content: bytes, tmp_path: Path) -> None:
    other = tmp_path / "other.gguf"
    other.write_bytes(content)
    with pytest.raises(ValueError, match=r"other.gguf is no GGUF file: it begins with b'"):
        from_gguf(other, "q4_0")
    with pytest.raises(IsADirectoryError):
        from_gguf(tmp_path, "q4_0")


def test_tensors_that_cannot_be_packed_are_named(tmp_path: Path) -> None:
    path = tmp_path / "infinite.gguf"
    writer = gguf.GGUFWriter(path, "llama")
    writer.add_tensor("blk.0.weight", np.full((2, 64), np.inf, dtype=np.float32))
    kind = gguf.GGMLQuantizationType.Q8_K
    writer.add_tensor("blk.1.weight", np.zeros((2, 292), dtype=np.uint8), raw_dtype=kind)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    with pytest.raises(ValueError, match=r"^blk.0.weight of .*infinite.gguf, type F32: weight must be finite"):
        from_gguf(path, "q4_0", tensors="blk.0.*")
    with pytest.raises(
        ValueError, match=r"^blk.1.weight of .*infinite.gguf, type Q8_K: Dequantization for Q8_K is not"
    ):
        from_gguf(path, "q4_0", tensors="blk.1.*")


def test_without_the_gguf_package(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    real = builtins.__import__

    def refuse(name: str, *arguments: object, **options: object) -> object:
        if name == "gguf":
            raise ImportError(name)
        return real(name, *arguments, **options)  # type: ignore[arg-type]

    monkeypatch.setattr(builtins, "__import__", refuse)
    with pytest.raises(ImportError, match=r"reading GGUF files needs the gguf package: pip install 'quillon\[gguf\]'"):
        from_gguf(path, "q4_0")


@pytest.mark.parametrize("name", ["q4_0", "q4_1", "q8_0", "nf4"])
def test_a_layer_of_the_real_model(name: str) -> None:
    read = from_gguf(weights.model_file(), name, tensors="blk.7.*")
    matrices = {key: imported for key, imported in read.items() if imported.format}
    assert len(read) == 9
    assert len(matrices) == 7
    # The file is a 4-bit one with smaller blocks; a second quantization costs about what one costs.
    bound = {"q4_0": 0.1, "q4_1": 0.075, "q8_0": 0.006, "nf4": 0.09}[name]
    for key, imported in matrices.items():
        original = weights.model_tensor(key)
        assert imported.shape[1] % row_multiple(name) == 0
        assert float((imported.dense() - original).norm() / original.norm()) < bound
