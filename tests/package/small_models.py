"""Small random models of several architectures, and a tokenizer, saved as folders."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import torch

SIZES = {"hidden_size": 128, "intermediate_size": 192, "num_hidden_layers": 2, "vocab_size": 320}
HEADS = {"num_attention_heads": 4, "num_key_value_heads": 2}
TOKENS = {"pad_token_id": 0, "bos_token_id": 1, "eos_token_id": 2}


def config_of(kind: str) -> Any:
    """The configuration of a small model of an architecture."""
    import transformers

    common = {**SIZES, **HEADS, **TOKENS, "max_position_embeddings": 128}
    if kind == "llama":
        return transformers.LlamaConfig(**common, attention_bias=True)
    if kind == "llama_tied":
        return transformers.LlamaConfig(**common, tie_word_embeddings=True)
    if kind == "qwen2":
        return transformers.Qwen2Config(**common)
    if kind == "mistral":
        return transformers.MistralConfig(**common, sliding_window=16)
    if kind == "gemma":
        return transformers.GemmaConfig(**common, head_dim=32)
    if kind == "gpt2":
        return transformers.GPT2Config(n_embd=128, n_layer=2, n_head=4, n_positions=128, vocab_size=320, **TOKENS)
    if kind == "mixtral":
        return transformers.MixtralConfig(**common, num_local_experts=4, num_experts_per_tok=2)
    raise ValueError(kind)


ARCHITECTURES = ("llama", "llama_tied", "qwen2", "mistral", "gemma", "gpt2", "mixtral")


def random_model(kind: str, seed: int = 3) -> Any:
    """A model with weights of a trained model's size."""
    from transformers import AutoModelForCausalLM

    torch.manual_seed(seed)
    model = AutoModelForCausalLM.from_config(config_of(kind), dtype=torch.float32)
    with torch.no_grad():
        for parameter in model.parameters():
            parameter.normal_(mean=1.0 if parameter.dim() == 1 else 0.0, std=0.1)
    return model.eval()


def save_tokenizer(folder: Path) -> None:
    """A tokenizer of one token for each letter, with a template for conversations."""
    from tokenizers import Tokenizer, decoders, models, pre_tokenizers
    from transformers import PreTrainedTokenizerFast

    alphabet = sorted(pre_tokenizers.ByteLevel.alphabet())
    words = ["<pad>", "<s>", "</s>", *alphabet]
    tokenizer = Tokenizer(models.BPE(vocab={word: index for index, word in enumerate(words)}, merges=[]))
    tokenizer.pre_tokenizer = pre_tokenizers.ByteLevel(add_prefix_space=False)
    tokenizer.decoder = decoders.ByteLevel()
    fast = PreTrainedTokenizerFast(
        tokenizer_object=tokenizer, pad_token="<pad>", bos_token="<s>", eos_token="</s>", padding_side="left"
    )
    fast.chat_template = "{% for m in messages %}{{ m['role'] }}: {{ m['content'] }}\n{% endfor %}assistant: "
    fast.save_pretrained(folder)
