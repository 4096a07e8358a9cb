"""python -m quillon."""

from __future__ import annotations

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


def test_quantize_a_file(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    gguf = pytest.importorskip("gguf", reason="the gguf package is not installed")
    source, target = tmp_path / "in.gguf", tmp_path / "out.pt"
    matrix, vector = torch.randn(6, 64), torch.randn(64)
    writer = gguf.GGUFWriter(str(source), "test")
    writer.add_tensor("blk.weight", matrix.numpy())
    writer.add_tensor("norm.weight", vector.numpy())
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    assert command_line.main(["quantize", str(source), "8", str(target)]) == 0
    assert "1 matrices packed, 1 tensors dense" in capsys.readouterr().out
    saved = torch.load(target)
    assert saved["blk.weight"]["format"] == "q8_0"
    assert torch.equal(saved["blk.weight"]["data"], quillon.quantize(matrix, "q8_0"))
    assert torch.equal(saved["norm.weight"]["data"], vector)


def test_runs_as_a_module() -> None:
    command = [sys.executable, "-m", "quillon", "formats", "q4_0"]
    run = subprocess.run(command, capture_output=True, text=True, check=True)
    assert run.stdout.startswith("q4_0 ")
    assert run.stderr == ""
