"""Packing and unpacking give the same bytes whatever modes of PyTorch the caller has set for a model."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import torch


@contextmanager
def plain_modes() -> Iterator[None]:
    """Tensors made inside are the CPU's and no inference tensors, which other threads could not write to."""
    with torch.inference_mode(False), torch.device("cpu"), torch.autocast("cpu", enabled=False):
        yield
