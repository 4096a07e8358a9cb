"""Reference decoder: packed bytes to the dense matrix that they stand for.

Written for clarity from the storage rules, one function per format, vectorised over blocks with torch on the CPU.
"""

from __future__ import annotations

from collections.abc import Callable

import torch
from torch import Tensor

from quillon.formats import check_shape, field_offsets

__all__ = ["dequantize_reference"]

# Fields of a chunk of blocks: name -> uint8 (blocks, bytes).
Fields = dict[str, Tensor]


def _half(field: Tensor, index: int = 0) -> Tensor:
    """The half at position ``index`` of a field, as (blocks, 1)."""
    return field[:, 2 * index : 2 * index + 2].contiguous().view(torch.float16)


def _nibbles(qs: Tensor) -> Tensor:
    """Codes of 64 elements from 32 bytes: low nibbles first, then high nibbles."""
    return torch.cat((qs & 15, qs >> 4), dim=1)


def _q4_0(f: Fields, dtype: torch.dtype) -> Tensor:
    return _half(f["d"]).to(dtype) * (_nibbles(f["qs"]).to(torch.int8) - 8).to(dtype)


_DECODERS: dict[str, Callable[[Fields, torch.dtype], Tensor]] = {
    "q4_0": _q4_0,
}

_DTYPES = (torch.float32, torch.float64, torch.float16, torch.bfloat16)
_CHUNK_ELEMENTS = 1 << 18


def dequantize_reference(
    data: Tensor, format: str | int, rows: int, cols: int, dtype: torch.dtype = torch.float32
) -> Tensor:
    """Expand a packed weight.

    data    uint8, one dimension, weight_bytes(format, rows, cols) long; any device, the work is done on the CPU
    dtype   float32, float64, float16 or bfloat16

    Returns (rows, cols) of ``dtype`` on the CPU, with the rounding that the format prescribes for that type.
    Raises ``TypeError`` for wrong element types and ``ValueError`` for sizes that do not fit.
    """
    fmt = check_shape(format, rows, cols)
    if data.dtype != torch.uint8:
        raise TypeError(f"data must be uint8, got {data.dtype}")
    if dtype not in _DTYPES:
        raise TypeError(f"dtype must be float32, float64, float16 or bfloat16, got {dtype}")
    blocks = rows * cols // fmt.elements
    if data.shape != (blocks * fmt.bytes,):
        raise ValueError(
            f"data must have shape ({blocks * fmt.bytes},) for {rows} by {cols} in {fmt.name}, got {tuple(data.shape)}"
        )
    data = data.detach().cpu().contiguous()
    sizes = dict(fmt.fields)
    places = field_offsets(fmt.name, blocks)
    out = torch.empty(blocks, fmt.elements, dtype=dtype)
    step = _CHUNK_ELEMENTS // fmt.elements
    for first in range(0, blocks, step):
        count = min(step, blocks - first)
        fields = {
            name: data.as_strided(
                (count, sizes[name]), (stride, 1), data.storage_offset() + offset + first * stride
            )
            for name, (offset, stride) in places.items()
        }
        out[first : first + count] = _DECODERS[fmt.name](fields, dtype)
    return out.view(rows, cols)
