"""Writes the figures of docs/performance.md and docs/performance_tables.md.

    python benchmarks/report.py                          # everything: a quarter of an hour
    python benchmarks/report.py --parts times --formats q4_0,q8_0 --rounds 2

Four parts, each a section of either file with the commit, the machine and the date in it; what stands outside the
sections is written by hand and kept.

times     benchmarks/matvec.py: one shape in float32; in the tables further shapes, and further element types
batches   benchmarks/batch.py: some formats in float32; in the tables every format, in three element types
models    examples/generate.py, the demo, and examples/decode_speed.py; in the tables a line for each format
gpu_code  benchmarks/gpu_code.py: instructions per byte by device class; in the tables everything, by architecture
"""

from __future__ import annotations

import argparse
import datetime
import os
import subprocess
import sys
from collections.abc import Callable
from importlib.metadata import PackageNotFoundError, version
from itertools import groupby
from pathlib import Path

import gpu_code
import matvec
import torch

PROJECT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PROJECT / "tools"))

from gpu_compile.ocloc import MISSING_OCLOC, compiler_version, find_ocloc  # noqa: E402
from sections import write_section  # noqa: E402

from quillon._kernels import KERNELS  # noqa: E402
from quillon.formats import format_name  # noqa: E402

SHORT = PROJECT / "docs" / "performance.md"
TABLES = PROJECT / "docs" / "performance_tables.md"

# Those that matter to the kernels or to the products that they are compared with.
INSTRUCTION_SETS = (
    *("avx2", "fma", "f16c", "avx512f", "avx512bw", "avx512vl", "avx512_vnni", "avx512_bf16", "avx512_fp16"),
    *("amx_int8", "amx_bf16"),
)

BATCHES = ["benchmarks/batch.py", "--statistic", "min", "--rounds", "3", "--calls", "4"]
BATCHES_SHORT = [*BATCHES, "--formats", "q4_0,nf4,q4_k,q5_0,q8_0,fp6"]
BATCHES_ALL = [*BATCHES, "--batches", "1,4,16,64", "--dtype", "float32,float16,bfloat16"]
DEMO = ["examples/generate.py"]
DECODE_SPEED = ["examples/decode_speed.py"]
DEMO_BY_FORMAT = ["examples/generate.py", "--format", "all", "--score-tokens", "256", "--new-tokens", "48"]


def git(*arguments: str) -> str:
    return subprocess.run(["git", *arguments], cwd=PROJECT, capture_output=True, text=True, check=True).stdout.strip()


def commit() -> str:
    """The commit that is measured, and whether the code differs from it."""
    changed = git("status", "--porcelain", "--untracked-files=no", "--", "csrc", "python", "benchmarks", "tools")
    return git("rev-parse", "--short=12", "HEAD") + (" with changes" if changed else "")


def processor() -> str:
    """Model, number of processors, instruction sets."""
    facts = dict(
        (part.strip() for part in line.split(":", 1))
        for line in Path("/proc/cpuinfo").read_text().splitlines()
        if ":" in line
    )
    sets = [name for name in INSTRUCTION_SETS if name in facts.get("flags", "").split()]
    return f"{facts.get('model name', 'unknown processor')}, {os.cpu_count()} processors ({' '.join(sets)})"


def installed(package: str) -> str:
    try:
        return version(package)
    except PackageNotFoundError:
        return "not from pip"


def provenance(*facts: str) -> str:
    """A line on what was measured, where and when."""
    settings = [f"{name}={os.environ[name]}" for name in ("CL_CONFIG_CPU_TARGET_ARCH",) if name in os.environ]
    parts = [f"Commit {commit()}", datetime.date.today().isoformat(), *facts, *settings]
    return "; ".join(parts) + "."


def host_facts() -> tuple[str, str]:
    return processor(), f"PyTorch {torch.__version__}, SYCL runtime {installed('dpcpp-cpp-rt')}"


def times_table(arguments: argparse.Namespace, *shapes_and_types: tuple[str, str]) -> str:
    rows = [row for shapes, types in shapes_and_types for row in matvec.measured_rows(arguments, shapes, types)]
    lines = [*matvec.table_head(matvec.HEADINGS), *map(matvec.table_line, rows)]
    return "\n".join([provenance(*host_facts(), matvec.how_measured(arguments).rstrip(".")), "", *lines])


def write_times(arguments: argparse.Namespace) -> None:
    write_section(SHORT, "times", times_table(arguments, (arguments.shape, "float32")))
    more = (arguments.more_shapes, "float32"), (arguments.shape, arguments.more_types)
    write_section(TABLES, "times", times_table(arguments, *(pair for pair in more if all(pair))))


def output_of(command: list[str]) -> str:
    return subprocess.run(
        [sys.executable, *command], cwd=PROJECT, stdout=subprocess.PIPE, text=True, check=True
    ).stdout.strip("\n")


def as_markdown(printed: str) -> str:
    """What a command printed: tables as they stand, everything else as the terminal shows it."""
    parts = []
    for is_table, group in groupby(printed.splitlines(), lambda line: line.startswith("|")):
        text = "\n".join(group).strip("\n")
        parts.append(text if is_table else f"```\n{text}\n```")
    return "\n\n".join(parts)


def write_printed(name: str, short: list[list[str]], tables: list[list[str]]) -> None:
    """What commands print, as a section of either file."""
    for file, commands in ((SHORT, short), (TABLES, tables)):
        parts = [provenance(*host_facts())]
        for command in commands:
            parts += ["    python " + " ".join(command), as_markdown(output_of(command))]
        write_section(file, name, "\n\n".join(parts))


def write_batches(_arguments: argparse.Namespace) -> None:
    write_printed("batches", [BATCHES_SHORT], [BATCHES_ALL])


def write_models(_arguments: argparse.Namespace) -> None:
    write_printed("models", [DEMO, DECODE_SPEED], [DEMO_BY_FORMAT])


def write_gpu_code(arguments: argparse.Namespace) -> None:
    compiler = find_ocloc()
    if compiler is None:
        raise SystemExit(MISSING_OCLOC)
    formats = [format_name(name) for name in arguments.formats.split(",")]
    costs, errors = gpu_code.measured_costs([KERNELS[name] for name in formats], ["float", "c10::Half"])
    for error in errors:
        print(error, file=sys.stderr)
    line = provenance("compiler " + "".join(filter(str.isprintable, compiler_version(compiler))).strip())
    in_float = {case: cost for case, cost in costs.items() if case.element_type == "float"}
    write_section(SHORT, "gpu_code", f"{line}\n\n{gpu_code.markdown(*gpu_code.by_class(in_float))}")
    write_section(TABLES, "gpu_code", f"{line}\n\n{gpu_code.markdown(gpu_code.HEADINGS, gpu_code.table(costs))}")


PARTS: dict[str, Callable[[argparse.Namespace], None]] = {
    "times": write_times,
    "batches": write_batches,
    "models": write_models,
    "gpu_code": write_gpu_code,
}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--parts", default=",".join(PARTS), help="comma-separated; default: all")
    parser.add_argument("--shape", default="4096x4096", help="output size x state size of the short table")
    parser.add_argument("--more-shapes", default="11008x4096,4096x11008", help="of the tables; may be empty")
    parser.add_argument("--more-types", default="float16,bfloat16", help="of the tables, at the short table's shape")
    matvec.add_arguments(parser)
    arguments = parser.parse_args()
    parts = arguments.parts.split(",")
    unknown = sorted(set(parts) - set(PARTS))
    if unknown:
        parser.error(f"unknown parts: {', '.join(unknown)}; allowed: {', '.join(PARTS)}")
    for part in parts:
        PARTS[part](arguments)


if __name__ == "__main__":
    main()
