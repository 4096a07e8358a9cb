"""Text from a packed model: one answer, a conversation, and transformers' own server."""

from __future__ import annotations

import sys
import time
from pathlib import Path
from typing import Any

import torch

from quillon.commands.quantize import load_model

_LEAVE = ("/exit", "/quit")


def _say(model: Any, tokenizer: Any, tokens: torch.Tensor, options: Any) -> str:
    """Print a continuation as it is made, and return it."""
    from transformers import TextStreamer

    streamer = TextStreamer(tokenizer, skip_prompt=True, skip_special_tokens=True)
    sampling = {"do_sample": False}
    if options.temperature > 0:
        sampling = {"do_sample": True, "temperature": options.temperature}
    start = time.perf_counter()
    with torch.inference_mode():
        produced = model.generate(
            tokens,
            attention_mask=torch.ones_like(tokens),
            max_new_tokens=options.new_tokens,
            streamer=streamer,
            pad_token_id=tokenizer.pad_token_id if tokenizer.pad_token_id is not None else tokenizer.eos_token_id,
            **sampling,
        )[0, tokens.shape[1] :]
    seconds = time.perf_counter() - start
    print(f"[{len(produced)} tokens in {seconds:.1f} s]", file=sys.stderr)
    text: str = tokenizer.decode(produced, skip_special_tokens=True)
    return text


def _chat_tokens(tokenizer: Any, messages: list[dict[str, str]], device: Any) -> torch.Tensor:
    found = tokenizer.apply_chat_template(messages, add_generation_prompt=True, return_tensors="pt", return_dict=True)
    tokens: torch.Tensor = found["input_ids"].to(device)
    return tokens


def _prepared(options: Any, config: Any) -> tuple[Any, Any]:
    if options.seed is not None:
        torch.manual_seed(options.seed)
    return load_model(Path(options.model), config, options.device)


def generate(options: Any, config: Any) -> int:
    """Continue a text, or answer a question in the model's own form of conversation."""
    model, tokenizer = _prepared(options, config)
    if options.question:
        _require_template(tokenizer, options.model)
        tokens = _chat_tokens(tokenizer, [{"role": "user", "content": options.text}], model.device)
    else:
        tokens = tokenizer(options.text, return_tensors="pt")["input_ids"].to(model.device)
    if tokens.shape[1] == 0:
        raise ValueError("the text is empty; give at least a word to go on from")
    _say(model, tokenizer, tokens, options)
    return 0


def _require_template(tokenizer: Any, name: str) -> None:
    if not tokenizer.chat_template:
        raise ValueError(f"{name} has no chat template, it is no model for conversations; use generate")


def chat(options: Any, config: Any) -> int:
    """Answer the lines of the standard input until it ends. Control-C ends an answer."""
    model, tokenizer = _prepared(options, config)
    _require_template(tokenizer, options.model)
    messages = [{"role": "system", "content": options.system}] if options.system else []
    interactive = sys.stdin.isatty()
    if interactive:
        print("Control-C ends an answer, /exit the conversation.", file=sys.stderr)
    while True:
        try:
            line = input("> " if interactive else "").strip()
        except (EOFError, KeyboardInterrupt):
            return 0
        if line in _LEAVE:
            return 0
        if not line:
            continue
        messages.append({"role": "user", "content": line})
        try:
            answer = _say(model, tokenizer, _chat_tokens(tokenizer, messages, model.device), options)
        except KeyboardInterrupt:
            print()
            messages.pop()
            continue
        messages.append({"role": "assistant", "content": answer})


def transformers_command(arguments: list[str]) -> int:
    """Run a command of transformers' own command line in a process in which packed folders load."""
    import quillon.transformers  # noqa: F401

    try:
        from transformers.cli import transformers
    except ImportError as missing:
        raise ImportError(f"{missing}: pip install 'transformers[serving]'") from missing
    command: Any = transformers.main
    sys.argv = ["transformers", *arguments]
    command()
    return 0
