"""Tensors of the host device sent to other processes."""

from __future__ import annotations

from multiprocessing.queues import Queue

import pytest
import torch

import quillon

DEVICE = torch.device("xpu:1")


def answer(requests: Queue[torch.Tensor], replies: Queue[object], layer: torch.nn.Module) -> None:
    """Work in the other process: change what comes, send something back, apply a layer that came at the start."""
    x = requests.get(timeout=300)
    replies.put((str(x.device), x.tolist(), x.is_shared()))
    x.add_(1)
    made = torch.full((3,), 9.0, device=DEVICE)
    replies.put((made, made[1:]))
    requests.get(timeout=300)
    replies.put(made.tolist())
    replies.put(layer(torch.ones(1, 128, device=DEVICE)).tolist())


@pytest.mark.parametrize("strategy", ["file_descriptor", "file_system"])
def test_both_processes_have_the_same_memory(strategy: str) -> None:
    default = torch.multiprocessing.get_sharing_strategy()
    torch.multiprocessing.set_sharing_strategy(strategy)
    try:
        torch.manual_seed(0)
        layer = quillon.nn.LowBitLinear.from_linear(torch.nn.Linear(128, 64), "q4_0").to(DEVICE)
        expected = layer(torch.ones(1, 128, device=DEVICE)).tolist()
        context = torch.multiprocessing.get_context("spawn")
        requests, replies = context.Queue(), context.Queue()
        process = context.Process(target=answer, args=(requests, replies, layer))
        process.start()
        x = torch.arange(6.0, device=DEVICE).view(2, 3)
        requests.put(x[1])
        assert replies.get(timeout=300) == ("xpu:1", [3, 4, 5], True)
        made, view = replies.get(timeout=300)
        assert x.tolist() == [[0, 1, 2], [4, 5, 6]]
        assert x.is_shared()
        assert made.device == view.device == DEVICE
        made[0], view[1] = 1, 2
        assert made.tolist() == [1, 9, 2]
        requests.put(x)
        assert replies.get(timeout=300) == [1, 9, 2]
        assert replies.get(timeout=300) == expected
        process.join(300)
        assert process.exitcode == 0
    finally:
        torch.multiprocessing.set_sharing_strategy(default)
    # The kernels read the shared memory here too.
    assert layer.packed.is_shared()
    assert layer(torch.ones(1, 128, device=DEVICE)).tolist() == expected


def test_moving_into_shared_memory() -> None:
    x = torch.arange(5.0, device=DEVICE)
    view = x[1:3]
    assert not x.is_shared()
    assert x.share_memory_() is x
    assert x.is_shared()
    assert view.is_shared()
    view.fill_(7)
    assert x.tolist() == [0, 7, 7, 3, 4]
    assert (x * 2).device == DEVICE
    assert not (x * 2).is_shared()
    module = torch.nn.Linear(2, 2).to(DEVICE).share_memory()
    assert module.weight.is_shared()
    assert not torch.ones(3).is_shared()
    assert torch.ones(3).share_memory_().is_shared()
