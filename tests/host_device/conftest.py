"""Fixtures of the host device's tests."""

from __future__ import annotations

import ctypes
import os
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import pytest
import torch

import quillon.host_device

HERE = Path(__file__).parent
PREFIX = Path(sys.prefix)

Fill = Callable[[torch.Tensor, int, torch.xpu.Stream], None]


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    if quillon.host_device.is_active():
        return
    for item in items:
        if HERE in item.path.parents:
            item.add_marker(pytest.mark.skip(reason="this PyTorch has XPU itself: the host device is not in use"))


@pytest.fixture(scope="session")
def fill_library(tmp_path_factory: pytest.TempPathFactory) -> Path:
    library = tmp_path_factory.mktemp("native") / "libasync_fill.so"
    subprocess.run(
        f"g++ -std=c++17 -O1 -w -shared -fPIC {HERE}/async_fill.cpp -o {library} "
        f"-isystem {PREFIX}/include -L{PREFIX}/lib -lsycl -Wl,-rpath,{PREFIX}/lib",
        shell=True,
        check=True,
        timeout=300,
    )
    return library


@pytest.fixture(scope="session")
def fill_slowly(fill_library: Path) -> Fill:
    """Return a function that fills a uint8 tensor on a stream, tenths of a second from now."""
    native = ctypes.CDLL(str(fill_library)).fill_slowly
    native.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_size_t, ctypes.c_int]

    native.restype = ctypes.c_char_p

    def fill(tensor: torch.Tensor, value: int, stream: torch.xpu.Stream) -> None:
        error = native(stream.sycl_queue, tensor.data_ptr(), value, tensor.nbytes, 30)
        assert error is None, error.decode()
        assert not stream.query(), "the work was over before it could be waited for"

    return fill


@pytest.fixture
def run_python() -> Callable[..., subprocess.CompletedProcess[str]]:
    """Return a function that runs a script in a fresh interpreter; its keywords are environment variables."""

    def run(script: str, **variables: str | None) -> subprocess.CompletedProcess[str]:
        environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
        # The first two were set by this process's own start-up.
        for name in ("OCL_ICD_FILENAMES", "SYCL_CACHE_PERSISTENT", "SYCL_CACHE_DIR", "QUILLON_HOST_DEVICES"):
            environment.pop(name, None)
        environment.update({name: value for name, value in variables.items() if value is not None})
        return subprocess.run(
            [sys.executable, "-W", "ignore", "-c", script],
            env=environment,
            capture_output=True,
            text=True,
            timeout=400,
        )

    return run
