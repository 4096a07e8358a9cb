"""Quantizers: a dense weight matrix to the flat bytes of a storage format.

One module for each kind of format says how it rounds, of element-major pieces (elements of a block, blocks) in float32
with an importance of the same shape or None. Here weights are cut into pieces and the bytes laid out.
"""

from __future__ import annotations

import torch
from torch import Tensor

from quillon._modes import plain_modes
from quillon._pieces import for_each_piece
from quillon.formats import check_shape
from quillon.quantizers import codebook, grid, integer, superblock
from quillon.quantizers._layout import field_views
from quillon.quantizers._progress import Progress
from quillon.quantizers._rounding import Fields, Rounding, quantize_blocks
from quillon.quantizers.feedback import chosen_feedback, with_feedback
from quillon.quantizers.grid import GridRounding
from quillon.quantizers.moments import InputMoments

__all__ = ["InputMoments", "quantize"]

_ROUNDINGS: dict[str, Rounding | GridRounding] = {
    "q4_0": integer.q4_0,
    "q4_1": integer.q4_1,
    "q5_0": integer.q5_0,
    "q5_1": integer.q5_1,
    "q8_0": integer.q8_0,
    "q4_0_woq": integer.q4_0_woq,
    "nf4": codebook.nf4,
    "nf3": codebook.nf3,
    "fp4": codebook.fp4,
    "fp6": codebook.fp6,
    "fp8_e4m3": codebook.fp8_e4m3,
    "fp8_e5m2": codebook.fp8_e5m2,
    "q2_k": superblock.q2_k,
    "q4_k": superblock.q4_k,
    "q5_k": superblock.q5_k,
    "q6_k": superblock.q6_k,
    "fp6_k": superblock.fp6_k,
    "iq2_xxs": grid.iq2_xxs,
    "iq1_s": grid.iq1_s,
}

# The largest magnitude that a format takes: its scale is a half, or the squares of the search have to stay
# finite. The largest level of the six-bit small floats is below 1/128, and fp8_e5m2 has no scale at all.
_DEFAULT_REACH = 65504.0
_REACH = {"fp6": 479.0, "fp6_k": 479.0, "fp8_e5m2": 61440.0, "q8_0": 1e15, "fp8_e4m3": 1e15}

_DTYPES = (torch.float32, torch.float16, torch.bfloat16)

# A piece and the temporaries of a search stay in the second-level cache; larger ones run slower.
_PIECE_ELEMENTS = 1 << 16


def _check_importance(importance: Tensor, cols: int) -> Tensor:
    if importance.shape != (cols,):
        raise ValueError(f"importance must have shape ({cols},), one number per column, got {tuple(importance.shape)}")
    if not importance.is_floating_point():
        raise TypeError(f"importance must be a floating-point tensor, got {importance.dtype}")
    importance = importance.detach().to(device="cpu", dtype=torch.float64)
    if not bool(importance.isfinite().all()) or bool((importance < 0).any()) or not bool((importance > 0).any()):
        raise ValueError("importance must be finite and not negative, with at least one positive number")
    # A floor keeps blocks whose columns all count for nothing defined, without moving the others.
    importance = importance / importance.max()
    return importance.clamp_(min=1e-6).float()


def _fields(rounding: Rounding | GridRounding, x: Tensor, w: Tensor | None) -> Fields:
    if isinstance(rounding, Rounding):
        return quantize_blocks(rounding, x, w)
    scales, points, _ = rounding.search(x, w)
    return rounding.pack(points, scales)


@plain_modes()
def quantize(
    weight: Tensor,
    format: str | int,
    *,
    importance: Tensor | None = None,
    moments: InputMoments | None = None,
    progress: bool | None = None,
) -> Tensor:
    """Pack a dense weight into a storage format.

    weight      (rows, cols), float32, float16 or bfloat16, finite; cols a multiple of 64, or of 256 for the
                formats with super-blocks; fewer than 2**31 elements. Any device; the work is done on the CPU.
    format      a name or a code of :data:`quillon.formats.FORMATS`
    importance  (cols,), not negative: the weight of each column in the squared error that the search of
                scales minimises, for example the mean square of the activations that meet the column
    moments     of the layer's inputs, from :func:`quillon.calibrate`: errors of columns are made good by other columns,
                where that lowers the error of the outputs on the held-out part of the text; elsewhere the moments
                give the importance. In place of ``importance``
    progress    True: show progress on stderr, False: never, None: when stderr is a terminal and it takes long

    Returns uint8 (weight_bytes(format, rows, cols),) on the CPU. Deterministic. Raises ``TypeError`` for a
    wrong type, ``ValueError`` for a wrong shape, a value that is not finite, or an unknown format.
    """
    if not isinstance(weight, Tensor):
        raise TypeError(f"weight must be a tensor, got {type(weight).__name__}")
    if weight.layout != torch.strided or weight.is_nested:
        raise TypeError("weight must be a dense tensor, got a sparse or nested one")
    if weight.is_meta:
        raise ValueError("weight holds no data, being on the meta device")
    if weight.dtype not in _DTYPES:
        raise TypeError(f"weight must be float32, float16 or bfloat16, got {weight.dtype}")
    if weight.dim() != 2:
        raise ValueError(f"weight must have two dimensions (rows, cols), got shape {tuple(weight.shape)}")
    rows, cols = weight.shape
    fmt = check_shape(format, rows, cols)
    rounding = _ROUNDINGS[fmt.name]
    weight = weight.detach().cpu().contiguous()
    if moments is not None:
        if importance is not None:
            raise ValueError("importance and moments exclude one another; give the moments alone")
        if moments.columns != cols:
            raise ValueError(f"moments must be of inputs of {cols} columns, got {moments.columns}")
        if moments.usable():
            importance = moments.importance()
        else:
            moments = None
    column_weights = None if importance is None else _check_importance(importance, cols)

    blocks = rows * cols // fmt.elements
    data = torch.empty(blocks * fmt.bytes, dtype=torch.uint8)
    views = field_views(data, fmt, blocks)
    reach = _REACH.get(fmt.name, _DEFAULT_REACH)
    rows_per_piece = max(1, _PIECE_ELEMENTS // cols)

    def checked(first: int, last: int) -> Tensor:
        part = weight[first:last].float()
        if not bool(part.isfinite().all()):
            raise ValueError(f"weight must be finite; rows {first} to {last - 1} hold NaN or infinity")
        peak = float(part.abs().max())
        if peak > reach:
            raise ValueError(f"weight must be within +-{reach:g} for {fmt.name}, got a magnitude of {peak:g}")
        return part

    def pack(first: int, last: int) -> None:
        part = checked(first, last)
        x = part.view(-1, fmt.elements).t().contiguous()
        w = None
        if column_weights is not None:
            w = column_weights.view(-1, fmt.elements).repeat(last - first, 1).t().contiguous()
        start = first * cols // fmt.elements
        for name, field in _fields(rounding, x, w).items():
            views[name][start : start + x.shape[1]] = field

    def keep(block: int, first: int, last: int, fields: Fields) -> None:
        per_row = cols // fmt.elements
        for name, field in fields.items():
            views[name][first * per_row + block : last * per_row : per_row] = field

    bar = Progress(f"quantize {fmt.name}", rows, progress)
    if moments is not None:
        for first in range(0, rows, rows_per_piece):
            checked(first, min(first + rows_per_piece, rows))
        feedback = chosen_feedback(weight, rounding, fmt.elements, moments)
        if feedback is not None:
            with_feedback(weight, rounding, fmt.elements, feedback, store=keep, advance=bar.advance)
            bar.close()
            return data
    for_each_piece(rows, rows_per_piece, pack, bar.advance)
    bar.close()
    return data
