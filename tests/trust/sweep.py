"""Every kernel between guard pages: calls of all operators over formats, types, backings, classes and awkward shapes.

    python tests/trust/sweep.py                    all of it, on either side
    python tests/trust/sweep.py --calls 2 --sides behind --formats q4_0,q6_k

Values are other tests' matter. Here a read or write outside a tensor ends the worker, whose last call is told, and a
result with NaN, which new memory consists of in this mode, has elements that no kernel wrote. Expansions of rows that
end inside a block, and tiles of fp6, fill what they leave out with NaN themselves, and some kernels of the fused MLP
leave rows of a short tile alone: there NaN is what has to be.
"""

from __future__ import annotations

import argparse
import itertools
import os
import random
import subprocess
import sys
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from shim.devices import HOST_DEVICES

BACKINGS = ("vectors", "items")
DTYPES = ("float32", "float16", "bfloat16", "float64")
ROWS = (1, 2, 3, 5, 16, 17, 33, 48)
BATCHES = (1, 1, 1, 2, 3, 7, 8, 9, 15, 16, 17, 65)
LENGTHS = {
    64: (16, 48, 64, 80, 96, 112, 128, 192, 256, 320, 528, 576, 1040, 1984, 2112, 4160),
    256: (256, 512, 768, 1024, 1280, 2304, 4352),
}
# Also what kernels of five bits admit.
ANY_LENGTHS = (1, 7, 33, 63, 65, 129, 200, 2047)


# ---- the worker: imports of torch stay in here ------------------------------------------------------------------


def say(call: str) -> None:
    """Write down what is about to be called."""
    os.lseek(2, 0, os.SEEK_SET)
    os.ftruncate(2, 0)
    os.write(2, call.encode())


def work(name: str, calls: int, seed: int) -> None:
    import torch

    import quillon
    import vesper_linear
    from quillon.formats import get_format

    chosen, generator = random.Random(f"{name} {seed}"), torch.Generator().manual_seed(seed)
    outcomes: Counter[str] = Counter()

    def packed(blocks: int, bytes: int, device: torch.device) -> torch.Tensor:
        """Codes of any kind; no scale or float8 code made of them is infinite or NaN."""
        made = torch.randint(0, 256, (blocks * bytes,), dtype=torch.uint8, generator=generator) & 0xBB
        return made.to(device)

    def activations(shape: tuple[int, ...], dtype: torch.dtype, device: torch.device) -> torch.Tensor:
        return (torch.rand(shape, generator=generator) / 16).to(dtype).to(device)

    def unwritten(rows: int, columns: int, dtype: torch.dtype, device: torch.device) -> torch.Tensor:
        """Memory for an expansion, NaN throughout: what stays so was written by no kernel."""
        return torch.empty(rows, columns, dtype=dtype, device=device).fill_(torch.nan)

    def check(what: str, result: torch.Tensor, whole: bool) -> None:
        torch.xpu.synchronize(result.device)
        outcomes["result"] += 1
        if whole and result.is_floating_point() and result.isnan().any():
            outcomes["NaN"] += 1
            print(f"NaN in {what}", flush=True)

    def call(what: str, function: object, *arguments: object, whole: bool = True) -> None:
        say(what)
        try:
            result = function(*arguments)  # type: ignore[operator]
        except (RuntimeError, NotImplementedError, IndexError) as error:
            if "Building the kernel" in str(error) or "INTERNAL ASSERT" in str(error):
                raise
            outcomes["refused"] += 1
            return
        written = [one for one in (result, *arguments) if isinstance(one, torch.Tensor)]
        for one in written:
            check(what, one, whole)

    def products() -> Iterator[None]:
        fmt = get_format(name)
        lengths = LENGTHS[fmt.elements] + (ANY_LENGTHS if name in ("q5_0", "q5_1") else ())
        for dtype, backing, index in itertools.product(DTYPES, BACKINGS, range(torch.xpu.device_count())):
            os.environ["QUILLON_HOST_BACKING"] = backing
            device, kind = torch.device("xpu", index), getattr(torch, dtype)
            for _ in range(calls):
                columns, rows, batch = chosen.choice(lengths), chosen.choice(ROWS), chosen.choice(BATCHES)
                if columns * rows < fmt.elements:
                    continue
                if batch > 1 and dtype == "float64" and index < 2 and rows % 16 == 0:
                    continue  # ends the process by definition
                what = f"{name} {dtype} {backing} xpu:{index} columns {columns} rows {rows} batch {batch}"
                weight = packed(-(-columns * rows // fmt.elements), fmt.bytes, device)
                x = activations((batch, columns), kind, device)
                tiles = chosen.random() < 0.3
                os.environ.update(
                    {"TILE_THRESHOLD": "1", "TILE_SIZE": "5", "QUILLON_LOW_MEM": "1"}
                    if tiles
                    else {"TILE_THRESHOLD": "50000", "TILE_SIZE": "4096", "QUILLON_LOW_MEM": "0"}
                )
                whole = columns % fmt.elements == 0
                given = (x, weight, fmt.code, columns)
                product = vesper_linear.forward_new
                call(
                    f"forward_new {what} tiles {tiles}", product, *given, whole=whole and not (tiles and name == "fp6")
                )
                call(f"dequant {what}", vesper_linear.dequant, *given[:3], whole=whole)
                if columns * rows % fmt.elements:
                    continue
                numbers = torch.randint(-1, rows + 1, (3,), generator=generator).to(device)
                call(
                    f"dequantize_rows {what}",
                    lambda *given: vesper_linear.dequantize_rows(*given).nan_to_num(0),  # numbers that lead out
                    numbers, weight, fmt.code, columns, rows,
                )  # fmt: skip
                for expand in ("expand_weight", "expand_weight_fast"):
                    dense = unwritten(rows, columns, kind, device)
                    operator = getattr(torch.ops.quillon_kernels, expand)
                    call(f"{expand} {what}", operator, weight, dense, fmt.code, whole=whole)
                first = chosen.randrange(rows)
                tile = unwritten(chosen.randint(1, rows - first), columns, kind, device)
                call(
                    f"expand_rows_of {what} {first} {len(tile)}",
                    torch.ops.quillon_kernels.expand_rows_of, weight, tile, fmt.code, rows, first, whole=whole,
                )  # fmt: skip
                one = x[:1].contiguous()
                act = chosen.choice((0, 1, 2))
                call(
                    f"mlp_forward_xpu {what} {act}",
                    vesper_linear.mlp_forward_xpu,
                    one, weight, weight.clone(), 1, columns, rows, act, fmt.code,
                    whole=whole and (rows % 8 == 0 or name not in ("q4_0", "q4_0_woq", "fp4")),
                )  # fmt: skip
            yield

    def recurrent() -> Iterator[None]:
        for dtype, backing in itertools.product(("float32", "float16"), BACKINGS):
            os.environ["QUILLON_HOST_BACKING"] = backing
            device, kind = torch.device("xpu:7"), getattr(torch, dtype)
            for batch, tokens, channels in itertools.product((1, 2, 3), (1, 2, 5, 33), (1, 15, 16, 17, 31, 64, 65)):

                def data(*shape: int, of: torch.dtype = kind, on: torch.device = device) -> torch.Tensor:
                    return activations(shape, of, on)

                what = f"{dtype} {backing} {batch} {tokens} {channels}"
                states = [data(batch, channels, of=torch.float32) for _ in range(3)]
                keys = [data(batch, tokens, channels) for _ in range(2)]
                for source in (vesper_linear, torch.ops.quillon_kernels):
                    call(f"v4 {what}", source.rwkv_linear_attention_v4, data(channels), data(channels), *keys, *states)
                heads = chosen.randint(1, 3)
                given = [data(heads, channels), data(heads, channels)]
                given += [data(batch, heads, tokens, channels) for _ in range(3)]
                given.append(data(batch, heads, channels, channels, of=torch.float32))
                for source in (vesper_linear, torch.ops.quillon_kernels):
                    call(f"v5 {what}", source.rwkv_linear_attention_v5, *given)
                hidden = data(batch, tokens, channels)
                mix = data(chosen.randint(1, 4), channels)
                call(f"time shift {what}", vesper_linear.rwkv_time_shift, hidden, data(batch, tokens, channels), mix)
            yield

    with quillon.record_launches() as launches:
        for _ in recurrent() if name == "rwkv" else products():
            pass
    kernels = len({launch.kernel for launch in launches})
    print(f"{outcomes['result']} {outcomes['refused']} {outcomes['NaN']} {kernels}")


# ---- the command --------------------------------------------------------------------------------------------------


def sweep(names: list[str], sides: list[str], calls: int, seed: int, folder: Path, timeout: float) -> list[str]:
    """Run a worker for each name and side; say what each did, and return what went wrong."""
    wrong = []
    for name, side in itertools.product(names, sides):
        told = folder / f"{name}-{side}"
        environment = os.environ | HOST_DEVICES | {"QUILLON_HOST_GUARD": side}
        with told.open("w+b") as last:
            worker = [sys.executable, __file__, "--worker", name, "--calls", str(calls), "--seed", str(seed)]
            try:
                done = subprocess.run(worker, env=environment, stdout=subprocess.PIPE, stderr=last, timeout=timeout)
                status, output = done.returncode, done.stdout.decode()
            except subprocess.TimeoutExpired as expired:
                status, output = -1, (expired.stdout or b"").decode()
            last.seek(0)
            call = last.read().decode(errors="replace")
        *notes, counts = output.splitlines() or [""]
        if status:
            wrong.append(f"{name} {side}: exit code {status} in {call[-3000:]}")
        wrong += [f"{name} {side}: {note}" for note in notes if note.startswith("NaN")]
        results, refused, nan, kernels = counts.split() if not status else "----"
        print(
            f"{name:10} {side:6}: {kernels} kernels, {results} tensors looked at, {nan} wrong, {refused} calls refused",
            flush=True,
        )
    return wrong


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--worker", help=argparse.SUPPRESS)
    parser.add_argument("--formats", help="names, with commas; 'rwkv' stands for its operators")
    parser.add_argument("--sides", default="behind,before")
    parser.add_argument("--calls", type=int, default=10, help="shapes for each format, type, backing and device class")
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--timeout", type=float, default=1800, help="seconds that a worker may take")
    options = parser.parse_args()
    if options.worker:
        work(options.worker, options.calls, options.seed)
        return 0
    import tempfile

    if options.formats:
        names = options.formats.split(",")
    else:
        from quillon.formats import WEIGHT_FORMATS

        names = [*WEIGHT_FORMATS, "rwkv"]
    with tempfile.TemporaryDirectory() as folder:
        wrong = sweep(names, options.sides.split(","), options.calls, options.seed, Path(folder), options.timeout)
    print("\n".join(wrong) or "nothing read or written outside a tensor")
    return bool(wrong)


if __name__ == "__main__":
    sys.exit(main())
