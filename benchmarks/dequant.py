"""Prints how fast packed weights are expanded, beside a copy of as many bytes on the device, as a markdown table.

    python benchmarks/dequant.py [--formats q4_0,nf4] [--shapes 4096x4096] [--dtype float32,bfloat16]
    python benchmarks/dequant.py --dense --dtype float32,float16    # the kernels for large batches

A shape is the weight's: output size x state size. Timed are the kernels by themselves, which write into a tensor that
is there; fp6 has a kernel for tiles alone, which is given all rows as one tile. The method is that of
benchmarks/matvec.py: rotating copies that exceed the last cache, interleaved rounds, each call waited for.

ms        the expansion
GB/s      packed bytes read plus dense bytes written, by this time
copy      a copy from tensor to tensor on the device that reads and writes as many bytes together
ratio     the expansion's time by the copy's
"""

from __future__ import annotations

import argparse
from collections.abc import Iterator, Sequence
from itertools import product

import torch
from matvec import (
    DTYPES,
    STATISTICS,
    Contender,
    add_arguments,
    copies_of,
    how_measured,
    parse_shape,
    random_packed,
    shown,
    table_head,
    table_line,
)

from quillon._kernels import EXPANSIONS
from quillon.formats import format_code, format_name, row_multiple

WHOLE = {kernel.format for kernel in EXPANSIONS if kernel.operation == "whole"}
TILE = {kernel.format for kernel in EXPANSIONS if kernel.operation == "tile"}
DENSE = {kernel.format for kernel in EXPANSIONS if kernel.operation == "dense"}

HEADINGS = ("shape", "element type", "format", "ms", "GB/s", "copy", "ratio")


class Benchmark:
    """All formats of one shape and element type, by the kernels for large batches if `dense`."""

    def __init__(
        self, rows: int, cols: int, dtype: str, formats: Sequence[str], device: torch.device, memory: int, dense: bool
    ) -> None:
        self.rows, self.cols, self.dtype, self.memory, self.device = rows, cols, dtype, memory, device
        self.dense = dense
        self.formats = [name for name in formats if cols % row_multiple(name) == 0]
        self.bytes: dict[str, int] = {}
        self.contenders: dict[str, Contender] = {}
        element_type = DTYPES[dtype]
        self.outputs = copies_of(lambda: torch.empty(rows, cols, dtype=element_type, device=device), memory)
        largest = max(random_packed(name, rows, cols).numel() for name in self.formats)
        half = (self.outputs[0].nbytes + largest + 1) // 2
        self.pairs = [
            (torch.zeros(half, dtype=torch.uint8, device=device), torch.zeros(half, dtype=torch.uint8, device=device))
            for _ in range(1 + memory // (2 * half))
        ]
        for name in self.formats:
            self._add_format(name)

    def _add_format(self, name: str) -> None:
        weights = copies_of(lambda: random_packed(name, self.rows, self.cols).to(self.device), self.memory)
        qtype = format_code(name)
        half = (self.outputs[0].nbytes + weights[0].numel()) // 2
        self.bytes[name] = 2 * half

        def run(i: int) -> None:
            weight, output = weights[i % len(weights)], self.outputs[i % len(self.outputs)]
            if self.dense:
                torch.ops.quillon_kernels.expand_weight_fast(weight, output, qtype)
            elif name in WHOLE:
                torch.ops.quillon_kernels.expand_weight(weight, output, qtype)
            else:
                torch.ops.quillon_kernels.expand_rows_of(weight, output, qtype, self.rows, 0)
            torch.xpu.synchronize(self.device)

        def copy(i: int) -> None:
            source, target = self.pairs[i % len(self.pairs)]
            target[:half].copy_(source[:half])
            torch.xpu.synchronize(self.device)

        self.contenders[f"expand {name}"] = Contender(run)
        self.contenders[f"copy {name}"] = Contender(copy)

    def measure(self, rounds: int, calls: int, pause: float) -> None:
        for _ in range(rounds):
            for contender in self.contenders.values():
                contender.measure(calls, pause)

    def table_rows(self, statistic: str) -> Iterator[list[str]]:
        """Rows under ``HEADINGS``, one for each format that fits the shape."""
        milliseconds = {name: STATISTICS[statistic](c.seconds) * 1e3 for name, c in self.contenders.items()}
        for name in self.formats:
            own, copy = milliseconds[f"expand {name}"], milliseconds[f"copy {name}"]
            cells = [shown(own), f"{self.bytes[name] / own / 1e6:.1f}", shown(copy), f"{own / copy:.2f}"]
            yield [f"{self.rows}x{self.cols}", self.dtype, name, *cells]


def measured_rows(arguments: argparse.Namespace, shapes: str, dtypes: str) -> Iterator[list[str]]:
    """Rows under ``HEADINGS`` for every shape and element type, each as soon as it has been measured."""
    expanded = DENSE if arguments.dense else WHOLE | TILE
    formats = [name for name in map(format_name, arguments.formats.split(",")) if name in expanded]
    for shape, dtype in product(shapes.split(","), dtypes.split(",")):
        benchmark = Benchmark(
            *parse_shape(shape), dtype, formats, torch.device(arguments.device), arguments.rotate << 20, arguments.dense
        )
        benchmark.measure(arguments.rounds, arguments.calls, arguments.pause)
        yield from benchmark.table_rows(arguments.statistic)
        benchmark.contenders.clear()  # they refer to the benchmark, whose weights go before the next one's are made


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--shapes", default="4096x4096", help="comma-separated, output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the result, comma-separated: {', '.join(DTYPES)}")
    parser.add_argument("--dense", action="store_true", help="the kernels for large batches")
    add_arguments(parser)
    arguments = parser.parse_args()
    print(how_measured(arguments).split("; bold")[0] + ".\n")
    print("\n".join(table_head(HEADINGS)), flush=True)
    for row in measured_rows(arguments, arguments.shapes, arguments.dtype):
        print(table_line(row), flush=True)


if __name__ == "__main__":
    main()
