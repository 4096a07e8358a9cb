"""Tokens per second of a Llama of 1.1 billion parameters: dense float32, dense bfloat16 and packed, in one run.

    python examples/decode_speed.py
    python examples/decode_speed.py --format q5_1 --output-format q6_k --new-tokens 32

The weights are random and the text means nothing: it is the time that counts. All three models have the same weights,
made one after another, so that no more than one of them is in memory (5 GB). A weight is 64 random rows, repeated, so
that packing it takes no longer than packing those. What packing changes is told as the difference of the last logits.
The times are those of the best of three runs.
"""

from __future__ import annotations

import argparse
import gc
from dataclasses import dataclass

import torch
from generate import best_speed
from torch import Tensor, nn

import quillon
from quillon.joined import join_packed

ROWS = 64
"""Different rows of each weight."""


@dataclass(frozen=True)
class Measured:
    """What one model takes."""

    tokens_per_second: float
    weight_bytes: int
    logits: Tensor


def random_rows(name: str, columns: int) -> Tensor:
    """The different rows of the weight called ``name``."""
    generator = torch.Generator().manual_seed(sum(name.encode()))
    return torch.randn(ROWS, columns, generator=generator) * columns**-0.5


def dense_linear(name: str, rows: int, columns: int, dtype: torch.dtype) -> nn.Linear:
    """A dense layer."""
    layer = nn.Linear(columns, rows, bias=False, device="meta")
    weight = random_rows(name, columns).to(dtype).repeat(rows // ROWS, 1)
    layer.weight = nn.Parameter(weight, requires_grad=False)
    return layer


def packed_linear(name: str, rows: int, columns: int, format: str) -> quillon.nn.LowBitLinear:
    """The same layer, packed."""
    layer = quillon.nn.LowBitLinear(columns, rows, format, bias=False)
    piece = quillon.quantize(random_rows(name, columns), format)
    layer.packed = join_packed(layer.format, [piece] * (rows // ROWS))
    return layer


def make_model(
    options: argparse.Namespace, dtype: torch.dtype, format: str | None = None, output_format: str = ""
) -> nn.Module:
    """The model with dense layers of ``dtype``, or with packed ones and ``dtype`` for all else."""
    from transformers import LlamaConfig, LlamaForCausalLM

    config = LlamaConfig(
        vocab_size=options.vocabulary,
        hidden_size=options.hidden,
        intermediate_size=options.inner,
        num_hidden_layers=options.layers,
        num_attention_heads=options.heads,
        num_key_value_heads=options.key_value_heads,
        tie_word_embeddings=False,
    )
    with torch.device("meta"):
        model = LlamaForCausalLM(config).to(dtype).eval()
    model.model.rotary_emb = type(model.model.rotary_emb)(config)
    for name, module in list(model.named_modules()):
        if isinstance(module, nn.Linear):
            rows, columns = module.weight.shape
            if format is None:
                layer = dense_linear(name, rows, columns, dtype)
            else:
                layer = packed_linear(name, rows, columns, output_format if name == "lm_head" else format)
            model.set_submodule(name, layer)
        elif isinstance(module, nn.Embedding):
            weight = random_rows(name, options.hidden).repeat(options.vocabulary // ROWS, 1)
            module.weight = nn.Parameter(weight.to(dtype), requires_grad=False)
        elif isinstance(getattr(module, "weight", None), nn.Parameter):
            module.weight = nn.Parameter(torch.ones(module.weight.shape, dtype=dtype), requires_grad=False)
    if format is not None:
        quillon.join_projections(model)
    return model


def measure(model: nn.Module, device: str, new_tokens: int) -> Measured:
    """Decode with ``model``, which nobody else holds."""
    size = sum(tensor.nbytes for tensor in (*model.parameters(), *model.buffers()))
    model = model.to(device)
    prompt = torch.arange(1, 5, device=device)[None]
    best_speed(model, prompt, 3, runs=1)  # the first pass of a model is slower, and compiles the kernels
    speed = best_speed(model, prompt, new_tokens)
    with torch.inference_mode():
        logits = model(prompt, logits_to_keep=1).logits.float().cpu()
    return Measured(speed, size, logits)


def difference(one: Tensor, other: Tensor) -> float:
    """Root mean square of the difference over that of ``other``."""
    return float((one - other).norm() / other.norm())


def main() -> None:
    """Measure the three models and print a line for each."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--format", default="q4_0", help="a weight format (default: %(default)s)")
    parser.add_argument("--output-format", default="q8_0", help="of the output layer (default: %(default)s)")
    parser.add_argument("--device", default="xpu", help="of the packed model (default: %(default)s)")
    parser.add_argument("--new-tokens", type=int, default=12)
    for name, default in {
        "layers": 22,
        "hidden": 2048,
        "inner": 5632,
        "heads": 32,
        "key-value-heads": 4,
        "vocabulary": 32000,
    }.items():
        parser.add_argument(f"--{name}", type=int, default=default, help="default: %(default)s")
    options = parser.parse_args()
    for name in ("hidden", "inner", "vocabulary"):
        if getattr(options, name) % ROWS:
            parser.error(f"--{name} must be a multiple of {ROWS}, got {getattr(options, name)}")

    packed = f"packed {options.format}"
    kinds = {
        "dense float32": (torch.float32, None, "cpu"),
        "dense bfloat16": (torch.bfloat16, None, "cpu"),
        packed: (torch.float32, options.format, options.device),
    }
    results: dict[str, Measured] = {}
    for kind, (dtype, format, device) in kinds.items():
        model = make_model(options, dtype, format, options.output_format)
        if not results:
            print(f"model           {sum(p.numel() for p in model.parameters()) / 1e6:.1f} million parameters")
        result = results[kind] = measure(model, device, options.new_tokens)
        del model
        gc.collect()
        print(f"{kind:15} {result.tokens_per_second:.2f} tokens/s, {result.weight_bytes / 1e6:.1f} MB", flush=True)
    last = results.pop(packed)
    times = [f"{last.tokens_per_second / one.tokens_per_second:.1f} times {kind}" for kind, one in results.items()]
    off = difference(last.logits, results["dense float32"].logits)
    print(f"{'':15} {', '.join(times)}; logits {100 * off:.1f} % off float32's")


if __name__ == "__main__":
    main()
