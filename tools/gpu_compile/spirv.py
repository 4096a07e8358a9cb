"""SPIR-V of kernels, made by the SYCL runtime's own compiler as the library has it made."""

from __future__ import annotations

import os
import re
import struct
import sys
from collections.abc import Sequence
from dataclasses import dataclass
from functools import cache
from pathlib import Path

from gpu_compile.jobs import CACHE, SOURCES, GpuCompileError, digest, move_atomically, run, scratch_folder

# Seconds. A compile takes well under one; what takes longer is a compiler that has lost its way.
HOST_COMPILE_LIMIT = 300
SPIRV_LIMIT = 120


@dataclass(frozen=True)
class SpirvKernel:
    """A kernel in SPIR-V: the file that holds it, maybe with others, and its name there."""

    module: Path
    entry: str


def dump_spirv(
    header: str, names: Sequence[str], root: Path = SOURCES, options: Sequence[str] = ()
) -> dict[str, SpirvKernel]:
    """SPIR-V of the kernels ``names``: instantiations of templates in ``header``, relative to ``root``.

    One build makes them all, which costs little more than one of them does. Names are written as the library
    writes them: ``"qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>"``. The build options come behind those that all
    builds have.
    """
    tool = _spirv_dump_program()
    key = digest("spirv", tool.name, _run_time_compiler(), *device_text(header, root), header, *options, *names)
    kept = CACHE / "spirv" / key
    if not kept.exists():
        with scratch_folder() as scratch:
            environment = os.environ | {
                "SYCL_CACHE_PERSISTENT": "0",
                "SYCL_DUMP_IMAGES": "1",
                "SYCL_DUMP_IMAGES_PREFIX": str(Path(scratch) / "module"),
            }
            environment.setdefault("OCL_ICD_FILENAMES", str(_prefix() / "lib" / "libintelocl.so"))
            run([tool, root, header, *options, *names], SPIRV_LIMIT, env=environment)
            move_atomically(Path(scratch), kept)
    entries = {entry: module for module in sorted(kept.glob("*.spv")) for entry in spirv_entry_points(module)}
    by_name = {kernel_name(entry): SpirvKernel(module, entry) for entry, module in entries.items()}
    missing = [name for name in names if name not in by_name]
    if missing:
        raise GpuCompileError(f"no SPIR-V for {', '.join(missing)}; there is some for {', '.join(by_name)}")
    return {name: by_name[name] for name in names}


def device_text(header: str, root: Path = SOURCES) -> list[str]:
    """Path and text, in turn, of ``header`` and of every header below ``root`` that it leads to."""
    texts: dict[str, str] = {}
    waiting = [header]
    while waiting:
        path = waiting.pop()
        if path in texts or not (root / path).is_file():
            continue
        texts[path] = (root / path).read_text()
        waiting += re.findall(r'^\s*#\s*include\s+"([^"]+)"', texts[path], re.MULTILINE)
    if header not in texts:
        raise GpuCompileError(f"there is no {header} in {root}")
    return [part for path in sorted(texts) for part in (path, texts[path])]


def spirv_entry_points(module: Path) -> list[str]:
    """Names of the kernels in a SPIR-V file."""
    op_entry_point = 15
    data = module.read_bytes()
    words = struct.unpack(f"<{len(data) // 4}I", data[: len(data) // 4 * 4])
    names = []
    at = 5
    while at < len(words):
        length, operation = words[at] >> 16, words[at] & 0xFFFF
        if operation == op_entry_point:
            name = data[4 * (at + 3) : 4 * (at + length)]
            names.append(name[: name.index(0)].decode())
        at += length
    return names


# How the element types of a kernel are mangled: each is the first template argument, so no substitution
# shortens it.
_MANGLED_ELEMENT_TYPES = {
    "f": "float",
    "d": "double",
    "N4sycl3_V16detail9half_impl4halfE": "c10::Half",
    "N7quillon15rounded_float16I": "c10::BFloat16",
}


def kernel_name(entry: str) -> str:
    """``"name<float,16,32,2>"`` from a mangled name whose template arguments are a type and integers."""
    match = re.match(r"_Z(\d+)__sycl_kernel_", entry)
    if match is None:
        return entry
    end = match.end(1) + int(match[1])
    name, rest = entry[match.end() : end], entry[end:]
    if not rest.startswith("I"):
        return name
    element = next((t for mangled, t in _MANGLED_ELEMENT_TYPES.items() if rest.startswith(mangled, 1)), None)
    if element is None:
        return entry
    constants = re.search(r"((?:L[ij]\d+E)+)Ev", rest)
    numbers = re.findall(r"L[ij](\d+)E", constants[1]) if constants else []
    return f"{name}<{','.join([element, *numbers])}>"


def _prefix() -> Path:
    """Where the SYCL headers (``include``) and libraries (``lib``) are: the environment that runs this."""
    prefix = Path(sys.prefix)
    if not (prefix / "include" / "sycl").is_dir():
        raise GpuCompileError(f"no SYCL headers in {prefix / 'include'}: install dpcpp-cpp-rt there")
    return prefix


@cache
def _run_time_compiler() -> str:
    """Tells one SYCL run-time compiler from another."""
    library = (_prefix() / "lib" / "libsycl-jit.so").resolve()
    facts = library.stat()
    return f"{library.name} {facts.st_size} {facts.st_mtime_ns}"


@cache
def _spirv_dump_program() -> Path:
    """``spirv_dump``, compiled once; its name holds a hash of what it is made of."""
    prefix = _prefix()
    source = Path(__file__).with_name("spirv_dump.cpp")
    texts = device_text("runtime/device_build.h", SOURCES)
    program = CACHE / f"spirv_dump-{digest(source.read_bytes(), *texts, _run_time_compiler())}"
    if not program.exists():
        with scratch_folder() as scratch:
            built = Path(scratch) / "spirv_dump"
            command: list[str | Path] = [
                os.environ.get("CXX", "g++"),
                "-std=c++17",
                "-O1",
                source,
                "-o",
                built,
            ]
            command += [f"-I{SOURCES}", "-isystem", prefix / "include", f"-L{prefix / 'lib'}", "-lsycl"]
            run([*command, f"-Wl,-rpath,{prefix / 'lib'}"], HOST_COMPILE_LIMIT)
            os.replace(built, program)
    return program
