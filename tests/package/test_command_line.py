"""python -m quillon."""

from __future__ import annotations

import os
import re
import shlex
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
import torch

import quillon
import vesper_linear
from quillon import __main__ as command_line
from quillon._device_table import DEVICE_CLASSES
from quillon._kernels import ALL_KERNELS, ENGINE_KERNELS, EXPANSIONS, RWKV_KERNELS
from quillon.commands import selftest


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
    assert command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "8", str(target)]) == 0
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
        assert (
            command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "q4_0", str(target)]) == 2
        )
        captured = capsys.readouterr()
        assert text in captured.err
        assert captured.err.startswith("python -m quillon quantize: ")
        assert captured.err.count("\n") == 1
    monkeypatch.setattr(os, "access", lambda path, mode: Path(path) != tmp_path / "guarded.pt")
    (tmp_path / "guarded.pt").write_text("kept")
    assert (
        command_line.main(
            ["quantize", "--tensors", "--fallback", "dense", str(source), "q4_0", str(tmp_path / "guarded.pt")]
        )
        == 2
    )
    assert "Permission denied" in capsys.readouterr().err


def test_a_failure_leaves_the_target_as_it_was(
    source: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    old = tmp_path / "old.pt"
    old.write_text("old")
    whole = source.read_bytes()
    source.write_bytes(whole[:-40])
    for target in (old, tmp_path / "new.pt"):
        assert (
            command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "q4_0", str(target)]) == 2
        )
        assert "in.gguf cannot be read as a GGUF file: it is cut short" in capsys.readouterr().err
    source.write_bytes(whole)
    assert command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "q4_k", str(old)]) == 2
    assert "blk.weight has 64 columns" in capsys.readouterr().err

    def full_disk(*_: object) -> None:
        raise RuntimeError("PytorchStreamWriter failed writing file data/0: file write failed")

    monkeypatch.setattr(torch, "save", full_disk)
    assert command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "q4_0", str(old)]) == 2
    assert f"writing {old} failed: PytorchStreamWriter" in capsys.readouterr().err
    assert old.read_text() == "old"
    assert sorted(path.name for path in tmp_path.iterdir()) == ["in.gguf", "old.pt"]


def test_a_target_that_is_no_file(source: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert command_line.main(["quantize", "--tensors", "--fallback", "dense", str(source), "q4_0", os.devnull]) == 0
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


# ---- models ----------------------------------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def dense(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with a model and its tokenizer."""
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model, save_tokenizer

    folder = tmp_path_factory.mktemp("dense")
    random_model("llama").save_pretrained(folder)
    save_tokenizer(folder)
    return folder


def test_quantize_a_folder(dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    target = tmp_path / "packed"
    rules = ["--rule", "*.down_proj=q8_0", "--rule", "*.0.mlp.up_proj=dense"]
    assert command_line.main(["quantize", str(dense), "nf4", str(target), *rules, "--shard-size", "100kB"]) == 0
    assert "14 layers packed, 1 dense, 0." in capsys.readouterr().out
    assert [path.name for path in tmp_path.iterdir()] == ["packed"]
    names = {path.name for path in target.iterdir()}
    assert {"config.json", "tokenizer.json", "model.safetensors.index.json"} <= names
    from transformers import AutoModelForCausalLM

    model = AutoModelForCausalLM.from_pretrained(target, device_map="xpu:7")
    assert model.model.layers[1].mlp.down_proj.format.name == "q8_0"
    assert model.model.layers[1].mlp.up_proj.format.name == "nf4"
    assert type(model.model.layers[0].mlp.up_proj) is torch.nn.Linear
    assert command_line.main(["quantize", str(dense), "nf4", str(target)]) == 2
    assert f"{target} exists already; remove it or name another folder" in capsys.readouterr().err


@pytest.mark.parametrize("kind", ["llama", "mixtral"])
def test_an_interrupted_quantize_goes_on(
    kind: str, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model

    source = tmp_path / "source"
    random_model(kind).save_pretrained(source)
    whole = tmp_path / "whole"
    command = ["quantize", str(source), "q4_0"]
    assert command_line.main([*command, str(whole)]) == 0
    capsys.readouterr()
    layers = {"llama": 15, "mixtral": 11}[kind]

    packed: list[torch.Tensor] = []
    real = quillon.quantize

    def stop_after_some(weight: torch.Tensor, *args: object, **options: object) -> torch.Tensor:
        if len(packed) >= 12:  # of two threads
            raise KeyboardInterrupt
        packed.append(weight)
        return real(weight, *args, **options)  # type: ignore[arg-type]

    target = tmp_path / "target"
    monkeypatch.setattr("quillon.nn.quantize", stop_after_some)
    with pytest.raises(SystemExit) as stopped:
        command_line.main([*command, str(target)])
    assert "interrupted: what is packed so far is kept in" in str(stopped.value)
    assert not target.exists()
    assert not list((tmp_path / "target.part").rglob("*.part"))
    before = len(list((tmp_path / "target.part" / "layers").glob("*.safetensors")))
    assert 0 < before < layers

    monkeypatch.setattr("quillon.nn.quantize", real)
    assert command_line.main([*command, str(target)]) == 0
    assert f"{layers} layers packed, {before} of them before" in capsys.readouterr().out
    for file in whole.glob("*.safetensors"):
        assert (target / file.name).read_bytes() == file.read_bytes()
    assert sorted(path.name for path in tmp_path.iterdir()) == ["source", "target", "whole"]


def test_another_job_does_not_take_up_what_is_left(
    dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    def full(*_: object, **__: object) -> None:
        raise OSError(28, "No space left on device")

    target = tmp_path / "target"
    with monkeypatch.context() as patched:
        patched.setattr("transformers.PreTrainedModel.save_pretrained", full)
        assert command_line.main(["quantize", str(dense), "q4_0", str(target)]) == 2
    message = capsys.readouterr().err
    assert "No space left on device; what is packed so far is kept in" in message
    assert message.count("\n") == 1
    assert not target.exists()
    assert command_line.main(["quantize", str(dense), "q4_1", str(target)]) == 0
    assert "15 layers packed, 0 dense" in capsys.readouterr().out


def test_a_disk_that_is_full_for_real(dense: Path, tmp_path: Path) -> None:
    """No file may grow beyond some bytes, as no file can on a full disk."""
    program = (
        "import resource, signal, sys; signal.signal(signal.SIGXFSZ, signal.SIG_IGN);"
        "resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000));"
        "from quillon.__main__ import main; sys.exit(main(sys.argv[1:]))"
    )
    target = tmp_path / "target"
    command = [sys.executable, "-c", program, "quantize", str(dense), "q8_0", str(target)]
    run = subprocess.run(command, capture_output=True, text=True, check=False)
    assert run.returncode == 2, run.stderr
    assert "File too large" in run.stderr
    assert "the same command goes on from there" in run.stderr
    assert "Traceback" not in run.stderr
    assert not target.exists()


def test_targets_and_sources_are_checked_first(dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    (tmp_path / "empty").mkdir()
    for source, target, text in (
        (tmp_path / "none", tmp_path / "out", "does not exist; give a GGUF file or a folder with a model"),
        (tmp_path / "empty", tmp_path / "out", "has no config.json; give a folder that save_pretrained wrote"),
        (dense, tmp_path / "no" / "out", "no does not exist; make it first"),
        (dense, dense, "exists already; remove it or name another folder"),
    ):
        assert command_line.main(["quantize", str(source), "q4_0", str(target)]) == 2
        assert text in capsys.readouterr().err
    for option, text in (
        (["--rule", "x"], "--rule must be PATTERN=FORMAT or PATTERN=dense, got 'x'"),
        (["--rule", "nothing=q8_0"], "no layer matches 'nothing'; the model has model.layers.0.self_attn.q_proj, "),
        (["--output-format", "q9"], "unknown format 'q9'"),
    ):
        assert command_line.main(["quantize", str(dense), "q4_0", str(tmp_path / "out"), *option]) == 2
        assert text in capsys.readouterr().err


def greedy(model: Any, tokens: torch.Tensor, count: int) -> torch.Tensor:
    return model.generate(tokens, max_new_tokens=count, do_sample=False, pad_token_id=0)[0, tokens.shape[1] :]


def test_generate_and_chat(
    dense: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    from transformers import AutoModelForCausalLM, AutoTokenizer

    packed = tmp_path / "packed"
    assert command_line.main(["quantize", str(dense), "q4_0", str(packed)]) == 0
    capsys.readouterr()
    options = ["--device", "xpu:7", "--new-tokens", "5"]
    model = AutoModelForCausalLM.from_pretrained(packed, device_map="xpu:7")
    tokenizer = AutoTokenizer.from_pretrained(packed)

    def answer(text: str) -> str:
        tokens = tokenizer(text, return_tensors="pt").input_ids.to("xpu:7")
        return str(tokenizer.decode(greedy(model, tokens, 5), skip_special_tokens=True))

    for source in (packed, dense):  # packed already, and packed on the way
        assert command_line.main(["generate", str(source), "a harbour", *options]) == 0
        printed = capsys.readouterr()
        assert printed.out.rstrip("\n") == answer("a harbour").rstrip("\n")
        assert re.search(r"\[\d tokens in [\d.]+ s\]", printed.err)

    lines = iter(["hello", "", "and then?", "/exit", "never"])
    monkeypatch.setattr("builtins.input", lambda _: next(lines))
    assert command_line.main(["chat", str(packed), *options, "--system", "be brief"]) == 0
    first = answer("system: be brief\nuser: hello\nassistant: ")
    second = answer(f"system: be brief\nuser: hello\nassistant: {first}\nuser: and then?\nassistant: ")
    assert capsys.readouterr().out == f"{first}\n{second}\n"
    assert next(lines) == "never"

    assert command_line.main(["generate", str(packed), "", *options]) == 2
    assert "the text is empty" in capsys.readouterr().err
    assert command_line.main(["generate", str(tmp_path / "none"), "a", *options]) == 2
    assert "none does not exist; give a GGUF file or a folder with a model" in capsys.readouterr().err
    (packed / "chat_template.jinja").unlink()
    assert command_line.main(["chat", str(packed), *options]) == 2
    assert "has no chat template, it is no model for conversations; use generate" in capsys.readouterr().err


def test_from_a_gguf_file(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_gguf import write_llama

    write_llama(tmp_path / "model.gguf", {"token_embd": "F32", "ffn_up": "Q8_0", "w": "Q4_K"})
    assert command_line.main(["quantize", str(tmp_path / "model.gguf"), "q4_0", str(tmp_path / "packed")]) == 0
    assert (
        "15 layers packed, 13 with the very values of the file and 2 quantized again, 0 dense"
        in capsys.readouterr().out
    )
    texts = []
    for source in ("model.gguf", "packed"):
        options = ["--device", "xpu:7", "--new-tokens", "4"]
        assert command_line.main(["generate", str(tmp_path / source), "ab", *options]) == 0
        texts.append(capsys.readouterr().out)
    assert texts[0] == texts[1]


# ---- kernels ---------------------------------------------------------------------------------------------------------


def test_bench_has_a_line_for_each_format(capsys: pytest.CaptureFixture[str]) -> None:
    arguments = ["--shape", "64x1024", "--seconds", "0.01", "--formats", "q4_0,21", "--device", "xpu:7"]
    assert command_line.main(["bench", *arguments]) == 0
    first, heading, *lines = capsys.readouterr().out.splitlines()
    assert first == "64 by 1024, float32, xpu:7, class unknown"
    assert heading.split()[0] == "format"
    assert [line.split()[0] for line in lines] == ["dense", "q4_0", "iq2_xxs"]
    assert all(float(line.split()[1]) > 0 for line in lines)
    assert command_line.main(["bench", "--shape", "64"]) == 2
    assert "--shape must be ROWSxCOLUMNS, 4096x4096 for example, got '64'" in capsys.readouterr().err


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("subject", selftest.SUBJECTS)
def test_selftest_runs_every_kernel(subject: str, capsys: pytest.CaptureFixture[str]) -> None:
    with quillon.record_launches() as launches:
        assert command_line.main(["selftest", "--device", "xpu:7", "--formats", subject]) == 0
    launched = {launch.kernel.partition("<")[0] for launch in launches}
    kernels = {
        kernel.name
        for kernel in (*ALL_KERNELS, *EXPANSIONS, *RWKV_KERNELS)
        if getattr(kernel, "format", selftest.RWKV) == subject and kernel.runs_on("unknown")
    }
    assert kernels
    assert launched >= kernels
    *table, last = capsys.readouterr().out.splitlines()
    assert re.fullmatch(r"(\d+) of \1 calls give what they should", last)
    assert {line.split()[0] for line in table[1:]} == {subject}


@pytest.mark.parametrize("index", [0, 1])
def test_selftest_of_a_matrix_engine(index: int, capsys: pytest.CaptureFixture[str]) -> None:
    """Which does not read every format as the other kernels do."""
    with quillon.record_launches() as launches:
        assert command_line.main(["selftest", "--device", f"xpu:{index}", "--formats", "fp8_e4m3"]) == 0
    assert any(launch.kernel.startswith(ENGINE_KERNELS[0].name) for launch in launches)
    assert capsys.readouterr().out.splitlines()[-1] == "14 of 14 calls give what they should"


def test_selftest_sees_a_wrong_kernel(capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch) -> None:
    command = ["selftest", "--device", "xpu:7"]
    real = vesper_linear.forward_new

    def one_code_off(x: torch.Tensor, packed: torch.Tensor, code: int, columns: int) -> torch.Tensor:
        changed = packed.clone()
        changed[77] ^= 1
        return real(x, changed, code, columns)

    monkeypatch.setattr(vesper_linear, "forward_new", one_code_off)
    assert command_line.main([*command, "--formats", "q4_0"]) == 1
    printed = capsys.readouterr().out
    (off,) = re.findall(r"product, 1 of q4_0 in float32: off by (\S+), 2.0e-07 allowed", printed)
    assert 1e-5 < float(off) < 1e-2

    def fails(*_: object) -> torch.Tensor:
        raise RuntimeError("out of resources\nmore")

    monkeypatch.setattr(vesper_linear, "forward_new", fails)
    assert command_line.main([*command, "--formats", "q4_0"]) == 1
    assert "product, 1 of q4_0 in bfloat16: out of resources\n" in capsys.readouterr().out


@pytest.mark.parametrize("name", ["rwkv_attention_v4", "rwkv_attention_v5", "rwkv_time_shift"])
def test_selftest_sees_a_wrong_rwkv_kernel(
    name: str, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    real = getattr(quillon.nn, name)

    def of_another_decay(first: torch.Tensor, *others: torch.Tensor) -> torch.Tensor:
        return real(first * 1.01, *others)

    monkeypatch.setattr(quillon.nn, name, of_another_decay)
    assert command_line.main(["selftest", "--device", "xpu:7", "--formats", "rwkv"]) == 1
    operation = name.removeprefix("rwkv_").replace("_", " ")
    assert f"{operation} of rwkv in float32: off by " in capsys.readouterr().out


@pytest.mark.parametrize(
    "command", ["info", "formats", "quantize", "generate", "chat", "bench", "selftest", "transformers"]
)
def test_help_has_an_example_that_parses(command: str, capsys: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(SystemExit) as left:
        command_line.main([command, "--help"])
    assert left.value.code == 0
    (example,) = re.findall(r"example: python -m quillon (.*)\Z", capsys.readouterr().out.replace("\n", " ").rstrip())
    assert command_line._parser().parse_args(shlex.split(example)).command == command
