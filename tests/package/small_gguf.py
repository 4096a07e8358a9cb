"""Small GGUF files: a model of the Llama architecture in any block types, with a tokenizer."""

from __future__ import annotations

import sys
from pathlib import Path

import gguf
import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from formats.blocks import BYTES, random_blocks

HIDDEN, INNER, HEADS, KEY_HEADS, LAYERS = 512, 1024, 8, 4, 2
WORDS = ["<unk>", "<s>", "</s>", *(f"<0x{byte:02X}>" for byte in range(256)), *map(chr, range(97, 123)), "▁"]


def write_llama(path: Path, kinds: dict[str, str], tied: bool = False) -> None:
    """Write a random model. ``kinds``: part of a tensor's name -> block type; the first that matches counts."""
    random = np.random.default_rng(0)
    writer = gguf.GGUFWriter(path, "llama")
    writer.add_context_length(256)
    writer.add_embedding_length(HIDDEN)
    writer.add_block_count(LAYERS)
    writer.add_feed_forward_length(INNER)
    writer.add_head_count(HEADS)
    writer.add_head_count_kv(KEY_HEADS)
    writer.add_rope_dimension_count(HIDDEN // HEADS)
    writer.add_layer_norm_rms_eps(1e-5)
    writer.add_vocab_size(len(WORDS))
    writer.add_tokenizer_model("llama")
    writer.add_token_list(WORDS)
    writer.add_token_scores([0.0] * len(WORDS))
    writer.add_token_types([2, 3, 3, *[6] * 256, *[1] * (len(WORDS) - 259)])
    writer.add_bos_token_id(1)
    writer.add_eos_token_id(2)
    writer.add_unk_token_id(0)

    def add(name: str, rows: int, cols: int) -> None:
        kind = next((kind for part, kind in kinds.items() if part in name), "F32")
        if kind in BYTES:
            scale = 0.003 if kind.startswith("IQ") else 2e-4
            data = random_blocks(kind, rows, cols, seed=len(name) + rows, scale=scale)
        else:
            values = 0.05 * random.standard_normal((rows, cols)).astype(np.float32)
            data = values if kind == "F32" else gguf.quants.quantize(values, gguf.GGMLQuantizationType[kind])
        writer.add_tensor(name, data, raw_dtype=gguf.GGMLQuantizationType[kind])

    def norm(name: str) -> None:
        writer.add_tensor(name, (1 + 0.1 * random.standard_normal(HIDDEN)).astype(np.float32))

    add("token_embd.weight", len(WORDS), HIDDEN)
    for layer in range(LAYERS):
        prefix = f"blk.{layer}"
        norm(f"{prefix}.attn_norm.weight")
        add(f"{prefix}.attn_q.weight", HIDDEN, HIDDEN)
        add(f"{prefix}.attn_k.weight", HIDDEN // HEADS * KEY_HEADS, HIDDEN)
        add(f"{prefix}.attn_v.weight", HIDDEN // HEADS * KEY_HEADS, HIDDEN)
        add(f"{prefix}.attn_output.weight", HIDDEN, HIDDEN)
        norm(f"{prefix}.ffn_norm.weight")
        add(f"{prefix}.ffn_gate.weight", INNER, HIDDEN)
        add(f"{prefix}.ffn_up.weight", INNER, HIDDEN)
        add(f"{prefix}.ffn_down.weight", HIDDEN, INNER)
    norm("output_norm.weight")
    if not tied:
        add("output.weight", len(WORDS), HIDDEN)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
