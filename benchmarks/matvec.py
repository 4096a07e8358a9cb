"""Prints how fast `forward_new` is at batch 1, beside what a user would take instead, as a markdown table.

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

Times are in milliseconds, "ms" being that of `forward_new`. Beside it are timed:

read              as many bytes summed as 64-bit integers, with as many threads
linear            `at::linear` on a dense weight; on the host device with plain CPU tensors, to spare it the fallback
int4, int8        PyTorch's own products with packed weights, `_weight_int4pack_mm_for_cpu` in groups of 64 and
                  `_weight_int8pack_mm`, both with bfloat16 activations, their fast case; on the CPU alone

In parentheses is the other product's time divided by that of `forward_new`, bold where `forward_new` takes longer.
Packed GB/s counts the weight's bytes, scales included, against the time of `forward_new`.
"""

from __future__ import annotations

import argparse
import os
import statistics
import time
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass, field
from itertools import product

import torch
from torch import Tensor

import quillon
import vesper_linear
from quillon.formats import (
    WEIGHT_FORMATS,
    field_offsets,
    format_code,
    format_name,
    get_format,
    row_multiple,
    weight_bytes,
)
from quillon.nn import LowBitLinear

DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}
STATISTICS: dict[str, Callable[[list[float]], float]] = {"median": statistics.median, "min": min}
UNCOUNTED = 2
INT4_GROUP = 64

SHARED = ("linear float32", "linear bfloat16", "int4", "int8")
HEADINGS = ("shape", "activations", "format", "ms", "packed GB/s", "read", "time / read", *SHARED)


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
    """Bytes below 0x3C: any code, while no scale is infinite, NaN or above 1.

    Scales in float would be so small of such bytes that kernels in half make zeros of the weight, which some memory
    writes twice as fast as anything else; they are random numbers.
    """
    packed = torch.randint(0, 0x3C, (weight_bytes(format_name, rows, cols),), dtype=torch.uint8)
    blocks = packed.numel() // get_format(format_name).bytes
    offset, step = field_offsets(format_name, blocks).get("d", (0, 0))
    if step == 4:
        packed[offset : offset + step * blocks].view(torch.float32).uniform_(0.001, 0.01)
    return packed


class Benchmark:
    """All contenders of one shape, one element type of the activations and one number of their rows."""

    def __init__(
        self,
        rows: int,
        cols: int,
        dtype: str,
        formats: Sequence[str],
        device: torch.device,
        memory: int,
        batch: int = 1,
    ) -> None:
        self.rows, self.cols, self.dtype, self.memory = rows, cols, dtype, memory
        self.device = device
        self.dense_device = torch.device("cpu") if quillon.host_device.is_active() else device
        self.formats = [name for name in formats if cols % row_multiple(name) == 0]
        self.contenders: dict[str, Contender] = {}
        x = torch.rand(batch, cols) - 0.5
        for name in dict.fromkeys(("float32", "bfloat16", dtype)):
            self._add_linear(name, x.to(DTYPES[name]))
        if self.dense_device.type == "cpu":
            self._add_int8(x.bfloat16())
            if cols % INT4_GROUP == 0:
                self._add_int4(x.bfloat16())
        largest = max((weight_bytes(name, rows, cols) for name in self.formats), default=0)
        self.to_read = torch.randint(0, 2**62, ((memory + largest) // 8,), device=self.dense_device)
        for name in self.formats:
            self._add_format(name, x.to(DTYPES[dtype]).to(device))

    def _finish(self, device: torch.device) -> None:
        if device.type == "xpu":
            torch.xpu.synchronize(device)

    def _add_linear(self, name: str, x: Tensor) -> None:
        shape, dtype, x = (self.rows, self.cols), DTYPES[name], x.to(self.dense_device)
        weights = copies_of(
            lambda: torch.empty(shape, dtype=dtype, device=self.dense_device).uniform_(-1, 1), self.memory
        )

        def run(i: int) -> None:
            torch.nn.functional.linear(x, weights[i % len(weights)])
            self._finish(self.dense_device)

        self.contenders[f"linear {name}"] = Contender(run)

    def _add_int4(self, x: Tensor) -> None:
        codes = torch.randint(0, 16, (self.rows, self.cols), dtype=torch.int32)
        packed = torch.ops.aten._convert_weight_to_int4pack_for_cpu(codes, 2)
        weights = copies_of(packed.clone, self.memory)
        # A scale and a zero point for each group of each row.
        scales = [torch.rand(self.cols // INT4_GROUP, self.rows, 2).bfloat16() for _ in weights]

        def run(i: int) -> None:
            copy = i % len(weights)
            torch.ops.aten._weight_int4pack_mm_for_cpu(x, weights[copy], INT4_GROUP, scales[copy])

        self.contenders["int4"] = Contender(run)

    def _add_int8(self, x: Tensor) -> None:
        shape = (self.rows, self.cols)
        weights = copies_of(lambda: torch.randint(-128, 128, shape, dtype=torch.int8), self.memory)
        scales = torch.rand(self.rows).bfloat16()

        def run(i: int) -> None:
            torch.ops.aten._weight_int8pack_mm(x, weights[i % len(weights)], scales)

        self.contenders["int8"] = Contender(run)

    def _add_format(self, name: str, x: Tensor) -> None:
        qtype = format_code(name)
        weights = copies_of(lambda: random_packed(name, self.rows, self.cols).to(self.device), self.memory)
        words = weights[0].numel() // 8
        pieces = self.to_read.numel() // words

        def run(i: int) -> None:
            vesper_linear.forward_new(x, weights[i % len(weights)], qtype, 0)
            self._finish(self.device)

        def read(i: int) -> None:
            self.to_read[i % pieces * words :][:words].sum()
            self._finish(self.dense_device)

        def through_layer(i: int) -> None:
            layer.packed = weights[i % len(weights)]
            layer(x)
            self._finish(self.device)

        self.contenders[f"forward_new {name}"] = Contender(run)
        self.contenders[f"read {name}"] = Contender(read)
        if x.shape[0] > 1:  # a layer may cut a batch into several calls
            layer = LowBitLinear(self.cols, self.rows, name, bias=False)
            self.contenders[f"LowBitLinear {name}"] = Contender(through_layer)

    def measure(self, rounds: int, calls: int, pause: float) -> None:
        for _ in range(rounds):
            for contender in self.contenders.values():
                contender.measure(calls, pause)

    def table_rows(self, statistic: Callable[[list[float]], float]) -> Iterator[list[str]]:
        """Rows under ``HEADINGS``, one for each format that fits the shape."""
        milliseconds = {name: statistic(c.seconds) * 1e3 for name, c in self.contenders.items()}
        for name in self.formats:
            own = milliseconds[f"forward_new {name}"]
            speed = weight_bytes(name, self.rows, self.cols) / own / 1e6
            read = milliseconds[f"read {name}"]
            others = [compared(milliseconds.get(other), own) for other in SHARED]
            cells = [shown(own), f"{speed:.1f}", shown(read), f"{own / read:.1f}", *others]
            yield [f"{self.rows}x{self.cols}", self.dtype, name, *cells]


def shown(milliseconds: float) -> str:
    return f"{milliseconds:.2f}" if milliseconds >= 1 else f"{milliseconds:.3f}"


def compared(other: float | None, own: float) -> str:
    """A contender's time and how many times `forward_new` goes into it."""
    if other is None:
        return "-"
    ratio = f"{other / own:.2f}"
    return f"{shown(other)} ({f'**{ratio}**' if other < own else ratio})"


def parse_shape(text: str) -> tuple[int, int]:
    rows, cols = text.split("x")
    return int(rows), int(cols)


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The arguments that say how to measure."""
    parser.add_argument("--formats", default=",".join(WEIGHT_FORMATS), help="comma-separated names; default: all")
    parser.add_argument("--device", default="xpu:0")
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--calls", type=int, default=6, help="counted calls of a contender in a round")
    parser.add_argument("--pause", type=float, default=0.05, help="seconds before each contender's calls")
    parser.add_argument("--rotate", type=int, default=160, help="MiB that the copies of a weight have to exceed")
    parser.add_argument("--statistic", choices=STATISTICS, default="median")


def measured_rows(arguments: argparse.Namespace, shapes: str, dtypes: str) -> Iterator[list[str]]:
    """Rows under ``HEADINGS`` for every shape and element type, each as soon as it has been measured."""
    formats = [format_name(name) for name in arguments.formats.split(",")]
    for shape, dtype in product(shapes.split(","), dtypes.split(",")):
        benchmark = Benchmark(
            *parse_shape(shape), dtype, formats, torch.device(arguments.device), arguments.rotate << 20
        )
        benchmark.measure(arguments.rounds, arguments.calls, arguments.pause)
        yield from benchmark.table_rows(STATISTICS[arguments.statistic])
        for name in sorted(set(formats) - set(benchmark.formats)):
            reason = f"does not fit: multiples of {row_multiple(name)}"
            yield [shape, dtype, name, reason, *[""] * (len(HEADINGS) - 4)]
        benchmark.contenders.clear()  # they refer to the benchmark, whose weights go before the next one's are made


def how_measured(arguments: argparse.Namespace) -> str:
    """One sentence for above a table."""
    return (
        f"{arguments.statistic} of {arguments.rounds} x {arguments.calls} calls, {os.cpu_count()} processors, "
        f"{torch.get_num_threads()} threads of PyTorch; bold: slower than the other product."
    )


def table_head(headings: Sequence[str]) -> list[str]:
    return [table_line(headings), "|" + " --- |" * len(headings)]


def table_line(cells: Sequence[str]) -> str:
    return "| " + " | ".join(cells) + " |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--shapes", default="4096x4096", help="comma-separated, output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the activations, comma-separated: {', '.join(DTYPES)}")
    add_arguments(parser)
    arguments = parser.parse_args()
    print(how_measured(arguments) + "\n")
    print("\n".join(table_head(HEADINGS)), flush=True)
    for row in measured_rows(arguments, arguments.shapes, arguments.dtype):
        print(table_line(row), flush=True)


if __name__ == "__main__":
    main()
