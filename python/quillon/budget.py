"""A format for each layer, by what its error costs the model, within a number of bits for each weight.

Rounding errors of a layer change its outputs, and the log-likelihood of what the model says by the squares of these
changes, each times the mean square of the log-likelihood's gradient there. Both are measured on a text; the errors of
formats on a sample of each layer's rows. Layers that read the same input get the same format, so that they can be
joined or fused.
"""

from __future__ import annotations

import math
import threading
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import Any

import torch
from torch import Tensor, nn

from quillon._modes import plain_modes
from quillon._named import naming
from quillon._pieces import serial_operators
from quillon.calibration import calls_of
from quillon.formats import BUDGET_FORMATS, Format, get_format, weight_bytes
from quillon.quantizers import quantize
from quillon.quantizers._progress import Progress
from quillon.quantizers.feedback import sample_rows
from quillon.reference import dequantize_reference

__all__ = ["Sensitivity", "choose_formats", "measure_sensitivity"]

# Gradients of so many tokens tell layers apart well enough, and each of them goes through the model forth and back.
_TOKENS = 2048


@dataclass
class Sensitivity:
    """What errors of a layer's weight cost.

    input      what stands for the layer's input: the same for layers that read the same one
    columns    (columns,) mean square of what meets each column
    rows       (rows,) mean square of the gradient of the log-likelihood by each output
    """

    input: str
    columns: Tensor
    rows: Tensor


def _logits(output: Any) -> Tensor:
    found = output if isinstance(output, Tensor) else getattr(output, "logits", None)
    if not isinstance(found, Tensor) or found.dim() < 2:
        raise ValueError(f"the model must give a tensor, or something with logits, got {type(output).__name__}")
    return found


class _Batch:
    """What one batch has shown of the layers it went through, forth and back."""

    def __init__(self) -> None:
        self.tokens = 0
        self.inputs: dict[str, str] = {}
        self.columns: dict[str, Tensor] = {}
        self.rows: dict[str, Tensor] = {}
        # The tensor is kept, so that no other one can have its address.
        self._seen: dict[int, tuple[str, Tensor]] = {}

    def look(self, name: str, x: Tensor, output: Any) -> Any:
        """Take a layer's input, and wait for the gradient of its output, which is to be gone on with."""
        owner, _ = self._seen.setdefault(id(x), (name, x))
        rows = x.detach().reshape(-1, x.shape[-1]).float()
        rows = rows[rows.square().sum(1).isfinite()].double()
        self.inputs.setdefault(name, owner)
        _add(self.columns, name, rows.square().sum(0).cpu())
        _add(self.rows, name, torch.zeros(output.shape[-1], dtype=torch.float64))
        if not output.requires_grad:
            # Not a leaf: what follows may work in place.
            output = output.detach().requires_grad_().clone()

        def of_gradient(gradient: Tensor) -> None:
            found = gradient.detach().reshape(-1, gradient.shape[-1]).double()
            _add(self.rows, name, found.square().nan_to_num(0, 0, 0).sum(0).cpu())

        output.register_hook(of_gradient)
        return output

    def end(self, tokens: int) -> None:
        """Say how many tokens were scored."""
        self.tokens = tokens
        self._seen.clear()


def _add(sums: dict[str, Tensor], name: str, found: Tensor) -> None:
    sums[name] = sums[name] + found if name in sums else found


def measure_sensitivity(
    model: nn.Module, batches: Iterable[Any], layers: Mapping[str, Any], seed: int = 0
) -> dict[str, Sensitivity]:
    """Run some batches forth and back; what they reach of ``layers``.

    What is scored are outcomes drawn from the model's own output, with ``seed`` and the batch's number. The model is
    left as it was. Deterministic, whatever the number of threads.
    """
    running = threading.local()

    def hook(name: str) -> Callable[..., Any]:
        def look(module: nn.Module, arguments: tuple[Any, ...], output: Any) -> Any:
            batch: _Batch | None = getattr(running, "batch", None)
            return batch.look(name, arguments[0], output) if batch is not None and arguments else None

        return look

    def run(number: int, call: Callable[[], object]) -> _Batch:
        running.batch = batch = _Batch()
        try:
            with torch.inference_mode(False), torch.enable_grad():
                logits = _logits(call())
                logits = logits.reshape(-1, logits.shape[-1]).float()
                logits = logits[logits.detach().softmax(1).isfinite().all(1)]
                if len(logits):
                    generator = torch.Generator().manual_seed(seed + number)
                    drawn = torch.multinomial(logits.detach().softmax(1).cpu(), 1, generator=generator)[:, 0]
                    loss: Any = nn.functional.cross_entropy(logits, drawn.to(logits.device), reduction="sum")
                    loss.backward()
                batch.end(len(logits))
        finally:
            running.batch = None
        return batch

    wanted = [(one, one.requires_grad) for one in model.parameters()]
    training = [module for module in model.modules() if module.training]
    model.eval().requires_grad_(False)
    hooks = [layer.register_forward_hook(hook(name)) for name, layer in layers.items()]
    tokens, inputs = 0, dict[str, str]()
    columns, rows = dict[str, Tensor](), dict[str, Tensor]()
    try:
        calls = list(enumerate(calls_of(model, list(batches))))
        with serial_operators() as threads, ThreadPoolExecutor(threads) as pool:
            while calls and tokens < _TOKENS:
                for batch in pool.map(run, *zip(*calls[:threads], strict=True)):
                    # Those that run beside the last one do not count.
                    if tokens < _TOKENS and batch.tokens:
                        tokens += batch.tokens
                        inputs = batch.inputs | inputs
                        for name in batch.inputs:
                            _add(columns, name, batch.columns[name])
                            _add(rows, name, batch.rows[name])
                calls = calls[threads:]
    finally:
        for one in hooks:
            one.remove()
        for parameter, asked in wanted:
            parameter.requires_grad = asked
        for module in training:
            module.training = True
    return {name: Sensitivity(owner, columns[name] / tokens, rows[name] / tokens) for name, owner in inputs.items()}


def _cost(weight: Tensor, format: str, sensitivity: Sensitivity | None) -> float:
    """What packing a weight costs in log-likelihood, as far as rows do not know of one another."""
    rows = sample_rows(len(weight))
    sample = weight[rows].float().cpu()
    importance = None if sensitivity is None or not bool((sensitivity.columns > 0).any()) else sensitivity.columns
    packed = quantize(sample, format, importance=importance, progress=False)
    wrong = (sample - dequantize_reference(packed, format, *sample.shape)).double().square()
    if sensitivity is None:
        return float(wrong.sum()) * len(weight) / len(rows)
    return float((wrong @ sensitivity.columns * sensitivity.rows[rows]).sum()) * len(weight) / len(rows) / 2


@dataclass(frozen=True)
class _Choice:
    format: str
    bytes: int
    cost: float


def _useful(choices: Sequence[_Choice]) -> list[_Choice]:
    """Those on the lower hull of cost over bytes, from the smallest on."""
    hull: list[_Choice] = []
    for one in sorted(choices, key=lambda one: (one.bytes, one.cost)):
        if hull and one.cost >= hull[-1].cost:
            continue
        while len(hull) > 1 and _gain(hull[-2], one) >= _gain(hull[-2], hull[-1]):
            hull.pop()
        hull.append(one)
    return hull


def _gain(small: _Choice, large: _Choice) -> float:
    """What each further byte saves."""
    return (small.cost - large.cost) / max(large.bytes - small.bytes, 1e-9)


@dataclass(frozen=True)
class FormatCosts:
    """Some layers that get one format, and what each format costs them."""

    names: tuple[str, ...]
    choices: tuple[_Choice, ...]


def format_costs(
    weights: Mapping[str, Sequence[Tensor]],
    fits: Callable[[str, Format], bool],
    sensitivities: Mapping[str, Sensitivity],
    progress: bool | None = None,
) -> list[FormatCosts]:
    """Measure what each format costs; the arguments are those of :func:`choose_formats`."""
    groups: dict[str, list[str]] = {}
    for name in weights:
        groups.setdefault(sensitivities[name].input if name in sensitivities else name, []).append(name)
    scales = [float(one.rows.mean() * one.columns.mean()) for one in sensitivities.values()]
    mean = sum(scales) / len(scales) / 2 if scales else 1.0

    def measure(names: list[str]) -> FormatCosts:
        choices = []
        for format in BUDGET_FORMATS:
            if not all(fits(name, get_format(format)) for name in names):
                continue
            size, cost = 0, 0.0
            for name in names:
                known = sensitivities.get(name)
                for weight in weights[name]:
                    size += weight_bytes(format, *weight.shape)
                    with plain_modes(), naming(name):
                        cost += _cost(weight, format, known) * (1.0 if known else mean)
            choices.append(_Choice(format, size, cost))
        return FormatCosts(tuple(names), tuple(choices))

    bar = Progress("measure formats", len(groups), progress)
    found = []
    with serial_operators() as threads, ThreadPoolExecutor(threads) as pool:
        for one in pool.map(measure, groups.values()):
            found.append(one)
            bar.advance(1)
    bar.close()
    return found


def choose_formats(
    weights: Mapping[str, Sequence[Tensor]],
    bits: float,
    fits: Callable[[str, Format], bool],
    sensitivities: Mapping[str, Sensitivity],
    progress: bool | None = None,
) -> dict[str, str]:
    """Layer name -> format, with at most ``bits`` for each weight in all.

    weights        layer name -> the matrices (rows, columns) that it consists of
    fits           whether the kernels of a format cover a layer's rows
    sensitivities  of layers that were measured. Of those that were not, in a model of which others were, errors count
                   as in the mean of the others; where none was, only the errors of the weights do
    """
    if not bits > 0 or not math.isfinite(bits):
        raise ValueError(f"bits must be a positive number, got {bits}")
    elements = sum(weight.numel() for parts in weights.values() for weight in parts)
    return formats_within(format_costs(weights, fits, sensitivities, progress), bits, elements)


def formats_within(costs: Sequence[FormatCosts], bits: float, elements: int) -> dict[str, str]:
    """The choice of :func:`choose_formats`, by what was measured."""
    hulls = [_useful(one.choices) for one in costs]
    left = bits * elements / 8 - sum(hull[0].bytes for hull in hulls)
    if left < 0:
        least = sum(hull[0].bytes for hull in hulls) * 8 / elements
        raise ValueError(f"bits must be at least {math.ceil(least * 1000) / 1000:g} for these layers, got {bits:g}")
    at = [0] * len(hulls)
    # The step that saves most for a byte, over and over; one that does not fit any more is the last of its layer.
    while steps := [
        (_gain(hull[place], hull[place + 1]), -number)
        for number, (hull, place) in enumerate(zip(hulls, at, strict=True))
        if place + 1 < len(hull)
    ]:
        number = -max(steps)[1]
        hull, place = hulls[number], at[number]
        more = hull[place + 1].bytes - hull[place].bytes
        if more > left:
            hulls[number] = hull[: place + 1]
            continue
        left -= more
        at[number] += 1
    chosen = [hull[place] for hull, place in zip(hulls, at, strict=True)]
    # What is left may hold a step to a format that is not on the hull.
    while better := [
        (now.cost - other.cost, -number, other)
        for number, (one, now) in enumerate(zip(costs, chosen, strict=True))
        for other in one.choices
        if other.cost < now.cost and other.bytes - now.bytes <= left
    ]:
        _, number, other = max(better, key=lambda step: step[:2])
        left -= other.bytes - chosen[-number].bytes
        chosen[-number] = other
    return {name: now.format for one, now in zip(costs, chosen, strict=True) for name in one.names}
