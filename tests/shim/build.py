"""Compiles the C++ shims that let tests call header code through ctypes."""

from __future__ import annotations

import ctypes
import functools
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


@functools.cache
def load_shim(name: str) -> ctypes.CDLL:
    """Compile ``tests/shim/<name>.cpp``, any warning being an error, and load it; once in a process."""
    compiler = os.environ.get("CXX") or shutil.which("g++") or shutil.which("c++")
    if compiler is None:
        raise RuntimeError("no C++ compiler: set CXX, or install g++")
    flags = ["-std=c++17", "-O1", "-fPIC", "-shared", "-Wall", "-Wextra", "-Werror", f"-I{ROOT / 'csrc'}"]
    # The mapping outlives the file.
    with tempfile.TemporaryDirectory(prefix="quillon-shim-") as folder:
        library = Path(folder, f"{name}.so")
        source = ROOT / "tests" / "shim" / f"{name}.cpp"
        subprocess.run([compiler, *flags, str(source), "-o", str(library)], check=True, timeout=300)
        return ctypes.CDLL(str(library))
