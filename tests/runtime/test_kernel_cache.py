"""The folder of compiled kernels, whatever state it is in, and signals while a kernel is built."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from shim.process import output_of, run_python

PRODUCT = """
import os, resource, signal, sys
if len(sys.argv) > 1:  # as on a disk that is full: no file can grow beyond this
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (int(sys.argv[1]), int(sys.argv[1])))
import torch, quillon, vesper_linear
row = torch.arange(64.0, device="xpu").view(1, 64)
weight = torch.full((34 * 3,), 60, dtype=torch.uint8, device="xpu")
print(vesper_linear.forward_new(row, weight, 2, 0).tolist())
"""


def cache_of(folder: Path) -> dict[str, str]:
    return {"SYCL_CACHE_PERSISTENT": "1", "SYCL_CACHE_DIR": str(folder)}


@pytest.fixture(scope="module")
def filled(tmp_path_factory: pytest.TempPathFactory) -> tuple[Path, str]:
    """A folder with one kernel, and what the kernel computes."""
    folder = tmp_path_factory.mktemp("cache")
    printed = output_of(PRODUCT, **cache_of(folder))
    assert any(path.is_file() for path in folder.rglob("*"))
    return folder, printed


@pytest.mark.parametrize("damage", ["cut", "noise"])
def test_damaged_files(damage: str, filled: tuple[Path, str], tmp_path: Path) -> None:
    folder, printed = filled
    subprocess.run(["cp", "-r", folder, tmp_path / "cache"], check=True)
    files = [path for path in (tmp_path / "cache").rglob("*") if path.is_file()]
    for path in files:
        data = path.read_bytes()
        path.write_bytes(data[: len(data) // 2] if damage == "cut" else bytes(byte ^ 0x5A for byte in data))
    done = run_python(PRODUCT, **cache_of(tmp_path / "cache"))
    if damage == "cut":
        assert done.stdout == printed, done.stderr[-2000:]
    else:  # where sizes in a file come out too large, the way out is told
        assert done.stdout == printed or f"delete the folder {tmp_path / 'cache'}" in done.stderr
    assert done.returncode in (0, 1)


def test_no_folder_can_be_made(filled: tuple[Path, str], tmp_path: Path) -> None:
    (tmp_path / "file").write_text("in the way")
    assert output_of(PRODUCT, **cache_of(tmp_path / "file" / "cache")) == filled[1]


def test_no_room_for_files(filled: tuple[Path, str], tmp_path: Path) -> None:
    done = run_python(PRODUCT, "5000", **cache_of(tmp_path))
    assert (done.returncode, done.stdout) == (0, filled[1]), done.stderr[-2000:]
    # And what was left there does no harm.
    assert output_of(PRODUCT, **cache_of(tmp_path)) == filled[1]


def test_processes_that_fill_a_cache_at_once(filled: tuple[Path, str], tmp_path: Path) -> None:
    workers = [
        subprocess.Popen(
            [sys.executable, "-c", PRODUCT], env=os.environ | cache_of(tmp_path), stdout=subprocess.PIPE, text=True
        )
        for _ in range(2)
    ]
    assert [worker.communicate(timeout=200)[0] for worker in workers] == 2 * [filled[1]]
    assert [worker.returncode for worker in workers] == 2 * [0]


INTERRUPTED = """
import signal, torch, quillon, vesper_linear

class Interrupted(Exception):
    pass

def interrupt(*_):
    raise Interrupted

row = torch.arange(64.0, device="xpu").view(1, 64)
weight = torch.full((34 * 3,), 60, dtype=torch.uint8, device="xpu")
signal.signal(signal.SIGALRM, interrupt)
signal.setitimer(signal.ITIMER_REAL, 0.05, 0.01)  # again and again, all through the build
try:
    try:
        vesper_linear.forward_new(row, weight, 2, 0)
        while True:
            pass
    except Interrupted:
        signal.setitimer(signal.ITIMER_REAL, 0)
except Interrupted:  # that came just before the line above
    signal.setitimer(signal.ITIMER_REAL, 0)
print(vesper_linear.forward_new(row, weight, 2, 0).tolist())
"""


def test_signals_during_a_build(filled: tuple[Path, str], tmp_path: Path) -> None:
    assert output_of(INTERRUPTED, **cache_of(tmp_path)) == filled[1]


ENDED = """
import signal, time, torch, quillon, vesper_linear
row = torch.arange(64.0, device="xpu").view(1, 64)
weight = torch.full((34 * 36,), 60, dtype=torch.uint8, device="xpu")
for one in (row.half(), row):  # what a build of q4_1 costs, once the compiler is loaded
    start = time.process_time()
    vesper_linear.forward_new(one, weight, 3, 0)
    seconds = time.process_time() - start
signal.setitimer(signal.ITIMER_PROF, seconds / 2)  # of processor time, as that was
vesper_linear.forward_new(row, weight, 2, 0)
"""


def test_a_process_that_is_ended_during_a_build(filled: tuple[Path, str], tmp_path: Path) -> None:
    done = run_python(ENDED, **cache_of(tmp_path))
    assert done.returncode == -signal.SIGPROF, done.stderr[-2000:]
    assert output_of(PRODUCT, **cache_of(tmp_path)) == filled[1]
