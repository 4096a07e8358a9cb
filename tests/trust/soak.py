"""Half an hour of everything at once: memory and speed have to stay as they were.

    python tests/trust/soak.py                       30 minutes
    python tests/trust/soak.py --minutes 5 --seed 3

A round is always the same work in another order: products, expansions and tensors of mixed shapes, formats, types and
device classes, in eight threads that begin and end with it, and a few tokens of a small packed model. Each result is
compared with the first round's. After rounds that warm up, the second and the last third of the rounds are compared:

memory    what the device's allocator counts as allocated is the same to the byte at the end of each round; what it has
          taken from the system ends where it was, or is less than a round's largest blocks in every thread above it
heap      what malloc has given out and not got back, in all its arenas, grows by less than 32 bytes for each call, the
          least that it gives: one object that each call loses shows, whoever loses it; and a MiB beside it, for a table
          of some library that doubles
mapped    resident memory outside malloc's arenas, where tensors of the device, stacks and code are, grows by no more
          than that and what the device's allocator has taken
speed     processor seconds of the fastest tenth of the rounds, which other programs disturb least, rise by less than
          a tenth
handles   threads and open files are no more than they were

The resident size itself is shown and not judged. What it grows by beyond these is free memory in malloc's arenas: a
thread frees in the arena that another one has, and what has been freed there is not used until a thread comes by.

Ends with exit code 1 where one of these fails.
"""

from __future__ import annotations

import argparse
import ctypes
import gc
import math
import os
import random
import re
import statistics
import sys
import threading
import time
from collections.abc import Callable
from dataclasses import astuple, dataclass, fields
from pathlib import Path
from typing import TYPE_CHECKING, Any

TESTS = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS), str(TESTS / "package")]
from shim.devices import ARCHITECTURES, HOST_DEVICES  # noqa: E402

if TYPE_CHECKING:
    from torch import Tensor

THREADS = len(ARCHITECTURES)
WARM_UP = 16  # rounds, in which kernels are built and caches filled
TOKENS = 8
CALL_BYTES, TABLE_BYTES = 32, 1 << 20
ARENA_BYTES = 64 << 20  # glibc's; all arenas but the first begin at a multiple of it
SLOWER = 1.10
# Of tensors that a round makes; the largest are as large as the expanded weights.
LARGEST = 4 << 20


@dataclass(frozen=True)
class Sample:
    """What was found at the end of a round."""

    calls: int  # up to here
    seconds: float  # of the processor, in this round
    resident: int
    heap: int
    mapped: int
    allocated: int
    reserved: int
    threads: int
    files: int


def verdict(samples: list[Sample], slower: float = SLOWER) -> list[str]:
    """What of it has not stayed as it was."""
    third = max(1, len(samples) // 3)
    first, last = samples[-2 * third : -third], samples[-third:]

    def median(of: list[Sample], what: str) -> float:
        return statistics.median(getattr(one, what) for one in of)

    def fastest(of: list[Sample]) -> float:
        return statistics.fmean(sorted(one.seconds for one in of)[: max(1, len(of) // 10)])

    wrong = []
    if len({one.allocated for one in samples}) > 1:
        wrong.append(f"allocated bytes change: {sorted({one.allocated for one in samples})[:10]}")

    def growth(what: str) -> float:
        return median(last, what) - median(first, what)

    taken, calls = growth("reserved"), growth("calls")
    if taken > THREADS * LARGEST:
        wrong.append(f"the allocator took {taken:.0f} bytes more, beyond {THREADS * LARGEST}")
    for what, accounted in (("heap", 0.0), ("mapped", max(taken, 0.0))):
        if growth(what) > CALL_BYTES * calls + TABLE_BYTES + accounted:
            wrong.append(f"{what}: {growth(what):.0f} bytes more in {calls:.0f} calls, {growth(what) / calls:.1f} each")
    if fastest(last) > slower * fastest(first):
        wrong.append(f"a round took {fastest(first):.3f} s of the processor, and in the end {fastest(last):.3f} s")
    for what in ("threads", "files"):
        if median(last, what) > max(getattr(one, what) for one in first):
            wrong.append(f"{what}: {median(first, what):.0f}, and in the end {median(last, what):.0f}")
    return wrong


# ---- the work -----------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Work:
    """A call, and the device on whose stream it is made."""

    device: int
    call: Callable[[], Tensor]


def works(chosen: random.Random, calls: int) -> list[Work]:
    """Calls on packed weights and dense tensors."""
    import torch

    import quillon
    import vesper_linear
    from quillon.expansion import EXPANDED_FORMATS
    from quillon.formats import WEIGHT_FORMATS, get_format, weight_bytes
    from quillon.nn import kernel_row_multiple

    generator = torch.Generator().manual_seed(chosen.randrange(2**31))

    def packed(name: str, rows: int, columns: int) -> Tensor:
        """Bytes of which no scale is infinite or NaN."""
        size = weight_bytes(name, rows, columns)
        return torch.randint(0, 256, (size,), dtype=torch.uint8, generator=generator) & 0xBB

    def product(name: str, index: int) -> Callable[[], Tensor]:
        unit = math.lcm(256, kernel_row_multiple(name, list(ARCHITECTURES)[index]))
        rows, columns = chosen.choice((16, 33, 160, 512)), unit * chosen.randint(1, 2048 // unit)
        rows_of_input = chosen.choice((1, 1, 1, 2, 5, 9, 40))
        dtype = chosen.choice((torch.float32, torch.float32, torch.float16, torch.bfloat16))
        if rows_of_input > 1 and name in ("fp8_e4m3", "fp6", "fp6_k", "q4_0_woq"):
            dtype = torch.float16  # the type that their roads for batches have in common
        weight, code = packed(name, rows, columns), get_format(name).code
        x = torch.rand(rows_of_input, columns, generator=generator).to(dtype) / 16
        forward = chosen.choice((vesper_linear.forward_new, torch.ops.quillon.forward_new))
        device = f"xpu:{index}"
        return lambda: forward(x.to(device), weight.to(device), code, columns)

    def expansion(name: str, index: int) -> Callable[[], Tensor]:
        rows, columns = chosen.choice((16, 100, 512)), 256 * chosen.randint(1, 8)
        weight = packed(name, rows, columns)
        return lambda: quillon.dequantize(weight.to(f"xpu:{index}"), name, rows, columns)

    def copies(index: int) -> Callable[[], Tensor]:
        """Through memory of two devices, freed while another stream may still read it."""
        size, other = chosen.randint(1, LARGEST // 4), (index + 1) % THREADS
        second_stream = torch.xpu.Stream(index)

        def call() -> Tensor:
            x = torch.full((size,), 2.0, device=f"xpu:{index}")
            x.record_stream(second_stream)
            return (x.to(f"xpu:{other}") + 1)[:16].to(f"xpu:{index}")

        return call

    made = []
    for number in range(calls):
        index, kind = chosen.randrange(THREADS), number // THREADS % 8
        if kind == 0:
            call = copies(index)
        elif kind == 1:
            call = expansion(chosen.choice(EXPANDED_FORMATS), index)
        else:
            call = product(chosen.choice(WEIGHT_FORMATS), index)
        made.append(Work(index, call))
    return made


def generation(seed: int) -> Callable[[], Tensor]:
    """Tokens of a small packed model, on the device of no listed class."""
    import torch
    from small_models import random_model

    import quillon

    model = random_model("llama", seed)
    quillon.quantize_model(model, "q4_0")
    model.to("xpu:7")
    prompt = torch.arange(3, 12).view(1, -1).to("xpu:7")
    options: dict[str, Any] = {"max_new_tokens": TOKENS, "min_new_tokens": TOKENS, "do_sample": False}
    return lambda: model.generate(prompt, attention_mask=torch.ones_like(prompt), **options)


class Soak:
    """The work of a round, and what its first results were."""

    def __init__(self, seed: int, calls: int, generates: bool = True) -> None:
        import torch

        self.chosen = random.Random(seed)
        self.works = works(self.chosen, calls)
        self.tokens = TOKENS if generates else 0
        self.generate = generation(seed) if generates else None
        # Threads come and go, their streams stay: the allocator keeps freed blocks by stream.
        self.streams = [[torch.xpu.Stream(index) for index in range(THREADS)] for _ in range(THREADS)]
        self.expected: dict[int, Tensor] = {}
        self.calls, self.wrong = 0, list[str]()

    def compare(self, number: int, result: Tensor) -> None:
        """With the first result of the same work, to the bit."""
        import torch

        found = result.cpu()
        if not torch.equal(found, self.expected.setdefault(number, found)):
            self.wrong.append(f"work {number} has another result than at first")

    def part(self, thread: int, numbers: list[int]) -> None:
        """What one thread does in a round."""
        import torch

        number = -1
        try:
            for number in numbers:
                work = self.works[number]
                with torch.xpu.stream(self.streams[thread][work.device]):
                    self.compare(number, work.call())
        except Exception as error:
            self.wrong.append(f"{type(error).__name__} in work {number}: {error}")

    def round(self) -> None:
        threads = []
        for thread in range(THREADS):
            numbers = list(range(thread, len(self.works), THREADS))
            self.chosen.shuffle(numbers)
            threads.append(threading.Thread(target=self.part, args=(thread, numbers)))
        for thread in threads:
            thread.start()
        if self.generate is not None:
            self.compare(-1, self.generate())
        for thread in threads:
            thread.join()
        self.calls += len(self.works) + self.tokens


class Malloc(ctypes.Structure):
    """What glibc's mallinfo2() gives, of all arenas."""

    _fields_ = (
        ("arena", ctypes.c_size_t),
        ("ordblks", ctypes.c_size_t),
        ("smblks", ctypes.c_size_t),
        ("hblks", ctypes.c_size_t),
        ("hblkhd", ctypes.c_size_t),
        ("usmblks", ctypes.c_size_t),
        ("fsmblks", ctypes.c_size_t),
        ("uordblks", ctypes.c_size_t),
        ("fordblks", ctypes.c_size_t),
        ("keepcost", ctypes.c_size_t),
    )


def heap_bytes() -> int:
    """What malloc has given out and not got back."""
    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = Malloc
    found = mallinfo2()
    return int(found.uordblks + found.hblkhd)


def mapped_bytes(maps: str) -> int:
    """Resident memory outside malloc's arenas, of what /proc/self/smaps says."""
    total, arena = 0, -1
    for start, name, size in re.findall(r"^([0-9a-f]+)-[^\n]* \d+ *([^\n]*)\n(?:[^\n]*\n)*?Rss: +(\d+) kB", maps, re.M):
        place = int(start, 16)
        if not name and place % ARENA_BYTES == 0:
            arena = place // ARENA_BYTES
        if name != "[heap]" and (name or place // ARENA_BYTES != arena):
            total += 1024 * int(size)
    return total


def measured(soak: Soak) -> Sample:
    """A round, and what it leaves."""
    import torch

    start = time.process_time()
    soak.round()
    seconds = time.process_time() - start
    gc.collect()
    devices = range(THREADS)
    return Sample(
        soak.calls,
        seconds,
        int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE"),
        heap_bytes(),
        mapped_bytes(Path("/proc/self/smaps").read_text()),
        sum(torch.xpu.memory_allocated(index) for index in devices),
        sum(torch.xpu.memory_reserved(index) for index in devices),
        len(os.listdir("/proc/self/task")),
        len(os.listdir("/proc/self/fd")),
    )


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--calls", type=int, default=240, help="works of a round, beside the model's tokens")
    parser.add_argument("--warm-up", type=int, default=WARM_UP, help="rounds ahead of those that count")
    parser.add_argument("--no-model", action="store_true", help="leave out the model's tokens")
    parser.add_argument("--slower", type=float, default=SLOWER, help="how many times the seconds of a round may become")
    options = parser.parse_args()
    os.environ.update(HOST_DEVICES)
    soak = Soak(options.seed, options.calls, generates=not options.no_model)
    for _ in range(options.warm_up):
        soak.round()
    samples = list[Sample]()
    start = told = time.monotonic()
    print("minutes", *(field.name for field in fields(Sample)), sep="\t")
    while len(samples) < 8 or time.monotonic() - start < 60 * options.minutes:
        samples.append(measured(soak))
        if time.monotonic() - told > 60 or len(samples) == 1:
            told = time.monotonic()
            shown = [f"{value:.3f}" if isinstance(value, float) else value for value in astuple(samples[-1])]
            print(f"{(told - start) / 60:.1f}", *shown, sep="\t", flush=True)
        if soak.wrong:
            break
    wrong = [*soak.wrong[:20], *verdict(samples, options.slower)]
    print(f"{len(samples)} rounds, {soak.calls} calls, {len(samples) * THREADS} threads")
    print("\n".join(wrong) or "memory and speed have stayed as they were")
    return bool(wrong)


if __name__ == "__main__":
    sys.exit(main())
