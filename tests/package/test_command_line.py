"""python -m quillon."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest
import torch

import quillon
from quillon import __main__ as command_line
from quillon._device_table import DEVICE_CLASSES


def test_info_names_versions_layer_and_every_device(capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["info"]) == 0
    output = capsys.readouterr().out
    assert torch.__version__ in output
    assert "kernel cache" in output
    for index, name in enumerate(DEVICE_CLASSES):
        assert f"xpu:{index}" in output
        assert f"class {name}" in output
    assert "0x30f000700" in output


def test_formats_by_name_and_code(capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["formats"]) == 0
    lines = capsys.readouterr().out.splitlines()
    assert [line.split()[0] for line in lines] == list(quillon.formats.WEIGHT_FORMATS)
    assert command_line.main(["formats", "34", "Q4_K"]) == 0
    lines = capsys.readouterr().out.splitlines()
    assert lines[0].startswith("q4_0_woq")
    assert lines[1].split()[0] == "q4_k"
    assert lines[1].endswith("multiple of 512")


def test_formats_by_device_class(capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["formats", "q4_k", "q4_0", "--device-class", "elm"]) == 0
    lines = capsys.readouterr().out.splitlines()
    assert lines[0].endswith("multiple of 1024")
    assert lines[1].endswith("multiple of 64")


def test_errors_go_to_stderr_with_exit_code_2(capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["formats", "nope"]) == 2
    assert "unknown format 'nope'" in capsys.readouterr().err
    assert command_line.main(["quantize", "does-not-exist.gguf", "q4_0", "out"]) == 2
    assert "does-not-exist.gguf" in capsys.readouterr().err


@pytest.fixture
def source(tmp_path: Path) -> Path:
    """A file of one matrix and one vector."""
    gguf = pytest.importorskip("gguf", reason="the gguf package is not installed")
    path = tmp_path / "in.gguf"
    writer = gguf.GGUFWriter(str(path), "test")
    writer.add_tensor("blk.weight", MATRIX.numpy())
    writer.add_tensor("norm.weight", VECTOR.numpy())
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return path


MATRIX, VECTOR = torch.randn(6, 64), torch.randn(64)


def test_quantize_a_file(source: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    target = tmp_path / "out.pt"
    target.write_text("an older file, which is replaced")
    assert command_line.main(["quantize", str(source), "8", str(target)]) == 0
    assert "1 matrices packed, 1 tensors dense" in capsys.readouterr().out
    saved = torch.load(target)
    assert saved["blk.weight"]["format"] == "q8_0"
    assert torch.equal(saved["blk.weight"]["data"], quillon.quantize(MATRIX, "q8_0"))
    assert torch.equal(saved["norm.weight"]["data"], VECTOR)
    assert sorted(path.name for path in tmp_path.iterdir()) == ["in.gguf", "out.pt"]


def test_the_target_is_checked_before_the_work(
    source: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    def work(*_: object, **__: object) -> None:
        raise AssertionError("packed before the target was checked")

    monkeypatch.setattr(quillon, "from_gguf", work)
    (tmp_path / "folder").mkdir()
    for target, text in (
        (tmp_path / "no" / "such" / "folder" / "out.pt", "No such file or directory"),
        (tmp_path / "folder", "Is a directory"),
        (source / "out.pt", "Not a directory"),
        (source, f"the target is the source: {source}"),
    ):
        assert command_line.main(["quantize", str(source), "q4_0", str(target)]) == 2
        captured = capsys.readouterr()
        assert text in captured.err
        assert captured.err.startswith("python -m quillon quantize: ")
        assert captured.err.count("\n") == 1
    monkeypatch.setattr(os, "access", lambda path, mode: Path(path) != tmp_path / "guarded.pt")
    (tmp_path / "guarded.pt").write_text("kept")
    assert command_line.main(["quantize", str(source), "q4_0", str(tmp_path / "guarded.pt")]) == 2
    assert "Permission denied" in capsys.readouterr().err


def test_a_failure_leaves_the_target_as_it_was(
    source: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    old = tmp_path / "old.pt"
    old.write_text("old")
    whole = source.read_bytes()
    source.write_bytes(whole[:-40])
    for target in (old, tmp_path / "new.pt"):
        assert command_line.main(["quantize", str(source), "q4_0", str(target)]) == 2
        assert "in.gguf cannot be read as a GGUF file: it is cut short" in capsys.readouterr().err
    source.write_bytes(whole)
    assert command_line.main(["quantize", str(source), "q4_k", str(old)]) == 2
    assert "blk.weight has 64 columns" in capsys.readouterr().err

    def full_disk(*_: object) -> None:
        raise RuntimeError("PytorchStreamWriter failed writing file data/0: file write failed")

    monkeypatch.setattr(torch, "save", full_disk)
    assert command_line.main(["quantize", str(source), "q4_0", str(old)]) == 2
    assert f"writing {old} failed: PytorchStreamWriter" in capsys.readouterr().err
    assert old.read_text() == "old"
    assert sorted(path.name for path in tmp_path.iterdir()) == ["in.gguf", "old.pt"]


def test_a_target_that_is_no_file(source: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["quantize", str(source), "q4_0", os.devnull]) == 0
    assert not Path(os.devnull).is_file()


@pytest.mark.parametrize("name", ["²", "٢", "9" * 5000, "-2", "2.0", ""])
def test_names_that_are_no_format(name: str, capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["formats", "--", name]) == 2
    assert f"unknown format {name!r}; allowed: q4_0 (2), " in capsys.readouterr().err


def test_activations_are_no_weight_format(capsys: pytest.CaptureFixture[str]) -> None:
    for name in ("9", "q8_1"):
        assert command_line.main(["formats", name]) == 2
        assert "q8_1 (9) holds activations, not weights" in capsys.readouterr().err


def test_info_without_a_driver() -> None:
    command = [sys.executable, "-m", "quillon", "info"]
    environment = os.environ | {"OCL_ICD_FILENAMES": "/no/driver.so", "QUILLON_HOST_DEVICES": "0"}
    run = subprocess.run(command, capture_output=True, text=True, check=True, env=environment)
    assert "xpu:0         not usable: quillon's host device needs the SYCL runtime's CPU device" in run.stdout


def test_runs_as_a_module() -> None:
    command = [sys.executable, "-m", "quillon", "formats", "q4_0"]
    run = subprocess.run(command, capture_output=True, text=True, check=True)
    assert run.stdout.startswith("q4_0 ")
    assert run.stderr == ""
