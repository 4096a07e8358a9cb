"""Operators that GPUs have for element types for which the CPU has no kernel."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import torch
from torch.nn import functional

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")
INTEGERS = [torch.uint8, torch.int8, torch.int16, torch.int32, torch.int64]


@pytest.mark.parametrize("dtype", INTEGERS)
@pytest.mark.parametrize(
    ("bins", "lowest", "highest"), [(8, 0, 8), (8, 0, 7), (3, 2, 6), (5, 0, 0), (1, -3, 100), (100, 0, 7)]
)
def test_histogram_of_integers(dtype: torch.dtype, bins: int, lowest: int, highest: int) -> None:
    values = torch.tensor([0, 3, 3, 7, 5, 1, 7, 2, 120, 6], dtype=dtype)
    if lowest == highest:
        values = values[:-2]
    got = torch.histc(values.to(DEVICE), bins, lowest, highest)
    assert (got.dtype, got.device, got.shape) == (dtype, DEVICE, (bins,))
    low, high = (lowest, highest) if lowest < highest else (int(values.min()), int(values.max()))
    expected = [0] * bins
    for value in values.tolist():
        if low <= value <= high:
            expected[min((value - low) * bins // (high - low), bins - 1)] += 1
    assert got.tolist() == expected


def test_histogram_of_tokens_per_expert() -> None:
    experts = torch.randint(16, (100, 4))
    got = torch.histc(experts.to(DEVICE).int(), bins=16, min=0, max=15)
    assert got.tolist() == torch.bincount(experts.flatten(), minlength=16).tolist()


def test_histogram_of_extreme_and_of_no_integers() -> None:
    limits = torch.iinfo(torch.int64)
    values = torch.tensor([limits.min, -1, 0, limits.max], device=DEVICE)
    assert torch.histc(values, 2, limits.min, limits.max).tolist() == [2, 2]
    assert torch.histc(torch.full((5,), 4, device=DEVICE), 4).tolist() == [0, 0, 5, 0]
    assert torch.histc(torch.empty(0, dtype=torch.int32, device=DEVICE), 3).tolist() == [0, 0, 0]
    assert torch.histc(torch.arange(6, device=DEVICE).view(2, 3).t(), 3).tolist() == [2, 2, 2]


def test_histogram_into_a_given_tensor() -> None:
    values = torch.arange(8, dtype=torch.int32, device=DEVICE)
    out = torch.empty(0, dtype=torch.int32, device=DEVICE)
    assert torch.histc(values, 4, out=out) is out
    assert out.tolist() == [2, 2, 2, 2]
    with pytest.raises(RuntimeError, match="histc: out must be on xpu:1 and of type Int, but is on xpu:1 and of type"):
        torch.histc(values, 4, out=torch.empty(0, device=DEVICE))


def test_histogram_refuses() -> None:
    values = torch.arange(8, device=DEVICE)
    with pytest.raises(RuntimeError, match="histc: bins must be > 0, but got 0"):
        torch.histc(values, 0)
    with pytest.raises(RuntimeError, match="histc: max must be larger than min, but got min 3 and max 1"):
        torch.histc(values, 4, 3, 1)


def test_histogram_of_floats_is_that_of_the_cpu() -> None:
    values = torch.randn(100)
    assert torch.equal(torch.histc(values.to(DEVICE), 7).cpu(), torch.histc(values, 7))


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16])
@pytest.mark.parametrize(
    ("operator", "shape"),
    [
        (lambda x: functional.interpolate(x, (5, 6), mode="bilinear", antialias=True), (1, 2, 8, 8)),
        (lambda x: functional.interpolate(x, (5, 6), mode="bicubic", antialias=True), (1, 2, 8, 8)),
        (lambda x: functional.avg_pool3d(x, 2), (1, 2, 4, 4, 4)),
        (lambda x: functional.multi_margin_loss(x, torch.ones(3, dtype=torch.int64, device=x.device)), (3, 4)),
        (
            lambda x: functional.multilabel_margin_loss(x, torch.ones(3, 4, dtype=torch.int64, device=x.device)),
            (3, 4),
        ),
        (lambda x: functional.rrelu(x, 0.25, 0.25, training=True), (3, 4)),
    ],
    ids=["bilinear", "bicubic", "avg_pool3d", "multi_margin_loss", "multilabel_margin_loss", "rrelu"],
)
def test_half_precision_is_computed_in_float32_and_rounded(
    operator: Callable[[torch.Tensor], torch.Tensor], shape: tuple[int, ...], dtype: torch.dtype
) -> None:
    torch.manual_seed(0)
    x = torch.randn(shape).to(dtype)
    results = []
    for moved in (x.to(DEVICE).requires_grad_(), x.float().requires_grad_()):
        out = operator(moved)
        (gradient,) = torch.autograd.grad(out.sum(), moved)
        results.append((out.detach(), gradient))
    for got, expected in zip(*results, strict=True):
        assert (got.dtype, got.device) == (dtype, DEVICE)
        assert torch.equal(got.cpu(), expected.to(dtype))


def test_fourier_transforms_in_half_precision() -> None:
    x = torch.randn(4, 16).half()
    spectrum = torch.fft.rfft(x.to(DEVICE))
    assert spectrum.dtype == torch.complex32
    expected = torch.fft.rfft(x.float())
    torch.testing.assert_close(spectrum.cpu().to(torch.complex64), expected, rtol=1e-3, atol=1e-3)
    back = torch.fft.irfft(spectrum)
    assert back.dtype == torch.float16
    torch.testing.assert_close(back.cpu(), x, rtol=1e-2, atol=1e-2)
