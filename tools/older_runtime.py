"""Builds quillon against an older SYCL runtime, and runs its selftest and a sample of the kernel tests there.

    python tools/older_runtime.py FOLDER                       # the runtime that a PyTorch with XPU may carry
    python tools/older_runtime.py FOLDER --share 1             # all kernel tests

FOLDER gets a virtual environment with that runtime and oneDNN for it, a build, and a cache of kernels; it is made again
where it is not complete. The selftest runs in both forms of the kernels, the tests in the one that GPUs have: half an
hour and more. PyTorch and the packages of the tests are those of the environment that runs this.
"""

from __future__ import annotations

import argparse
import os
import random
import re
import subprocess
import sysconfig
import venv
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
RUNTIME = "2025.3.*"
TESTS = ("tests/matvec", "tests/dequant", "tests/by_batch", "tests/mlp", "tests/rwkv", "tests/matrix_engine")
FORMS = ("items", "vectors")
"""Those of the kernels: what a GPU runs, and what the host device runs unless it is told otherwise."""


def run(*command: str | Path, **environment: str) -> None:
    print("$", *command[:6], "…" if len(command) > 6 else "", flush=True)
    done = subprocess.run(list(map(str, command)), cwd=PROJECT, env=os.environ | environment, check=False)
    if done.returncode:
        raise SystemExit(done.returncode)


def make_environment(folder: Path, version: str) -> Path:
    """A virtual environment with the runtime, which sees all other packages of this one. Returns its Python."""
    python, complete = folder / "venv" / "bin" / "python", folder / "venv" / f"runtime-{version.strip('.*')}"
    if not complete.exists():
        # Not by links to an interpreter that lies in an environment itself, whose packages would come first.
        venv.create(folder / "venv", clear=True, with_pip=True)
        run(python, "-m", "pip", "install", "--quiet", f"dpcpp-cpp-rt=={version}", f"onednn-devel=={version}")
        complete.touch()
    [site] = (folder / "venv" / "lib").glob("python*/site-packages")
    (site / "shared.pth").write_text(sysconfig.get_path("purelib") + "\n")
    return python


def sample(python: Path, share: float, seed: int, environment: dict[str, str]) -> list[str]:
    """A share of the kernel tests."""
    command = [str(python), "-m", "pytest", "--collect-only", "-q", *TESTS]
    listed = subprocess.run(command, cwd=PROJECT, env=os.environ | environment, capture_output=True, text=True)
    if listed.returncode:
        raise SystemExit(listed.stdout[-3000:] + listed.stderr[-3000:])
    found = re.findall(r"^tests/\S+::.*$", listed.stdout, re.MULTILINE)
    chosen = set(random.Random(seed).sample(found, max(1, round(share * len(found)))))
    print(f"{len(chosen)} of {len(found)} kernel tests, seed {seed}", flush=True)
    return [one for one in found if one in chosen]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path)
    parser.add_argument("--runtime", default=RUNTIME, help="version of the packages (%(default)s)")
    parser.add_argument("--share", type=float, default=0.1, help="of the kernel tests (%(default)s)")
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--formats", help="of the selftest, comma-separated (all)")
    parser.add_argument("--form", choices=FORMS, action="append", help="of the kernels, in the selftest (both)")
    parser.add_argument("--cmake-option", action="append", default=[], help="for the build, repeatedly")
    given = parser.parse_args()
    folder = given.folder.resolve()
    folder.mkdir(parents=True, exist_ok=True)
    python = make_environment(folder, given.runtime)
    build = folder / "build"
    options = [f"-DPython_EXECUTABLE={python}", *given.cmake_option]
    run("cmake", "-S", PROJECT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Plain", *options)
    run("ninja", "-C", build)
    environment = {"PYTHONPATH": str(build / "python"), "OCL_ICD_FILENAMES": str(folder / "venv/lib/libintelocl.so")}
    environment |= {"SYCL_CACHE_PERSISTENT": "1", "SYCL_CACHE_DIR": str(folder / "kernels")}
    run(python, "-m", "quillon", "info", **environment)
    formats = ["--formats", given.formats] if given.formats else []
    for form in given.form or FORMS:
        run(python, "-m", "quillon", "selftest", *formats, **environment, QUILLON_HOST_BACKING=form)
    environment |= {"QUILLON_HOST_BACKING": FORMS[0]}
    chosen = sample(python, given.share, given.seed, environment)
    run(python, "-m", "pytest", "-q", "-p", "no:cacheprovider", *chosen, **environment)


if __name__ == "__main__":
    main()
