"""Grid formats: eight neighbouring weights are one point of a fixed table.

Here a piece is row-major, (blocks, 8 groups, 4 vectors, 8 positions): a group of 32 shares a scale, and a
vector's distances to all grid points are one row of a matrix product.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from functools import cache

import torch
from torch import Tensor

from quillon.quantizers._rounding import Fields, Scales
from quillon.quantizers._search import (
    CodeBook,
    half_bytes,
    reciprocal,
    search_scale,
    to_half,
    to_nonzero_half,
)
from quillon.tables import iq1s_grid, iq2xxs_grid, ksigns_iq2xs

# Scores of this many vectors and points at a time, so that they stay in the cache.
_SCORES = 1 << 20


def nearest_points(y: Tensor, w: Tensor | None, grid: Tensor) -> Tensor:
    """Index (vectors,) of the grid point nearest to each row of ``y`` (vectors, 8), weighted by ``w``."""
    # |y - g|^2 = |y|^2 - 2 (y g - g^2 / 2): the last column or half of the product holds the g^2 terms.
    if w is None:
        left = torch.nn.functional.pad(y, (0, 1), value=1.0)
        right = torch.cat((grid, -0.5 * grid.square().sum(1, keepdim=True)), dim=1).t().contiguous()
    else:
        left = torch.cat((w * y, w), dim=1)
        right = torch.cat((grid, -0.5 * grid.square()), dim=1).t().contiguous()
    points, per_bin = grid.shape[0], 64
    index = torch.empty(len(y), dtype=torch.int64)
    step = max(1, _SCORES // points)
    for first in range(0, len(y), step):
        scores = (left[first : first + step] @ right).view(-1, points // per_bin, per_bin)
        # The plain maximum is vectorised and its index is not: find the bin first, then the place in it.
        best_bin = scores.amax(2).argmax(1)
        inside = scores[torch.arange(len(scores)), best_bin].argmax(1)
        index[first : first + step] = best_bin * per_bin + inside
    return index


def _vectors(x: Tensor) -> Tensor:
    """Element-major (256, blocks) to (blocks, 8, 4, 8)."""
    return x.t().contiguous().view(-1, 8, 4, 8)


def _elements(values: Tensor, d: Tensor) -> Tensor:
    """Values at d = 1 (blocks, 8, 4, 8) to those at d, element-major (256, blocks)."""
    return (values.view(-1, 256) * d[:, None]).t()


def _group_sum(*factors: Tensor | None) -> Tensor:
    """Sum of a product over each group of 32: (blocks, 8)."""
    present = [f for f in factors if f is not None]
    product = present[0]
    for factor in present[1:]:
        product = product * factor
    return product.sum((2, 3))


class _Best:
    """The best (scale index, choice, values) of each group among the candidates seen so far."""

    def __init__(self) -> None:
        self.error: Tensor | None = None
        self.fields: list[Tensor] = []

    def offer(self, error: Tensor, *fields: Tensor) -> None:
        if self.error is None:
            self.error, self.fields = error, list(fields)
            return
        better = error < self.error
        self.error = torch.minimum(error, self.error)
        self.fields = [
            torch.where(better.view(better.shape + (1,) * (new.dim() - 2)), new, old)
            for new, old in zip(fields, self.fields, strict=True)
        ]

    def total(self) -> Tensor:
        """Error of each super-block, (blocks,)."""
        assert self.error is not None
        return self.error.sum(1)


def _fit_and_refit(
    start: Tensor, x: Tensor, w: Tensor | None, encode: Callable[[Tensor], _Best], rounds: int
) -> tuple[Tensor, list[Tensor]]:
    """Alternate between the super-block's half and the choice of everything else.

    ``start`` (blocks,) is the first half. ``encode`` chooses for given halves; its last field is the values
    at d = 1. Returns the halves and the chosen fields of the best round of each super-block.
    """
    d = to_nonzero_half(start)
    found = encode(d)
    best_error, best_fields = found.total(), found.fields

    def fitted(unit: Tensor) -> Tensor:
        return to_half(_group_sum(unit, x, w).sum(1) * reciprocal(_group_sum(unit, unit, w).sum(1)))

    for _ in range(rounds):
        found = encode(fitted(found.fields[-1]))
        better = found.total() < best_error
        best_error = torch.minimum(found.total(), best_error)
        best_fields = [
            torch.where(better.view((-1,) + (1,) * (new.dim() - 1)), new, old)
            for new, old in zip(found.fields, best_fields, strict=True)
        ]
    return fitted(best_fields[-1]), best_fields


@dataclass(frozen=True)
class GridRounding:
    """The steps of a format whose elements are rounded eight at a time.

    search  a piece and its importance -> scales, what is stored of each vector, int64 (32, blocks), and the values
    choose  vectors (blocks, 8) of a group of 32, their importance -> values (blocks, 8), what is stored (blocks,)
    pack    what is stored of the vectors, and scales -> bytes
    """

    search: Callable[[Tensor, Tensor | None], tuple[Scales, Tensor, Tensor]]
    choose: Callable[[Tensor, Tensor | None, Scales, int], tuple[Tensor, Tensor]]
    pack: Callable[[Tensor, Scales], Fields]


# iq2_xxs --------------------------------------------------------------------------------------------------

_IQ2_LEVELS = (8.0, 25.0, 43.0)
_IQ2_FACTORS = tuple(1.0 / (16.0 + 3.0 * i) for i in range(14))


@cache
def _iq2_book() -> CodeBook:
    return CodeBook(dict(enumerate(_IQ2_LEVELS)))


def _even_signs(x: Tensor, w: Tensor | None) -> Tensor:
    """Signs +1 and -1 (..., 8) with an even number of -1: if it is odd, the cheapest element turns."""
    signs = torch.where(x < 0, -1.0, 1.0).float()
    odd = signs.prod(-1, keepdim=True) < 0
    cost = x.abs() if w is None else x.abs() * w
    cheapest = cost.argmin(-1, keepdim=True)
    turned = torch.where(odd, -signs.gather(-1, cheapest), signs.gather(-1, cheapest))
    return signs.scatter(-1, cheapest, turned)


def _iq2_search(x: Tensor, w: Tensor | None) -> tuple[Scales, Tensor, Tensor]:
    """Value = sign * ((scale + 0.5) * d) * 0.25 * grid; each 8 elements have an even number of minuses."""
    groups = x.view(8, 32, -1).transpose(0, 1)
    group_w = None if w is None else w.view(8, 32, -1).transpose(0, 1)
    magnitude = groups.abs()
    target = search_scale(magnitude, group_w, _iq2_book().nearest, magnitude.amax(0), _IQ2_FACTORS).t()

    x = _vectors(x)
    w = None if w is None else _vectors(w)
    flat_w = None if w is None else w.reshape(-1, 8)
    grid = iq2xxs_grid()
    signs = _even_signs(x, w)
    signed = x * signs

    def encode(d: Tensor) -> _Best:
        found = _Best()
        middle = (target * 4 * reciprocal(d)[:, None] - 0.5).round_()
        for step in (0, 1, -1, 2, -2):
            scale = (middle + step).clamp_(0, 15)
            unit = (scale + 0.5) * 0.25
            y = signed * reciprocal(unit * d[:, None])[:, :, None, None]
            index = nearest_points(y.view(-1, 8), flat_w, grid)
            values = grid[index].view_as(x) * signs * unit[:, :, None, None]
            residual = x - values * d[:, None, None, None]
            found.offer(_group_sum(residual, residual, w), scale, index.view(-1, 8, 4), values)
        return found

    d, (scale, index, values) = _fit_and_refit(target.amax(1) * (4 / 15.5), x, w, encode, rounds=1)
    step = ((scale + 0.5) * d[:, None] * 0.25).t().contiguous()
    points = (index | _sign_patterns(signs) << 8).view(-1, 32).t()
    return Scales(step, None, (d, scale.to(torch.int64))), points, _elements(values, d)


def _sign_patterns(signs: Tensor) -> Tensor:
    """The seven bits that are stored of signs (..., 8)."""
    negative = (signs < 0).to(torch.int64)
    patterns = (negative[..., :7] << torch.arange(7)).sum(-1)
    assert bool((ksigns_iq2xs()[patterns] >> 7 == negative[..., 7]).all())
    return patterns


def _iq2_choose(y: Tensor, w: Tensor | None, scales: Scales, group: int) -> tuple[Tensor, Tensor]:
    grid = iq2xxs_grid()
    step = scales.step[group][:, None]
    signs = _even_signs(y, w)
    index = nearest_points(y * signs * reciprocal(step), w, grid)
    return grid[index] * signs * step, index | _sign_patterns(signs) << 8


def _iq2_pack(points: Tensor, scales: Scales) -> Fields:
    d, scale = scales.stored
    points = points.t().reshape(-1, 8, 4)
    word = scale << 28 | (points >> 8 << torch.arange(0, 28, 7)).sum(-1)
    word_bytes = word[..., None] >> torch.arange(0, 32, 8) & 255
    qs = torch.cat((points & 255, word_bytes), dim=2).to(torch.uint8)
    return {"d": half_bytes(d), "qs": qs.view(-1, 64)}


iq2_xxs = GridRounding(_iq2_search, _iq2_choose, _iq2_pack)


# iq1_s ----------------------------------------------------------------------------------------------------

_IQ1_SHIFTS = (-0.875, -1.125)
_IQ1_FACTORS = tuple(0.6 + 0.1 * i for i in range(15))


@cache
def _iq1_books() -> tuple[CodeBook, ...]:
    return tuple(CodeBook({q: q + shift for q in range(3)}) for shift in _IQ1_SHIFTS)


def _iq1_search(x: Tensor, w: Tensor | None) -> tuple[Scales, Tensor, Tensor]:
    """Value = d * (2 scale + 1) * (shift + grid), with one shift of two for a group."""
    groups = x.view(8, 32, -1).transpose(0, 1).contiguous()
    group_w = None if w is None else w.view(8, 32, -1).transpose(0, 1).contiguous()
    spread = groups.square().mean(0).sqrt()
    # Both shifts give nearly the same scale; the grid decides between them later.
    target = (
        torch.stack(
            [search_scale(groups, group_w, book.nearest, spread, _IQ1_FACTORS).clamp_(min=0) for book in _iq1_books()]
        )
        .mean(0)
        .t()
    )

    x = _vectors(x)
    w = None if w is None else _vectors(w)
    flat_w = None if w is None else w.reshape(-1, 8)
    grid = iq1s_grid()

    def encode(d: Tensor) -> _Best:
        found = _Best()
        middle = ((target * reciprocal(d)[:, None] - 1) / 2).round_()
        for step in (0, 1, -1):
            scale = (middle + step).clamp_(0, 7)
            unit = 2 * scale + 1
            quotient = x * reciprocal(unit * d[:, None])[:, :, None, None]
            for bit, shift in enumerate(_IQ1_SHIFTS):
                index = nearest_points((quotient - shift).view(-1, 8), flat_w, grid)
                values = (grid[index] + shift).view_as(x) * unit[:, :, None, None]
                residual = x - values * d[:, None, None, None]
                bits = torch.full_like(scale, bit)
                found.offer(_group_sum(residual, residual, w), scale, bits, index.view(-1, 8, 4), values)
        return found

    d, (scale, bits, index, values) = _fit_and_refit(target.amax(1) / 14, x, w, encode, rounds=0)
    step = (d[:, None] * (2 * scale + 1)).t().contiguous()
    stored = d, scale.to(torch.int64), bits.to(torch.int64)
    return Scales(step, None, stored), index.view(-1, 32).t(), _elements(values, d)


def _iq1_choose(y: Tensor, w: Tensor | None, scales: Scales, group: int) -> tuple[Tensor, Tensor]:
    grid = iq1s_grid()
    step = scales.step[group][:, None]
    shift = torch.tensor(_IQ1_SHIFTS)[scales.stored[2][:, group]][:, None]
    index = nearest_points(y * reciprocal(step) - shift, w, grid)
    return (grid[index] + shift) * step, index


def _iq1_pack(points: Tensor, scales: Scales) -> Fields:
    d, scale, bits = scales.stored
    index = points.t().reshape(-1, 8, 4)
    word = (index >> 8 << torch.arange(0, 12, 3)).sum(-1) | scale << 12 | bits << 15
    return {
        "d": half_bytes(d),
        "qs": (index & 255).to(torch.uint8).view(-1, 32),
        "qh": torch.stack((word & 255, word >> 8), dim=2).view(-1, 16).to(torch.uint8),
    }


iq1_s = GridRounding(_iq1_search, _iq1_choose, _iq1_pack)
