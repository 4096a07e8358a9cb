"""Machine code of SPIR-V for a named architecture, by the offline GPU compiler."""

from __future__ import annotations

import json
import os
import shutil
import tempfile
from collections.abc import Mapping
from dataclasses import asdict, dataclass
from functools import cache
from pathlib import Path

from gpu_compile.jobs import (
    CACHE,
    PROJECT,
    GpuCompileError,
    digest,
    move_atomically,
    run,
    scratch_folder,
    write_atomically,
)
from gpu_compile.machine_code import KernelInfo, parse_ze_info
from gpu_compile.spirv import is_explicit_simd

OWN_OCLOC = PROJECT / ".cache" / "gpu-compiler" / "bin" / "ocloc"

MISSING_OCLOC = (
    "the offline GPU compiler ocloc is neither named by QUILLON_OCLOC nor in .cache/gpu-compiler nor on "
    "PATH; get it with: tools/install-gpu-compiler .cache/gpu-compiler"
)

# Seconds. A compile takes well under one; what takes longer is a compiler that has lost its way.
GPU_COMPILE_LIMIT = 60


@dataclass(frozen=True)
class GpuModule:
    """Machine code of one SPIR-V module for one architecture."""

    binary: Path
    product: str
    """The compiler's own name of the architecture, which its disassembler asks for."""
    kernels: Mapping[str, KernelInfo]
    """By the kernel's name in the SPIR-V."""


def device_argument(architecture: int) -> str:
    """The compiler's name, ``major.minor.revision``, for a 64-bit architecture identifier."""
    version = architecture >> 8
    return f"{version >> 22}.{version >> 14 & 0xFF}.{version & 0x3FFF}"


def find_ocloc() -> Path | None:
    """The offline GPU compiler: ``$QUILLON_OCLOC``, else the project's own, else one on PATH."""
    named = os.environ.get("QUILLON_OCLOC")
    if named:
        return Path(named)
    if OWN_OCLOC.exists():
        return OWN_OCLOC
    found = shutil.which("ocloc")
    return Path(found) if found else None


def _require_ocloc() -> Path:
    compiler = find_ocloc()
    if compiler is None:
        raise GpuCompileError(MISSING_OCLOC)
    return compiler


@cache
def compiler_version(compiler: Path) -> str:
    """The release and the code generator's revision."""
    with tempfile.TemporaryDirectory() as scratch:
        release = run([compiler, "--version"], GPU_COMPILE_LIMIT, cwd=scratch)
        run([compiler, "query", "IGC_REVISION"], GPU_COMPILE_LIMIT, cwd=scratch)
        return f"{release.strip()} {(Path(scratch) / 'IGC_REVISION').read_text().strip()}"


def extensions(architecture: int) -> frozenset[str]:
    """What the compiler says an architecture offers: OpenCL extension names, cl_khr_fp64 among them."""
    compiler = _require_ocloc()
    device = device_argument(architecture)
    key = digest("extensions", compiler_version(compiler), device)
    kept = CACHE / "extensions" / key
    if not kept.exists():
        with tempfile.TemporaryDirectory() as scratch:
            query = "CL_DEVICE_EXTENSIONS"
            run([compiler, "query", query, "-device", device], GPU_COMPILE_LIMIT, cwd=scratch)
            write_atomically(kept, (Path(scratch) / query).read_text())
    return frozenset(kept.read_text().split())


def compile_for_gpu(module: Path, architecture: int, options: str = "") -> GpuModule:
    """Machine code of a SPIR-V file for an architecture; ``options`` go to the GPU's code generator."""
    compiler = _require_ocloc()
    if is_explicit_simd(module):
        options = f"-vc-codegen {options}".strip()
    device = device_argument(architecture)
    key = digest("gpu", compiler_version(compiler), device, options, module.read_bytes())
    kept = CACHE / "gpu" / key
    if not kept.exists():
        with scratch_folder() as scratch:
            command: list[str | Path] = [
                compiler,
                "compile",
                "-spirv_input",
                "-file",
                module,
                "-device",
                device,
            ]
            command += ["-output", "code", "-out_dir", scratch, *(["-options", options] if options else [])]
            log = run(command, GPU_COMPILE_LIMIT)
            folder = Path(scratch)
            binaries = list(folder.glob("code_*.bin"))
            if len(binaries) != 1:
                raise GpuCompileError(f"ocloc left {len(binaries)} binaries for {device}:\n{log}")
            product = binaries[0].stem.removeprefix("code_")
            sections = _disassemble(compiler, binaries[0], product, folder / "sections")
            info = [asdict(kernel) for kernel in parse_ze_info((sections / ".ze_info").read_text())]
            (folder / "kernels.json").write_text(json.dumps({"product": product, "kernels": info}, indent=1))
            for leftover in folder.iterdir():
                if leftover.name not in ("kernels.json", binaries[0].name):
                    shutil.rmtree(leftover) if leftover.is_dir() else leftover.unlink()
            move_atomically(folder, kept)
    stated = json.loads((kept / "kernels.json").read_text())
    kernels = {kernel["entry"]: KernelInfo(**kernel) for kernel in stated["kernels"]}
    return GpuModule(kept / f"code_{stated['product']}.bin", stated["product"], kernels)


# What a file system takes as a name. ocloc silently leaves out a kernel whose assembly would need a longer one.
_LONGEST_FILE_NAME = 255


def assembly(module: GpuModule) -> dict[str, str]:
    """Assembly of a module's kernels, by their names in the SPIR-V, but for those whose name is too long for a file."""
    with tempfile.TemporaryDirectory() as scratch:
        sections = _disassemble(_require_ocloc(), module.binary, module.product, Path(scratch) / "sections")
        files = {entry: sections / f".text.{entry}.asm" for entry in module.kernels}
        named = {entry: file for entry, file in files.items() if len(file.name) <= _LONGEST_FILE_NAME}
        for entry, file in named.items():
            if not file.exists():
                raise GpuCompileError(f"ocloc wrote no assembly of {entry}")
        return {entry: file.read_text() for entry, file in named.items()}


def _disassemble(compiler: Path, binary: Path, product: str, target: Path) -> Path:
    run([compiler, "disasm", "-file", binary, "-dump", target, "-device", product], GPU_COMPILE_LIMIT)
    return target
