"""Runs kernels of the tests, in the form of vectors, on the SYCL CPU device."""

from __future__ import annotations

import ctypes
import functools
import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

import quillon  # noqa: F401  (names the CPU device's driver before the SYCL runtime starts)

ROOT = Path(__file__).resolve().parents[2]
HEADERS = Path(__file__).parent
Bytes = NDArray[np.uint8]


@functools.cache
def _library() -> ctypes.CDLL:
    prefix = Path(sys.prefix)
    libraries = prefix / "lib"
    flags = ["-std=c++17", "-O1", "-fPIC", "-shared", "-Wall", "-Wextra", "-Werror", f"-I{ROOT / 'csrc'}"]
    flags += ["-isystem", str(prefix / "include"), f"-L{libraries}", "-lsycl", f"-Wl,-rpath,{libraries}"]
    # The mapping outlives the file.
    with tempfile.TemporaryDirectory(prefix="quillon-simd-") as folder:
        library = Path(folder, "run_kernel.so")
        source = HEADERS / "run_kernel.cpp"
        subprocess.run([os.environ.get("CXX", "g++"), str(source), "-o", str(library), *flags], check=True, timeout=300)
        return ctypes.CDLL(str(library))


def run(header: str, name: str, data: Bytes, result_bytes: int, items: int = 1) -> Bytes:
    """What the kernel makes of ``data``, and 64 bytes behind it that it has to leave alone."""
    data = np.ascontiguousarray(data.view(np.uint8).reshape(-1))
    result = np.full(result_bytes + 64, 0xA5, np.uint8)
    message = ctypes.create_string_buffer(10000)
    failed = _library().run_kernel(
        *(str(text).encode() for text in (ROOT / "csrc", HEADERS, header, name)),
        ctypes.c_void_p(data.ctypes.data),
        ctypes.c_size_t(data.size),
        ctypes.c_void_p(result.ctypes.data),
        ctypes.c_size_t(result.size),
        ctypes.c_size_t(items),
        message,
        ctypes.c_size_t(len(message)),
    )
    assert not failed, message.value.decode(errors="replace")
    assert (result[result_bytes:] == 0xA5).all()
    return result[:result_bytes]
