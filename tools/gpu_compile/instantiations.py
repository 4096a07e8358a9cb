"""Which instantiation of which kernel runs on which GPU, and the machine code of all of them.

Kernels and their instantiations are those of the table that the launchers are made of: what a launcher can reach is
here, because it stands there.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from functools import partial
from typing import TypeAlias

from gpu_compile.jobs import GpuCompileError, run_jobs
from gpu_compile.machine_code import KernelInfo
from gpu_compile.ocloc import GpuModule, compile_for_gpu, device_argument
from gpu_compile.spirv import SpirvKernel, dump_spirv
from quillon._device_table import ARCHITECTURES
from quillon._kernels import (
    ALL_KERNELS,
    ELEMENT_TYPES,
    ENGINE_KERNELS,
    EXPANSIONS,
    RWKV_KERNELS,
    EngineKernel,
    Expansion,
    Geometry,
    Kernel,
    RwkvKernel,
)
from quillon.formats import get_format

CLASSES_WITHOUT_DOUBLE = frozenset({"legacy", "oak"})
"""GPUs without double precision. A driver can be told to emulate it, which takes its compiler minutes."""

CLASSES_WITHOUT_SUB_GROUPS_OF_8 = frozenset({"elm", "fir", "yew"})
"""The library asks the device; here, where there is none, a test asks the compiler."""

AnyKernel: TypeAlias = Kernel | Expansion | RwkvKernel | EngineKernel


@dataclass(frozen=True)
class Build:
    """What one build of the SYCL compiler makes: a kernel in one geometry, in all element types."""

    kernel: AnyKernel
    geometry: Geometry
    sub_group: int | None
    """The size that is required, by template argument, build option or the kernel's text; None: none is."""

    @property
    def options(self) -> tuple[str, ...]:
        return self.kernel.build_options.get(self.sub_group, ()) if self.sub_group else ()

    @property
    def local_memory(self) -> int:
        """Bytes of local memory that the kernel itself fixes."""
        return self.kernel.local_memory(self.geometry) if isinstance(self.kernel, EngineKernel) else 0

    @property
    def packed_bytes(self) -> float:
        """Weight bytes, scales included, that a lane reads in one pass of its loop over K, or of an expansion's row."""
        if isinstance(self.kernel, RwkvKernel):
            return 0
        if isinstance(self.kernel, EngineKernel):
            raise TypeError(f"{self.kernel.name} has a loop over K for each of its formats")
        block = get_format(self.kernel.format)
        if isinstance(self.kernel, Expansion):
            return self.kernel.span * block.bytes / block.elements
        rows = self.geometry.rows if self.kernel.range in ("rows", "batches") else 1
        return rows * self.kernel.rounds_of_pass * self.kernel.elements * block.bytes / block.elements

    def expression(self, element_type: str) -> str:
        return self.kernel.expression(element_type, self.geometry)


def build_for(kernel: AnyKernel, device_class: str) -> Build:
    """How the launchers have a kernel built on GPUs of a class."""
    return builds_for(kernel, device_class)[0]


def builds_for(kernel: AnyKernel, device_class: str) -> list[Build]:
    """The same with all that they use beside it."""
    without = {8} if device_class in CLASSES_WITHOUT_SUB_GROUPS_OF_8 else set()
    choices = [size for size in kernel.build_options if size not in without]
    return [
        Build(kernel, geometry, choices[0] if choices else geometry.sub_group)
        for geometry in kernel.geometries_on(device_class)
    ]


def types_on(device_class: str) -> list[str]:
    """Element types that GPUs of a class are asked for."""
    without = {"double"} if device_class in CLASSES_WITHOUT_DOUBLE else set()
    return [element_type for element_type in ELEMENT_TYPES if element_type not in without]


@dataclass(frozen=True)
class Case:
    """One instantiation for one architecture."""

    build: Build
    element_type: str
    architecture: int

    @property
    def kernel(self) -> AnyKernel:
        return self.build.kernel

    @property
    def expression(self) -> str:
        return self.build.expression(self.element_type)

    def __str__(self) -> str:
        return f"{self.expression}-{device_argument(self.architecture)}"


@dataclass(frozen=True)
class Compiled:
    """The machine code of a case: a module, which may hold further kernels, and the kernel's description."""

    module: GpuModule
    info: KernelInfo


def cases(of: Iterable[AnyKernel] | None = None) -> Iterator[Case]:
    """Every instantiation of the kernels, or of all, for every listed architecture whose class uses it."""
    every: tuple[AnyKernel, ...] = (*ALL_KERNELS, *EXPANSIONS, *RWKV_KERNELS, *ENGINE_KERNELS)
    for kernel in every if of is None else of:
        for architecture, device_class in ARCHITECTURES.items():
            if not kernel.runs_on(device_class):
                continue
            for build in builds_for(kernel, device_class):
                for element_type in types_on(device_class):
                    if element_type in kernel.element_types:
                        yield Case(build, element_type, architecture)


def compile_cases(wanted: Sequence[Case]) -> dict[Case, Compiled | GpuCompileError]:
    """Compiles cases in few compiler runs; an error becomes the outcome of the cases that it concerns.

    One build of the SYCL compiler makes the SPIR-V of a kernel's geometry in all element types, and one run
    of the GPU compiler the code of all that share a SPIR-V module. The SYCL compiler puts kernels that use
    double precision into modules of their own, so that GPUs without it never see them.
    """

    def spirv_of(build: Build) -> dict[str, SpirvKernel]:
        names = [build.expression(element_type) for element_type in build.kernel.element_types]
        return dump_spirv(build.kernel.header, names, options=build.options)

    outcomes: dict[Case, Compiled | GpuCompileError] = {}
    builds = list(dict.fromkeys(case.build for case in wanted))
    spirv = dict(zip(builds, run_jobs(partial(spirv_of, build) for build in builds), strict=True))
    found: dict[Case, SpirvKernel] = {}
    for case in wanted:
        built = spirv[case.build]
        if isinstance(built, GpuCompileError):
            outcomes[case] = built
        else:
            found[case] = built[case.expression]

    runs = list(dict.fromkeys((kernel.module, case.architecture) for case, kernel in found.items()))
    modules = dict(zip(runs, run_jobs(partial(compile_for_gpu, *run) for run in runs), strict=True))
    for case, kernel in found.items():
        code = modules[kernel.module, case.architecture]
        if isinstance(code, GpuCompileError):
            outcomes[case] = code
        else:
            outcomes[case] = Compiled(code, code.kernels[kernel.entry])
    return outcomes
