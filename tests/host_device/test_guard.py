"""Blocks of the device allocator between unreadable pages (QUILLON_HOST_GUARD)."""

from __future__ import annotations

import signal

import pytest
from shim.process import output_of, run_python

TOUCH = """
import ctypes, sys, torch, quillon

block = torch.zeros(1000, dtype=torch.uint8, device="xpu")  # 1008 bytes in multiples of 16
place = block.data_ptr() + int(sys.argv[2])
print(block.sum().item(), torch.empty(3, device="xpu").isnan().all().item(), flush=True)
if sys.argv[1] == "freed":
    del block
if sys.argv[1] == "write":
    ctypes.memset(place, 7, 1)
    print("written", flush=True)
    del block
else:
    ctypes.string_at(place, 1)
print("done", flush=True)
"""


@pytest.mark.parametrize(
    ("side", "what", "place"),
    [("behind", "read", 1008), ("behind", "freed", 500), ("before", "read", -1)],
)
def test_a_read_outside_ends_the_process(side: str, what: str, place: int) -> None:
    done = run_python(TOUCH, what, str(place), QUILLON_HOST_GUARD=side)
    assert done.returncode in (-signal.SIGSEGV, -signal.SIGABRT)  # the device's driver has a handler of its own
    assert done.stdout == "0 True\n"


@pytest.mark.parametrize(("side", "place"), [("behind", 1003), ("behind", -1), ("before", 1000)])
def test_a_write_that_no_page_stops_is_told_when_the_block_is_freed(side: str, place: int) -> None:
    done = run_python(TOUCH, "write", str(place), QUILLON_HOST_GUARD=side)
    assert done.returncode != 0
    assert done.stdout == "0 True\nwritten\n"
    assert f"QUILLON_HOST_GUARD: byte {place} of a block of 1000 bytes at " in done.stderr


@pytest.mark.parametrize("side", ["behind", "before"])
def test_blocks_themselves_are_as_ever(side: str) -> None:
    """And what is freed goes back to the system in the end."""
    text = """
    import torch, quillon
    for size in (1, 15, 16, 17, 4095, 4096, 4097, 100_000):
        for _ in range(600):
            block = torch.full((size,), 3, dtype=torch.uint8, device="xpu")
            assert block.data_ptr() % 16 == 0
        assert block.sum().item() == 3 * size
    memory = torch.xpu.memory_allocated()
    del block
    print(memory - torch.xpu.memory_allocated(), torch.xpu.memory_reserved())
    """
    assert output_of(text, QUILLON_HOST_GUARD=side) == "100000 0\n"


def test_any_other_value_is_refused() -> None:
    done = run_python("import torch, quillon; torch.empty(1, device='xpu')", QUILLON_HOST_GUARD="both")
    assert "ValueError: QUILLON_HOST_GUARD is 'both'. Allowed are 'behind' and 'before'" in done.stderr
