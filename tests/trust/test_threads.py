"""Eight threads at once, on a device each and on one: the results of one thread alone, and no memory left behind."""

from __future__ import annotations

import gc
import os
import random
import threading
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

import pytest
import torch

import quillon
import vesper_linear
from quillon.expansion import EXPANDED_FORMATS
from quillon.formats import format_code, weight_bytes

THREADS, ROUNDS = 8, 6
COLUMNS, ROWS = 512, 34
NAMES = ("q4_0", "nf4", "q8_0", "q4_k", "q6_k", "iq2_xxs", "fp6", "q5_1")
Work = Callable[[torch.device], torch.Tensor]


def packed(name: str, seed: int) -> torch.Tensor:
    """Bytes of which no scale is infinite or NaN."""
    generator = torch.Generator().manual_seed(seed)
    return torch.randint(0, 256, (weight_bytes(name, ROWS, COLUMNS),), dtype=torch.uint8, generator=generator) & 0xBB


def single_row(name: str) -> Work:
    weight = packed(name, 3)

    def work(device: torch.device) -> torch.Tensor:
        x = torch.linspace(-1, 1, COLUMNS).view(1, COLUMNS)
        return vesper_linear.forward_new(x.to(device), weight.to(device), format_code(name), COLUMNS)

    return work


def batch(name: str) -> Work:
    """More rows than single ones serve, of small numbers: sums are exact in whichever order they are made."""
    weight = packed(name, 4)

    def work(device: torch.device) -> torch.Tensor:
        x = torch.zeros(20, COLUMNS)
        x[torch.arange(20), 7 * torch.arange(20)] = 1
        return torch.ops.quillon.forward_new(x.to(device), weight.to(device), format_code(name), COLUMNS)

    return work


def expansion(name: str) -> Work:
    weight = packed(name, 5)
    return lambda device: quillon.dequantize(weight.to(device), name, ROWS, COLUMNS, torch.float16)


def elsewhere(device: torch.device) -> torch.Tensor:
    """From device to device and back, by memory that another stream still has."""
    other = torch.device("xpu", (device.index + 1) % THREADS)
    x = torch.arange(5000, device=device)
    x.record_stream(torch.xpu.Stream(device))
    return (x.to(other) * 3).to(device)


WORKS = [
    *map(single_row, NAMES),
    *map(batch, NAMES),
    *(expansion(name) for name in NAMES if name in EXPANDED_FORMATS),
    elsewhere,
]


def allocated() -> list[int]:
    gc.collect()
    for index in range(THREADS):
        torch.xpu.synchronize(index)
    torch.xpu.empty_cache()  # and what waited for other streams
    return [torch.xpu.memory_allocated(index) for index in range(THREADS)]


@pytest.mark.parametrize("spread", [False, True], ids=["one-device", "eight-devices"])
@pytest.mark.parametrize("own_streams", [False, True], ids=["one-stream", "own-streams"])
def test_eight_threads(spread: bool, own_streams: bool) -> None:
    devices = [torch.device("xpu", number if spread else 7) for number in range(THREADS)]
    expected = {device: [work(device).cpu() for work in WORKS] for device in devices}
    before, gate = allocated(), threading.Barrier(THREADS)

    def run(number: int) -> list[int]:
        """The works whose results were others than before."""
        device, chosen, wrong = devices[number], random.Random(number), list[int]()
        stream = torch.xpu.Stream(device) if own_streams else torch.xpu.current_stream(device)
        gate.wait()
        with torch.xpu.stream(stream):
            for _ in range(ROUNDS):
                order = list(range(len(WORKS)))
                chosen.shuffle(order)
                results = [WORKS[which](device) for which in order]
                for which, result in zip(order, results, strict=True):
                    if not torch.equal(result.cpu(), expected[device][which]):
                        wrong.append(which)
        return wrong

    for _ in range(2):  # threads that end, and others in their place
        with ThreadPoolExecutor(THREADS) as pool:
            assert list(pool.map(run, range(THREADS))) == THREADS * [[]]
    assert allocated() == before


def test_forks_while_threads_use_the_allocator() -> None:
    """A child has the allocator whole and unlocked, and can free what it inherited."""
    kept, done = [torch.empty(1000, device="xpu:7") for _ in range(100)], threading.Event()

    def allocate(device: str) -> None:
        """Memory that is new each time, in the getting and returning of which the allocator spends its time."""
        while not done.is_set():
            torch.empty(1 << 24, device=device)
            torch.xpu.empty_cache()

    threads = [threading.Thread(target=allocate, args=(f"xpu:{number}",)) for number in range(2)]
    for thread in threads:
        thread.start()
    try:
        for _ in range(40):
            child = os.fork()
            if child == 0:
                kept.clear()
                os._exit(0)
            end = time.monotonic() + 200
            while (ended := os.waitpid(child, os.WNOHANG))[0] == 0 and time.monotonic() < end:
                time.sleep(0.001)
            if ended[0] == 0:
                os.kill(child, 9)
                os.waitpid(child, 0)
            assert ended == (child, 0), "the child hangs"
    finally:
        done.set()
        for thread in threads:
            thread.join()
