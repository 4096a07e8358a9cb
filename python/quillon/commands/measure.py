"""How fast the kernels are on a device, and whether they give what they should."""

from __future__ import annotations

import functools
import statistics
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass

import torch
from torch import Tensor

import vesper_linear
from quillon import nn as layers
from quillon._kernels import ALL_KERNELS, EXPANSIONS
from quillon.formats import WEIGHT_FORMATS, weight_bytes, weight_format
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference

DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}


def _times(run: Callable[[], object], device: torch.device, seconds: float) -> float:
    """The median time of a call, each waited for."""
    found: list[float] = []
    run()
    torch.xpu.synchronize(device)
    end = time.perf_counter() + seconds
    while len(found) < 5 or time.perf_counter() < end:
        start = time.perf_counter()
        run()
        torch.xpu.synchronize(device)
        found.append(time.perf_counter() - start)
    return statistics.median(found)


def bench(formats: list[str], rows: int, cols: int, dtype: str, device_name: str, seconds: float) -> Iterator[str]:
    """A line for each format: the product with one activation row against a dense one. The first is the heading."""
    device = torch.device(device_name)
    x = torch.randn(1, cols, device=device).to(DTYPES[dtype])
    weight = torch.randn(rows, cols, device=device).to(DTYPES[dtype])
    dense, size = _times(functools.partial(torch.nn.functional.linear, x, weight), device, seconds), weight.nbytes
    del weight
    yield f"{rows} by {cols}, {dtype}, {device_name}, class {vesper_linear.get_xpu_device_name(device)}"
    yield f"{'format':10}{'ms':>10}{'packed GB/s':>14}{'times dense':>14}{'MB':>10}"
    yield f"{'dense':10}{dense * 1e3:10.3f}{'':14}{1:14.2f}{size / 1e6:10.1f}"
    for name in formats:
        format = weight_format(name)
        # The bytes do not matter for the time, as long as no scale makes numbers that are none.
        packed = torch.zeros(weight_bytes(name, rows, cols), dtype=torch.uint8, device=device)

        def product(packed: Tensor = packed, code: int = format.code) -> object:
            return vesper_linear.forward_new(x, packed, code, cols)

        taken = _times(product, device, seconds)
        rate = packed.nbytes / taken / 1e9
        yield f"{name:10}{taken * 1e3:10.3f}{rate:14.2f}{dense / taken:14.2f}{packed.nbytes / 1e6:10.1f}"


@dataclass(frozen=True)
class Check:
    """One kernel in one element type: how far it is off, and how far it may be."""

    operation: str
    format: str
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


def selftest(device_name: str, formats: list[str]) -> Iterator[Check]:
    """Run every kernel of the formats, in every element type, against the reference decoder."""
    device = torch.device(device_name)
    generator = torch.Generator().manual_seed(1)
    device_class = vesper_linear.get_xpu_device_name(device)
    rounded = {kernel.format for kernel in ALL_KERNELS if "q8_1" in kernel.name}
    for name in formats:
        code = weight_format(name).code
        packed = quantize(torch.randn(_ROWS, _COLS, generator=generator), name, progress=False)
        exact = dequantize_reference(packed, name, _ROWS, _COLS, torch.float64)
        there = packed.to(device)
        norms = exact.norm(dim=1)
        for dtype_name, dtype in DTYPES.items():
            for batch in (1, 3, 40):
                x = torch.randn(batch, _COLS, generator=generator).to(dtype)
                bound = _BOUNDS[dtype_name] + (_EIGHT_BITS if name in rounded else 0)
                if batch > 1:
                    bound = max(bound, _EXPANDED)

                def product(x: Tensor = x, there: Tensor = there, name: str = name) -> Tensor:
                    # As a layer has it: in calls of as many rows as the format takes.
                    return layers._multiply(x.to(device), there, weight_format(name), _ROWS)

                expected = x.double() @ exact.T
                scale = x.double().norm(dim=1)[:, None] * norms
                yield _check(f"product, {batch}", name, dtype_name, bound, product, expected, scale)
            if layers._mlp_is_served(name, device, _ROWS):
                x = torch.randn(1, _COLS, generator=generator).to(dtype)

                def gated(x: Tensor = x, there: Tensor = there, code: int = code) -> Tensor:
                    return vesper_linear.mlp_forward_xpu(
                        x.to(device), there, there, 1, _COLS, _ROWS, layers._SILU, code
                    )

                weight = dequantize_reference(packed, name, _ROWS, _COLS, torch.float64, apply_scale=True)
                sums = x.double() @ weight.T
                scale = (x.double().norm() * weight.norm(dim=1)) ** 2
                bound = _BOUNDS[dtype_name] + (_EIGHT_BITS if name in rounded else 0)
                yield _check("gated, 1", name, dtype_name, bound, gated, sums * sums.sigmoid() * sums, scale)
            if any(one.format == name and one.operation == "whole" and one.runs_on(device_class) for one in EXPANSIONS):

                def expansion(there: Tensor = there, code: int = code, dtype: torch.dtype = dtype) -> Tensor:
                    output = torch.empty(_ROWS, _COLS, dtype=dtype, device=device)
                    torch.ops.quillon_kernels.expand_weight(there, output, code)
                    return output

                expected = dequantize_reference(packed, name, _ROWS, _COLS, dtype)
                yield _check("expansion", name, dtype_name, 0.0, expansion, expected, torch.ones(()))
        if any(one.format == name and one.operation == "rows" for one in EXPANSIONS):
            index = torch.tensor([[3, 0, 9]])

            def chosen(there: Tensor = there, code: int = code, index: Tensor = index) -> Tensor:
                found: Tensor = torch.ops.quillon.dequantize_rows(index.to(device), there, code, _COLS, _ROWS)
                return found.view(-1, _COLS)

            expected = dequantize_reference(packed, name, _ROWS, _COLS)[index[0]]
            yield _check("rows", name, "float32", 0.0, chosen, expected, torch.ones(()))


def _check(
    operation: str,
    format: str,
    dtype: str,
    bound: float,
    run: Callable[[], Tensor],
    expected: Tensor,
    scale: Tensor,
) -> Check:
    try:
        found = run().cpu()
    except RuntimeError as problem:
        return Check(operation, format, dtype, float("nan"), bound, str(problem).partition("\n")[0])
    if found.shape != expected.shape:
        return Check(operation, format, dtype, float("nan"), bound, f"shape {tuple(found.shape)}")
    error = float(((found.double() - expected.double()).abs() / scale).max())
    return Check(operation, format, dtype, error, bound)


def table(checks: list[Check]) -> list[str]:
    """A row for each format and operation, a column for each element type."""
    cells: dict[tuple[str, str], dict[str, str]] = {}
    for check in checks:
        text = "failed" if check.problem else f"{check.error:.1e}" + ("" if check.passed else " WRONG")
        cells.setdefault((check.format, check.operation), {})[check.dtype] = text
    lines = [f"{'format':10}{'operation':14}" + "".join(f"{name:>16}" for name in DTYPES)]
    for format in WEIGHT_FORMATS:
        for (one, operation), row in cells.items():
            if one == format:
                lines.append(f"{one:10}{operation:14}" + "".join(f"{row.get(name, ''):>16}" for name in DTYPES))
    wrong = [check for check in checks if not check.passed]
    for check in wrong:
        why = check.problem or f"off by {check.error:.1e}, {check.bound:.1e} allowed"
        lines.append(f"{check.operation} of {check.format} in {check.dtype}: {why}")
    lines.append(f"{len(checks) - len(wrong)} of {len(checks)} calls give what they should")
    return lines
