"""A weight or a row that is a view at any offset of a larger buffer gives what the same bytes give elsewhere."""

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


@pytest.mark.grid(0.2)
@pytest.mark.parametrize("offset", [1, 2, 3, 4])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16, torch.float64])
@pytest.mark.parametrize("name", quillon.formats.WEIGHT_FORMATS)
def test_row_view_at_an_offset(name: str, dtype: torch.dtype, offset: int, monkeypatch: pytest.MonkeyPatch) -> None:
    """The form that GPUs run loads sixteen bytes of a row at once."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", "items")
    torch.manual_seed(offset)
    packed = quillon.quantize(torch.randn(3, 1024), name).to(DEVICE)
    input = torch.randn(1, 1024).to(dtype).to(DEVICE)
    view = torch.full((1024 + 8,), float("nan"), dtype=dtype, device=DEVICE)[offset : offset + 1024].view(1, 1024)
    view.copy_(input)
    assert view.data_ptr() % 16 == offset * dtype.itemsize % 16
    code = quillon.formats.format_code(name)
    assert torch.equal(
        vesper_linear.forward_new(view, packed, code, 1), vesper_linear.forward_new(input, packed, code, 1)
    )
