"""What the matrix-vector kernels have to compute, in numpy, from the storage rules and the order of operations.

One text, `multiply`, walks through a kernel's operations in their order, in one of two kinds of number:

`Rounded`   every product and sum is rounded to the element type: the answer of a kernel that fuses nothing
`Tracked`   close to exact, with a bound of the error that the roundings up to here can have made

A kernel may fuse a product and the sum behind it, which saves a rounding. Where products are exact, and in bfloat16,
whose operations cannot be fused, it must give the bits of `Rounded`; elsewhere it must keep within the bound.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import TypeVar

import numpy as np
from formats.decoders import (
    Arithmetic,
    Array,
    Fields,
    codes_fp6,
    codes_nf3,
    codes_nf4,
    codes_q4_0_woq,
    codes_q5,
    codes_split_nibbles,
    values_fp4,
    values_fp6,
    values_fp8_e4m3,
    values_fp8_e5m2,
    values_nf3,
    values_nf4,
)

BLOCK = 64

# Unit roundoff of each element type, and half the distance of its subnormals.
ROUNDOFF = {"float32": 2.0**-24, "float64": 2.0**-53, "float16": 2.0**-11, "bfloat16": 2.0**-8}
UNDERFLOW = {"float32": 2.0**-150, "float64": 0.0, "float16": 2.0**-25, "bfloat16": 2.0**-134}


# ---- numbers -----------------------------------------------------------------------------------------------


@dataclass
class Rounded:
    """Values of an element type; bfloat16 is carried as float32."""

    dtype: str
    x: Array

    @classmethod
    def of(cls, dtype: str, values: Array) -> Rounded:
        """Convert values that float32 holds, or for float64 any."""
        wide = dtype == "float64" and values.dtype == np.float64
        return cls(dtype, values if wide else Arithmetic(dtype).cast(values))

    def __add__(self, other: Rounded) -> Rounded:
        return Rounded(self.dtype, Arithmetic(self.dtype).add(self.x, other.x))

    def __mul__(self, other: Rounded) -> Rounded:
        return Rounded(self.dtype, Arithmetic(self.dtype).mul(self.x, other.x))

    def __getitem__(self, index: object) -> Rounded:
        return Rounded(self.dtype, self.x[index])

    def where(self, mask: Array, other: Rounded) -> Rounded:
        return Rounded(self.dtype, np.where(mask, self.x, other.x))


@dataclass
class Tracked:
    """Values close to exact, and for each a bound of the error of its rounded twin."""

    dtype: str
    x: Array
    error: Array

    @classmethod
    def of(cls, dtype: str, values: Array) -> Tracked:
        exact = values.astype(np.longdouble)
        return cls(dtype, exact, np.abs(Rounded.of(dtype, values).x.astype(np.longdouble) - exact))

    def _settle(self, x: Array, error: Array, underflow: float) -> Tracked:
        return Tracked(self.dtype, x, error + ROUNDOFF[self.dtype] * (np.abs(x) + error) + underflow)

    def __add__(self, other: Tracked) -> Tracked:
        return self._settle(self.x + other.x, self.error + other.error, 0.0)  # no sum underflows

    def __mul__(self, other: Tracked) -> Tracked:
        error = np.abs(self.x) * other.error + self.error * (np.abs(other.x) + other.error)
        return self._settle(self.x * other.x, error, UNDERFLOW[self.dtype])

    def __getitem__(self, index: object) -> Tracked:
        return Tracked(self.dtype, self.x[index], self.error[index])

    def where(self, mask: Array, other: Tracked) -> Tracked:
        return Tracked(self.dtype, np.where(mask, self.x, other.x), np.where(mask, self.error, other.error))


Number = TypeVar("Number", Rounded, Tracked)


# ---- kernels -----------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Kernel:
    """The values of a kernel's codes, the order of its sums, and where scale and minimum come in."""

    format: str
    name: str  # without the prefix that all kernels have
    values: Callable[[Fields], Array]  # (blocks, 64), before the scale
    order: str  # "split", "neighbours", "lanes"; "bytes" for the kernels that take a byte for each work-item
    chunk: int
    sub_blk_h: int | None
    scaled: bool = True
    minimum: bool = False

    @property
    def elements(self) -> Array:
        """The element of a block at each place of the sums: shape (chunks of a block, chunk)."""
        c, i = np.mgrid[0 : BLOCK // self.chunk, 0 : self.chunk]
        places = {
            "split": 8 * c + i // 2 + 32 * (i % 2),
            "neighbours": self.chunk * c + i,
            "lanes": 16 * c + i // 4 * 4 + np.array([2, 3, 0, 1])[i % 4],
            "bytes": c + 32 * i,
        }
        return places[self.order]


def _integers(codes: Callable[[Fields], Array], bias: int) -> Callable[[Fields], Array]:
    return lambda fields: codes(fields).astype(np.int16) - bias


KERNELS = {
    kernel.format: kernel
    for kernel in (
        Kernel("q4_0", "q4_0_2x16", _integers(codes_split_nibbles, 8), "split", 16, 16),
        Kernel("q4_0_woq", "q4_0_woq_2x16", _integers(codes_q4_0_woq, 8), "neighbours", 16, 16),
        Kernel("q4_1", "q4_1_2x16", _integers(codes_split_nibbles, 0), "split", 16, 16, minimum=True),
        Kernel("nf4", "nf4_2x16", lambda f: values_nf4(codes_nf4(f)), "split", 16, 16),
        Kernel("fp4", "fp4_2x16", lambda f: values_fp4(codes_split_nibbles(f)), "split", 16, 16),
        Kernel("nf3", "nf3_2x16", lambda f: values_nf3(codes_nf3(f)), "neighbours", 16, 16),
        Kernel("fp6", "fp6_2x16", lambda f: values_fp6(codes_fp6(f)), "lanes", 16, 16),
        Kernel("q8_0", "q8_0_2x8", lambda f: f["qs"], "neighbours", 8, 8),
        Kernel("fp8_e4m3", "fp8_e4m3_2x8", lambda f: values_fp8_e4m3(f["qs"]), "neighbours", 8, 8),
        Kernel("fp8_e5m2", "fp8_e5m2_2x8", lambda f: values_fp8_e5m2(f["qs"]), "neighbours", 8, 8, scaled=False),
        Kernel("q5_0", "q5_0", _integers(codes_q5, 16), "bytes", 2, None),
        Kernel("q5_1", "q5_1", _integers(codes_q5, 0), "bytes", 2, None, minimum=True),
    )
}


def _left_to_right(terms: Number) -> Number:
    total = terms[..., 0]
    for i in range(1, terms.x.shape[-1]):
        total = total + terms[..., i]
    return total


def _shares(kernel: Kernel, number: type[Number], dtype: str, fields: Fields, x: Array, rows: int) -> Number:
    """What each chunk adds to each row: shape (rows, chunks of a row)."""
    blocks = len(x) // BLOCK
    places = kernel.elements

    def chunked(values: Array) -> Array:
        return values.reshape(-1, blocks, BLOCK)[:, :, places].reshape(-1, blocks * len(places), kernel.chunk)

    def of_block(name: str) -> Number:
        field = np.repeat(fields[name].reshape(rows, blocks), len(places), axis=1)
        return number.of(dtype, field)

    values, activations = kernel.values(fields), number.of(dtype, chunked(x))
    if kernel.order == "bytes":
        if kernel.minimum:
            d, m = of_block("d")[..., None], of_block("m")[..., None]
            weights = number.of(dtype, chunked(values)) * d + m
        else:  # the product of a half and five bits is exact; one rounding takes it to the element type
            weights = number.of(dtype, chunked(fields["d"].astype(np.float64) * values))
        return _left_to_right(weights * activations)
    total = _left_to_right(number.of(dtype, chunked(values)) * activations)
    if not kernel.scaled:
        return total
    if kernel.minimum:
        return total * of_block("d") + _left_to_right(activations) * of_block("m")
    return total * of_block("d")


def multiply(
    kernel: Kernel, number: type[Number], dtype: str, fields: Fields, x: Array, rows: int, wg_size: int
) -> Number:
    """Multiply one activation row, values of `dtype`, by a weight of `rows` rows: shape (rows,)."""
    shares = _shares(kernel, number, dtype, fields, x, rows)
    count = shares.x.shape[1]
    local = number.of(dtype, np.zeros((rows, wg_size), np.float32))
    for first in range(0, count, wg_size):
        chunks = np.minimum(first + np.arange(wg_size), count - 1)
        local = (local + shares[:, chunks]).where(first + np.arange(wg_size) < count, local)
    while local.x.shape[1] > 1:
        stride = local.x.shape[1] // 2
        local = local[:, :stride] + local[:, stride:]
    return local[:, 0]
