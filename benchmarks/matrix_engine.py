"""Prints how fast `forward_new` is on the matrix-engine path, beside dense products, as a markdown table.

    python benchmarks/matrix_engine.py [--formats q4_0,q8_0] [--batches 2,8,64] [--dtype float32,bfloat16]

Measured as in benchmarks/matvec.py, with as many copies of each weight. On the host device there is one device of each
class with an engine: `elm` takes the batches up to 16 that are its own, `oak` the rest. Times are in milliseconds:

ms        `forward_new`
linear    `at::linear` with a dense weight of the same element type; on the host device with CPU tensors
dense     the weight expanded into a dense one that is there, and `at::linear` with that: what other devices do

In parentheses is the other's time divided by that of `forward_new`, bold where `forward_new` takes longer.
"""

from __future__ import annotations

import argparse
import os
from collections.abc import Iterator
from dataclasses import dataclass

os.environ.setdefault("QUILLON_HOST_DEVICES", "0x30F000700,0x30DC00800")

import torch
from matvec import (
    DTYPES,
    STATISTICS,
    Contender,
    add_arguments,
    compared,
    copies_of,
    how_measured,
    parse_shape,
    random_packed,
    shown,
    table_head,
    table_line,
)
from torch import Tensor

import quillon
import vesper_linear
from quillon._kernels import ENGINE_BATCHES
from quillon.formats import format_code, format_name

FORMATS = tuple(next(iter(ENGINE_BATCHES.values())))
BATCHES = "2,3,4,7,8,9,16,17,24,32,48,64"
HEADINGS = ("activations", "format", "batch", "class", "ms", "linear", "dense")


@dataclass
class Engine:
    """A device with a matrix engine."""

    device: torch.device
    device_class: str

    def takes(self, name: str, batch: int) -> bool:
        first, last = ENGINE_BATCHES[self.device_class][name]
        return first <= batch <= last


def engines() -> list[Engine]:
    devices = [torch.device("xpu", index) for index in range(torch.xpu.device_count())]
    named = [Engine(device, vesper_linear.get_xpu_device_name(device)) for device in devices]
    return [engine for engine in named if engine.device_class in ENGINE_BATCHES]


class Benchmark:
    """One format, element type and shape, with what all batches share."""

    def __init__(self, rows: int, cols: int, dtype: str, name: str, memory: int) -> None:
        self.cols, self.element_type, self.name = cols, DTYPES[dtype], name
        packed = copies_of(lambda: random_packed(name, rows, cols), memory)
        self.packed = {engine.device: [weight.to(engine.device) for weight in packed] for engine in engines()}
        self.on_cpu = quillon.host_device.is_active()
        self.dense_device = torch.device("cpu") if self.on_cpu else engines()[0].device
        self.dense = copies_of(
            lambda: torch.empty(rows, cols, dtype=self.element_type, device=self.dense_device).uniform_(-1, 1), memory
        )

    def expand(self, weight: Tensor, output: Tensor) -> None:
        """By the kernels of the dense road; those of fp8_e4m3 are for float and half alone."""
        fast = self.element_type in (torch.float32, torch.float16)
        expand = torch.ops.quillon_kernels.expand_weight_fast if fast else torch.ops.quillon_kernels.expand_weight
        expand(weight, output, format_code(self.name))
        torch.xpu.synchronize(output.device)

    def contenders(self, engine: Engine, batch: int) -> dict[str, Contender]:
        x = (torch.rand(batch, self.cols) - 0.5).to(self.element_type)
        given, for_dense = x.to(engine.device), x.to(self.dense_device)
        packed, code = self.packed[engine.device], format_code(self.name)
        expanded = torch.empty_like(self.dense[0], device=engine.device)

        def own(i: int) -> None:
            vesper_linear.forward_new(given, packed[i % len(packed)], code, 0)
            torch.xpu.synchronize(engine.device)

        def linear(i: int) -> None:
            torch.nn.functional.linear(for_dense, self.dense[i % len(self.dense)])
            if not self.on_cpu:
                torch.xpu.synchronize(self.dense_device)

        def dense(i: int) -> None:
            self.expand(packed[i % len(packed)], expanded)
            torch.nn.functional.linear(given, expanded)
            torch.xpu.synchronize(engine.device)

        found = {"own": Contender(own), "linear": Contender(linear)}
        if not (self.name == "fp8_e4m3" and self.element_type == torch.bfloat16):
            found["dense"] = Contender(dense)
        return found


def measured_rows(arguments: argparse.Namespace) -> Iterator[list[str]]:
    statistic = STATISTICS[arguments.statistic]
    for dtype in arguments.dtype.split(","):
        for name in map(format_name, arguments.formats.split(",")):
            benchmark = Benchmark(*parse_shape(arguments.shape), dtype, name, arguments.rotate << 20)
            for batch in map(int, arguments.batches.split(",")):
                engine = next((one for one in engines() if one.takes(name, batch)), None)
                if engine is None:
                    continue
                contenders = benchmark.contenders(engine, batch)
                for _ in range(arguments.rounds):
                    for contender in contenders.values():
                        contender.measure(arguments.calls, arguments.pause)
                ms = {which: statistic(one.seconds) * 1e3 for which, one in contenders.items()}
                others = [compared(ms.get(other), ms["own"]) for other in ("linear", "dense")]
                yield [dtype, name, str(batch), engine.device_class, shown(ms["own"]), *others]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--batches", default=BATCHES, help="numbers of activation rows, comma-separated")
    parser.add_argument("--shape", default="4096x4096", help="of the weight: output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the activations, comma-separated: {', '.join(DTYPES)}")
    add_arguments(parser)
    parser.set_defaults(formats=",".join(FORMATS))
    arguments = parser.parse_args()
    print(f"{arguments.shape}; {how_measured(arguments)}\n")
    print("\n".join(table_head(HEADINGS)), flush=True)
    for row in measured_rows(arguments):
        print(table_line(row), flush=True)


if __name__ == "__main__":
    main()
