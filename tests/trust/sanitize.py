"""Host code under sanitizers: a build for each kind in a folder of its own, and the tests that run through that code.

    python tests/trust/sanitize.py                   addresses and undefined behaviour, then threads
    python tests/trust/sanitize.py --only address    one of them
    python tests/trust/sanitize.py --only thread tests/matvec/test_concurrency.py

The modules, libc10_xpu.so and what tests compile for themselves are instrumented. Python, PyTorch, oneDNN and the SYCL
runtime are as they come, and kernels are compiled by the latter: an access there is not seen (QUILLON_HOST_GUARD is for
those of kernels), and neither is a lock that is none of the C library's. What is theirs all the same goes to
suppressions/<tool>.txt by the name of the library; nothing has to so far.

A fault that is made on purpose has to be reported before the tests begin. A report by any process of theirs fails the
command, even if all tests pass.
"""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SUPPRESSIONS = Path(__file__).with_name("suppressions")

FAULTS = """
#include <thread>
extern "C" int beyond(int n) { int* four = new int[4]{}; const int found = four[n]; delete[] four; return found; }
extern "C" int shift(int n) { return 1 << n; }
extern "C" int race(int n) { std::thread other([&] { ++n; }); ++n; other.join(); return n; }
"""

# Two sanitizers in a process call one function to say where reports go, that of the library which came first.
SECOND_PATH = """
#include <dlfcn.h>
__attribute__((constructor)) static void set_path() {{
  void* library = dlopen("{library}", RTLD_NOW | RTLD_NOLOAD);
  ((void (*)(const char*))dlsym(library, "__sanitizer_set_report_path"))("{path}");
}}
"""


@dataclass(frozen=True)
class Kind:
    flags: str
    runtimes: tuple[str, ...]  # the libraries that have to be loaded before all others
    options: dict[str, str]  # by variable, beside where to report and what to suppress
    faults: dict[str, str]  # functions of FAULTS, and what is said of each
    tests: tuple[str, ...]
    left_out: frozenset[str] = frozenset()  # tests that cannot pass, each with the reason beside it


KINDS = {
    "address": Kind(
        flags="-fsanitize=address,undefined,float-cast-overflow -D_GLIBCXX_ASSERTIONS",
        runtimes=("libasan.so", "libubsan.so"),
        options={
            # Python and PyTorch keep much to the end of a process; soak.py looks for what is lost. And libsycl.so frees
            # by the operator of the C++ library what libsycl-jit.so has from an operator of its own. And libintelocl.so
            # gives a thread that it compiles in a signal stack from malloc, which the sanitizer would unmap as its own.
            "ASAN_OPTIONS": "detect_leaks=0:alloc_dealloc_mismatch=0:use_sigaltstack=0:detect_stack_use_after_return=1:"
            "check_initialization_order=1:strict_string_checks=1:allocator_may_return_null=1",
            "UBSAN_OPTIONS": "print_stacktrace=1",
        },
        faults={"beyond": "heap-buffer-overflow", "shift": "runtime error: shift exponent 40"},
        tests=(
            "tests/frontend",
            "tests/dispatch/test_onednn.py",
            "tests/dispatch/test_read_extent.py",
            "tests/formats/test_conversions.py",
            "tests/formats/test_registry.py",
            "tests/host_device/test_devices.py",
            "tests/host_device/test_fallback.py",
            "tests/host_device/test_missing_kernels.py",
            "tests/host_device/test_multiprocessing.py",
            "tests/host_device/test_streams.py",
            "tests/host_device/test_tensors.py",
            "tests/runtime/test_kernel_library.py",
            "tests/runtime/test_process.py",
            "tests/matvec/test_failures.py",
            "tests/mlp/test_failures.py",
            "tests/rwkv/test_failures.py",
            "tests/trust/test_threads.py",
            "tests/trust/test_workers.py",
        ),
        left_out=frozenset(
            {
                # Of more memory than there is, its operator new makes no exception.
                "tests/frontend/test_hostile_arguments.py::test_any_arguments[get_moe_indexes]",
            }
        ),
    ),
    "thread": Kind(
        flags="-fsanitize=thread",
        runtimes=("libtsan.so",),
        options={
            "TSAN_OPTIONS": "ignore_noninstrumented_modules=1:die_after_fork=0:history_size=4:atexit_sleep_ms=0",
        },
        faults={"race": "data race"},
        tests=(
            "tests/matvec/test_concurrency.py",
            "tests/dispatch/test_onednn.py",
            "tests/runtime/test_kernel_library.py",
            "tests/runtime/test_process.py",
            "tests/host_device/test_devices.py",
            "tests/host_device/test_streams.py",
            "tests/trust/test_threads.py",
        ),
    ),
}


# ---- what is built --------------------------------------------------------------------------------------------------


def fixed_addresses() -> list[str]:
    """Random places in memory are now and then those of the sanitizers' own tables: a command that forbids them."""
    command = ["setarch", "--addr-no-randomize"]
    allowed = shutil.which("setarch") and subprocess.run([*command, "true"], capture_output=True).returncode == 0
    return command if allowed else []


def compiler() -> str:
    return shutil.which(os.environ.get("CXX", "g++")) or "g++"


def build(name: str, kind: Kind) -> Path:
    """Build what is out of date; returns the folder of the packages."""
    folder = ROOT / "build" / f"sanitize-{name}"
    launcher = [f"-DCMAKE_CXX_COMPILER_LAUNCHER={found}"] if (found := shutil.which("ccache")) else []
    # NDEBUG as in PyTorch, whose headers differ by it.
    flags = f"-DCMAKE_CXX_FLAGS={kind.flags} -O1 -g1 -fno-omit-frame-pointer -DNDEBUG"
    options = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", f"-DPython_EXECUTABLE={sys.executable}", flags, *launcher]
    # Under a compiler cache too, unlike other builds: this is seldom built again after a change of few sources.
    options += ["-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=5"]
    # Sanitizers make the compiler warn of what is no mistake, and CI makes warnings errors.
    environment = {key: value for key, value in os.environ.items() if key != "CI"}
    for command in (["cmake", "-S", ROOT, "-B", folder, *options], ["cmake", "--build", folder]):
        done = subprocess.run(
            [*fixed_addresses(), *command], env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )
        if done.returncode:
            raise SystemExit(done.stdout[-5000:])
    return folder / "python"


def library(name: str) -> str:
    command = [compiler(), f"-print-file-name={name}"]
    return str(Path(subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()).resolve())


def environment(kind: Kind, folder: Path) -> dict[str, str]:
    """Of processes with instrumented code: reports go to `folder`, which also has a g++ with the flags of the build."""
    wrapper = folder / "g++"
    wrapper.write_text(f'#!/bin/sh\nLD_PRELOAD= exec {compiler()} {kind.flags} -g1 "$@"\n')
    wrapper.chmod(0o755)
    # The C++ library beside them, so that its exceptions are known from the start.
    preloaded = [library(name) for name in (*kind.runtimes, "libstdc++.so.6")]
    for second in preloaded[1:-1]:
        source, built = folder / "path.c", folder / "path.so"
        source.write_text(SECOND_PATH.format(library=second, path=folder / "report.second"))
        subprocess.run([compiler(), "-x", "c", source, "-shared", "-fPIC", "-o", built], check=True)
        preloaded.append(str(built))
    made = os.environ | {
        "PATH": f"{folder}{os.pathsep}{os.environ['PATH']}",
        "LD_PRELOAD": " ".join(preloaded),
        # A library that another opens is opened by the sanitizer, which does not know where that one looks.
        "LD_LIBRARY_PATH": str(Path(sys.prefix) / "lib"),
    }
    made.pop("CXX", None)
    for variable, options in kind.options.items():
        listed = SUPPRESSIONS / f"{variable.removesuffix('_OPTIONS').lower()}.txt"
        suppressed = f"suppressions={listed}" if listed.exists() else ""
        given = (options, f"log_path={folder / 'report.first'}", suppressed, os.environ.get(variable))
        made[variable] = ":".join(filter(None, given))
    return made


# ---- what is found --------------------------------------------------------------------------------------------------


def findings(folder: Path) -> dict[str, list[str]]:
    """The texts of all reports, by the line that sums one up."""
    found: dict[str, list[str]] = {}
    for path in sorted(folder.glob("report.*")):
        text = path.read_text(errors="replace")
        # A report of undefined behaviour begins with its line, any other ends with it; a sanitizer's own end is a line.
        pattern = (
            r"^\S+: runtime error: .*$(?:\n(?!\S+: runtime error).+)*|(?:^.*\n)*?^SUMMARY: (?!Undefined).*$"
            r"|^\w+Sanitizer: CHECK failed: .*$"
        )
        for report in re.findall(pattern, text, re.MULTILINE):
            lines = report.strip().splitlines()
            line = lines[0] if "runtime error" in lines[0] else lines[-1]
            found.setdefault(re.sub("0x[0-9a-f]+|(?<=tid=)[0-9]+", "…", line), []).append(report.strip())
    return found


def unseen_faults(kind: Kind) -> list[str]:
    """Faults of FAULTS that are not reported as they should be."""
    missed = []
    with tempfile.TemporaryDirectory() as made:
        folder = Path(made)
        variables = environment(kind, folder)
        source, built = folder / "faults.cpp", folder / "faults.so"
        source.write_text(FAULTS)
        subprocess.run([folder / "g++", "-O1", "-shared", "-fPIC", source, "-o", built], env=variables, check=True)
        text = "import ctypes, sys; getattr(ctypes.CDLL(sys.argv[1]), sys.argv[2])(40)"
        for function, said in kind.faults.items():
            command = [*fixed_addresses(), sys.executable, "-c", text, built, function]
            subprocess.run(command, env=variables, capture_output=True, timeout=100)
            lines = list(findings(folder))
            if not any(said in line for line in lines):
                missed.append(f"{function}: {said!r} is not in {lines}")
    return missed


def run_tests(kind: Kind, packages: Path, folder: Path, tests: list[str], processes: int) -> int:
    """Run the tests; returns pytest's exit code. Reports are in the folder."""
    variables = environment(kind, folder) | {"PYTHONPATH": str(packages)}
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-o", "timeout=1800", "--durations=20"]
    command += ["--numprocesses", str(processes), "--dist", "loadfile", "--no-loadscope-reorder"]
    command += [f"--deselect={one}" for one in kind.left_out]
    return subprocess.run([*fixed_addresses(), *command, *(tests or kind.tests)], cwd=ROOT, env=variables).returncode


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--processes", type=int, default=2, help="among which the files of tests are shared out")
    parser.add_argument("tests", nargs="*", help="in place of the chosen ones")
    options = parser.parse_args()
    failed = False
    for name, kind in KINDS.items():
        if options.only not in (None, name):
            continue
        start = time.monotonic()
        packages = build(name, kind)
        built = time.monotonic()
        if missed := unseen_faults(kind):
            print("not reported, so that nothing else would be:", *missed, sep="\n")
            return 1
        with tempfile.TemporaryDirectory() as folder:
            status = run_tests(kind, packages, Path(folder), options.tests, options.processes)
            found = findings(Path(folder))
        for report in found.values():
            print("", report[0][:5000], sep="\n")
        counts = Counter({line: len(reports) for line, reports in found.items()})
        print(*(f"{count} times: {line}" for line, count in counts.most_common()), sep="\n")
        print(
            f"{name}: built in {built - start:.0f} s, tested in {time.monotonic() - built:.0f} s, pytest ended with ",
            end="",
        )
        print(f"{status}; {len(found)} different reports", flush=True)
        failed |= status != 0 or bool(found)
    return failed


if __name__ == "__main__":
    sys.exit(main())
