"""Whether the kernels give what they should on a device."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

import torch
from torch import Tensor

import vesper_linear
from quillon import nn as layers
from quillon._kernels import ALL_KERNELS, ENGINE_BATCHES, EXPANSIONS
from quillon.formats import WEIGHT_FORMATS, weight_format
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference

DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}
RWKV = "rwkv"
"""In place of a format: the operators that have none."""
SUBJECTS = (*WEIGHT_FORMATS, RWKV)


@dataclass(frozen=True)
class Check:
    """One kernel in one element type: how far it is off, and how far it may be."""

    operation: str
    subject: str
    dtype: str
    error: float
    bound: float
    problem: str = ""

    @property
    def passed(self) -> bool:
        """Whether it ran and keeps to its bound; a NaN does not."""
        return not self.problem and self.error <= self.bound


_ROWS, _COLS = 32, 1024
# Sums of a thousand products, in the element type or in float32, and a store in the element type.
_BOUNDS = {"float32": 2e-7, "float64": 2e-7, "float16": 5e-4, "bfloat16": 5e-3}
"""Of the error over the lengths of both rows, by element type. A code that is off by one step costs about 1e-3."""
_EIGHT_BITS = 2e-3
"""What rounding the activations to eight bits costs, of those kernels that do."""
_EXPANDED = 5e-4
"""Of products of several rows, whose road may expand the weight with a rounding to half."""


@dataclass(frozen=True)
class _Weight:
    """A packed weight, random, and what is known of it."""

    format: str
    packed: Tensor
    exact: Tensor
    there: Tensor
    """On the device."""
    device_class: str

    @property
    def code(self) -> int:
        return weight_format(self.format).code

    def bound(self, dtype: str) -> float:
        rounds = any(kernel.format == self.format and "q8_1" in kernel.name for kernel in ALL_KERNELS)
        return _BOUNDS[dtype] + (_EIGHT_BITS if rounds else 0)

    def dense_for(self, x: Tensor) -> Tensor:
        """The weight as a call with these rows has it: the matrix engine reads one format otherwise."""
        first, last = ENGINE_BATCHES.get(self.device_class, {}).get(self.format, (0, -1))
        if x.dtype == torch.float64 or not first <= len(x) <= last:
            return self.exact
        return dequantize_reference(
            self.packed, self.format, _ROWS, _COLS, torch.float64, apply_scale=True, midpoints=False
        )

    def has(self, operation: str) -> bool:
        return any(
            one.format == self.format and one.operation == operation and one.runs_on(self.device_class)
            for one in EXPANSIONS
        )


def selftest(device_name: str, subjects: list[str]) -> Iterator[Check]:
    """Run every kernel of some formats, in every element type, against the reference decoder; and those of RWKV."""
    device = torch.device(device_name)
    generator = torch.Generator().manual_seed(1)
    device_class = vesper_linear.get_xpu_device_name(device)
    for name in subjects:
        if name == RWKV:
            yield from _rwkv(device, generator)
            continue
        packed = quantize(torch.randn(_ROWS, _COLS, generator=generator), name, progress=False)
        exact = dequantize_reference(packed, name, _ROWS, _COLS, torch.float64)
        weight = _Weight(name, packed, exact, packed.to(device), device_class)
        for dtype in DTYPES:
            yield from _products(weight, dtype, generator)
            yield from _expansions(weight, dtype)
        yield from _rows(weight)


def _products(weight: _Weight, dtype: str, generator: torch.Generator) -> Iterator[Check]:
    format, there, device = weight.format, weight.there, weight.there.device
    for batch in (1, 3, 40):
        x = torch.randn(batch, _COLS, generator=generator).to(DTYPES[dtype])
        # As a layer has it: in calls of as many rows as the format takes.
        at_once = layers._rows_of_call(batch, weight_format(format), device, x.dtype, _COLS, _ROWS)
        expected = [part.double() @ weight.dense_for(part).T for part in torch.split(x, at_once or batch)]
        yield _check(
            f"product, {batch}",
            format,
            dtype,
            weight.bound(dtype) if batch == 1 else max(weight.bound(dtype), _EXPANDED),
            lambda x=x: layers._multiply(x.to(device), there, weight_format(format), _ROWS),  # type: ignore[misc]
            torch.cat(expected),
            x.double().norm(dim=1)[:, None] * weight.exact.norm(dim=1),
        )
    if layers._mlp_is_served(format, device, _ROWS):
        x = torch.randn(1, _COLS, generator=generator).to(DTYPES[dtype])
        scaled = dequantize_reference(weight.packed, format, _ROWS, _COLS, torch.float64, apply_scale=True)
        sums = x.double() @ scaled.T
        yield _check(
            "gated, 1",
            format,
            dtype,
            weight.bound(dtype),
            lambda: vesper_linear.mlp_forward_xpu(
                x.to(device), there, there, 1, _COLS, _ROWS, layers._SILU, weight.code
            ),
            sums * sums.sigmoid() * sums,
            (x.double().norm() * scaled.norm(dim=1)) ** 2,
        )


def _expansions(weight: _Weight, dtype: str) -> Iterator[Check]:
    format, kernels = weight.format, torch.ops.quillon_kernels
    expected = dequantize_reference(weight.packed, format, _ROWS, _COLS, DTYPES[dtype])

    def expand(operator: Callable[..., None], first: int, *behind: int) -> Tensor:
        output = torch.empty(_ROWS - first, _COLS, dtype=DTYPES[dtype], device=weight.there.device)
        operator(weight.there, output, weight.code, *behind)
        return output

    one = torch.ones(())
    if weight.has("whole"):
        yield _check("expansion", format, dtype, 0.0, lambda: expand(kernels.expand_weight, 0), expected, one)
    if weight.has("dense") and dtype in ("float32", "float16"):

        def fast() -> Tensor:
            return expand(kernels.expand_weight_fast, 0)

        yield _check("fast expansion", format, dtype, 2 * _EXPANDED, fast, expected, expected.double().abs().max())
    if weight.has("tile"):
        first = 0 if format == "fp6" else _ROWS // 2  # its kernel serves a tile of all rows alone

        def tile() -> Tensor:
            return expand(kernels.expand_rows_of, first, _ROWS, first)

        yield _check("tile", format, dtype, 0.0, tile, expected[first:], one)


def _rows(weight: _Weight) -> Iterator[Check]:
    if not weight.has("rows"):
        return
    index = torch.tensor([[3, 0, 9]])

    def run() -> Tensor:
        operator = torch.ops.quillon.dequantize_rows
        found: Tensor = operator(index.to(weight.there.device), weight.there, weight.code, _COLS, _ROWS)
        return found.view(-1, _COLS)

    expected = dequantize_reference(weight.packed, weight.format, _ROWS, _COLS)[index[0]]
    yield _check("rows", weight.format, "float32", 0.0, run, expected, torch.ones(()))


# ---- RWKV ------------------------------------------------------------------------------------------------------------

_BATCHES, _STEPS, _HEADS, _SIZE = 2, 6, 2, 64
_FAST_EXP = 1e-3
"""What a device's fast exp may be off by, over the largest value; a step without its decay is off by 1e-1."""


def _rwkv(device: torch.device, generator: torch.Generator) -> Iterator[Check]:
    for dtype in ("float32", "float16"):
        yield from _attention_v4(device, dtype, generator)
        yield from _time_shift(device, dtype, generator)
    yield from _attention_v5(device, generator)


def _attention_v4(device: torch.device, dtype: str, generator: torch.Generator) -> Iterator[Check]:
    channels = _HEADS * _SIZE
    shapes = (channels,), (channels,), (_BATCHES, _STEPS, channels), (_BATCHES, _STEPS, channels)
    decay, bonus, key, value = (torch.randn(shape, generator=generator).to(DTYPES[dtype]) for shape in shapes)
    decay = -decay.exp()

    def run() -> Tensor:
        states = layers.rwkv_state_v4(_BATCHES, channels, device)
        # In two calls, the second of which goes on from the states.
        parts = [
            layers.rwkv_attention_v4(
                decay.to(device), bonus.to(device), key[:, steps].to(device), value[:, steps].to(device), *states
            )
            for steps in (slice(1), slice(1, None))
        ]
        return torch.cat(parts, dim=1)

    d, b, k, v = (one.double() for one in (decay, bonus, key, value))
    expected = torch.empty_like(v)
    for step in range(_STEPS):
        # Of each step so far the weight, whose decay starts with the step behind it.
        past = torch.arange(step - 1, -1, -1.0)[:, None] * d + k[:, :step]
        weights = torch.cat((past, b + k[:, step : step + 1]), dim=1).softmax(dim=1)
        expected[:, step] = (weights * v[:, : step + 1]).sum(dim=1)
    yield _check("attention v4", RWKV, dtype, _FAST_EXP + _BOUNDS[dtype], run, expected, v.abs().max())


def _attention_v5(device: torch.device, generator: torch.Generator) -> Iterator[Check]:
    sequence = _BATCHES, _HEADS, _STEPS, _SIZE
    decay = torch.rand(_HEADS, _SIZE, generator=generator)
    bonus = torch.randn(_HEADS, _SIZE, generator=generator)
    receptance, key, value = torch.randn(3, *sequence, generator=generator)

    def run() -> Tensor:
        state = layers.rwkv_state_v5(_BATCHES, _HEADS, device)
        parts = []
        for steps in (slice(1), slice(1, None)):
            r, k, v = (one[:, :, steps].to(device) for one in (receptance, key, value))
            parts.append(layers.rwkv_attention_v5(decay.to(device), bonus.to(device), r, k, v, state))
        return torch.cat(parts, dim=1)

    r, k, v = (one.double() for one in (receptance, key, value))
    expected, size = torch.zeros(2, _BATCHES, _STEPS, _HEADS, _SIZE, dtype=torch.float64)
    for step in range(_STEPS):
        for past in range(step + 1):
            factor = bonus.double() if past == step else decay.double() ** (step - 1 - past)
            for total, of_sign in ((expected, lambda one: one), (size, torch.abs)):
                product = of_sign(r[:, :, step] * factor * k[:, :, past]).sum(dim=-1, keepdim=True)
                total[:, step] += product * of_sign(v[:, :, past])
    yield _check("attention v5", RWKV, "float32", 2e-6, run, expected, size)


def _time_shift(device: torch.device, dtype: str, generator: torch.Generator) -> Iterator[Check]:
    hidden, shifted = torch.randn(2, _BATCHES, _STEPS, _SIZE, generator=generator).to(DTYPES[dtype])
    mix = torch.rand(3, _SIZE, generator=generator).to(DTYPES[dtype])

    def run() -> Tensor:
        return layers.rwkv_time_shift(hidden.to(device), shifted.to(device), mix.to(device))

    h, s = hidden.double(), shifted.double()
    expected = s + mix.double()[:, None, None] * (h - s)
    yield _check("time shift", RWKV, dtype, 3 * _BOUNDS[dtype], run, expected, s.abs() + h.abs())


# ---- results ---------------------------------------------------------------------------------------------------------


def _check(
    operation: str,
    subject: str,
    dtype: str,
    bound: float,
    run: Callable[[], Tensor],
    expected: Tensor,
    scale: Tensor,
) -> Check:
    try:
        found = run().cpu()
    except RuntimeError as problem:
        return Check(operation, subject, dtype, float("nan"), bound, str(problem).partition("\n")[0])
    if found.shape != expected.shape:
        return Check(operation, subject, dtype, float("nan"), bound, f"shape {tuple(found.shape)}")
    error = float(((found.double() - expected.double()).abs() / scale).max())
    return Check(operation, subject, dtype, error, bound)


def table(checks: list[Check]) -> list[str]:
    """A row for each operation of a format, a column for each element type."""
    cells: dict[tuple[str, str], dict[str, str]] = {}
    for check in checks:
        text = "failed" if check.problem else f"{check.error:.1e}" + ("" if check.passed else " WRONG")
        cells.setdefault((check.subject, check.operation), {})[check.dtype] = text
    lines = [f"{'format':10}{'operation':16}" + "".join(f"{name:>16}" for name in DTYPES)]
    for (subject, operation), row in cells.items():
        lines.append(f"{subject:10}{operation:16}" + "".join(f"{row.get(name, ''):>16}" for name in DTYPES))
    wrong = [check for check in checks if not check.passed]
    for check in wrong:
        why = check.problem or f"off by {check.error:.1e}, {check.bound:.1e} allowed"
        lines.append(f"{check.operation} of {check.subject} in {check.dtype}: {why}")
    lines.append(f"{len(checks) - len(wrong)} of {len(checks)} calls give what they should")
    return lines
