"""Prints what a call of `forward_new` costs beside the product itself, as a markdown table.

    python benchmarks/call_cost.py [--format q4_0] [--calls 2000]

Each line is one way to the device, in microseconds, the least and the median of the calls:

submit    until the call returns, when the kernel is in the queue
wait      from then until the host knows that the kernel has finished: the wake-up of the device's threads, the kernel
          and the way back

The first line is the SYCL runtime alone, an empty kernel with as many arguments (bare_submit.cpp, compiled here with
$CXX or g++). The second is `forward_new` on a weight so small that its product takes no time; the difference of the two
is the library's and PyTorch's share: argument parsing, dispatch, the output's allocation. The others are matrices of a
small model. Rounds are interleaved, so that a change in the machine's load meets all lines.
"""

from __future__ import annotations

import argparse
import ctypes
import os
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from functools import partial
from pathlib import Path

import torch

import quillon
import vesper_linear

SHAPES = ((2, 512), (576, 576), (1536, 576), (576, 1536))
ROUNDS = 4

Times = tuple[list[float], list[float]]


def load_bare_submit() -> ctypes.CDLL:
    prefix = Path(sys.prefix)
    source = Path(__file__).with_name("bare_submit.cpp")
    with tempfile.TemporaryDirectory(prefix="quillon-bare-submit-") as folder:
        library = Path(folder, "bare_submit.so")
        flags = ["-std=c++17", "-O2", "-fPIC", "-shared", "-isystem", prefix / "include", f"-L{prefix / 'lib'}"]
        subprocess.run([os.environ.get("CXX", "g++"), *flags, source, "-o", library, "-lsycl"], check=True, timeout=300)
        return ctypes.CDLL(str(library))


def measure_bare(library: ctypes.CDLL, calls: int) -> Times:
    submits, waits = (ctypes.c_double * calls)(), (ctypes.c_double * calls)()
    library.bare_submit(calls, submits, waits)
    return list(submits), list(waits)


def measure_forward(format_name: str, rows: int, cols: int, calls: int) -> Times:
    device = torch.device("xpu")
    activations = torch.rand(1, cols).to(device)
    weight = torch.randint(0, 0x3C, (quillon.formats.weight_bytes(format_name, rows, cols),), dtype=torch.uint8).to(
        device
    )
    code = quillon.formats.format_code(format_name)
    submits, waits = [], []
    for _ in range(calls):
        start = time.perf_counter()
        output = vesper_linear.forward_new(activations, weight, code, 0)
        submitted = time.perf_counter()
        torch.xpu.synchronize()
        waits.append((time.perf_counter() - submitted) * 1e6)
        submits.append((submitted - start) * 1e6)
        del output
    return submits, waits


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--format", default="q4_0")
    parser.add_argument("--calls", type=int, default=2000)
    arguments = parser.parse_args()

    library = load_bare_submit()
    contenders: dict[str, Callable[[int], Times]] = {"empty kernel": partial(measure_bare, library)}
    for rows, cols in SHAPES:
        contenders[f"{arguments.format} {rows} x {cols}"] = partial(measure_forward, arguments.format, rows, cols)
    times: dict[str, Times] = {name: ([], []) for name in contenders}
    per_round = max(1, arguments.calls // ROUNDS)
    for measure in contenders.values():
        measure(20)
    for _ in range(ROUNDS):
        for name, measure in contenders.items():
            for known, new in zip(times[name], measure(per_round), strict=True):
                known.extend(new)

    print("| | submit, least | median | wait, least | median |")
    print("|---|---:|---:|---:|---:|")
    for name, columns in times.items():
        cells = (f"{figure(column):.1f}" for column in columns for figure in (min, statistics.median))
        print(f"| {name} | {' | '.join(cells)} |")


if __name__ == "__main__":
    main()
