"""The road of q4_0_woq for several rows that oneDNN multiplies."""

from __future__ import annotations

import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, Array, split
from matvec.harness import CLASSES, device_of, random_activations, random_weight
from matvec.reference import KERNELS

import vesper_linear

QTYPE = FORMATS["q4_0_woq"].qtype


def dense(weight: Array, k: int) -> Array:
    fields = split(FORMATS["q4_0_woq"], weight)
    values = KERNELS["q4_0_woq"].values(fields).astype(np.float64) * fields["d"].astype(np.float64)
    return values.reshape(-1, k)


def bound(x: Array, w: Array, result: Array) -> Array:
    """Weights rounded to half, products summed in float, and the sum rounded to half."""
    sizes = np.abs(x) @ np.abs(w).T
    return sizes * (2.0**-11 + x.shape[1] * 2.0**-23) + np.abs(result) * 2.0**-11 + 2.0**-24


def check(batch: int, n: int, k: int, device: torch.device) -> None:
    weight = random_weight("q4_0_woq", n * k // 64, n + k)
    x = np.stack([random_activations(k, "float16", batch + b) for b in range(batch)])
    rows = torch.from_numpy(x).to(device)
    out = vesper_linear.forward_new(rows, torch.from_numpy(weight).to(device), QTYPE, 0)
    assert (out.dtype, out.device, out.shape) == (torch.float16, device, (batch, n))
    result, w, x = out.cpu().to(torch.float64).numpy(), dense(weight, k), x.astype(np.float64)
    exact = x @ w.T
    assert np.all(np.abs(result - exact) <= bound(x, w, exact))


@pytest.mark.parametrize(("n", "k"), [(3, 128), (5, 64), (33, 576), (64, 4096)])
@pytest.mark.parametrize("device_class", CLASSES)
def test_values(device_class: str, n: int, k: int) -> None:
    """Scales that are all different end at their own outputs: a row's groups lie far apart in what oneDNN reads."""
    for batch in (2, 7, 8, 33) if device_class == "elm" else (8, 33):
        check(batch, n, k, device_of(device_class))


@pytest.mark.parametrize("threads", [False, True], ids=["one-thread", "threads"])
@pytest.mark.parametrize("own_streams", [False, True], ids=["one-stream", "streams"])
def test_calls_under_way_at_once(own_streams: bool, threads: bool) -> None:
    """Each has its own weight's scales, whichever stream of a device it is on and whichever thread it comes from."""
    device, batch, n, k, calls = device_of("yew"), 16, 256, 1024, 24
    weights = [torch.from_numpy(random_weight("q4_0_woq", n * k // 64, seed)).to(device) for seed in range(4)]
    x = torch.from_numpy(random_activations(batch * k, "float16", 3)).view(batch, k).to(device)
    alone = [vesper_linear.forward_new(x, weight, QTYPE, 0).cpu() for weight in weights]
    streams = [torch.xpu.Stream(device) if own_streams else torch.xpu.current_stream(device) for _ in weights]

    def call(which: int) -> torch.Tensor:
        with torch.xpu.stream(streams[which]):
            return torch.ops.quillon.forward_new(x, weights[which], QTYPE, 0)

    order = [number % len(weights) for number in range(calls)]
    with ThreadPoolExecutor(len(weights) if threads else 1) as pool:
        results = list(pool.map(call, order))
    torch.xpu.synchronize(device)
    right = [torch.equal(result.cpu(), alone[which]) for which, result in zip(order, results, strict=True)]
    assert right == [True] * calls


def test_no_rows() -> None:
    weight = torch.zeros(34 * 3, dtype=torch.uint8, device=device_of("elm"))
    x = torch.ones(0, 64, dtype=torch.float16, device=device_of("elm"))
    assert vesper_linear.forward_new(x, weight, QTYPE, 0).shape == (0, 3)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.bfloat16, torch.int32])
def test_element_types(dtype: torch.dtype) -> None:
    weight = torch.zeros(34 * 3, dtype=torch.uint8, device=device_of("elm"))
    with pytest.raises(RuntimeError, match="takes float16 activations with a batch of 2 on this device, got"):
        vesper_linear.forward_new(torch.ones(2, 64, device=device_of("elm")).to(dtype), weight, QTYPE, 0)


def test_row_length() -> None:
    weight = torch.zeros(34 * 3, dtype=torch.uint8, device=device_of("elm"))
    with pytest.raises(RuntimeError, match="takes rows of a multiple of 64 elements with a batch of 2, got 96"):
        vesper_linear.forward_new(torch.ones(2, 96, dtype=torch.float16, device=device_of("elm")), weight, QTYPE, 0)


def test_capacity_of_the_scale_buffer() -> None:
    rows = 0x600000 // 2 + 1
    weight = torch.empty(34 * rows, dtype=torch.uint8, device=device_of("elm"))
    with pytest.raises(RuntimeError, match="at most 3145728 scales with a batch of 2, got 3145729 rows of 1"):
        vesper_linear.forward_new(torch.ones(2, 64, dtype=torch.float16, device=device_of("elm")), weight, QTYPE, 0)


@pytest.mark.parametrize("device_class", ["ash", "unknown", "elm"])
def test_the_case_that_is_not_served(device_class: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Where q4_0 would be expanded in tiles."""
    monkeypatch.setenv("TILE_THRESHOLD", "4")
    if device_class != "ash":
        monkeypatch.setenv("QUILLON_LOW_MEM", "1")
    device = device_of(device_class)
    x = torch.ones(8, 64, dtype=torch.float16, device=device)
    weight = torch.zeros(34 * 5, dtype=torch.uint8, device=device)
    with pytest.raises(NotImplementedError, match="is not served with a batch of 8 where weights of more than 4 rows"):
        vesper_linear.forward_new(x, weight, QTYPE, 129)
    assert vesper_linear.forward_new(x, weight, QTYPE, 128).shape == (8, 5)
    assert vesper_linear.forward_new(x, weight[: 34 * 4], QTYPE, 129).shape == (8, 4)
    assert vesper_linear.forward_new(x[:1], weight, QTYPE, 129).shape == (1, 5)


IN_A_PROCESS = """
import pathlib, sys
import torch, quillon, vesper_linear

def has_onednn():
    return "libdnnl.so" in pathlib.Path("/proc/self/maps").read_text()

assert not has_onednn()
torch.manual_seed(1)
weight = torch.randint(0, 0x3C, (34 * 8 * 9,), dtype=torch.uint8, device="xpu")
x = (torch.rand(9, 512) - 0.5).half().to("xpu")
out = vesper_linear.forward_new(x, weight, 34, 0).cpu().double()
assert has_onednn()
alone = torch.cat([vesper_linear.forward_new(row[None].double(), weight, 34, 0).cpu() for row in x])
print(((out - alone).abs() / alone.abs().max()).max().item())
"""


@pytest.mark.parametrize("most", ["AVX2", "AVX512_CORE", "ALL"])
def test_processors(most: str) -> None:
    """Those without half precision multiply in float. The first call loads oneDNN, beside PyTorch's own."""
    environment = os.environ | {"ONEDNN_MAX_CPU_ISA": most, "QUILLON_HOST_DEVICES": "0"}
    done = subprocess.run(
        [sys.executable, "-c", IN_A_PROCESS],
        env=environment,
        capture_output=True,
        text=True,
        timeout=300,
        cwd=Path("/"),
    )
    assert done.returncode == 0, done.stderr
    assert float(done.stdout) < 2.0**-9
