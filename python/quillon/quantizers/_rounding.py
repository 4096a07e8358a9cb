"""What a quantizer does, in three steps: it chooses the scales of blocks, rounds to their levels, and lays out bytes.

Pieces are element-major, (elements of a block, blocks), as in :mod:`quillon.quantizers._search`. An element's value is
``step * level + offset``, with the step and the offset of its sub-block.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import torch
from torch import Tensor

from quillon.quantizers._search import Nearest, reciprocal

Fields = dict[str, Tensor]
"""Name of a field -> its bytes, uint8 (blocks, bytes of the field)."""


@dataclass(frozen=True)
class Scales:
    """The scales of some blocks.

    step, offset  (sub-blocks, blocks) float32, as a reader forms them of what is stored; offset None for zero
    stored        what else the bytes are made of
    """

    step: Tensor
    offset: Tensor | None = None
    stored: tuple[Tensor, ...] = ()


Pack = Callable[[Tensor, Scales], Fields]


@dataclass(frozen=True)
class Rounding:
    """The three steps of a format whose elements are rounded one by one.

    fit      a piece and its importance -> scales
    nearest  quotients -> levels; may overwrite its argument
    codes    levels -> codes, uint8; may overwrite its argument
    pack     codes and scales -> bytes
    store    a step and an offset for each block (blocks,) -> scales; None where scales are more than that
    """

    fit: Callable[[Tensor, Tensor | None], Scales]
    nearest: Nearest
    codes: Callable[[Tensor], Tensor]
    pack: Pack
    store: Callable[[Tensor, Tensor | None], Scales] | None = None


def _levels(rounding: Rounding, x: Tensor, scales: Scales) -> Tensor:
    """The level of each element's nearest value, (sub-blocks, elements of one, blocks)."""
    groups = x.view(scales.step.shape[0], -1, x.shape[1])
    quotients = groups if scales.offset is None else groups - scales.offset[:, None]
    return rounding.nearest(quotients * reciprocal(scales.step)[:, None])


def quantize_blocks(rounding: Rounding, x: Tensor, w: Tensor | None) -> Fields:
    """Each element of a piece to its own nearest level."""
    scales = rounding.fit(x, w)
    codes = rounding.codes(_levels(rounding, x, scales))
    return rounding.pack(codes.view(torch.uint8).view(x.shape), scales)


def round_blocks(rounding: Rounding, x: Tensor, w: Tensor | None) -> Tensor:
    """The values that :func:`quantize_blocks` stands for."""
    scales = rounding.fit(x, w)
    values = _levels(rounding, x, scales).mul_(scales.step[:, None])
    return (values if scales.offset is None else values.add_(scales.offset[:, None])).view(x.shape)
