"""Prints how fast `forward_new` is for several activation rows, beside dense products, as a markdown table.

    python benchmarks/batch.py [--formats q4_0,nf4] [--batches 1,4,64] [--dtype float32,float16] [--shape 4096x4096]

Measured as in benchmarks/matvec.py, with as many copies of each weight. A line is a format, or a `LowBitLinear` of it,
which may cut the rows into several calls; a column is a number of rows; a cell is the milliseconds of a call and, in
parentheses, how many times that is `at::linear` with a dense weight of the same element type, bold above 1.1. The first
lines are the dense products themselves and PyTorch's int4 product, which multiplies in bfloat16.
"""

from __future__ import annotations

import argparse
from collections.abc import Iterator

import torch
from matvec import (
    DTYPES,
    STATISTICS,
    Benchmark,
    Contender,
    add_arguments,
    how_measured,
    parse_shape,
    shown,
    table_head,
    table_line,
)

from quillon.formats import format_name

BATCHES = "1,2,3,4,7,8,16,64,512"
SLOWER = 1.1
OURS = ("forward_new", "LowBitLinear")


def is_served(contender: Contender) -> bool:
    """Whether there is such a product: some formats have no road for large batches of some element types."""
    try:
        contender.run(0)
    except (NotImplementedError, RuntimeError):
        return False
    return True


def measured(arguments: argparse.Namespace, dtype: str) -> dict[int, dict[str, float]]:
    """Milliseconds by batch and contender; those of `at::linear` in the type of the activations under "linear"."""
    formats = [format_name(name) for name in arguments.formats.split(",")]
    times: dict[int, dict[str, float]] = {}
    for batch in map(int, arguments.batches.split(",")):
        benchmark = Benchmark(
            *parse_shape(arguments.shape), dtype, formats, torch.device(arguments.device), arguments.rotate << 20, batch
        )
        benchmark.contenders = {
            name: one for name, one in benchmark.contenders.items() if not name.startswith("read") and is_served(one)
        }
        benchmark.measure(arguments.rounds, arguments.calls, arguments.pause)
        statistic = STATISTICS[arguments.statistic]
        times[batch] = {name: statistic(one.seconds) * 1e3 for name, one in benchmark.contenders.items()}
        benchmark.contenders.clear()
    return times


def table_rows(times: dict[int, dict[str, float]], dtype: str) -> Iterator[list[str]]:
    names = dict.fromkeys(name for at_batch in times.values() for name in at_batch)
    for name in (one for one in names if not one.startswith(OURS)):
        yield [dtype, name, *(shown(times[batch][name]) if name in times[batch] else "-" for batch in times)]
    for name in (one for one in names if one.startswith(OURS)):
        cells = []
        for at_batch in times.values():
            if name not in at_batch:
                cells.append("-")
                continue
            ratio = at_batch[name] / at_batch[f"linear {dtype}"]
            text = f"{ratio:.2f}"
            cells.append(f"{shown(at_batch[name])} ({f'**{text}**' if ratio > SLOWER else text})")
        yield [dtype, name.removeprefix("forward_new "), *cells]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--batches", default=BATCHES, help="numbers of activation rows, comma-separated")
    parser.add_argument("--shape", default="4096x4096", help="of the weight: output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the activations, comma-separated: {', '.join(DTYPES)}")
    add_arguments(parser)
    arguments = parser.parse_args()
    print(f"{arguments.shape}; {how_measured(arguments).split('; bold')[0]}; bold: above {SLOWER} times linear.\n")
    print("\n".join(table_head(["activations", "product", *arguments.batches.split(",")])), flush=True)
    for dtype in arguments.dtype.split(","):
        for row in table_rows(measured(arguments, dtype), dtype):
            print(table_line(row), flush=True)


if __name__ == "__main__":
    main()
