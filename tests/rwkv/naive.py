"""The recurrences step by step, in numpy, with a bound of the error that float arithmetic makes.

`Tracked` is a value in float64 and how far its twin in float may be from it. An operation of two such values adds what
its own rounding can make; fused operations have one rounding less and keep within the bound.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

Array = NDArray[Any]

FLOAT = 2.0**-24
HALF = 2.0**-11
SMALLEST = 2.0**-149

# What exp adds, relative to its result: two units in the last place; and a CPU device's native exp, which is that of
# work-items (QUILLON_HOST_BACKING=items).
EXACT_EXP = 2.0**-22
NATIVE_EXP = 5e-4


@dataclass
class Tracked:
    """Values, and for each a bound of the error of its twin in float."""

    x: Array
    error: Array

    @classmethod
    def of(cls, values: Array) -> Tracked:
        return cls(values.astype(np.float64), np.zeros(values.shape))

    @classmethod
    def _rounded(cls, x: Array, error: Array) -> Tracked:
        return cls(x, error + FLOAT * (np.abs(x) + error) + SMALLEST)

    def __add__(self, other: Tracked) -> Tracked:
        return self._rounded(self.x + other.x, self.error + other.error)

    def __sub__(self, other: Tracked) -> Tracked:
        return self._rounded(self.x - other.x, self.error + other.error)

    def __mul__(self, other: Tracked) -> Tracked:
        error = np.abs(self.x) * other.error + self.error * (np.abs(other.x) + other.error)
        return self._rounded(self.x * other.x, error)

    def __truediv__(self, other: Tracked) -> Tracked:
        least = np.abs(other.x) - other.error
        assert (least > 0).all()
        x = self.x / other.x
        return self._rounded(x, (self.error + np.abs(x) * other.error) / least)

    def larger(self, other: Tracked) -> Tracked:
        """The larger one, with its error alone where no error can have made it the smaller one."""
        first = self.x > other.x
        sure = np.abs(self.x - other.x) > self.error + other.error
        own = np.where(first, self.error, other.error)
        return Tracked(np.where(first, self.x, other.x), np.where(sure, own, np.maximum(self.error, other.error)))

    def exp(self, relative: float) -> Tracked:
        """Of numbers that are at most 0, those of the twin too."""
        x = np.exp(self.x)
        most, least = np.exp(np.minimum(self.x + self.error, 0)), np.exp(self.x - self.error)
        return Tracked(x, np.maximum(most * (1 + relative) - x, x - least * (1 - relative)) + SMALLEST)

    def __getitem__(self, index: Any) -> Tracked:
        return Tracked(self.x[index], self.error[index])


def stacked(parts: list[Tracked], axis: int) -> Tracked:
    return Tracked(np.stack([one.x for one in parts], axis), np.stack([one.error for one in parts], axis))


def within(given: Array, reference: Tracked, roundoff: float = 0.0) -> bool:
    """Whether every value keeps to its bound, after a last rounding to another type. A NaN does not."""
    error = reference.error + roundoff * (np.abs(reference.x) + reference.error)
    return bool((np.abs(given.astype(np.float64) - reference.x) <= error).all())


def attention_v4(
    time_decay: Array, time_first: Array, key: Array, value: Array, states: tuple[Array, Array, Array], exp: float
) -> tuple[Tracked, tuple[Tracked, Tracked, Tracked]]:
    """Output (B, T, C) and the states behind it; `exp` is the relative error of an exp."""
    decay, bonus = Tracked.of(time_decay), Tracked.of(time_first)
    num, den, top = (Tracked.of(state) for state in states)
    outputs = []
    for step in range(key.shape[1]):
        k, v = Tracked.of(key[:, step]), Tracked.of(value[:, step])
        with_bonus = bonus + k
        largest = top.larger(with_bonus)
        past, present = (top - largest).exp(exp), (with_bonus - largest).exp(exp)
        outputs.append((past * num + present * v) / (past * den + present))
        decayed = top + decay
        top = decayed.larger(k)
        past, present = (decayed - top).exp(exp), (k - top).exp(exp)
        num, den = past * num + present * v, past * den + present
    return stacked(outputs, 1), (num, den, top)


def attention_v4_in_float(
    time_decay: Array, time_first: Array, key: Array, value: Array, states: tuple[Array, Array, Array]
) -> tuple[Array, ...]:
    """The same in float throughout, for what is not a number or has no bound."""
    w, u, k, v = (one.astype(np.float32) for one in (time_decay, time_first, key, value))
    num, den, top = (state.astype(np.float32) for state in states)
    output = np.empty_like(k)
    with np.errstate(all="ignore"):
        for step in range(k.shape[1]):
            with_bonus = u + k[:, step]
            largest = np.where(top > with_bonus, top, with_bonus)
            past, present = np.exp(top - largest), np.exp(with_bonus - largest)
            output[:, step] = (past * num + present * v[:, step]) / (past * den + present)
            decayed = top + w
            top = np.where(decayed > k[:, step], decayed, k[:, step])
            past, present = np.exp(decayed - top), np.exp(k[:, step] - top)
            num, den = past * num + present * v[:, step], past * den + present
    return output, num, den, top


def attention_v5(
    time_decay: Array, time_first: Array, receptance: Array, key: Array, value: Array, state: Array
) -> tuple[Tracked, Tracked]:
    """Output (B, T, H, 64) and the state behind it; inputs (B, H, T, 64)."""
    decay, bonus = (Tracked.of(one)[:, :, None] for one in (time_decay, time_first))
    r, k, v, s = (Tracked.of(one) for one in (receptance, key, value, state))
    outputs = []
    for step in range(key.shape[2]):
        product = k[:, :, step, :, None] * v[:, :, step, None, :]
        terms = r[:, :, step, :, None] * (bonus * product + s)
        total = terms[:, :, 0]
        for j in range(1, terms.x.shape[2]):
            total = total + terms[:, :, j]
        outputs.append(total)
        s = product + decay * s
    return stacked(outputs, 1), s


def fused(a: Array, b: Array, c: Array) -> Array:
    """Multiply and add floats, rounding once: the product is exact in float64."""
    return (a.astype(np.float64) * b.astype(np.float64) + c.astype(np.float64)).astype(np.float32)


def attention_v5_bits(
    time_decay: Array, time_first: Array, receptance: Array, key: Array, value: Array, state: Array
) -> tuple[Array, Array]:
    """The bits of the kernel on a host device, where each product that is added to something is fused with it."""
    decay, bonus = time_decay[:, :, None], time_first[:, :, None]
    outputs = []
    for step in range(key.shape[2]):
        product = key[:, :, step, :, None] * value[:, :, step, None, :]
        inner = fused(bonus, product, state)
        total = np.zeros_like(inner[:, :, 0])
        for j in range(inner.shape[2]):
            total = fused(receptance[:, :, step, j, None], inner[:, :, j], total)
        outputs.append(total)
        state = fused(decay, state, product)
    return np.stack(outputs, 1), state
