"""Constant tables of the code-book and grid formats, from the C++ headers that the kernels use."""

from __future__ import annotations

import torch
from torch import Tensor

from quillon._value_tables import FP4_MAGNITUDES, IQ1S_GRID, IQ2XXS_GRID, KSIGNS_IQ2XS, NF3, NF4

__all__ = ["FP4_MAGNITUDES", "NF3", "NF4", "iq1s_grid", "iq2xxs_grid", "ksigns_iq2xs"]


# Made anew at each call: a tensor that was kept would have the modes of the first one, of a FakeTensorMode for example.


def iq2xxs_grid() -> Tensor:
    """The 256 points of the iq2_xxs grid, float32 (256, 8), each value 8, 25 or 43."""
    return (torch.tensor(IQ2XXS_GRID)[:, None] >> torch.arange(0, 64, 8) & 255).float()


def iq1s_grid() -> Tensor:
    """The 2048 points of the iq1_s grid, float32 (2048, 8), each value 0, 1 or 2."""
    shifts = torch.tensor((0, 8, 16, 24, 4, 12, 20, 28))
    return (torch.tensor(IQ1S_GRID)[:, None] >> shifts & 15).float()


def ksigns_iq2xs() -> Tensor:
    """The 128 sign patterns of iq2_xxs as uint8."""
    return torch.tensor(KSIGNS_IQ2XS, dtype=torch.uint8)
