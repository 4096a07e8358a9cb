"""Every kernel instantiation compiles to sound machine code for every GPU that uses it.

Sound means: the sub-group size that was asked for, all values in registers (no spill, no private memory),
and no local memory but the arrays that the kernel is given.
"""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path
from typing import cast

import pytest
from gpu_compile.instantiations import (
    CLASSES_WITHOUT_DOUBLE,
    CLASSES_WITHOUT_SUB_GROUPS_OF_8,
    Case,
    Compiled,
    cases,
    compile_cases,
)
from gpu_compile.jobs import GpuCompileError
from gpu_compile.machine_code import KernelInfo, innermost_loops
from gpu_compile.ocloc import MISSING_OCLOC, assembly, compile_for_gpu, device_argument, extensions, find_ocloc
from gpu_compile.spirv import dump_spirv

from quillon._device_table import ARCHITECTURES
from quillon._kernels import ENGINE_KERNELS, EngineKernel

pytestmark = [pytest.mark.gpu_compile, pytest.mark.skipif(find_ocloc() is None, reason=MISSING_OCLOC)]

ALL_CASES = list(cases())


def faults(info: KernelInfo, sub_group: int | None, local_arrays: int, local_memory: int = 0) -> list[str]:
    """What is wrong with a kernel's code."""
    found = []
    if sub_group is not None and info.simd_size != sub_group:
        found.append(f"sub-group size {info.simd_size} where {sub_group} was asked for")
    if info.spill_size:
        found.append(f"{info.spill_size} bytes spilled")
    if info.private_size:
        found.append(f"{info.private_size} bytes of private memory")
    if info.slm_size != local_memory:
        found.append(f"{info.slm_size} bytes of local memory besides the arguments where {local_memory} are expected")
    if info.local_arguments != local_arrays:
        found.append(f"{info.local_arguments} local arrays where {local_arrays} are passed")
    return found


@pytest.fixture(scope="module")
def compiled(request: pytest.FixtureRequest) -> Mapping[Case, Compiled | GpuCompileError]:
    """All cases of this run, compiled ahead of the first: in batches they take a fraction of the time."""
    wanted = [
        cast(Case, item.callspec.params["case"])
        for item in request.session.items
        if isinstance(item, pytest.Function) and "compiled" in item.fixturenames
    ]
    return compile_cases(wanted)


@pytest.mark.grid(0.07)
@pytest.mark.parametrize("case", ALL_CASES, ids=str)
def test_instantiation_is_sound(case: Case, compiled: Mapping[Case, Compiled | GpuCompileError]) -> None:
    outcome = compiled[case]
    if isinstance(outcome, GpuCompileError):
        pytest.fail(str(outcome), pytrace=False)
    build = case.build
    assert faults(outcome.info, build.sub_group, build.kernel.local_arrays, build.local_memory) == []
    assert outcome.info.has_dpas == isinstance(build.kernel, EngineKernel)


@pytest.mark.parametrize("architecture", [0x30DC00800, 0x30F000700], ids=device_argument)
def test_the_matrix_engine_gets_each_block_by_one_load(architecture: int) -> None:
    """In each of the loops over K: of q4_0 and three formats with a byte for an element, for 3 and for 8 rows."""
    (case,) = (
        one for one in cases([ENGINE_KERNELS[2]]) if (one.architecture, one.element_type) == (architecture, "float")
    )
    outcome = compile_cases([case])[case]
    assert isinstance(outcome, Compiled)
    columns = case.build.geometry.rows
    found = []
    for loop in innermost_loops(assembly(outcome.module)[outcome.info.entry]):
        operations = sum("dpas." in line and "{Atomic}" not in line for line in loop.instructions)
        sizes = [sum(f"load.ugm.{size}t.a64" in message for message in loop.messages) for size in ("d64x4", "d64x8")]
        found.append((operations, *sizes))
    assert sorted(found) == sorted(2 * [(4, columns, 0), *3 * [(4, 0, columns)]])


@pytest.mark.parametrize("architecture", ARCHITECTURES, ids=device_argument)
def test_double_precision_is_asked_for_where_there_is_some(architecture: int) -> None:
    has_double = "cl_khr_fp64" in extensions(architecture)
    assert has_double == (ARCHITECTURES[architecture] not in CLASSES_WITHOUT_DOUBLE)


@pytest.mark.parametrize("architecture", ARCHITECTURES, ids=device_argument)
def test_sub_groups_of_8_are_asked_for_where_there_are_some(architecture: int) -> None:
    (spirv,) = dump_spirv("bad_kernels.h", ["private_array_kernel<float,8>"], root=Path(__file__).parent).values()
    if ARCHITECTURES[architecture] in CLASSES_WITHOUT_SUB_GROUPS_OF_8:
        with pytest.raises(GpuCompileError, match="exit code"):
            compile_for_gpu(spirv.module, architecture)
    else:
        assert compile_for_gpu(spirv.module, architecture).kernels[spirv.entry].simd_size == 8


@pytest.mark.parametrize(
    ("kernel", "fault"),
    [("spilling_kernel<float,16>", "spilled"), ("private_array_kernel<float,16>", "private memory")],
)
@pytest.mark.parametrize("architecture", [0x300000000, 0x30DC00800, 0x30F000700, 0x501000400], ids=device_argument)
def test_a_bad_kernel_is_found_out(kernel: str, fault: str, architecture: int) -> None:
    spirv = dump_spirv("bad_kernels.h", [kernel], root=Path(__file__).parent)[kernel]
    info = compile_for_gpu(spirv.module, architecture).kernels[spirv.entry]
    found = faults(info, sub_group=32, local_arrays=1)
    assert any(fault in text for text in found)
    assert "sub-group size 16 where 32 was asked for" in found
    assert "0 local arrays where 1 are passed" in found


def test_a_compiler_error_is_told() -> None:
    with pytest.raises(GpuCompileError, match="no_such_kernel"):
        dump_spirv("bad_kernels.h", ["no_such_kernel<float,16>"], root=Path(__file__).parent)


def test_double_is_refused_where_there_is_none() -> None:
    """The check of the table above: a kernel in double does not slip through as something else."""
    spirv = dump_spirv("bad_kernels.h", ["spilling_kernel<double,16>"], root=Path(__file__).parent)
    (kernel,) = spirv.values()
    with pytest.raises(GpuCompileError, match="exit code"):
        compile_for_gpu(kernel.module, 0x300000000)
