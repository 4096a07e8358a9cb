"""What the kernels of a single row read where rows end inside a block: the rule, and the memory itself.

In the second half the tensors end at a page that nobody may read, in a process of its own, which would die of it.
"""

from __future__ import annotations

import math

import pytest
import torch
from shim.process import run_python
from shim.spine import SpineShim

import vesper_linear
from quillon.formats import WEIGHT_FORMATS, get_format

# Rows that a kernel's check admits, with whole blocks among them.
LENGTHS = [16, 32, 48, 64, 80, 96, 112, 128, 144, 240, 256, 320, 528, 640, 1040, 4160]
ANY_LENGTHS = [1, 7, 31, 33, 63, 65, 95, 127, 129, 200, 1000, 2047]
SPLIT = {"q4_0", "q4_1", "nf4", "fp4"}
FIVE_BITS = {"q5_0", "q5_1"}


def brute_force(name: str, work_items: int, state_size: int, output_size: int) -> tuple[int, int]:
    """Walk through the addresses of every work-item: one past the last activation, one past the last block."""
    elements = get_format(name).elements
    activations, blocks = state_size, math.ceil(state_size * output_size / elements)
    if state_size % elements == 0:
        return activations, blocks
    for item in range(work_items):
        if name in SPLIT:
            for chunk in range(item, state_size // 16, work_items):
                place = 16 * chunk % 64
                x = 16 * chunk - place + place // 2
                activations = max(activations, x + 8, x + 32 + 8)
        if name in FIVE_BITS:
            of_round = work_items // 32
            for row in range(output_size):
                first = (row * state_size + 2 * item) // 64
                for i in range((state_size // work_items + 1) // 2):
                    block_of_row = of_round * i + item // 32
                    if block_of_row < state_size // 64:  # others do not lie whole in the row and are left out
                        activations = max(activations, 64 * block_of_row + 64)
                        blocks = max(blocks, first + of_round * i + 1)
    return activations, blocks


@pytest.mark.parametrize("work_items", [32, 64])
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_rule(spine: SpineShim, name: str, work_items: int) -> None:
    lengths = LENGTHS + (ANY_LENGTHS if name in FIVE_BITS else [])
    for state_size in lengths:
        for output_size in (1, 2, 3, 8):
            found = spine.read_extent(get_format(name).code, state_size, output_size)
            assert found == brute_force(name, work_items, state_size, output_size), (state_size, output_size)


def test_the_rule_bites(spine: SpineShim) -> None:
    assert spine.read_extent(2, 16, 1) == (40, 1)
    assert spine.read_extent(2, 112, 1) == (120, 2)
    assert spine.read_extent(2, 40, 1) == (40, 1)
    assert spine.read_extent(6, 96, 2) == (96, 3)
    assert spine.read_extent(6, 127, 1) == (127, 2)


@pytest.mark.parametrize("device", ["xpu:7", "xpu:1"])
def test_message(device: str) -> None:
    weight = torch.zeros(34 * 7, dtype=torch.uint8, device=device)
    with pytest.raises(RuntimeError) as error:
        vesper_linear.forward_new(torch.zeros(1, 112, device=device), weight, 2, 0)
    assert str(error.value) == (
        "forward_new: rows of 112 elements end inside a block of q4_0 (qtype 2), whose kernel then reads 120 "
        "activations, and input has 112"
    )
    held = torch.zeros(400, device=device)
    assert vesper_linear.forward_new(held[280:392].view(1, 112), weight, 2, 0).shape == (1, 4)
    with pytest.raises(RuntimeError, match="reads 120 activations, and input has 119"):
        vesper_linear.forward_new(held[281:393].view(1, 112), weight, 2, 0)


@pytest.mark.parametrize("batch", [1, 3])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.float64])
@pytest.mark.parametrize("name", sorted(SPLIT))
def test_elements_behind_the_row_at_an_odd_address(name: str, dtype: torch.dtype, batch: int) -> None:
    """The result depends on what lies in memory behind the argument, not on where that starts."""
    fmt, columns = get_format(name), 80
    memory = torch.randn(batch * columns + 64, dtype=dtype)
    weight = torch.randint(0, 0x3C, (5 * fmt.bytes,), dtype=torch.uint8)
    results = []
    for first in (0, 1):
        held = torch.cat([torch.zeros(first, dtype=dtype), memory]).to("xpu:7")
        bytes_held = torch.cat([torch.zeros(first, dtype=torch.uint8), weight]).to("xpu:7")
        row = held[first:][:columns].view(1, columns)
        if batch > 1 and name in ("q4_0", "nf4"):
            row = held[first:][: batch * columns].view(batch, columns)
        results.append(vesper_linear.forward_new(row, bytes_held[first:], fmt.code, 0).cpu())
    assert torch.equal(*results)


def test_the_message_names_the_format_of_the_weight() -> None:
    """And not the one whose kernel serves several rows of it."""
    weight = torch.zeros(34 * 5, dtype=torch.uint8, device="xpu:7")
    with pytest.raises(RuntimeError, match=r"end inside a block of q4_0_woq \(qtype 34\), whose kernel then reads"):
        vesper_linear.forward_new(torch.zeros(2, 80, device="xpu:7"), weight, 34, 0)


GUARDED = """
import ctypes, itertools, math, mmap, sys
import torch, quillon, vesper_linear
from quillon.formats import get_format

PAGE, ROOM = mmap.PAGESIZE, 64 * mmap.PAGESIZE
libc = ctypes.CDLL(None, use_errno=True)
libc.mmap.restype = ctypes.c_void_p
libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t] + 3 * [ctypes.c_int] + [ctypes.c_long]
libc.mprotect.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int]

def guarded_room():
    start = libc.mmap(None, ROOM + PAGE, 3, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)
    assert libc.mprotect(start + ROOM, PAGE, 0) == 0
    return start + ROOM

ends = guarded_room(), guarded_room()
device = torch.device(sys.argv[1])

def at_the_end(end, size):
    # A tensor of bytes whose last one is the last before the guard.
    storage = torch._C._construct_storage_from_data_pointer(end - size, device, size)
    return torch.empty(0, dtype=torch.uint8, device=device).set_(storage)

for name in sys.argv[2].split(","):
    fmt = get_format(name)
    for state_size, output_size in itertools.product(eval(sys.argv[3]), (1, 2, 3, 8)):
        input = at_the_end(ends[0], 4 * state_size).view(torch.float32).fill_(1).view(1, state_size)
        size = math.ceil(state_size * output_size / fmt.elements) * fmt.bytes
        if size > ROOM:
            continue
        weight = at_the_end(ends[1], size).fill_(17)
        try:
            vesper_linear.forward_new(input, weight, fmt.code, 0)
            torch.xpu.synchronize()
            outcome = "ran"
        except RuntimeError as error:
            outcome = "refused" if " end inside a block of " in str(error) else "other"
        print(name, state_size, output_size, outcome, flush=True)
"""


@pytest.mark.parametrize("device", ["xpu:7", "xpu:1"])
@pytest.mark.parametrize(
    "names", [sorted(FIVE_BITS), sorted(set(WEIGHT_FORMATS) - FIVE_BITS)], ids=["five bits", "others"]
)
def test_no_kernel_reads_behind_the_tensors(names: list[str], device: str) -> None:
    lengths = LENGTHS + (ANY_LENGTHS if set(names) == FIVE_BITS else [])
    done = run_python(GUARDED, device, ",".join(names), str(lengths), timeout=500)
    lines = done.stdout.splitlines()
    assert done.returncode == 0, f"died after {lines[-1:]} {done.stderr[-500:]}"
    outcomes = {(name, int(k), int(n)): outcome for name, k, n, outcome in map(str.split, lines)}
    assert len(outcomes) > 60 * len(names)
    work_items = 32 if device == "xpu:7" else 64
    for (name, state_size, given), outcome in outcomes.items():
        fmt = get_format(name)
        # The dispatcher goes by the bytes, which may hold a row more than was asked for.
        blocks = math.ceil(state_size * given / fmt.elements)
        output_size = fmt.elements * blocks // state_size
        needed = brute_force(name, work_items, state_size, output_size)
        if outcome == "other":  # the activations of these are quantized by super-blocks
            assert name in ("iq2_xxs", "q2_k", "iq1_s")
            assert state_size % 256
        else:
            fits = needed[0] <= state_size and needed[1] <= blocks
            assert outcome == ("ran" if fits else "refused"), (name, state_size, given)
