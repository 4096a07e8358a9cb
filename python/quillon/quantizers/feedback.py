"""Quantization with error feedback: what rounding a column costs is made good by the columns that are still to come.

For second moments ``H`` of a layer's inputs, the mean squared error of an output is ``e H e^T`` for the errors ``e``
of its row. Blocks are taken in the order of the activations that meet them. Of each block the scales are chosen first,
for the weights as feedback has left them, and then its elements are rounded one by one, or eight by eight, each step's
error being passed on to all columns behind it. A sweep afterwards takes each element again with all others fixed.
"""

from __future__ import annotations

import logging
from collections.abc import Callable
from dataclasses import dataclass
from typing import TYPE_CHECKING

import torch
from torch import Tensor

from quillon._pieces import for_each_piece
from quillon.quantizers._rounding import Fields, Rounding, Scales, round_blocks
from quillon.quantizers._search import reciprocal
from quillon.quantizers.grid import GridRounding

if TYPE_CHECKING:
    from quillon.quantizers.moments import InputMoments

_logger = logging.getLogger("quillon.quantizers")

# Rows do not know of one another; a piece of them that is large keeps the calls few.
_PIECE_ROWS = 2048
# Columns whose errors are collected before they are passed on to all that follow.
_CHUNK = 32


@dataclass(frozen=True)
class Feedback:
    """What the second moments of a layer's inputs say of how its columns are taken.

    order    the columns in the order in which they are rounded: whole blocks
    upper    (columns, columns) in that order: row i over its diagonal element is what an error of column i adds to the
             columns behind it, with the sign turned
    moments  (columns, columns) in that order
    """

    order: Tensor
    upper: Tensor
    moments: Tensor


def prepare(moments: Tensor, damping: float, mixing: float, elements: int, unit: int) -> Feedback:
    """Order the columns, and factor the moments.

    moments   (columns, columns) float64, mean products of the inputs
    damping   this times the mean of the diagonal is added to the diagonal
    mixing    share of the diagonal that is mixed in: 0 leaves the moments, 1 keeps nothing else
    elements  of a block; ``unit`` of them are rounded together
    """
    diagonal = moments.diagonal()
    blocks = diagonal.view(-1, elements).sum(1).argsort(descending=True, stable=True)
    inside = diagonal.view(-1, elements // unit, unit).sum(2).argsort(dim=1, descending=True, stable=True)[blocks]
    order = (blocks[:, None] * (elements // unit) + inside).view(-1, 1) * unit + torch.arange(unit)
    order = order.view(-1)
    mixed = moments[order][:, order] * (1 - mixing)
    mixed.diagonal().add_(diagonal[order] * mixing + damping * diagonal.mean())
    # From H = M M^T with M upper triangular, which is the factor of H with rows and columns turned round.
    factor = torch.linalg.cholesky(mixed.flip(0, 1)).flip(0, 1)
    return Feedback(order, _inverse(factor).float(), mixed.float())


def _inverse(upper: Tensor) -> Tensor:
    """The inverse of an upper triangular matrix, by halves: a third of the work of solving for all columns of one."""
    size = len(upper)
    result = torch.zeros_like(upper)
    if size <= 128:
        result[:] = torch.linalg.solve_triangular(upper, torch.eye(size, dtype=upper.dtype), upper=True)
        return result
    first, last = slice(0, size // 2), slice(size // 2, size)
    result[first, first] = _inverse(upper[first, first])
    result[last, last] = _inverse(upper[last, last])
    result[first, last] = -(result[first, first] @ upper[first, last]) @ result[last, last]
    return result


class _Elements:
    """A block of some rows whose elements are rounded one by one. The loop over columns makes few and small calls."""

    unit = 1

    def __init__(self, rounding: Rounding, x: Tensor, w: Tensor) -> None:
        self._rounding = rounding
        self._levels = torch.empty_like(x)
        self._rows = self._levels.unbind(0)
        self._use(rounding.fit(x, w.expand_as(x)))

    def _use(self, scales: Scales) -> None:
        self._scales = scales
        size = len(self._levels) // len(scales.step)
        groups = [place // size for place in range(len(self._levels))]
        self._steps = [scales.step[group] for group in groups]
        inverse = reciprocal(scales.step)
        self._inverses = [inverse[group] for group in groups]
        self._offsets = None if scales.offset is None else [scales.offset[group] for group in groups]

    def round(self, place: int, y: Tensor, values: Tensor) -> None:
        """Round the column ``y`` (rows,) at ``place`` of the block, and write what it becomes to ``values``."""
        levels = self._rows[place]
        if self._offsets is None:
            torch.mul(y, self._inverses[place], out=levels)
        else:
            torch.sub(y, self._offsets[place], out=levels).mul_(self._inverses[place])
        found = self._rounding.nearest(levels)
        if found is not levels:
            levels.copy_(found)
        torch.mul(levels, self._steps[place], out=values)
        if self._offsets is not None:
            values.add_(self._offsets[place])

    def fit_again(self, at: list[int], pull: Tensor, moments: Tensor) -> Tensor | None:
        """Fit the scale to the levels, all other blocks fixed; what that adds to the columns at the places ``at``."""
        if self._rounding.store is None:
            return None
        step, offset = self._scales.step[0], self._scales.offset
        levels = self._levels[at]
        along, cost = (levels * pull).sum(0), moments @ levels
        own = (levels * cost).sum(0)
        if offset is None:
            fitted = self._rounding.store(step + along * reciprocal(own), None)
            more = fitted.step[0] - step
            saved = more * (2 * along - more * own)
            good = saved > 0
            self._use(Scales(torch.where(good, fitted.step, self._scales.step)))
            return levels * torch.where(good, more, 0)
        both, alone, sideways = cost.sum(0), moments.sum(), pull.sum(0)
        inverse = reciprocal(own * alone - both.square())
        fitted = self._rounding.store(
            step + (along * alone - sideways * both) * inverse, offset[0] + (sideways * own - along * both) * inverse
        )
        assert fitted.offset is not None
        more, shift = fitted.step[0] - step, fitted.offset[0] - offset[0]
        saved = 2 * (more * along + shift * sideways) - more.square() * own - shift.square() * alone
        good = saved - 2 * more * shift * both > 0
        self._use(Scales(torch.where(good, fitted.step, self._scales.step), torch.where(good, fitted.offset, offset)))
        return levels * torch.where(good, more, 0) + torch.where(good, shift, 0)

    def fields(self) -> Fields:
        """The bytes."""
        return self._rounding.pack(self._rounding.codes(self._levels).view(torch.uint8), self._scales)


class _Vectors:
    """A block of some rows whose elements are rounded eight at a time."""

    unit = 8

    def __init__(self, rounding: GridRounding, x: Tensor, w: Tensor) -> None:
        self._rounding, self._w = rounding, w
        self._scales, self._points, _ = rounding.search(x, w.expand_as(x).contiguous())

    def choose(self, place: int, y: Tensor) -> tuple[Tensor, Tensor]:
        """Values for the columns ``y`` (8, rows) from ``place`` of the block on, and what is stored of them."""
        w = self._w[place : place + 8].t().expand(y.shape[1], 8)
        values, points = self._rounding.choose(y.t(), w, self._scales, place // 32)
        return values.t(), points

    def keep(self, place: int, points: Tensor, where: Tensor | None = None) -> None:
        """Store what :meth:`choose` gave, in the rows ``where``."""
        old = self._points[place // 8]
        self._points[place // 8] = points if where is None else torch.where(where, points, old)

    def fields(self) -> Fields:
        """The bytes."""
        return self._rounding.pack(self._points, self._scales)


_Block = _Elements | _Vectors


def _block(rounding: Rounding | GridRounding, x: Tensor, w: Tensor) -> _Block:
    return _Elements(rounding, x, w) if isinstance(rounding, Rounding) else _Vectors(rounding, x, w)


def _pass_on(block: _Block, at: list[int], x: Tensor, upper: Tensor, final: Tensor, errors: Tensor) -> None:
    """Round the columns ``x`` at the places ``at`` of a block, each step's error passed on to those behind it here."""
    if isinstance(block, _Vectors):
        for i in range(0, len(x), 8):
            here, behind = slice(i, i + 8), slice(i + 8, None)
            values, points = block.choose(at[i], x[here])
            block.keep(at[i], points)
            final[here] = values
            errors[here] = torch.linalg.solve_triangular(upper[here, here].t(), x[here] - values, upper=False)
            x[behind].addmm_(upper[here, behind].t(), errors[here], alpha=-1)
        return
    rows = zip(at, x.unbind(0), upper.unbind(0), final.unbind(0), errors.unbind(0), strict=True)
    inverses = upper.diagonal().reciprocal().tolist()
    for i, (place, y, passed, values, error) in enumerate(rows):
        block.round(place, y, values)
        torch.sub(y, values, out=error).mul_(inverses[i])
        x[i + 1 :].addr_(passed[i + 1 :], error, alpha=-1)


def _take_again(block: _Block, at: list[int], pull: Tensor, moments: Tensor, final: Tensor, wrong: Tensor) -> None:
    """Round the columns at the places ``at`` of a block again, each with all others fixed."""
    if isinstance(block, _Vectors):
        for i in range(0, len(pull), 8):
            here = slice(i, i + 8)
            old, own = final[here], moments[here, here]
            values, points = block.choose(at[i], old + torch.linalg.solve(own, pull[here]))
            # The nearest point by each column's own weight need not be the best one of all.
            step = values - old
            better = (step * (own @ step - 2 * pull[here])).sum(0) < 0
            block.keep(at[i], points, better)
            step = step * better
            final[here] = torch.where(better, values, old)
            wrong[here] -= step
            pull.addmm_(moments[:, here], step, alpha=-1)
        return
    rows = zip(at, pull.unbind(0), moments.unbind(0), final.unbind(0), wrong.unbind(0), strict=True)
    inverses = moments.diagonal().reciprocal().tolist()
    step = torch.empty_like(final[0])
    for i, (place, pulled, shared, values, error) in enumerate(rows):
        best = torch.add(values, pulled, alpha=inverses[i])
        step.copy_(values)
        block.round(place, best, values)
        torch.sub(values, step, out=step)
        error.sub_(step)
        pull.addr_(shared, step, alpha=-1)


def _piece(
    x: Tensor, rounding: Rounding | GridRounding, feedback: Feedback, elements: int, sweeps: int
) -> tuple[list[_Block], Tensor]:
    """Round ``x`` (columns, rows), in the order of the feedback. Returns the blocks and values, in that order."""
    order, upper, moments = feedback.order, feedback.upper, feedback.moments
    columns = len(order)
    # What an error costs that the columns behind it have made good as far as they can.
    weights = upper.diagonal().double().pow(-2)
    weights = (weights / weights.max()).clamp_(min=1e-6).float()
    wrong = x.clone()
    errors, final = torch.empty_like(x), torch.empty_like(x)
    blocks: list[_Block] = []
    places = (order % elements).tolist()
    chunks = [(first, first + _CHUNK) for first in range(0, columns, _CHUNK)]
    for first, last in chunks:
        if first % elements == 0:
            natural = order[first : first + elements].argsort()
            part = slice(first, first + elements)
            blocks.append(_block(rounding, x[part][natural], weights[part][natural][:, None]))
        part = slice(first, last)
        _pass_on(blocks[-1], places[first:last], x[part], upper[part, part], final[part], errors[part])
        if last < columns:
            x[last:].addmm_(upper[part, last:].t(), errors[part], alpha=-1)
    wrong -= final
    for _ in range(sweeps):
        for number, block in enumerate(blocks):
            part = slice(number * elements, (number + 1) * elements)
            _sweep(block, places[part], moments[part] @ wrong, moments[part, part], final[part], wrong[part])
    return blocks, final


def _sweep(block: _Block, at: list[int], pull: Tensor, moments: Tensor, final: Tensor, wrong: Tensor) -> None:
    """Choose the scale of a block again, and its elements one by one, each time with all others fixed."""
    moved = block.fit_again(at, pull, moments) if isinstance(block, _Elements) else None
    if moved is not None:
        final += moved
        wrong -= moved
        pull.addmm_(moments, moved, alpha=-1)
    for first in range(0, len(at), _CHUNK):
        part, behind = slice(first, first + _CHUNK), slice(first + _CHUNK, None)
        before = final[part].clone()
        _take_again(block, at[part], pull[part], moments[part, part], final[part], wrong[part])
        pull[behind].addmm_(moments[behind, part], final[part] - before, alpha=-1)


def with_feedback(
    weight: Tensor,
    rounding: Rounding | GridRounding,
    elements: int,
    feedback: Feedback,
    *,
    sweeps: int = 1,
    store: Callable[[int, int, int, Fields], None] | None = None,
    advance: Callable[[int], None] = lambda _: None,
) -> Tensor:
    """Round a weight (rows, columns), and return its values, float32.

    ``store`` is given the number of a row's block, the first and the last of some rows, and the bytes of that block in
    these rows.
    """
    rows = weight.shape[0]
    result = torch.empty(weight.shape)

    def work(first: int, last: int) -> None:
        blocks, final = _piece(weight[first:last].float().t()[feedback.order], rounding, feedback, elements, sweeps)
        back = torch.empty_like(final)
        back[feedback.order] = final
        result[first:last] = back.t()
        if store is not None:
            for number, block in enumerate(blocks):
                store(int(feedback.order[number * elements]) // elements, first, last, block.fields())

    for_each_piece(rows, _PIECE_ROWS, work, advance)
    return result


# Damping, and shares of the diagonal that are tried on the held-out part of a text as long as more of it is better: the
# less text there is for a column, the more is right.
_DAMPING = 0.1
_SHARES = (0.02, 0.1, 0.3)
_SAMPLE_ROWS = 96


def sample_rows(rows: int) -> Tensor:
    """The numbers of some rows, evenly spread, by which a whole weight is judged."""
    return torch.arange(0, rows, max(1, rows // _SAMPLE_ROWS))


def _by_importance(x: Tensor, rounding: Rounding | GridRounding, importance: Tensor, elements: int) -> Tensor:
    """The values of the plain quantizer for rows ``x``."""
    parts = x.view(-1, elements).t().contiguous()
    w = importance.view(-1, elements).repeat(len(x), 1).t().contiguous()
    values = round_blocks(rounding, parts, w) if isinstance(rounding, Rounding) else rounding.search(parts, w)[2]
    return values.t().reshape(x.shape)


def chosen_feedback(
    weight: Tensor, rounding: Rounding | GridRounding, elements: int, moments: InputMoments
) -> Feedback | None:
    """The feedback that serves a weight best, by a sample of its rows; None where importance alone serves it better.

    What is fitted to one part of the text is judged by the mean squared error of the outputs on the held-out part.
    """
    unit = 1 if isinstance(rounding, Rounding) else 8
    if min(moments.tokens) == 0 or not bool((moments.fitted.diagonal() > 0).any()):
        return None
    rows = sample_rows(len(weight))
    sample, fitted, held = weight[rows].float(), moments.mean("fitted"), moments.mean("held")
    importance = (fitted.diagonal() / fitted.diagonal().max()).clamp(min=1e-6).float()

    def error(values: Tensor) -> float:
        wrong = (sample - values).double()
        return float((wrong @ held).mul_(wrong).sum())

    best, lowest = None, error(_by_importance(sample, rounding, importance, elements))
    last = torch.inf
    for share in _SHARES:
        feedback = moments.feedback("fitted", _DAMPING, share, elements, unit)
        found = error(with_feedback(sample, rounding, elements, feedback, sweeps=0))
        if found >= last:
            break
        last = found
        if found < lowest:
            best, lowest = share, found
    _logger.debug("%g of the diagonal mixed in", 1.0 if best is None else best)
    return None if best is None else moments.feedback("all", _DAMPING, best, elements, unit)
