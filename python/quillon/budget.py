"""A format for each layer, by what its error costs the model, within a number of bits for each weight.

Rounding errors of a layer change its outputs, and the log-likelihood of what the model says by the squares of these
changes, each times the mean square of the log-likelihood's gradient there. Both are measured on a text; the errors of
formats on a sample of each layer's rows. Layers that read the same input get the same format, so that they can be
joined or fused.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any

import torch
from torch import Tensor, nn

from quillon._modes import plain_modes
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


def measure_sensitivity(
    model: nn.Module, batches: Iterable[Any], layers: Mapping[str, Any], seed: int = 0
) -> dict[str, Sensitivity]:
    """Run some batches forth and back; what they reach of ``layers``.

    What is scored are outcomes drawn from the model's own output, with ``seed``. The model is left as it was.
    """
    found: dict[str, Sensitivity] = {}
    seen: dict[int, tuple[str, Tensor]] = {}
    tokens = 0

    def look(name: str) -> Callable[..., None]:
        def hook(module: nn.Module, arguments: tuple[Any, ...], output: Any) -> Any:
            if not arguments:
                return None
            x = arguments[0]
            owner, _ = seen.setdefault(id(x), (name, x))
            rows = x.detach().reshape(-1, x.shape[-1]).float()
            rows = rows[rows.square().sum(1).isfinite()].double()
            if name not in found:
                found[name] = Sensitivity(
                    owner, torch.zeros(rows.shape[1]).double(), torch.zeros(output.shape[-1]).double()
                )
            mine = found[name]
            mine.columns += rows.square().sum(0).cpu()
            if not output.requires_grad:
                # Not a leaf: what follows may work in place.
                output = output.detach().requires_grad_().clone()
            output.register_hook(add(mine))
            return output

        return hook

    def add(mine: Sensitivity) -> Callable[[Tensor], None]:
        def of_gradient(gradient: Tensor) -> None:
            rows = gradient.detach().reshape(-1, gradient.shape[-1]).double()
            mine.rows += rows.square().nan_to_num(0, 0, 0).sum(0).cpu()

        return of_gradient

    wanted = [(one, one.requires_grad) for one in model.parameters()]
    training = [module for module in model.modules() if module.training]
    generator = torch.Generator().manual_seed(seed)
    model.eval().requires_grad_(False)
    hooks = [layer.register_forward_hook(look(name)) for name, layer in layers.items()]
    try:
        with torch.inference_mode(False), torch.enable_grad():
            for call in calls_of(model, list(batches)):
                logits = _logits(call())
                logits = logits.reshape(-1, logits.shape[-1]).float()
                logits = logits[logits.detach().softmax(1).isfinite().all(1)]
                if not len(logits):
                    seen.clear()
                    continue
                drawn = torch.multinomial(logits.detach().softmax(1).cpu(), 1, generator=generator)[:, 0]
                loss: Any = nn.functional.cross_entropy(logits, drawn.to(logits.device), reduction="sum")
                loss.backward()
                seen.clear()
                tokens += len(logits)
                if tokens >= _TOKENS:
                    break
    finally:
        for hook in hooks:
            hook.remove()
        for parameter, asked in wanted:
            parameter.requires_grad = asked
        for module in training:
            module.training = True
    for one in found.values():
        one.columns /= max(tokens, 1)
        one.rows /= max(tokens, 1)
    return found


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
    groups: dict[str, list[str]] = {}
    for name in weights:
        groups.setdefault(sensitivities[name].input if name in sensitivities else name, []).append(name)
    scales = [float(one.rows.mean() * one.columns.mean()) for one in sensitivities.values()]
    mean = sum(scales) / len(scales) / 2 if scales else 1.0
    bar = Progress("measure formats", len(groups), progress)

    def choices(names: list[str]) -> list[_Choice]:
        result = []
        for format in BUDGET_FORMATS:
            if not all(fits(name, get_format(format)) for name in names):
                continue
            size, cost = 0, 0.0
            for name in names:
                known = sensitivities.get(name)
                for weight in weights[name]:
                    size += weight_bytes(format, *weight.shape)
                    cost += _cost(weight, format, known) * (1.0 if known else mean)
            result.append(_Choice(format, size, cost))
        bar.advance(1)
        return _useful(result)

    with plain_modes():
        open_to = {group: choices(names) for group, names in groups.items()}
    bar.close()
    elements = sum(weight.numel() for parts in weights.values() for weight in parts)
    left = bits * elements / 8 - sum(hull[0].bytes for hull in open_to.values())
    if left < 0:
        least = sum(hull[0].bytes for hull in open_to.values()) * 8 / elements
        raise ValueError(f"bits must be at least {math.ceil(least * 1000) / 1000:g} for these layers, got {bits:g}")
    at = dict.fromkeys(open_to, 0)
    # The step that saves most for a byte, over and over; one that does not fit any more is the last of its layer.
    while steps := [
        (_gain(hull[at[group]], hull[at[group] + 1]), group)
        for group, hull in open_to.items()
        if at[group] + 1 < len(hull)
    ]:
        _, group = max(steps)
        hull = open_to[group]
        more = hull[at[group] + 1].bytes - hull[at[group]].bytes
        if more > left:
            open_to[group] = hull[: at[group] + 1]
            continue
        left -= more
        at[group] += 1
    return {name: open_to[group][at[group]].format for group, names in groups.items() for name in names}
