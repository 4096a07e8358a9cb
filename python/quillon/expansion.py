"""Packed weights as dense tensors, expanded by the device's kernels."""

from __future__ import annotations

import torch
from torch import Tensor

from quillon._kernels import EXPANSIONS
from quillon.formats import Format, check_shape
from quillon.reference import DTYPES, check_packed, dequantize_reference

__all__ = ["EXPANDED_FORMATS", "dequantize"]

EXPANDED_FORMATS: tuple[str, ...] = tuple(
    dict.fromkeys(kernel.format for kernel in EXPANSIONS if kernel.operation == "whole")
)
"""Formats that the device can expand."""


def dequantize(data: Tensor, format: str | int, rows: int, cols: int, dtype: torch.dtype = torch.float32) -> Tensor:
    """Expand a packed weight on the XPU that it is on.

    data    uint8, one dimension, weight_bytes(format, rows, cols) long, on an XPU
    format  one of ``quillon.expansion.EXPANDED_FORMATS``
    dtype   float32, float64, float16 or bfloat16

    Returns (rows, cols) of ``dtype`` on the same device: the bits of :func:`quillon.dequantize_reference`, which serves
    every format, on the CPU. Raises ``TypeError`` for wrong element types and ``ValueError`` for anything that does not
    fit.
    """
    fmt = check_packed(data, format, rows, cols, dtype)
    if fmt.name not in EXPANDED_FORMATS:
        raise ValueError(
            f"{fmt.name} has no expansion on the device; use dequantize_reference. Allowed: "
            + ", ".join(EXPANDED_FORMATS)
        )
    if data.device.type != "xpu":
        raise ValueError(f"data must be on an XPU, got device {data.device}; dequantize_reference serves the CPU")
    return _expand(data, fmt, rows, cols, dtype)


def dequantize_where_it_is(data: Tensor, format: Format, rows: int, cols: int, dtype: torch.dtype) -> Tensor:
    """Expand a packed weight on its device where that is possible, else by the reference, and put it there."""
    if data.device.type == "xpu" and format.name in EXPANDED_FORMATS:
        return _expand(data, check_shape(format.name, rows, cols), rows, cols, dtype)
    return dequantize_reference(data, format.name, rows, cols, dtype).to(data.device)


def _expand(data: Tensor, format: Format, rows: int, cols: int, dtype: torch.dtype) -> Tensor:
    if dtype not in DTYPES:
        raise TypeError(f"dtype must be float32, float64, float16 or bfloat16, got {dtype}")
    output = torch.empty(rows, cols, dtype=dtype, device=data.device)
    torch.ops.quillon_kernels.expand_weight(data.contiguous(), output, format.code)
    return output
