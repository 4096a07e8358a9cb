"""load_gguf: a GGUF file as a packed model of transformers."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest
import torch

import quillon
from quillon.nn import LowBitEmbedding, LowBitLinear

transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
pytest.importorskip("gguf", reason="the demo's packages are not installed: make demo")
pytest.importorskip("accelerate", reason="the demo's packages are not installed: make demo")

from small_gguf import write_llama  # noqa: E402

DEVICE = "xpu:7"
MIXED = {"attn_v": "Q6_K", "ffn_down": "Q5_K", "ffn_up": "Q8_0", "token_embd": "Q6_K", "output.": "Q6_K", "w": "Q4_K"}
SMALL = {"attn_q": "IQ2_XXS", "attn_k": "IQ1_S", "token_embd": "Q2_K", "output": "Q2_K", "w": "Q2_K"}


def dense_model(path: Path) -> Any:
    """The file as transformers decodes it."""
    model = transformers.AutoModelForCausalLM.from_pretrained(path.parent, gguf_file=path.name, dtype=torch.float32)
    return model.eval()


def logits(model: Any) -> torch.Tensor:
    tokens = torch.arange(3, 12)[None]
    with torch.inference_mode():
        return model(tokens.to(model.device)).logits.cpu()


@pytest.mark.parametrize("kinds", [MIXED, SMALL], ids=["mixed", "small"])
def test_layers_have_the_very_values_of_the_file(kinds: dict[str, str], tmp_path: Path) -> None:
    path = tmp_path / "model.gguf"
    write_llama(path, kinds)
    model, dense = quillon.load_gguf(path, device_map=DEVICE), dense_model(path)
    said = model.config.quantization_config
    requantized = [f"model.layers.{layer}.mlp.up_proj" for layer in (0, 1)] if kinds is MIXED else []
    embedding = [] if kinds is MIXED else ["model.embed_tokens"]
    layers = [name for name, module in dense.named_modules() if isinstance(module, torch.nn.Linear)]
    assert sorted(said.exact) == sorted(set(layers + embedding) - set(requantized))
    for name in said.exact:
        layer = model.get_submodule(name)
        assert isinstance(layer, LowBitEmbedding if name in embedding else LowBitLinear)
        assert torch.equal(layer.dequantize().cpu(), dense.get_submodule(name).weight), name
    for name in requantized:
        assert said.packed[name] == "q4_0"
        packed = quillon.quantize(dense.get_submodule(name).weight.detach(), "q4_0")
        assert torch.equal(model.get_submodule(name).packed.cpu(), packed)
    if kinds is MIXED:
        expected = logits(dense)
        assert (logits(model) - expected).norm() < 0.2 * expected.norm()
        assert said.packed["lm_head"] == "q6_k"
    model.save_pretrained(tmp_path / "packed")
    again = transformers.AutoModelForCausalLM.from_pretrained(tmp_path / "packed", device_map=DEVICE)
    assert torch.equal(logits(again), logits(model))


def test_a_tied_output_layer_has_the_values_of_the_embedding(tmp_path: Path) -> None:
    path = tmp_path / "model.gguf"
    write_llama(path, MIXED, tied=True)
    model, dense = quillon.load_gguf(path, device_map=DEVICE), dense_model(path)
    assert "lm_head" in model.config.quantization_config.exact
    assert torch.equal(model.lm_head.dequantize().cpu(), dense.lm_head.weight)
    assert torch.equal(model.get_input_embeddings().weight.cpu(), dense.lm_head.weight)


def test_formats_by_name(tmp_path: Path) -> None:
    path = tmp_path / "model.gguf"
    write_llama(path, MIXED)
    given = quillon.QuillonConfig("q5_k", output_format="q8_0", recipe={"*.0.mlp.down_proj": "q8_0"})
    said = quillon.load_gguf(path, given, keep=False, device_map=DEVICE).config.quantization_config
    assert said.exact == ["model.layers.1.mlp.down_proj"]
    assert said.packed["lm_head"] == "q8_0"
    assert said.packed["model.layers.0.mlp.down_proj"] == "q8_0"
    assert said.packed["model.layers.0.self_attn.v_proj"] == "q5_k"


def test_nothing_that_is_rearranged_is_decoded(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    path = tmp_path / "model.gguf"
    write_llama(path, {"token_embd": "F32", "output.": "Q6_K", "w": "Q4_K"})

    def refuse(*_: object, **__: object) -> None:
        raise AssertionError("quantized")

    monkeypatch.setattr("quillon.nn.quantize", refuse)
    model = quillon.load_gguf(path, device_map=DEVICE)
    assert len(model.config.quantization_config.exact) == 15


def test_errors(tmp_path: Path) -> None:
    (tmp_path / "other.gguf").write_bytes(b"PK")
    with pytest.raises(ValueError, match=r"other.gguf is no GGUF file"):
        quillon.load_gguf(tmp_path / "other.gguf")
    with pytest.raises(FileNotFoundError):
        quillon.load_gguf(tmp_path / "none.gguf")
