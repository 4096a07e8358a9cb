"""Formats as the C++ registry has them; written by the build."""

from typing import Literal

FORMATS: tuple[tuple[int, str, int, Literal["regions", "records"], tuple[tuple[str, int], ...], bool], ...]
"""Code, name, elements per block, storage, (field, bytes per block) in storage order, and whether weights have it."""

MAX_ELEMENTS: int
"""Offsets inside a weight are formed from a 32-bit count, so larger matrices cannot be addressed."""
