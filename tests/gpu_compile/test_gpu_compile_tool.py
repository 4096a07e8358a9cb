"""What tools/gpu_compile makes of names, descriptions and assembly, without a compiler."""

from __future__ import annotations

from pathlib import Path

import pytest
from gpu_compile.instantiations import AnyKernel, build_for, cases, types_on
from gpu_compile.jobs import GpuCompileError, run_jobs
from gpu_compile.machine_code import KernelInfo, innermost_loops, parse_ze_info
from gpu_compile.ocloc import device_argument, find_ocloc
from gpu_compile.spirv import device_text, kernel_name

from quillon._device_table import ARCHITECTURES
from quillon._kernels import ALL_KERNELS, ENGINE_KERNELS, EXPANSIONS, KERNELS, LAUNCHER_TABLES, RWKV_KERNELS, Geometry
from quillon.formats import WEIGHT_FORMATS

ZE_INFO = """\
---
version:         '1.73'
kernels:
  - name:            first
    user_attributes:
      intel_reqd_sub_group_size: 32
    execution_env:
      barrier_count:   1
      grf_count:       128
      has_dpas:        true
      simd_size:       32
      slm_size:        4096
    payload_arguments:
      - arg_type:        arg_bypointer
        addrmode:        slm
        addrspace:       local
      - arg_type:        arg_bypointer
        addrmode:        stateless
        addrspace:       global
  - name:            second
    execution_env:
      grf_count:       256
      private_size:    64
      simd_size:       8
      spill_size:      9600
kernels_misc_info:
  - name:            first
    args_info:
      - index:           0
...
"""

ASSEMBLY = """\
L0:
(W)     mov (8|M0)               r1.0<1>:ud    r0.0<1;1,0>:ud
L16:
        add (16|M0)              r2.0<1>:d     r2.0<1;1,0>:d     1:w
L32:
        send.ugm (16|M0)         r7       r63     null:0  0x0  0x04403580  {$6} // load.ugm.d32x4.a64
(W&f0.1) mov (1|M0)              r3.0<1>:d     0:w
        sync.nop                             null                             {Compacted,F@6}
(f3.1)  goto (16|M0)                         L96                  L96
(W)     jmpi                                 L32
L96:
        join (16|M0)                         L112
L112:
(W&f0.0) jmpi                                L16
L128:
        mul (16|M0)              r4.0<1>:f     r4.0<1;1,0>:f     r5.0<1;1,0>:f
(f0.0)  while (16|M0)                        L128
        sends.dc0 (16|M0)        null          r1 r2
"""


@pytest.mark.parametrize(
    ("identifier", "name"),
    [(0x30F000700, "12.60.7"), (0x300000000, "12.0.0"), (0x30DC00800, "12.55.8"), (0x501000400, "20.4.4")],
)
def test_device_argument(identifier: int, name: str) -> None:
    assert device_argument(identifier) == name


def test_parse_ze_info() -> None:
    assert parse_ze_info(ZE_INFO) == [
        KernelInfo("first", 32, 128, slm_size=4096, has_dpas=True, local_arguments=1),
        KernelInfo("second", 8, 256, spill_size=9600, private_size=64),
    ]


def test_parse_ze_info_refuses_what_it_does_not_know() -> None:
    with pytest.raises(GpuCompileError, match="execution_env for first"):
        parse_ze_info(ZE_INFO.replace("execution_env", "environment"))


def test_innermost_loops() -> None:
    loops = innermost_loops(ASSEMBLY)
    assert [len(loop.instructions) for loop in loops] == [5, 2]
    assert [len(loop.messages) for loop in loops] == [1, 0]
    assert loops[0].instructions[0].startswith("send.ugm")


@pytest.mark.parametrize(
    ("mangled", "name"),
    [
        ("_Z3foov", "_Z3foov"),
        ("_Z15__sycl_kernel_aIfLi16ELi32ELi2EEvmPKT_", "a<float,16,32,2>"),
        ("_Z15__sycl_kernel_aIN4sycl3_V16detail9half_impl4halfELi16EEvmPKT_", "a<c10::Half,16>"),
        (
            "_Z15__sycl_kernel_aIN7quillon15rounded_float16IXadL_ZNS0_22bfloat16_bits_to_floatEtEEXadL_ZNS0_22float_to"
            "_bfloat16_bitsEfEEEELi32ELi64EEvmPKh",
            "a<c10::BFloat16,32,64>",
        ),
        ("_Z15__sycl_kernel_aIdEvmPKT_", "a<double>"),
        ("_Z15__sycl_kernel_avm", "a"),
        (
            "_Z15__sycl_kernel_aIfN4sycl3_V16detail9half_impl4halfEfS4_Li3ELi16EEvmPKT_",
            "a<float,c10::Half,float,c10::Half,3,16>",
        ),
        (
            "_Z15__sycl_kernel_aIN4sycl3_V16detail9half_impl4halfES4_fS4_Li3EEvmPKT_",
            "a<c10::Half,c10::Half,float,c10::Half,3>",
        ),
        ("_Z15__sycl_kernel_aIxEvmPKT_", "_Z15__sycl_kernel_aIxEvmPKT_"),
        ("_Z15__sycl_kernel_aILi64ELi32ELi16EEvPKfm", "a<64,32,16>"),
    ],
)
def test_kernel_name(mangled: str, name: str) -> None:
    assert kernel_name(mangled) == name


def test_device_text_follows_includes(tmp_path: Path) -> None:
    (tmp_path / "deep").mkdir()
    (tmp_path / "a.h").write_text('#include "deep/b.h"\n#include <cstdint>\n')
    (tmp_path / "deep" / "b.h").write_text('#include "a.h"\n')
    (tmp_path / "c.h").write_text("")
    assert device_text("a.h", tmp_path)[::2] == ["a.h", "deep/b.h"]
    with pytest.raises(GpuCompileError, match=r"no d\.h"):
        device_text("d.h", tmp_path)


def test_find_ocloc_prefers_the_named_one(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_OCLOC", "/some/where/ocloc")
    assert find_ocloc() == Path("/some/where/ocloc")


def test_run_jobs_keeps_order_and_errors() -> None:
    def fail() -> int:
        raise GpuCompileError("so it is")

    first, second, third = run_jobs([lambda: 1, fail, lambda: 3])
    assert (first, third) == (1, 3)
    assert isinstance(second, GpuCompileError)


@pytest.mark.parametrize("kernel", [*ALL_KERNELS, *EXPANSIONS, *RWKV_KERNELS], ids=lambda kernel: kernel.name)
def test_a_kernel_is_in_its_header(kernel: AnyKernel) -> None:
    assert kernel.name in "".join(device_text(kernel.header))


def test_every_weight_format_has_a_kernel() -> None:
    assert {*WEIGHT_FORMATS, "q8_1"} == set(KERNELS)


def test_what_a_launcher_can_reach_is_compiled() -> None:
    """Each kernel in the geometry of each launcher table, in each element type that some GPU of the table has."""
    compiled = {
        (case.kernel.name, case.element_type, case.build.geometry)
        for case in cases()
        if case.kernel not in ENGINE_KERNELS
    }
    types = {
        table: {t for name in ARCHITECTURES.values() if LAUNCHER_TABLES[name] == table for t in types_on(name)}
        for table in LAUNCHER_TABLES.values()
    }
    assert len(types) == 3
    reached = {
        (kernel.name, element_type, geometry)
        for kernel in ALL_KERNELS
        for table, geometry in kernel.geometries.items()
        for element_type in types[table]
    }
    expanding = {
        (kernel.name, element_type, Geometry(() if size is None else (size,), size, kernel.work_group, 1))
        for kernel in EXPANSIONS
        if not kernel.blocks_of_item
        for table, size in kernel.sub_groups.items()
        for element_type in types[table].intersection(kernel.element_types)
    } | {
        (kernel.name, element_type, Geometry((blocks,), 1, 1, 1))
        for kernel in EXPANSIONS
        if kernel.blocks_of_item
        for blocks in (kernel.blocks_of_item, 1)
        for element_type in ("float", "c10::Half")
    }
    of_rwkv = {
        (kernel.name, element_type, kernel.geometry("unknown"))
        for kernel in RWKV_KERNELS
        for element_type in kernel.element_types
    }
    assert len(of_rwkv) == 2 + 1 + 2
    assert compiled == reached | expanding | of_rwkv


def test_instantiations_for_matrix_engines() -> None:
    """Three types by eight tails by two engines, each on the architectures of its class."""
    found = {(case.expression, case.architecture) for case in cases(ENGINE_KERNELS)}
    types = ("float,c10::Half,float,c10::Half", "c10::Half,c10::Half,float,c10::Half")
    types += ("c10::BFloat16,c10::BFloat16,float,c10::BFloat16",)
    assert found == {
        (f"loom_forward_kernel<{t},{tail},{columns},8>", architecture)
        for t in types
        for tail in range(1, 9)
        for columns, architectures in ((16, [0x30F000700]), (8, [0x30DC00800, 0x30E000500, 0x30E400000]))
        for architecture in architectures
    }
    assert {case.build.local_memory for case in cases(ENGINE_KERNELS) if case.build.geometry.rows == 16} == {2048}
    assert {case.build.local_memory for case in cases(ENGINE_KERNELS) if case.build.geometry.rows == 8} == {1024}


def test_sub_groups_of_q5_k() -> None:
    kernel = KERNELS["q5_k"]
    assert {build_for(kernel, name).options for name in ("elm", "fir", "yew")} == {("-DQUILLON_SUB_GROUP_SIZE=16",)}
    assert {build_for(kernel, name).sub_group for name in ("oak", "ash", "bay", "legacy")} == {8}
    assert build_for(KERNELS["q4_0"], "elm").options == ()


def test_packed_bytes() -> None:
    assert build_for(KERNELS["q4_0"], "elm").packed_bytes == 2 * (8 + 0.5)
    assert build_for(KERNELS["q4_0"], "legacy").packed_bytes == 8 * (8 + 0.5)
    assert build_for(KERNELS["q5_0"], "oak").packed_bytes == 4 * 44 / 32  # four blocks a pass, shared by 32 lanes
    assert build_for(KERNELS["iq2_xxs"], "oak").packed_bytes == 66 / 8  # a lane has one of the work-group's two rows
