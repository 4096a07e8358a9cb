"""Packed models of random bytes, whose layers are in different formats, as folders that transformers loads."""

from __future__ import annotations

import functools
import json
from pathlib import Path
from typing import Any

import numpy as np
import torch
from formats.decoders import FORMATS, pack, split
from formats.samples import plain_scales
from torch import Tensor

from quillon import dequantize_reference
from quillon.formats import weight_bytes
from quillon.nn import LowBitEmbedding, LowBitExperts, LowBitLinear

MODEL_FORMATS = ("q4_0", "q5_1", "q8_0", "fp6", "fp6_k", "q5_k")
"""Regions and records, of 64 and 256; one for each layer."""

SIZES: dict[str, Any] = {
    "hidden_size": 256,
    "intermediate_size": 1024,
    "num_hidden_layers": len(MODEL_FORMATS),
    "vocab_size": 320,
    "num_attention_heads": 8,
    "num_key_value_heads": 4,
    "head_dim": 128,
    "max_position_embeddings": 128,
    "pad_token_id": 0,
    "bos_token_id": 1,
    "eos_token_id": None,
}


@functools.cache
def random_weight(name: str, rows: int, cols: int, seed: int) -> Tensor:
    """A packed weight of random codes, with values of the size that those of a trained model have."""
    entry = FORMATS[name]
    if name not in _SCALES:
        sample = torch.from_numpy(plain_scales(entry, 64, 1))
        spread = float(dequantize_reference(sample, name, 1, 64 * entry.elements).std())
        _SCALES[name] = 2.0 ** round(np.log2(0.05 / spread))
    fields = split(entry, plain_scales(entry, rows * cols // entry.elements, seed))
    for field in ("d", "m", "dmin"):
        if field in fields:
            fields[field] = (fields[field].astype(np.float32) * _SCALES[name]).astype(fields[field].dtype)
    packed = torch.from_numpy(pack(entry, fields))
    assert packed.numel() == weight_bytes(name, rows, cols)
    return packed


_SCALES: dict[str, float] = {}


def config_of(kind: str, **changes: Any) -> Any:
    import transformers

    sizes = SIZES | changes
    if kind == "llama":
        return transformers.LlamaConfig(**sizes, attention_bias=True)
    return transformers.MixtralConfig(**sizes, num_local_experts=4, num_experts_per_tok=2)


def format_of(name: str) -> str | None:
    """The format of a layer of these models: each decoder layer has its own."""
    if name == "lm_head":
        return "q8_0"
    if name == "model.embed_tokens":
        return "q4_k"
    if not name.endswith(("_proj", "experts")):
        return None
    return MODEL_FORMATS[int(name.split(".")[2])]


def write_folder(folder: Path, kind: str, **changes: Any) -> None:
    """Write a packed model."""
    from safetensors.torch import save_file
    from transformers import AutoModelForCausalLM

    from quillon.transformers import QuillonConfig, _empty_like, _put

    config = config_of(kind, **changes)
    with torch.device("meta"):
        model: Any = AutoModelForCausalLM.from_config(config, dtype=torch.float32)
    formats = {name: format_of(name) for name, _ in model.named_modules()}
    packed = {name: format for name, format in formats.items() if format is not None}
    for name, format in packed.items():
        _put(model, name, _empty_like(model.get_submodule(name), format))
    random = torch.Generator().manual_seed(5)
    state: dict[str, Tensor] = {}
    for name, module in model.named_modules():
        for leaf, tensor in [*module.named_parameters(recurse=False), *module.named_buffers(recurse=False)]:
            key = f"{name}.{leaf}"
            if leaf in module._non_persistent_buffers_set:
                continue
            if leaf.startswith("packed"):
                state[key] = _random_buffer(module, leaf, len(state))
            else:
                mean = 1.0 if "norm" in name else 0.0
                state[key] = torch.randn(tensor.shape, generator=random) * 0.05 + mean
    folder.mkdir(parents=True)
    save_file(state, folder / "model.safetensors", {"format": "pt"})
    written = config.to_dict() | {
        "architectures": [type(model).__name__],
        "quantization_config": QuillonConfig("q4_0", packed=packed).to_dict(),
        "dtype": "float32",
    }
    (folder / "config.json").write_text(json.dumps(written))


def _random_buffer(module: Any, leaf: str, seed: int) -> Tensor:
    name = module.format.name
    if isinstance(module, LowBitExperts):
        layout = module.layout
        rows, cols = (layout.up_rows, layout.columns) if leaf == "packed_up" else (layout.columns, layout.inner)
        return torch.stack([random_weight(name, rows, cols, seed * 100 + one) for one in range(layout.experts)])
    if isinstance(module, LowBitEmbedding):
        return random_weight(name, module.num_embeddings, module.embedding_dim, seed)
    assert isinstance(module, LowBitLinear)
    return random_weight(name, module.out_features, module.in_features, seed)
