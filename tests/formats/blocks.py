"""Random blocks of GGUF files: every bit pattern of codes and scales, with finite halves."""

from __future__ import annotations

import numpy as np

HALVES = {"Q2_K": (80, 82), "Q4_K": (0, 2), "Q5_K": (0, 2), "Q6_K": (208,), "IQ2_XXS": (0,), "IQ1_S": (0,)}
"""By block type, where the halves of a block lie."""
BYTES = {"Q2_K": 84, "Q4_K": 144, "Q5_K": 176, "Q6_K": 210, "IQ2_XXS": 66, "IQ1_S": 50}


def random_blocks(kind: str, rows: int, cols: int, seed: int = 0, scale: float = 0.01) -> np.ndarray:
    """Blocks of a matrix, uint8 (rows, bytes of a row), the magnitude of its halves around ``scale``."""
    random = np.random.default_rng(seed)
    blocks = random.integers(0, 256, (rows * cols // 256, BYTES[kind]), dtype=np.uint8)
    for start in HALVES[kind]:
        halves = (scale * random.standard_normal((len(blocks), 1))).astype(np.float16)
        blocks[:, start : start + 2] = halves.view(np.uint8)
    return blocks.reshape(rows, -1)
