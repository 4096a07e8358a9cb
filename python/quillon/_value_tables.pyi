"""Constant tables of the formats as the C++ headers have them; written by the build."""

IQ2XXS_GRID: tuple[int, ...]
"""256 words of eight bytes, one byte for each position, the first in the lowest."""

IQ1S_GRID: tuple[int, ...]
"""2048 words of eight nibbles: positions 0 to 3 in the low nibbles of the four bytes, 4 to 7 in the high ones."""

KSIGNS_IQ2XS: tuple[int, ...]
"""128 sign patterns: the index, with bit 7 set so that the bits set are even."""

NF4: tuple[float, ...]
"""Value of each nf4 code at scale 1."""

NF3: tuple[float, ...]
"""Value of each nf3 code at scale 1."""

FP4_MAGNITUDES: tuple[float, ...]
"""Magnitude of each fp4 code at scale 1; the smallest is not zero."""
