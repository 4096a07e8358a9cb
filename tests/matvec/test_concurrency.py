"""Calls from several threads, on streams of their own, and on devices of several classes at once."""

from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor
from threading import Barrier

import pytest
import torch
from formats.decoders import FORMATS

import vesper_linear

from .harness import random_activations, random_weight, run, to_device
from .reference import KERNELS

THREADS = 6
K, ROWS = 576, 33


def repeat(format_name: str, device: torch.device, seed: int, barrier: Barrier) -> bool:
    """Many calls on a stream of this thread, none waited for until the end; whether all gave the right result."""
    weight, x = random_weight(format_name, ROWS * K // 64, seed), random_activations(K, "float32", seed)
    packed, row = torch.from_numpy(weight).to(device), to_device(x, "float32", device)
    barrier.wait()
    stream = torch.xpu.Stream(device)
    with torch.xpu.stream(stream):
        results = [vesper_linear.forward_new(row, packed, FORMATS[format_name].qtype, 0) for _ in range(40)]
    stream.synchronize()
    expected = torch.from_numpy(run(format_name, weight, x, "float32", device))
    return all(torch.equal(result.cpu().to(torch.float64)[0], expected) for result in results)


@pytest.mark.parametrize("spread", [False, True], ids=["one-device", "all-devices"])
def test_threads(spread: bool) -> None:
    names = list(KERNELS)
    with ThreadPoolExecutor(THREADS) as pool:
        for first in range(0, len(names), THREADS):
            barrier = Barrier(THREADS)
            futures = [
                pool.submit(repeat, names[first + i], torch.device("xpu", i % 8 if spread else 7), i, barrier)
                for i in range(THREADS)
            ]
            assert all(future.result(timeout=300) for future in futures)


@pytest.mark.parametrize("format_name", KERNELS)
def test_order_on_a_stream(format_name: str) -> None:
    """A call sees what the stream did before it, and what follows sees the result, without a wait in between."""
    device = torch.device("xpu", 7)
    weights = [torch.from_numpy(random_weight(format_name, ROWS * K // 64, seed)).to(device) for seed in (1, 2)]
    row = to_device(random_activations(K, "float32", 3), "float32", device)
    qtype = FORMATS[format_name].qtype
    apart = [vesper_linear.forward_new(row, weight, qtype, 0).cpu() for weight in weights]
    with torch.xpu.stream(torch.xpu.Stream(device)):
        shared = torch.empty_like(weights[0])
        chain = []
        for i in range(10):
            shared.copy_(weights[i % 2])
            chain.append(vesper_linear.forward_new(row, shared, qtype, 0) + 0)
        for i, result in enumerate(chain):
            assert torch.equal(result.cpu(), apart[i % 2])
