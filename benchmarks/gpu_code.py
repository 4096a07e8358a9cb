"""Prints what the inner loop of each kernel costs on each GPU architecture, as the machine code tells.

    python benchmarks/gpu_code.py [--kernel TEXT] [--type float --type c10::Half]
    python benchmarks/gpu_code.py --matrix-engine

Method. Every instantiation is compiled for the architectures whose class uses it, as ``tools/gpu_compile``
tells, and disassembled. A loop is the code from a label to the branch that jumps back to it; the kernel's
loop over K is the longest of those that hold no other loop: the others take rows that do not start on a block, or
rounds that remain. A kernel in double takes its rows one after the other, and all their loops count. Counted are

  instructions   all assembly lines, those that only wait for others too; a line that serves all lanes counts
                 as one, whether the hardware issues it once or twice
  messages       the ``send`` instructions, each one request to a memory unit, whatever its width

Both are divided by the packed weight bytes, scales included, that a hardware thread consumes in one pass of
the loop: lanes x rows x a work-item's bytes of one row. A message of 16 lanes x 8 bytes is thus 0.008 a byte.

Registers (GRF) are those that the compiler gave a hardware thread, spill the bytes of what did not fit.
Architectures with the same numbers share a row. The kernels against q8_1 activations have further loops with as
many messages; the numbers per byte are then too high, which the table marks by ``*``.

The table says what a kernel asks of a GPU and not how fast it runs: it shows one that asks too much.

With ``--matrix-engine`` it is the page of that product, for row tiles of eight. A pass of its loop takes a block of
each column of a tile, and there is a loop for each format. Those with a byte for an element are told from q4_0 by the
size of their loads, and not from each other: the longest counts. Columns are

  systolic / byte   operations of the engine for each packed byte: four in a pass
  bytes of a group  that a work-group loads at the shape and a batch of eight rows: its columns of the weight, and all
                    activations
  microseconds      at the shape, on the device of the class that ``ENGINES`` describes, by three bounds: "memory" has
                    the weight come from memory once and be in a cache for the other row tiles, with activations and
                    output; "systolic" is the engine's rate; "issue" an instruction a cycle on each vector engine
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from functools import partial
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PROJECT / "tools"))

from gpu_compile.instantiations import Case, Compiled, cases, compile_cases  # noqa: E402
from gpu_compile.jobs import GpuCompileError, run_jobs  # noqa: E402
from gpu_compile.machine_code import Loop, innermost_loops  # noqa: E402
from gpu_compile.ocloc import assembly, device_argument  # noqa: E402

from quillon._device_table import ARCHITECTURES  # noqa: E402
from quillon._kernels import ELEMENT_TYPES, ENGINE_KERNELS, KERNELS, Kernel  # noqa: E402
from quillon.formats import get_format  # noqa: E402

HEADINGS = (
    "kernel",
    "architectures",
    "instructions / byte",
    "messages / byte",
    "instructions",
    "messages",
    "GRF",
    "spill",
)


@dataclass(frozen=True)
class Cost:
    """What one pass of a kernel's loop over K takes."""

    instructions: int
    messages: int
    packed_bytes: float
    loops: int
    grf_count: int
    spill_size: int

    @property
    def instructions_per_byte(self) -> float:
        return self.instructions / self.packed_bytes

    def cells(self) -> list[str]:
        mark = "*" if self.loops > 1 else ""
        return [
            f"{self.instructions_per_byte:.2f}{mark}",
            f"{self.messages / self.packed_bytes:.3f}{mark}",
            str(self.instructions),
            str(self.messages),
            str(self.grf_count),
            str(self.spill_size),
        ]


def asks_global_memory(loop: Loop) -> bool:
    """Whether a loop sends to any unit but that of local memory and that of barriers."""
    return any("send.slm" not in message and "gtwy" not in message for message in loop.messages)


def cost(case: Case, code: str, compiled: Compiled) -> Cost:
    """The cost of a case whose kernel has the assembly ``code``."""
    loops = [loop for loop in innermost_loops(code) if asks_global_memory(loop)]
    if not loops:
        raise GpuCompileError(f"{case} has no loop over global memory")
    longest = max(loops, key=lambda loop: len(loop.instructions))
    alike = [loop for loop in loops if len(loop.messages) == len(longest.messages)]
    counted = alike if case.kernel.range == "rows" else [longest]
    return Cost(
        instructions=sum(len(loop.instructions) for loop in counted),
        messages=sum(len(loop.messages) for loop in counted),
        packed_bytes=compiled.info.simd_size * case.build.packed_bytes,
        loops=len(alike) - len(counted) + 1,
        grf_count=compiled.info.grf_count,
        spill_size=compiled.info.spill_size,
    )


def cost_of(case: Case, outcome: Compiled | GpuCompileError) -> Cost:
    if isinstance(outcome, GpuCompileError):
        raise outcome
    text = assembly(outcome.module).get(outcome.info.entry)
    if text is None:
        raise GpuCompileError(f"{case.expression}: its name is too long for ocloc to write its assembly")
    return cost(case, text, outcome)


def table(costs: Mapping[Case, Cost]) -> list[list[str]]:
    """Rows of the table, architectures with the same numbers in one."""
    groups: dict[tuple[str, Cost], list[str]] = {}
    for case, found in costs.items():
        groups.setdefault((case.expression, found), []).append(device_argument(case.architecture))
    rows = [
        [f"`{expression}`", ", ".join(architectures), *found.cells()]
        for (expression, found), architectures in groups.items()
    ]
    return sorted(rows, key=lambda row: row[0])


def by_class(costs: Mapping[Case, Cost]) -> tuple[list[str], list[list[str]]]:
    """Headings and rows of a short table: instructions per byte of each format, the most on any GPU of a class."""
    classes = list(dict.fromkeys(ARCHITECTURES.values()))
    most: dict[str, dict[str, Cost]] = {}
    for case, found in costs.items():
        worst = most.setdefault(case.kernel.format, {})
        device_class = ARCHITECTURES[case.architecture]
        if device_class not in worst or worst[device_class].instructions_per_byte < found.instructions_per_byte:
            worst[device_class] = found
    rows = [
        [format_name, *(worst[name].cells()[0] if name in worst else "-" for name in classes)]
        for format_name, worst in sorted(most.items())
    ]
    return ["format", *classes], rows


@dataclass(frozen=True)
class EngineDevice:
    """A large device of a class with a matrix engine."""

    vector_engines: int
    gigahertz: float
    gigabytes_per_second: float
    cycles_of_operation: int
    """For eight rows, on one vector engine."""


ENGINES = {
    "oak": EngineDevice(vector_engines=512, gigahertz=2.1, gigabytes_per_second=560, cycles_of_operation=16),
    "elm": EngineDevice(vector_engines=1024, gigahertz=1.6, gigabytes_per_second=3280, cycles_of_operation=8),
}
ENGINE_HEADINGS = ("class", "activations", "formats", "instructions / byte", "systolic / byte", "messages", "GRF")
ELEMENT_BYTES = {"float": 4, "c10::Half": 2, "c10::BFloat16": 2}
BLOCK, DEPTH, ROW_TILE = 64, 16, 8


def engine_loops(code: str) -> dict[str, Loop]:
    """The longest loop over K for nibbles and for bytes, which differ in how many 32 bytes a column has."""
    found: dict[str, Loop] = {}
    for loop in innermost_loops(code):
        if any("dpas." in line for line in loop.instructions):
            nibbles = sum("load.ugm.d64x4t" in message for message in loop.messages) > 0
            kind = "q4_0" if nibbles else "q8_0, fp8"
            if kind not in found or len(found[kind].instructions) < len(loop.instructions):
                found[kind] = loop
    if set(found) != {"q4_0", "q8_0, fp8"}:
        raise GpuCompileError(f"loops for {', '.join(found) or 'nothing'} in a kernel of the matrix engine")
    return found


def engine_rows(
    case: Case, outcome: Compiled | GpuCompileError, rows: int, cols: int, batches: Sequence[int]
) -> list[list[str]]:
    """What a kernel asks of the device of its class, a line for each kind of format."""
    if isinstance(outcome, GpuCompileError):
        raise outcome
    device_class = ARCHITECTURES[case.architecture]
    device, columns = ENGINES[device_class], case.build.geometry.rows
    element = ELEMENT_BYTES[case.element_type]
    lines = []
    for kind, loop in engine_loops(assembly(outcome.module)[outcome.info.entry]).items():
        block = get_format(kind.split(",")[0]).bytes
        packed = columns * block
        group = columns * cols // BLOCK * block + ROW_TILE * cols * element
        cells = [
            device_class,
            case.element_type,
            kind,
            f"{len(loop.instructions) / packed:.2f}",
            f"{BLOCK // DEPTH / packed:.4f}",
            str(len(loop.messages)),
            str(outcome.info.grf_count),
            f"{group / 1024:.0f} KiB",
        ]
        for batch in batches:
            passes = rows // columns * (cols // BLOCK) * -(-batch // ROW_TILE)
            memory = (
                (rows * cols // BLOCK * block + batch * (rows + cols) * element) / device.gigabytes_per_second / 1e3
            )
            cycles = device.vector_engines * device.gigahertz * 1e3  # in a microsecond
            systolic = passes * BLOCK // DEPTH * device.cycles_of_operation / cycles
            issue = passes * len(loop.instructions) / cycles
            cells.append(f"{memory:.0f} / {systolic:.0f} / {issue:.0f}")
        lines.append(cells)
    return lines


def engine_page(rows: int, cols: int, batches: Sequence[int]) -> tuple[list[str], list[list[str]]]:
    """Headings and rows of the page of the product on matrix engines: one architecture of each class."""
    kernel = next(kernel for kernel in ENGINE_KERNELS if kernel.m_tail == ROW_TILE)
    first = {device_class: architecture for architecture, device_class in reversed(ARCHITECTURES.items())}
    wanted = [case for case in cases([kernel]) if case.architecture == first[ARCHITECTURES[case.architecture]]]
    outcomes = compile_cases(wanted)
    lines = [line for case in wanted for line in engine_rows(case, outcomes[case], rows, cols, batches)]
    by_batch = [f"microseconds at {batch}: memory / systolic / issue" for batch in batches]
    return [*ENGINE_HEADINGS, "bytes of a group", *by_batch], sorted(lines)


def markdown(headings: Sequence[str], rows: Sequence[Sequence[str]]) -> str:
    widths = [max(len(cell) for cell in column) for column in zip(headings, *rows, strict=True)]
    rule = ["-" * width for width in widths]
    lines = [[cell.ljust(width) for cell, width in zip(row, widths, strict=True)] for row in [headings, rule, *rows]]
    return "\n".join("| " + " | ".join(cells) + " |" for cells in lines)


def measured_costs(chosen: Iterable[Kernel], types: Sequence[str]) -> tuple[dict[Case, Cost], list[str]]:
    """The cost of every instantiation of the kernels in these element types, and what went wrong with others."""
    wanted = [case for case in cases(chosen) if case.element_type in types]
    outcomes = compile_cases(wanted)
    found = dict(zip(wanted, run_jobs(partial(cost_of, case, outcomes[case]) for case in wanted), strict=True))
    errors = [str(cost) for cost in found.values() if isinstance(cost, GpuCompileError)]
    return {case: cost for case, cost in found.items() if isinstance(cost, Cost)}, list(dict.fromkeys(errors))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--kernel", default="", help="only kernels whose name holds this text")
    parser.add_argument("--type", action="append", choices=ELEMENT_TYPES, help="default: float and c10::Half")
    parser.add_argument("--matrix-engine", action="store_true", help="the page of the product on matrix engines")
    arguments = parser.parse_args()
    if arguments.matrix_engine:
        print(markdown(*engine_page(4096, 4096, (8, 16, 64))))
        return 0
    chosen = [kernel for kernel in KERNELS.values() if arguments.kernel in kernel.name]
    if not chosen:
        parser.error(f"no kernel's name holds {arguments.kernel!r}")
    costs, errors = measured_costs(chosen, arguments.type or ["float", "c10::Half"])
    print(markdown(HEADINGS, table(costs)))
    for error in errors:
        print(error, file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
