"""Prints how fast `forward_new` is at batch 1, beside dense products and a read of the same bytes, as a markdown table.

    python benchmarks/matvec.py [--formats q4_0,nf4] [--shapes 4096x4096,11008x4096] [--dtype float32,bfloat16]

A shape is the weight's: output size x state size. Method:

- Every contender rotates through as many copies of its weight as exceed the last cache several times over, so that
  the bytes come from memory.
- A round measures every contender once, in a block of its own: a pause, two calls that are not counted, then the
  counted calls one by one, each waited for. The pause matters where the dense product runs on the CPU: PyTorch's
  OpenMP threads go on spinning for a while after a parallel region and would take the cores from the SYCL CPU device's
  threads, and the other way round. Rounds are interleaved, so that a change in the machine's load meets all contenders.
- A time is the median over all rounds and calls, or with ``--statistic min`` the least, which is the one to compare on
  a machine that others use as well.

The dense products are `at::linear` on a weight of random numbers; on the host device they run on plain CPU tensors, to
spare them the fallback. "read" sums the packed bytes as 64-bit integers with as many threads. Packed GB/s counts the
weight's bytes, scales included, against the time of `forward_new`.
"""

from __future__ import annotations

import argparse
import os
import statistics
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field

import torch
from torch import Tensor

import quillon
import vesper_linear
from quillon.formats import WEIGHT_FORMATS, get_format, row_multiple, weight_bytes

NAMES = tuple(get_format(name).name for name in WEIGHT_FORMATS)
DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}
DENSE = ("float32", "bfloat16")
Statistic = Callable[[list[float]], float]
STATISTICS: dict[str, Statistic] = {"median": statistics.median, "min": min}
UNCOUNTED = 2


@dataclass
class Contender:
    """One thing to time. `run(i)` does call i and returns when it has finished."""

    run: Callable[[int], object]
    seconds: list[float] = field(default_factory=list)
    calls_made: int = 0

    def measure(self, calls: int, pause: float) -> None:
        time.sleep(pause)
        for i in range(UNCOUNTED + calls):
            start = time.perf_counter()
            self.run(self.calls_made)
            seconds = time.perf_counter() - start
            self.calls_made += 1  # never the copies of the last round again: they may still be in the cache
            if i >= UNCOUNTED:
                self.seconds.append(seconds)


def copies_of(make: Callable[[], Tensor], memory: int) -> list[Tensor]:
    first = make()
    return [first, *(make() for _ in range(memory // (first.numel() * first.element_size())))]


def random_packed(format_name: str, rows: int, cols: int) -> Tensor:
    """Bytes below 0x3C: any code, while no scale is infinite, NaN or above 1."""
    return torch.randint(0, 0x3C, (weight_bytes(format_name, rows, cols),), dtype=torch.uint8)


class Benchmark:
    """All contenders of one shape and one element type of the activations."""

    def __init__(
        self,
        rows: int,
        cols: int,
        dtype: str,
        formats: list[str],
        device: torch.device,
        memory: int,
        statistic: Callable[[list[float]], float],
    ) -> None:
        self.device = device
        self.statistic = statistic
        self.dense_device = torch.device("cpu") if quillon.host_device.is_active() else device
        self.contenders: dict[tuple[str, str], Contender] = {}
        x = torch.rand(1, cols, dtype=DTYPES[dtype]) - 0.5
        for name in DENSE:
            self._add_linear(name, x.to(DTYPES[name]), rows, memory)
        for name in formats:
            self._add_format(name, x.to(device), rows, memory)

    def _finish(self, device: torch.device) -> None:
        if device.type == "xpu":
            torch.xpu.synchronize(device)

    def _add_linear(self, name: str, x: Tensor, rows: int, memory: int) -> None:
        shape, dtype, x = (rows, x.shape[1]), DTYPES[name], x.to(self.dense_device)
        weights = copies_of(lambda: torch.empty(shape, dtype=dtype, device=self.dense_device).uniform_(-1, 1), memory)

        def run(i: int) -> None:
            torch.nn.functional.linear(x, weights[i % len(weights)])
            self._finish(self.dense_device)

        self.contenders["linear", name] = Contender(run)

    def _add_format(self, name: str, x: Tensor, rows: int, memory: int) -> None:
        qtype, cols = get_format(name).code, x.shape[1]
        weights = copies_of(lambda: random_packed(name, rows, cols).to(self.device), memory)
        words = [w[: w.numel() // 8 * 8].view(torch.int64) for w in weights]
        if quillon.host_device.is_active():
            words = [w.cpu() for w in words]

        def run(i: int) -> None:
            vesper_linear.forward_new(x, weights[i % len(weights)], qtype, 0)
            self._finish(self.device)

        def read(i: int) -> None:
            words[i % len(words)].sum()
            self._finish(self.device)

        self.contenders["forward_new", name] = Contender(run)
        self.contenders["read", name] = Contender(read)

    def measure(self, rounds: int, calls: int, pause: float) -> None:
        for _ in range(rounds):
            for contender in self.contenders.values():
                contender.measure(calls, pause)

    def milliseconds(self, what: str, name: str) -> float:
        return self.statistic(self.contenders[what, name].seconds) * 1e3


HEADINGS = (
    "shape",
    "activations",
    "format",
    "ms",
    "packed GB/s",
    "read ms",
    "time / read",
    "linear float32 ms",
    "linear float32 / time",
    "linear bfloat16 ms",
    "linear bfloat16 / time",
)


def table_rows(benchmark: Benchmark, rows: int, cols: int, dtype: str, formats: list[str]) -> Iterator[list[str]]:
    for name in formats:
        own, read = benchmark.milliseconds("forward_new", name), benchmark.milliseconds("read", name)
        dense = [benchmark.milliseconds("linear", other) for other in DENSE]
        ratios = [
            cell for ms in dense for cell in (f"{ms:.2f}", f"**{ms / own:.2f}**" if ms < own else f"{ms / own:.2f}")
        ]
        speed = weight_bytes(name, rows, cols) / own / 1e6
        yield [f"{rows}x{cols}", dtype, name, f"{own:.2f}", f"{speed:.1f}", f"{read:.2f}", f"{own / read:.1f}", *ratios]


def parse_shape(text: str) -> tuple[int, int]:
    rows, cols = text.split("x")
    return int(rows), int(cols)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--formats", default=",".join(NAMES), help="comma-separated names; default: all")
    parser.add_argument("--shapes", default="4096x4096", help="comma-separated, output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the activations, comma-separated: {', '.join(DTYPES)}")
    parser.add_argument("--device", default="xpu:0")
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--calls", type=int, default=6, help="counted calls of a contender in a round")
    parser.add_argument("--pause", type=float, default=0.05, help="seconds before each contender's calls")
    parser.add_argument("--rotate", type=int, default=160, help="MiB that the copies of a weight have to exceed")
    parser.add_argument("--statistic", choices=STATISTICS, default="median")
    arguments = parser.parse_args()
    formats = [get_format(name).name for name in arguments.formats.split(",")]
    device = torch.device(arguments.device)

    print(
        f"{arguments.statistic} of {arguments.rounds} x {arguments.calls} calls, {os.cpu_count()} processors, "
        f"{torch.get_num_threads()} threads of PyTorch. Bold: slower than the dense product.\n"
    )
    print("| " + " | ".join(HEADINGS) + " |")
    print("|" + " --- |" * len(HEADINGS), flush=True)
    for rows, cols in map(parse_shape, arguments.shapes.split(",")):
        fitting = [name for name in formats if cols % row_multiple(name) == 0]
        for dtype in arguments.dtype.split(","):
            benchmark = Benchmark(
                rows, cols, dtype, fitting, device, arguments.rotate << 20, STATISTICS[arguments.statistic]
            )
            benchmark.measure(arguments.rounds, arguments.calls, arguments.pause)
            for row in table_rows(benchmark, rows, cols, dtype, fitting):
                print("| " + " | ".join(row) + " |", flush=True)
        for name in sorted(set(formats) - set(fitting)):
            print(
                f"| {rows}x{cols} | | {name} | does not fit: multiples of {row_multiple(name)} |"
                + " |" * (len(HEADINGS) - 4)
            )


if __name__ == "__main__":
    main()
