"""The product on a matrix engine in numpy, rounded where it rounds: an interval that holds what any engine may give.

Only the order of the products of one block is an engine's own. What that leaves open is a few units in the last place
of a float; the partial tiles are then rounded to sixteen bits, which makes most intervals a single value.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from formats.decoders import FORMATS, Array, bfloat16_round, read, split

K_SPLIT = 8
BLOCK = 64
UNIT = 2.0**-24  # half the distance of floats behind 1

# Element type of activations: that of operands, partial tiles and their sum.
ROUNDED = {"float32": "float16", "float16": "float16", "bfloat16": "bfloat16"}


@dataclass(frozen=True)
class Rules:
    """What a fault may change."""

    reader: str
    scaled: bool = True
    rounds_partial_tiles: bool = True
    backwards: bool = False
    interleaved_shares: bool = False


def rounded(x: Array, dtype: str) -> Array:
    """To sixteen bits, in float64."""
    with np.errstate(over="ignore"):
        if dtype == "bfloat16":
            return bfloat16_round(x.astype(np.float32)).astype(np.float64)
        return x.astype(np.float16).astype(np.float64)


def operands(name: str, weight: Array, dtype: str, reader: str) -> Array:
    """Blocks of unscaled values, in float64."""
    bits = read(reader, split(FORMATS[name], weight), dtype)
    if dtype == "bfloat16":
        return (bits.astype(np.uint32) << 16).view(np.float32).astype(np.float64).reshape(-1, BLOCK)
    return bits.view(np.float16).astype(np.float64).reshape(-1, BLOCK)


def multiply(name: str, weight: Array, x: Array, dtype: str, rules: Rules | None = None) -> tuple[Array, Array]:
    """Least and largest result for each activation row and column; ``x`` has the values of activations of ``dtype``."""
    rules = rules or Rules(f"operand_{name}")
    kind = ROUNDED[dtype]
    batch, k = x.shape
    blocks = k // BLOCK
    left = rounded(x.astype(np.float64), kind).reshape(batch, blocks, BLOCK)
    right = operands(name, weight, kind, rules.reader).reshape(-1, blocks, BLOCK)
    scales = split(FORMATS[name], weight)["d"].astype(np.float64).reshape(-1, blocks)
    if not rules.scaled:
        scales = np.ones_like(scales)
    products = np.einsum("bkj,nkj->kbn", left, right)
    sizes = np.einsum("bkj,nkj->kbn", np.abs(left), np.abs(right))

    share = -(-blocks // K_SPLIT)
    shares = [range(min(blocks, t * share), min(blocks, (t + 1) * share)) for t in range(K_SPLIT)]
    if rules.interleaved_shares:
        shares = [range(t, blocks, K_SPLIT) for t in range(K_SPLIT)]
    low = high = np.zeros(products.shape[1:])
    for blocks_of_item in reversed(shares) if rules.backwards else shares:
        total = error = np.zeros_like(low)
        for block in blocks_of_item:
            scale = scales[:, block]
            term = products[block] * scale
            total = total + term
            # 64 additions, the product with the scale, the addition to the total.
            error = error + UNIT * (65 * sizes[block] * np.abs(scale) + np.abs(term) + np.abs(total) + error)
        least, most = total - 1.001 * error, total + 1.001 * error
        if rules.rounds_partial_tiles:
            least, most = rounded(least, kind), rounded(most, kind)
        low, high = rounded(added(low, least, kind), kind), rounded(added(high, most, kind), kind)
    return low, high


def added(a: Array, b: Array, dtype: str) -> Array:
    """bfloat16 is added in float, of which the sum may not be a value."""
    if dtype == "bfloat16":
        return (a.astype(np.float32) + b.astype(np.float32)).astype(np.float64)
    return a + b
