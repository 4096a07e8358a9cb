"""Prints how fast the fused MLP is, beside the products and the activation that it replaces, as a markdown table.

    python benchmarks/mlp.py [--formats q4_0,fp6] [--shapes 11008x4096,1536x576] [--dtype float32,float16]

A shape is that of either weight: output size x state size. The method is that of benchmarks/matvec.py: weights rotate
through copies that exceed the last cache, contenders are measured in interleaved rounds. Eight calls in a row are
waited for together, as a model that generates gives them, and a time is an eighth of theirs.

us         `mlp_forward_xpu` with SiLU
two        two calls of `forward_new`, SiLU and the product of the two
joined     one call of `forward_new` with both weights in one matrix, SiLU and the product of its halves
GELU       `mlp_forward_xpu` with its other activation

In parentheses is the time of `mlp_forward_xpu` by the other's: below 1 the fused call is faster.
"""

from __future__ import annotations

import argparse
from collections.abc import Callable
from itertools import product

import torch
from matvec import (
    DTYPES,
    STATISTICS,
    Contender,
    add_arguments,
    how_measured,
    parse_shape,
    random_packed,
    table_head,
    table_line,
)
from torch import Tensor

import vesper_linear
from quillon._kernels import MLP_KERNELS
from quillon.formats import FORMATS, format_code, format_name, row_multiple, weight_bytes
from quillon.joined import join_packed

# Those that every device class has.
MLP_FORMATS = {name: FORMATS[name] for name, kernel in MLP_KERNELS.items() if kernel.runs_on("unknown")}

IN_A_ROW = 8
HEADINGS = ("shape", "activations", "format", "us", "two", "joined", "GELU", "packed GB/s")


def contenders(name: str, rows: int, cols: int, dtype: str, device: torch.device, memory: int) -> dict[str, Contender]:
    """All of one format and shape."""
    code, silu = format_code(name), torch.nn.functional.silu
    count = memory // (2 * weight_bytes(name, rows, cols)) + 1
    pairs = [[random_packed(name, rows, cols).to(device) for _ in range(2)] for _ in range(count)]
    joined = [join_packed(MLP_FORMATS[name], pair) for pair in pairs]
    x = (torch.rand(1, cols) - 0.5).to(DTYPES[dtype]).to(device)

    def in_a_row(call: Callable[[int], object]) -> Contender:
        def run(i: int) -> None:
            for k in range(IN_A_ROW):
                call((i * IN_A_ROW + k) % count)
            torch.xpu.synchronize(device)

        return Contender(run)

    def fused(i: int, act: int = 0) -> Tensor:
        return vesper_linear.mlp_forward_xpu(x, *pairs[i], 1, cols, rows, act, code)

    def two_products(i: int) -> Tensor:
        gate, up = (vesper_linear.forward_new(x, weight, code, cols) for weight in pairs[i])
        return silu(gate) * up

    def one_product(i: int) -> Tensor:
        both = vesper_linear.forward_new(x, joined[i], code, cols)
        return silu(both[:, :rows]) * both[:, rows:]

    return {
        "fused": in_a_row(fused),
        "two": in_a_row(two_products),
        "joined": in_a_row(one_product),
        "gelu": in_a_row(lambda i: fused(i, 1)),
    }


def measured_row(name: str, shape: str, dtype: str, arguments: argparse.Namespace) -> list[str]:
    """A row under ``HEADINGS``."""
    rows, cols = parse_shape(shape)
    if cols % row_multiple(name):
        return [shape, dtype, name, f"does not fit: multiples of {row_multiple(name)}", *[""] * 4]
    made = contenders(name, rows, cols, dtype, torch.device(arguments.device), arguments.rotate << 20)
    for _ in range(arguments.rounds):
        for contender in made.values():
            contender.measure(arguments.calls, arguments.pause)
    micros = {which: STATISTICS[arguments.statistic](one.seconds) / IN_A_ROW * 1e6 for which, one in made.items()}
    own = micros["fused"]
    speed = 2 * weight_bytes(name, rows, cols) / own / 1e3
    others = [f"{micros[which]:.0f} ({own / micros[which]:.2f})" for which in ("two", "joined")]
    return [shape, dtype, name, f"{own:.0f}", *others, f"{micros['gelu']:.0f}", f"{speed:.1f}"]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--shapes", default="11008x4096,1536x576", help="comma-separated, output size x state size")
    parser.add_argument("--dtype", default="float32", help=f"of the activations, comma-separated: {', '.join(DTYPES)}")
    add_arguments(parser)
    parser.set_defaults(formats=",".join(MLP_FORMATS), statistic="min", pause=0.02, rounds=6)
    arguments = parser.parse_args()
    print(how_measured(arguments).replace("; bold: slower than the other product", "") + "\n")
    print("\n".join(table_head(HEADINGS)), flush=True)
    formats = [format_name(name) for name in arguments.formats.split(",")]
    for shape, dtype, name in product(arguments.shapes.split(","), arguments.dtype.split(","), formats):
        print(table_line(measured_row(name, shape, dtype, arguments)), flush=True)


if __name__ == "__main__":
    main()
