"""What the GPU compiler's output tells of a kernel: the description of its needs, and the loops of its assembly."""

from __future__ import annotations

import re
from dataclasses import dataclass

from gpu_compile.jobs import GpuCompileError


@dataclass(frozen=True)
class KernelInfo:
    """What a kernel asks of the GPU, as the machine code's own description states it. Sizes are in bytes.

    ``spill_size`` and ``private_size`` are per hardware thread. ``slm_size`` is the local memory that the
    code itself fixes; that of ``local_accessor`` arguments (``local_arguments`` counts them) is added at the
    launch.
    """

    entry: str
    simd_size: int
    grf_count: int
    slm_size: int = 0
    spill_size: int = 0
    private_size: int = 0
    has_dpas: bool = False
    local_arguments: int = 0


def parse_ze_info(text: str) -> list[KernelInfo]:
    """The kernels that a ``.ze_info`` section describes.

    The section is YAML of a fixed shape: kernels are the items ``- name:`` below ``kernels:``, each with a
    block ``execution_env:`` of ``key: value`` lines, where a key that would be zero is left out.
    """
    kernels = []
    described = text.split("\nkernels_misc_info:")[0].partition("\nkernels:")[2]
    for item in re.split(r"^  - name:", described, flags=re.MULTILINE)[1:]:
        entry = item.split("\n", 1)[0].strip().strip("'\"")
        environment = re.search(r"^    execution_env:\n((?:      .*\n?)+)", item, re.MULTILINE)
        if environment is None:
            raise GpuCompileError(f"no execution_env for {entry} in .ze_info")
        values = dict(re.findall(r"^      (\w+):\s+(\S+)", environment[1], re.MULTILINE))
        kernels.append(
            KernelInfo(
                entry=entry,
                simd_size=int(values["simd_size"]),
                grf_count=int(values["grf_count"]),
                slm_size=int(values.get("slm_size", 0)),
                spill_size=int(values.get("spill_size", 0)),
                private_size=int(values.get("private_size", 0)),
                has_dpas=values.get("has_dpas") == "true",
                local_arguments=len(re.findall(r"^        addrmode: +slm$", item, re.MULTILINE)),
            )
        )
    return kernels


@dataclass(frozen=True)
class Loop:
    """The instructions of a loop, from the label that its last instruction jumps back to."""

    instructions: tuple[str, ...]

    @property
    def messages(self) -> list[str]:
        """Memory messages: each is a request to a memory unit, whatever its width."""
        return [line for line in self.instructions if _opcode(line).startswith("send")]


def innermost_loops(code: str) -> list[Loop]:
    """Loops of a kernel's assembly that hold no other loop.

    A loop is what lies between a label and a branch behind it that names the label: blocks are laid out in
    order, so only loops branch backward.
    """
    instructions: list[str] = []
    labels: dict[str, int] = {}
    spans: dict[int, int] = {}
    for line in code.splitlines():
        statement = line.split("//")[0].strip()
        if not statement:
            continue
        if re.fullmatch(r"[A-Za-z_]\w*:", statement):
            labels[statement[:-1]] = len(instructions)
            continue
        instructions.append(line.strip())
        for target in re.findall(r"\b[A-Za-z_]\w*\b", statement):
            if target in labels:
                spans[labels[target]] = len(instructions)
    inner = [
        (start, end)
        for start, end in spans.items()
        if not any((s, e) != (start, end) and start <= s and e <= end for s, e in spans.items())
    ]
    return [Loop(tuple(instructions[start:end])) for start, end in sorted(inner)]


def _opcode(line: str) -> str:
    """The operation of an assembly line, behind mask and predicate: ``(W&f0.1) mov (8|M0) ...`` is a mov."""
    match = re.match(r"(?:\([^)]*\)\s*)*([\w.]+)", line)
    return match[1] if match else ""
