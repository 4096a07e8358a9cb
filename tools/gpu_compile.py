r"""Turns device text into GPU machine code on a machine that has no GPU.

A kernel takes the road it takes on a user's machine, up to the driver's door: the SYCL runtime's own compiler
makes SPIR-V of it (``spirv_dump.cpp``), and the offline GPU compiler ``ocloc``, which holds the drivers'
compiler, makes machine code of that for a named architecture. What the machine code uses (registers, spills,
private memory) and what its inner loop costs is then known exactly; how fast it runs is not.

    python tools/gpu_compile.py kernels/matvec/q4_0_2x16.h 'qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>' \
        --architecture 0x30F000700 --assembly out

Results are kept below ``.cache/gpu-code`` under a hash of all that they depend on; delete that folder at
will. ``docs/gpu_code.md`` tells how to get the compiler.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass
from functools import cache
from pathlib import Path
from typing import TypeVar

PROJECT = Path(__file__).resolve().parents[1]
SOURCES = PROJECT / "csrc"
CACHE = PROJECT / ".cache" / "gpu-code"
OWN_OCLOC = PROJECT / ".cache" / "gpu-compiler" / "bin" / "ocloc"

MISSING_OCLOC = (
    "the offline GPU compiler ocloc is neither named by QUILLON_OCLOC nor in .cache/gpu-compiler nor on "
    "PATH; get it with: tools/install-gpu-compiler .cache/gpu-compiler"
)

# Seconds. A compile takes well under one; what takes longer is a compiler that has lost its way.
HOST_COMPILE_LIMIT = 300
SPIRV_LIMIT = 120
GPU_COMPILE_LIMIT = 60

PARALLEL_JOBS = 2

Result = TypeVar("Result")


class GpuCompileError(RuntimeError):
    """A compiler failed, ran out of time or is missing; the message holds its output."""


@dataclass(frozen=True)
class SpirvKernel:
    """A kernel in SPIR-V: the file that holds it, maybe with others, and its name there."""

    module: Path
    entry: str


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


@dataclass(frozen=True)
class GpuModule:
    """Machine code of one SPIR-V module for one architecture."""

    binary: Path
    product: str
    """The compiler's own name of the architecture, which its disassembler asks for."""
    kernels: Mapping[str, KernelInfo]
    """By the kernel's name in the SPIR-V."""


# ---- architectures -----------------------------------------------------------------------------------------


def device_argument(architecture: int) -> str:
    """The compiler's name, ``major.minor.revision``, for a 64-bit architecture identifier."""
    version = architecture >> 8
    return f"{version >> 22}.{version >> 14 & 0xFF}.{version & 0x3FFF}"


@cache
def listed_architectures() -> Mapping[int, str]:
    """The architecture identifiers that the library knows, each with its device class."""
    text = (SOURCES / "dispatch" / "device_class.h").read_text()
    rows = re.findall(r"\{(0x[0-9A-F]+), XpuDeviceClass::(\w+)\}", text)
    return {int(identifier, 16): device_class for identifier, device_class in rows}


@cache
def format_block(name: str) -> tuple[int, int]:
    """Elements and bytes of a block of the format ``name``."""
    text = (SOURCES / "formats" / "registry.h").read_text()
    match = re.search(rf'\{{\d+, "{re.escape(name)}", storage_kind::\w+, (\d+), (\d+)\}}', text)
    if match is None:
        raise KeyError(f"no format is called {name!r}")
    return int(match[1]), int(match[2])


def extensions(architecture: int) -> frozenset[str]:
    """What the compiler says an architecture offers: OpenCL extension names, cl_khr_fp64 among them."""
    compiler = _require_ocloc()
    device = device_argument(architecture)
    key = _digest("extensions", compiler_version(compiler), device)
    kept = CACHE / "extensions" / key
    if not kept.exists():
        with tempfile.TemporaryDirectory() as scratch:
            query = "CL_DEVICE_EXTENSIONS"
            _run([compiler, "query", query, "-device", device], GPU_COMPILE_LIMIT, cwd=scratch)
            _write_atomically(kept, (Path(scratch) / query).read_text())
    return frozenset(kept.read_text().split())


# ---- SPIR-V ------------------------------------------------------------------------------------------------


def dump_spirv(header: str, names: Sequence[str], root: Path = SOURCES) -> dict[str, SpirvKernel]:
    """SPIR-V of the kernels ``names``: instantiations of templates in ``header``, relative to ``root``.

    One build makes them all, which costs little more than one of them does. Names are written as the library
    writes them: ``"qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>"``.
    """
    tool = _spirv_dump_program()
    key = _digest("spirv", tool.name, _run_time_compiler(), *device_text(header, root), header, *names)
    kept = CACHE / "spirv" / key
    if not kept.exists():
        with _scratch_folder() as scratch:
            environment = os.environ | {
                "SYCL_CACHE_PERSISTENT": "0",
                "SYCL_DUMP_IMAGES": "1",
                "SYCL_DUMP_IMAGES_PREFIX": str(Path(scratch) / "module"),
            }
            environment.setdefault("OCL_ICD_FILENAMES", str(_prefix() / "lib" / "libintelocl.so"))
            _run([tool, root, header, *names], SPIRV_LIMIT, env=environment)
            _move_atomically(Path(scratch), kept)
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


# ---- GPU code ----------------------------------------------------------------------------------------------


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
        release = _run([compiler, "--version"], GPU_COMPILE_LIMIT, cwd=scratch)
        _run([compiler, "query", "IGC_REVISION"], GPU_COMPILE_LIMIT, cwd=scratch)
        return f"{release.strip()} {(Path(scratch) / 'IGC_REVISION').read_text().strip()}"


def compile_for_gpu(module: Path, architecture: int, options: str = "") -> GpuModule:
    """Machine code of a SPIR-V file for an architecture; ``options`` go to the GPU's code generator."""
    compiler = _require_ocloc()
    device = device_argument(architecture)
    key = _digest("gpu", compiler_version(compiler), device, options, module.read_bytes())
    kept = CACHE / "gpu" / key
    if not kept.exists():
        with _scratch_folder() as scratch:
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
            log = _run(command, GPU_COMPILE_LIMIT)
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
            _move_atomically(folder, kept)
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
    _run([compiler, "disasm", "-file", binary, "-dump", target, "-device", product], GPU_COMPILE_LIMIT)
    return target


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


# ---- loops -------------------------------------------------------------------------------------------------


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


# ---- helpers -----------------------------------------------------------------------------------------------


def run_jobs(jobs: Iterable[Callable[[], Result]]) -> list[Result | GpuCompileError]:
    """Runs jobs a few at a time; gives, in order, each one's result or the ``GpuCompileError`` of its end."""

    def outcome(job: Callable[[], Result]) -> Result | GpuCompileError:
        try:
            return job()
        except GpuCompileError as error:
            return error

    with ThreadPoolExecutor(PARALLEL_JOBS) as pool:
        return list(pool.map(outcome, jobs))


def _run(
    command: Sequence[str | Path],
    limit: int,
    env: Mapping[str, str] | None = None,
    cwd: str | None = None,
) -> str:
    """Output of a command; a ``GpuCompileError`` if it fails or takes longer than ``limit`` seconds."""
    shown = " ".join(str(word) for word in command)
    try:
        done = subprocess.run(
            [str(word) for word in command],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            timeout=limit,
            env=None if env is None else dict(env),
            cwd=cwd,
        )
    except subprocess.TimeoutExpired as error:
        raise GpuCompileError(f"no end after {limit} s: {shown}") from error
    except OSError as error:
        raise GpuCompileError(f"cannot run {command[0]}: {error.strerror}") from error
    if done.returncode != 0:
        raise GpuCompileError(f"exit code {done.returncode}: {shown}\n{done.stdout}")
    return done.stdout


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
    source = PROJECT / "tools" / "spirv_dump.cpp"
    shared = SOURCES / "runtime" / "device_build.h"
    program = CACHE / f"spirv_dump-{_digest(source.read_bytes(), shared.read_bytes(), _run_time_compiler())}"
    if not program.exists():
        with _scratch_folder() as scratch:
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
            _run([*command, f"-Wl,-rpath,{prefix / 'lib'}"], HOST_COMPILE_LIMIT)
            os.replace(built, program)
    return program


def _digest(*parts: str | bytes) -> str:
    """A hash of the parts, which tells ("ab", "c") from ("a", "bc")."""
    digest = hashlib.sha256()
    for part in parts:
        data = part.encode() if isinstance(part, str) else part
        digest.update(len(data).to_bytes(8, "little") + data)
    return digest.hexdigest()[:32]


def _scratch_folder() -> tempfile.TemporaryDirectory[str]:
    """A folder on the cache's file system, so that a finished result is moved into place in one step."""
    CACHE.mkdir(parents=True, exist_ok=True)
    return tempfile.TemporaryDirectory(dir=CACHE, prefix="unfinished-", ignore_cleanup_errors=True)


def _move_atomically(folder: Path, kept: Path) -> None:
    """Moves the content of a scratch folder to the cache; whoever was first wins, with the same content."""
    kept.parent.mkdir(parents=True, exist_ok=True)
    finished = folder.with_name(f"{folder.name}-done")
    shutil.copytree(folder, finished)
    try:
        os.rename(finished, kept)
    except OSError:
        shutil.rmtree(finished)
        if not kept.exists():
            raise


def _write_atomically(kept: Path, text: str) -> None:
    with _scratch_folder() as scratch:
        kept.parent.mkdir(parents=True, exist_ok=True)
        (Path(scratch) / "text").write_text(text)
        os.replace(Path(scratch) / "text", kept)


def _parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description="Compiles kernels for GPUs and shows what they use.")
    parser.add_argument("header", help="header that holds the kernel template, relative to the root")
    parser.add_argument("kernel", nargs="+", help="instantiation, such as 'name<float,16,32,2>'")
    parser.add_argument("--root", type=Path, default=SOURCES, help="folder of device text (default: csrc)")
    parser.add_argument(
        "--architecture",
        action="append",
        type=lambda text: int(text, 0),
        help="64-bit identifier; may be repeated (default: all that the library lists)",
    )
    parser.add_argument("--options", default="", help="options for the GPU's code generator")
    parser.add_argument("--assembly", type=Path, help="folder to write the assembly to")
    return parser.parse_args()


def main() -> int:
    arguments = _parse_arguments()
    try:
        spirv = dump_spirv(arguments.header, arguments.kernel, arguments.root)
        for architecture in arguments.architecture or listed_architectures():
            for name, kernel in spirv.items():
                module = compile_for_gpu(kernel.module, architecture, arguments.options)
                info = asdict(module.kernels[kernel.entry])
                del info["entry"]
                print(f"{device_argument(architecture):8} {name}: {info}")
                if arguments.assembly:
                    arguments.assembly.mkdir(parents=True, exist_ok=True)
                    stem = re.sub(r"\W+", "_", name).strip("_")
                    file = arguments.assembly / f"{stem}.{device_argument(architecture)}.asm"
                    file.write_text(assembly(module)[kernel.entry])
    except GpuCompileError as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
