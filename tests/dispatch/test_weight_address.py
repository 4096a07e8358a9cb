"""A weight that is a view at any byte offset of a larger buffer gives what the same bytes give elsewhere."""

from __future__ import annotations

import pytest
import torch

import quillon
import vesper_linear

DEVICE = "xpu:7"


@pytest.mark.parametrize("offset", [1, 2, 4, 8])
@pytest.mark.parametrize("name", quillon.formats.WEIGHT_FORMATS)
def test_weight_view_at_an_offset(name: str, offset: int) -> None:
    torch.manual_seed(offset)
    packed = quillon.quantize(torch.randn(3, 1024), name).to(DEVICE)
    buffer = torch.full((packed.numel() + 16,), 0xFF, dtype=torch.uint8, device=DEVICE)
    view = buffer[offset : offset + packed.numel()]
    view.copy_(packed)
    assert view.data_ptr() % 8 == offset % 8
    input = torch.randn(1, 1024, device=DEVICE)
    code = quillon.formats.format_code(name)
    assert torch.equal(
        vesper_linear.forward_new(input, view, code, 1), vesper_linear.forward_new(input, packed, code, 1)
    )
