"""Which instantiation of which kernel runs on which device class, and the machine code of all of them."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from functools import partial

from gpu_compile.jobs import GpuCompileError, run_jobs
from gpu_compile.machine_code import KernelInfo
from gpu_compile.ocloc import GpuModule, compile_for_gpu, device_argument
from gpu_compile.spirv import SpirvKernel, dump_spirv
from quillon._device_table import ARCHITECTURES
from quillon.formats import get_format

ELEMENT_TYPES = ("float", "double", "c10::Half", "c10::BFloat16")

DEVICE_CLASSES = tuple(dict.fromkeys(ARCHITECTURES.values()))
"""The classes that an architecture identifier is listed for; code for ``unknown`` is that of its hardware."""

CLASSES_WITHOUT_DOUBLE = frozenset({"legacy", "oak"})
"""GPUs without double precision. A driver can be told to emulate it, which takes its compiler minutes."""


@dataclass(frozen=True)
class Geometry:
    """How a kernel is instantiated for a device class."""

    constants: tuple[int, ...]
    """Template arguments behind the element type."""
    sub_group: int | None
    """The sub-group size that the kernel requires; None leaves it to the compiler."""
    rows: int
    """Output rows whose weights a work-item reads in one pass of its inner loop."""


@dataclass(frozen=True, eq=False)
class Kernel:
    """A kernel template and its instantiations; each is one object, equal to itself alone."""

    name: str
    header: str
    """Relative to csrc/."""
    format: str
    geometries: Mapping[str, Geometry]
    """By device class."""
    elements: int
    """Elements of one row that a work-item takes in one pass of its inner loop."""
    local_arrays: int = 1
    """Local arrays among the arguments; kernels have no other local memory."""
    element_types: tuple[str, ...] = ELEMENT_TYPES

    def expression(self, element_type: str, geometry: Geometry) -> str:
        """An instantiation as the library names it: ``"name<float,16,32,2>"``."""
        return f"{self.name}<{','.join([element_type, *map(str, geometry.constants)])}>"

    def types_on(self, device_class: str) -> list[str]:
        """Element types that GPUs of a class are asked for."""
        without = {"double"} if device_class in CLASSES_WITHOUT_DOUBLE else set()
        return [element_type for element_type in self.element_types if element_type not in without]

    def packed_bytes(self, geometry: Geometry) -> float:
        """Weight bytes, scales included, that a work-item reads in one pass of its inner loop."""
        block = get_format(self.format)
        return geometry.rows * self.elements * block.bytes / block.elements


def by_class(default: Geometry, **exceptions: Geometry) -> dict[str, Geometry]:
    """A geometry for each class: the default where none is given under the class's name."""
    return {name: exceptions.get(name, default) for name in DEVICE_CLASSES}


def row_tiles(default_rows: int, legacy_rows: int | None = None) -> dict[str, Geometry]:
    """Templates over sub-group size, work-group size and rows: wider on elm, with more rows on legacy."""
    legacy = legacy_rows or default_rows
    return by_class(
        Geometry((16, 32, default_rows), 16, default_rows),
        elm=Geometry((32, 64, default_rows), 32, default_rows),
        legacy=Geometry((16, 32, legacy), 16, legacy),
    )


def fixed_rows(rows: int) -> dict[str, Geometry]:
    """Templates over sub-group size and work-group size, whose rows are fixed: twice the width on elm."""
    return by_class(Geometry((16, 32), 16, rows), elm=Geometry((32, 64), 32, rows))


def one_geometry(sub_group: int | None, rows: int) -> dict[str, Geometry]:
    """Templates over the element type alone, the same on all classes."""
    return by_class(Geometry((), sub_group, rows))


def sub_group_of_8_or_16(rows: int) -> dict[str, Geometry]:
    """A template that wants sub-groups of 8, and 16 for the classes that do not have 8."""
    without_8 = Geometry((16,), 16, rows)
    return by_class(Geometry((8,), 8, rows), elm=without_8, fir=without_8, yew=without_8)


_KERNELS = (
    Kernel(
        name="qlinear_xpu_kernel_q4_0_2x16",
        header="kernels/matvec/q4_0_2x16.h",
        format="q4_0",
        geometries=row_tiles(2, legacy_rows=8),
        elements=16,
    ),
    Kernel(
        "qlinear_xpu_kernel_q4_0_woq_2x16",
        "kernels/matvec/q4_0_woq_2x16.h",
        "q4_0_woq",
        row_tiles(2, legacy_rows=8),
        16,
    ),
    Kernel("qlinear_xpu_kernel_q4_1_2x16", "kernels/matvec/q4_1_2x16.h", "q4_1", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_nf4_2x16", "kernels/matvec/nf4_2x16.h", "nf4", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_nf3_2x16", "kernels/matvec/nf3_2x16.h", "nf3", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_fp4_2x16", "kernels/matvec/fp4_2x16.h", "fp4", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_fp6_2x16", "kernels/matvec/fp6_2x16.h", "fp6", row_tiles(2), 16),
    Kernel("qlinear_xpu_kernel_q8_0_2x8", "kernels/matvec/q8_0_2x8.h", "q8_0", fixed_rows(2), 8),
    Kernel("qlinear_xpu_kernel_fp8_e4m3_2x8", "kernels/matvec/fp8_e4m3_2x8.h", "fp8_e4m3", fixed_rows(2), 8),
    Kernel("qlinear_xpu_kernel_fp8_e5m2_2x8", "kernels/matvec/fp8_e5m2_2x8.h", "fp8_e5m2", fixed_rows(2), 8),
    Kernel("qlinear_xpu_kernel_q5_0", "kernels/matvec/q5_0.h", "q5_0", fixed_rows(1), 2),
    Kernel("qlinear_xpu_kernel_q5_1", "kernels/matvec/q5_1.h", "q5_1", fixed_rows(1), 2),
    Kernel("qlinear_xpu_kernel_q4_k_2x16", "kernels/matvec/q4_k_2x16.h", "q4_k", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_q5_k", "kernels/matvec/q5_k.h", "q5_k", sub_group_of_8_or_16(2), 16),
    Kernel("qlinear_xpu_kernel_q6_k_2x16", "kernels/matvec/q6_k_2x16.h", "q6_k", fixed_rows(2), 16),
    Kernel("qlinear_xpu_kernel_fp6_k_2x16", "kernels/matvec/fp6_k_2x16.h", "fp6_k", row_tiles(2), 16),
    Kernel(
        "quantize_xpu_kernel_q8_1",
        "kernels/matvec/quantize_q8_1.h",
        "q8_1",
        one_geometry(32, 1),
        elements=1,
        local_arrays=0,
    ),
    Kernel("qlinear_xpu_kernel_iq2_xxs_q8_1", "kernels/matvec/iq2_xxs_q8_1.h", "iq2_xxs", one_geometry(32, 1), 32),
    Kernel("qlinear_xpu_kernel_q2_k_q8_1", "kernels/matvec/q2_k_q8_1.h", "q2_k", one_geometry(None, 1), 16),
    Kernel(
        "qlinear_xpu_kernel_iq1_s_q8_1",
        "kernels/matvec/iq1_s_q8_1.h",
        "iq1_s",
        one_geometry(32, 1),
        elements=32,
        local_arrays=0,
    ),
)


def kernels() -> tuple[Kernel, ...]:
    """Every kernel of the library."""
    return _KERNELS


@dataclass(frozen=True)
class Case:
    """One instantiation for one architecture."""

    kernel: Kernel
    geometry: Geometry
    element_type: str
    architecture: int

    @property
    def expression(self) -> str:
        return self.kernel.expression(self.element_type, self.geometry)

    def __str__(self) -> str:
        return f"{self.expression}-{device_argument(self.architecture)}"


@dataclass(frozen=True)
class Compiled:
    """The machine code of a case: a module, which may hold further kernels, and the kernel's description."""

    module: GpuModule
    info: KernelInfo


def cases(of: Iterable[Kernel] | None = None) -> Iterator[Case]:
    """Every instantiation of the kernels, or of all, for every listed architecture whose class uses it."""
    for kernel in kernels() if of is None else of:
        for architecture, device_class in ARCHITECTURES.items():
            for element_type in kernel.types_on(device_class):
                yield Case(kernel, kernel.geometries[device_class], element_type, architecture)


def compile_cases(wanted: Sequence[Case]) -> dict[Case, Compiled | GpuCompileError]:
    """Compiles cases in few compiler runs; an error becomes the outcome of the cases that it concerns.

    One build of the SYCL compiler makes the SPIR-V of a kernel's geometry in all element types, and one run
    of the GPU compiler the code of all that share a SPIR-V module. The SYCL compiler puts kernels that use
    double precision into modules of their own, so that GPUs without it never see them.
    """

    def spirv_of(kernel: Kernel, geometry: Geometry) -> dict[str, SpirvKernel]:
        names = [kernel.expression(element_type, geometry) for element_type in kernel.element_types]
        return dump_spirv(kernel.header, names)

    outcomes: dict[Case, Compiled | GpuCompileError] = {}
    builds = list(dict.fromkeys((case.kernel, case.geometry) for case in wanted))
    spirv = dict(zip(builds, run_jobs(partial(spirv_of, *build) for build in builds), strict=True))
    found: dict[Case, SpirvKernel] = {}
    for case in wanted:
        built = spirv[case.kernel, case.geometry]
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
