"""Rows of the grid tables as the formats define them, for the independent decoders.

The rows of both grids are data, not rules, so there is one copy of them, in the C++ headers; what can be told
about them without the data is asserted in test_tables.py. The headers are read as text, so that nothing of
the compiled tables is trusted.
"""

from __future__ import annotations

import functools
import re
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

_HEADERS = Path(__file__).resolve().parents[2] / "csrc" / "formats"


def _words(header: str, digits: int) -> list[int]:
    text = (_HEADERS / header).read_text()
    return [int(word, 16) for word in re.findall(rf"\b0x([0-9A-Fa-f]{{{digits}}})\b", text)]


@functools.cache
def iq2xxs_words() -> NDArray[np.uint64]:
    return np.array(_words("iq2xxs_grid.h", 16), np.uint64)


@functools.cache
def iq1s_words() -> NDArray[np.uint32]:
    return np.array(_words("iq1s_grid.h", 8), np.uint32)


@functools.cache
def iq2xxs_rows() -> NDArray[np.uint8]:
    """256 rows of eight magnitudes: byte p of the word is position p."""
    words = iq2xxs_words()
    return np.stack([(words >> np.uint64(8 * p)).astype(np.uint8) for p in range(8)], axis=1)


@functools.cache
def iq1s_rows() -> NDArray[np.uint8]:
    """2048 rows of eight values: low nibbles of the four bytes first, then the high nibbles."""
    words = iq1s_words()
    shifts = [8 * p for p in range(4)] + [8 * p + 4 for p in range(4)]
    return np.stack([((words >> np.uint32(s)) & 15).astype(np.uint8) for s in shifts], axis=1)
