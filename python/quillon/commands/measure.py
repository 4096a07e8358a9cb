"""How fast the kernels are on a device."""

from __future__ import annotations

import functools
import statistics
import time
from collections.abc import Callable, Iterator

import torch
from torch import Tensor

import vesper_linear
from quillon.formats import weight_bytes, weight_format
from quillon.host_device import is_active

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


def bench(
    formats: list[str], rows: int, cols: int, dtype: str | None, device_name: str, seconds: float
) -> Iterator[str]:
    """A line for each format: the product with one activation row against a dense one. The first is the heading."""
    device = torch.device(device_name)
    if dtype is None:  # the type in which models run there: few processors have arithmetic for halves
        dtype = "float32" if is_active() else "float16"
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
