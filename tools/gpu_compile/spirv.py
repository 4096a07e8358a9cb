"""SPIR-V of kernels, made by the SYCL runtime's own compiler as the library has it made."""

from __future__ import annotations

import os
import re
import struct
import sys
from collections.abc import Iterator, Sequence
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
    """SPIR-V of the kernels ``names``: instantiations of templates in ``header``, relative to ``root``, which may
    include headers of the library as well.

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
            run([tool, ":".join(map(str, _roots(root))), header, *options, *names], SPIRV_LIMIT, env=environment)
            move_atomically(Path(scratch), kept)
    entries = {entry: module for module in sorted(kept.glob("*.spv")) for entry in spirv_entry_points(module)}
    by_name = {kernel_name(entry): SpirvKernel(module, entry) for entry, module in entries.items()}
    missing = [name for name in names if name not in by_name]
    if missing:
        raise GpuCompileError(f"no SPIR-V for {', '.join(missing)}; there is some for {', '.join(by_name)}")
    return {name: by_name[name] for name in names}


def _roots(root: Path) -> list[Path]:
    return list(dict.fromkeys((root, SOURCES)))


def device_text(header: str, root: Path = SOURCES) -> list[str]:
    """Path and text, in turn, of ``header`` and of every header below ``root`` or csrc that it leads to."""
    texts: dict[str, str] = {}
    waiting = [header]
    while waiting:
        path = waiting.pop()
        found = next((folder / path for folder in _roots(root) if (folder / path).is_file()), None)
        if path in texts or found is None:
            continue
        texts[path] = found.read_text()
        waiting += re.findall(r'^\s*#\s*include\s+"([^"]+)"', texts[path], re.MULTILINE)
    if header not in texts:
        raise GpuCompileError(f"there is no {header} in {root}")
    return [part for path in sorted(texts) for part in (path, texts[path])]


def _instructions(module: Path) -> Iterator[tuple[int, tuple[int, ...]]]:
    """The operations in a SPIR-V file, each with its operands."""
    data = module.read_bytes()
    words = struct.unpack(f"<{len(data) // 4}I", data[: len(data) // 4 * 4])
    at = 5
    while at < len(words):
        length, operation = words[at] >> 16, words[at] & 0xFFFF
        yield operation, words[at + 1 : at + length]
        at += length


def _operands(module: Path, wanted: int) -> list[bytes]:
    """The operands of each instruction of one operation in a SPIR-V file."""
    found = [operands for operation, operands in _instructions(module) if operation == wanted]
    return [struct.pack(f"<{len(operands)}I", *operands) for operands in found]


def spirv_entry_points(module: Path) -> list[str]:
    """Names of the kernels in a SPIR-V file."""
    op_entry_point = 15
    return [operands[8 : operands.index(0, 8)].decode() for operands in _operands(module, op_entry_point)]


def is_explicit_simd(module: Path) -> bool:
    """Whether the kernels of a SPIR-V file are explicit-SIMD ones, which the GPU compiler has to be told."""
    op_capability, vector_compute = 17, 5617
    return struct.pack("<I", vector_compute) in _operands(module, op_capability)


@dataclass(frozen=True)
class MemoryAccess:
    """A load or a store of the device's memory, as opposed to local memory and a kernel's own arrays."""

    is_store: bool
    elements: int
    """Of the vector; 1: a number."""
    alignment: int
    """What the address is said to be a multiple of."""
    past_caches: bool


def memory_accesses(module: Path) -> list[MemoryAccess]:
    """The loads and stores of the device's memory in a SPIR-V file."""
    op_vector, op_pointer, op_load, op_store = 23, 32, 61, 62
    device_memory, aligned, nontemporal = 5, 2, 4
    elements: dict[int, int] = {}  # of vector types
    targets: dict[int, int] = {}  # of pointer types to device memory
    pointers: dict[int, int] = {}  # values, to what they point to
    found = []
    for operation, operands in _instructions(module):
        if operation == op_vector:
            elements[operands[0]] = operands[2]
        elif operation == op_pointer:
            if operands[1] == device_memory:
                targets[operands[0]] = operands[2]
        elif operation in (op_load, op_store):
            address, access = (operands[2], operands[3:]) if operation == op_load else (operands[0], operands[2:])
            if address in pointers and access and access[0] & aligned:
                count, past_caches = elements.get(pointers[address], 1), bool(access[0] & nontemporal)
                found.append(MemoryAccess(operation == op_store, count, access[1], past_caches))
        elif len(operands) > 1 and operands[0] in targets:  # the type of a result, and the result
            pointers[operands[1]] = targets[operands[0]]
    return found


# How types are mangled as template arguments. One with a name may stand there again, as a substitution; of those a
# kernel has no two different ones.
_MANGLED_NAMES = {
    "N4sycl3_V16detail9half_impl4halfE": "c10::Half",
    "N7quillon15rounded_float16IXadL_ZNS0_22bfloat16_bits_to_floatEtEEXadL_ZNS0_22float_to_bfloat16_bitsEfEEEE": (
        "c10::BFloat16"
    ),
}
_MANGLED_LETTERS = {"f": "float", "d": "double", "a": "int8_t", "h": "uint8_t", "t": "uint16_t", "j": "uint32_t"}
_MANGLED_ARGUMENT = re.compile(
    rf"(?P<name>{'|'.join(map(re.escape, _MANGLED_NAMES))})|(?P<again>S\w*?_)|L[ij](?P<number>\d+)E|"
    rf"(?P<letter>[{''.join(_MANGLED_LETTERS)}])"
)


def kernel_name(entry: str) -> str:
    """``"name<float,16,32,2>"`` from a mangled name whose template arguments are types of elements and integers."""
    match = re.match(r"_Z(\d+)__sycl_kernel_", entry)
    if match is None:
        return entry
    end = match.end(1) + int(match[1])
    name, rest = entry[match.end() : end], entry[end:]
    if not rest.startswith("I"):
        return name
    arguments: list[str] = []
    named = ""
    at = 1
    while rest[at] != "E":
        argument = _MANGLED_ARGUMENT.match(rest, at)
        if argument is None:
            return entry
        if argument["name"]:
            named = _MANGLED_NAMES[argument["name"]]
        letter = argument["letter"]
        arguments.append(argument["number"] or (_MANGLED_LETTERS[letter] if letter else named))
        at = argument.end()
    return f"{name}<{','.join(arguments)}>"


def _prefix() -> Path:
    """Where the SYCL headers (``include``) and libraries (``lib``) are: the environment that runs this."""
    prefix = Path(sys.prefix).resolve()  # programs that stay in the cache find the libraries by it
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
    """``spirv_dump``, compiled once; its name holds a hash of what it is made of and finds its libraries by."""
    prefix = _prefix()
    source = Path(__file__).with_name("spirv_dump.cpp")
    texts = device_text("runtime/device_build.h", SOURCES)
    program = CACHE / f"spirv_dump-{digest(source.read_bytes(), *texts, _run_time_compiler(), str(prefix))}"
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
