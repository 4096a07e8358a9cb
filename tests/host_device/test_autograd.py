"""Training on the host device: gradients, modules, autocast, optimizers, random numbers."""

from __future__ import annotations

import copy
from collections.abc import Callable, Iterable
from typing import Any

import pytest
import torch
from torch._subclasses.fake_tensor import FakeTensor, FakeTensorMode
from torch.nn import functional

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")


def train_once(module: torch.nn.Module, *inputs: torch.Tensor) -> list[torch.Tensor]:
    """Return the output, and the gradients of the parameters for the sum of its squares."""
    result = module(*inputs)
    output = result[0] if isinstance(result, tuple) else result
    output.square().sum().backward()
    return [output.detach(), *(p.grad for p in module.parameters() if p.grad is not None)]


@pytest.mark.filterwarnings("ignore:LSTM with projections")
@pytest.mark.parametrize(
    ("module", "shape"),
    [
        (torch.nn.Linear(4, 3), (5, 4)),
        (torch.nn.Linear(4, 3, bias=False), (2, 5, 4)),
        (torch.nn.Conv1d(3, 4, 3, padding=1), (2, 3, 8)),
        (torch.nn.Conv2d(4, 6, 3, stride=2, groups=2), (2, 4, 9, 9)),
        (torch.nn.ConvTranspose2d(4, 6, 3), (2, 4, 5, 5)),
        (torch.nn.BatchNorm1d(4), (5, 4)),
        (torch.nn.LayerNorm(4), (5, 4)),
        (torch.nn.RMSNorm(4), (5, 4)),
        (torch.nn.GroupNorm(2, 4), (5, 4, 3)),
        (torch.nn.LSTM(4, 5, num_layers=2, batch_first=True), (2, 3, 4)),
        (torch.nn.LSTM(4, 5, proj_size=2, bidirectional=True, bias=False), (3, 2, 4)),
        (torch.nn.GRU(4, 5, num_layers=2), (3, 2, 4)),
        (torch.nn.GRU(4, 5, bias=False), (3, 2, 4)),
        (torch.nn.TransformerEncoderLayer(8, 2, 16, dropout=0.0, batch_first=True), (2, 5, 8)),
    ],
    ids=lambda value: type(value).__name__ if isinstance(value, torch.nn.Module) else None,
)
def test_modules_train_as_on_the_cpu(module: torch.nn.Module, shape: tuple[int, ...]) -> None:
    torch.manual_seed(3)
    for parameter in module.parameters():
        torch.nn.init.normal_(parameter, std=0.5)
    x = torch.randn(shape)
    moved = copy.deepcopy(module).to(DEVICE)
    expected, got = train_once(module, x), train_once(moved, x.to(DEVICE))
    assert len(expected) == len(got) > 1
    for reference, result in zip(expected, got, strict=True):
        assert result.device == DEVICE
        torch.testing.assert_close(result.cpu(), reference)


@pytest.mark.parametrize("needs_gradient", [False, True])
@pytest.mark.parametrize("mask", [None, "bool", "float", "causal"])
def test_scaled_dot_product_attention(needs_gradient: bool, mask: str | None) -> None:
    torch.manual_seed(0)
    inputs = [torch.randn(2, 4, 6, 8) for _ in range(3)]
    masks = {"bool": torch.rand(6, 6).fill_diagonal_(1) > 0.5, "float": torch.randn(6, 6)}
    results = []
    for device in (torch.device("cpu"), DEVICE):
        q, k, v = (t.clone().to(device).requires_grad_(needs_gradient) for t in inputs)
        attention_mask = masks[mask].to(device) if mask in masks else None
        out = functional.scaled_dot_product_attention(q, k, v, attention_mask, is_causal=mask == "causal")
        assert out.device.type == device.type
        results.append([out.detach().cpu()])
        if needs_gradient:
            out.square().sum().backward()
            gradients = [t.grad for t in (q, k, v)]
            results[-1] += [gradient.cpu() for gradient in gradients if gradient is not None]
            assert len(results[-1]) == 4
    for expected, got in zip(*results, strict=True):
        torch.testing.assert_close(got, expected)


@pytest.mark.parametrize("mode", [torch.enable_grad, torch.no_grad, torch.inference_mode])
@pytest.mark.parametrize("key_value_heads", [9, 3])
@pytest.mark.parametrize("masked", [False, True])
def test_attention_of_one_query_runs_the_fused_kernel(mode: Any, key_value_heads: int, masked: bool) -> None:
    torch.manual_seed(0)
    host = [torch.randn(1, 9, 1, 64, requires_grad=True), *torch.randn(2, 1, key_value_heads, 50, 64)]
    mask = (torch.arange(50) < 40).view(1, 1, 1, 50) if masked else None

    def attend(device: str) -> torch.Tensor:
        q, k, v = (t.detach().to(device).requires_grad_(t.requires_grad) for t in host)
        moved = mask.to(device) if mask is not None else None
        return functional.scaled_dot_product_attention(q, k, v, moved, enable_gqa=key_value_heads != 9)

    with mode(), torch.profiler.profile() as profile:
        got = attend("xpu:1")
    assert "aten::_scaled_dot_product_flash_attention_for_cpu" in {event.key for event in profile.key_averages()}
    assert got.requires_grad == (mode is torch.enable_grad)
    assert torch.equal(got.detach().cpu(), attend("cpu").detach())


@pytest.mark.parametrize("mode", [torch.enable_grad, torch.no_grad, torch.inference_mode])
def test_attention_of_fake_tensors(mode: Any) -> None:
    with mode(), FakeTensorMode():
        q = torch.empty(1, 4, 5, 8, device=DEVICE, requires_grad=True)
        k = torch.empty(1, 2, 7, 8, device=DEVICE)
        out = functional.scaled_dot_product_attention(q, k, k, enable_gqa=True)
    assert isinstance(out, FakeTensor)
    assert (out.shape, out.device, out.requires_grad) == (q.shape, DEVICE, mode is torch.enable_grad)


def test_gradients_through_copies_between_devices() -> None:
    x = torch.ones(3, requires_grad=True)
    (x.to("xpu:0").to("xpu:5") * 2).cpu().sum().backward()
    assert x.grad is not None
    assert x.grad.tolist() == [2.0, 2.0, 2.0]


def test_version_check_of_saved_tensors() -> None:
    x = torch.ones(3, device=DEVICE, requires_grad=True)
    y = x.exp()
    y.add_(1)
    with pytest.raises(RuntimeError, match="modified by an inplace operation"):
        y.sum().backward()


def test_custom_function_and_checkpoint() -> None:
    module = torch.nn.Sequential(torch.nn.Linear(4, 4), torch.nn.Dropout(0.5)).to(DEVICE)
    gradients = []
    for recompute in (False, True):
        torch.manual_seed(1)
        x = torch.ones(2, 4, device=DEVICE, requires_grad=True)
        out = torch.utils.checkpoint.checkpoint(module, x, use_reentrant=False) if recompute else module(x)
        out.square().sum().backward()
        gradients.append(x.grad)
    assert torch.equal(gradients[0], gradients[1])


@pytest.mark.parametrize("dtype", [torch.bfloat16, torch.float16])
def test_autocast(dtype: torch.dtype) -> None:
    module = torch.nn.Linear(4, 4).to(DEVICE)
    x = torch.ones(2, 4, device=DEVICE)
    with torch.autocast("xpu", dtype=dtype):
        assert torch.is_autocast_enabled("xpu")
        y = module(x)
        assert y.dtype == dtype
        assert torch.softmax(y, -1).dtype == torch.float32
    assert module(x).dtype == torch.float32
    y.float().sum().backward()
    assert module.weight.grad is not None
    assert module.weight.grad.dtype == torch.float32


def test_gradient_scaler() -> None:
    module = torch.nn.Linear(2, 1, bias=False).to(DEVICE)
    optimizer = torch.optim.SGD(module.parameters(), 0.5)
    scaler = torch.amp.GradScaler("xpu", init_scale=8.0)
    before = module.weight.detach().clone()
    with torch.autocast("xpu", dtype=torch.float16):
        loss = module(torch.ones(1, 2, device=DEVICE)).sum()
    scaler.scale(loss).backward()
    scaler.step(optimizer)
    scaler.update()
    torch.testing.assert_close(module.weight, before - 0.5)


def adamw(parameters: Iterable[torch.nn.Parameter]) -> torch.optim.Optimizer:
    return torch.optim.AdamW(parameters, lr=0.1)


def fused_adamw(parameters: Iterable[torch.nn.Parameter]) -> torch.optim.Optimizer:
    return torch.optim.AdamW(parameters, lr=0.1, fused=True)


def momentum(parameters: Iterable[torch.nn.Parameter]) -> torch.optim.Optimizer:
    return torch.optim.SGD(parameters, lr=0.1, momentum=0.9, foreach=True)


@pytest.mark.parametrize("make", [adamw, fused_adamw, momentum])
def test_optimizers(make: Callable[[Iterable[torch.nn.Parameter]], torch.optim.Optimizer]) -> None:
    module = torch.nn.Linear(4, 4)
    modules = [module, copy.deepcopy(module).to(DEVICE)]
    for one in modules:
        optimizer = make(one.parameters())
        for _ in range(3):
            optimizer.zero_grad()
            one(torch.ones(2, 4, device=one.weight.device)).square().sum().backward()
            torch.nn.utils.clip_grad_norm_(one.parameters(), 1.0)
            optimizer.step()
    for expected, got in zip(*(m.parameters() for m in modules), strict=True):
        torch.testing.assert_close(got.cpu(), expected)


def test_random_numbers_are_those_of_the_cpu() -> None:
    for draw in (
        lambda device: torch.randn(50, device=device),
        lambda device: torch.rand(50, device=device),
        lambda device: torch.randperm(50, device=device),
        lambda device: torch.empty(50, device=device).exponential_(),
        lambda device: torch.bernoulli(torch.full((50,), 0.5, device=device)),
        lambda device: torch.multinomial(torch.ones(50, device=device), 10),
        lambda device: functional.dropout(torch.ones(500, device=device), 0.3),
    ):
        torch.manual_seed(9)
        expected = draw("cpu")
        torch.manual_seed(9)
        got = draw(DEVICE)
        assert got.device == DEVICE
        assert torch.equal(got.cpu(), expected)


def test_each_device_has_its_own_generator() -> None:
    torch.manual_seed(1)
    cpu_state = torch.get_rng_state()
    first = torch.randn(4, device="xpu:0")
    assert torch.equal(torch.get_rng_state(), cpu_state)  # the CPU's stream did not move
    assert torch.equal(torch.randn(4, device="xpu:2").cpu(), first.cpu())  # nor did that of xpu:2
    assert not torch.equal(torch.randn(4, device="xpu:0"), first)
    state = torch.xpu.get_rng_state("xpu:0")
    again = torch.randn(4, device="xpu:0")
    torch.xpu.set_rng_state(state, "xpu:0")
    assert torch.equal(torch.randn(4, device="xpu:0"), again)
    torch.xpu.manual_seed(77)
    assert torch.xpu.initial_seed() == 77
    assert torch.initial_seed() == 1


def test_generators() -> None:
    a = torch.randn(4, generator=torch.Generator("xpu:1").manual_seed(3), device=DEVICE)
    b = torch.randn(4, generator=torch.Generator().manual_seed(3))
    assert torch.equal(a.cpu(), b)
    assert torch.Generator("xpu:1").device == DEVICE
    with pytest.raises(RuntimeError, match="Expected a 'xpu' device type for generator but found 'cpu'"):
        torch.empty(2, device=DEVICE).normal_(generator=torch.Generator())


def test_transforms() -> None:
    x = torch.arange(3.0, device=DEVICE)
    assert torch.func.vmap(lambda v: v * 2)(x).tolist() == [0.0, 2.0, 4.0]
    assert torch.func.grad(lambda v: (v * v).sum())(x).tolist() == [0.0, 2.0, 4.0]
    _, tangent = torch.func.jvp(torch.sin, (x,), (torch.ones_like(x),))
    torch.testing.assert_close(tangent, x.cos())


@pytest.mark.filterwarnings("ignore:.*torch.jit")
def test_scripted_module() -> None:
    module = torch.nn.Linear(3, 2)
    x = torch.randn(2, 3)
    expected = module(x)
    scripted = torch.jit.script(module).to(DEVICE)
    torch.testing.assert_close(scripted(x.to(DEVICE)).cpu(), expected)
