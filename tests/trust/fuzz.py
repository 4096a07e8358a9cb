"""Calls with arguments of any kind, and damaged files: an error or a right result, never a crash or a hang.

    python tests/trust/fuzz.py                           20,000 calls and 5,000 files
    python tests/trust/fuzz.py --seed 7 --calls 1000     others

Calls are made in worker processes, between guard pages (QUILLON_HOST_GUARD), by a seed that brings a failure back. A
result is right if the call gives it for arguments in copies of their memory as well, wherever those lie.
"""

from __future__ import annotations

import argparse
import itertools
import os
import random
import re
import resource
import subprocess
import sys
import tempfile
import time
from collections import Counter
from collections.abc import Iterator
from pathlib import Path
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from torch import Tensor

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from shim.devices import HOST_DEVICES

# Not of the classes with matrix engines, where a call with another element type ends the process.
DEVICES = ("xpu:7", "xpu:7", "xpu:7", "xpu:7", "xpu:7", "xpu:3", "xpu:2", "cpu", "meta")
SIZES = (0, 1, 2, 7, 16, 34, 64, 192, 256, 2176)
LIKELY = ((2, 8, 23, 27), (256,), (4, 20))  # a code, a row length, a number of rows
INTEGERS = (26, 12, 9, 25, 5, 0, 1, 64, 256, 4096, -1, 2**31 - 1, 2**40, 2**62, 2**63 - 1, -(2**63))
# Of operators whose arguments have to fit one another: shapes that do, a packed weight for None, numbers of experts or
# rows by their type, and integers.
FITTING: dict[str, tuple[object, ...]] = {
    "mlp_forward_xpu": ((1, 256), None, None, 1, 256, 16, 0, 2),
    "rwkv_linear_attention_v4": ((64,), (64,), (2, 3, 64), (2, 3, 64), (2, 64), (2, 64), (2, 64)),
    "rwkv_linear_attention_v5": ((3, 64), (3, 64), (2, 3, 5, 64), (2, 3, 5, 64), (2, 3, 5, 64), (2, 3, 64, 64)),
    "rwkv_time_shift": ((2, 3, 64), (2, 3, 64), (4, 64)),
    "get_moe_indexes": ("int32", 4),
    "dequantize_rows": ("int64", None, 23, 256, 16),
    "forward_new": ((2, 256), None, 2, 256),
    "dequant": ((2, 256), None, 2),
    "expand_weight": (None, (16, 256), 2),
    "expand_weight_fast": (None, (16, 256), 2),
    "expand_rows_of": (None, (4, 256), 2, 16, 3),
}
ERRORS = (RuntimeError, IndexError, TypeError, ValueError, MemoryError)


# ---- calls --------------------------------------------------------------------------------------------------------


class Maker:
    """Arguments by a seed."""

    def __init__(self, seed: str) -> None:
        import torch
        from torch._subclasses.fake_tensor import FakeTensorMode

        self.torch, self.random, self.fake = torch, random.Random(seed), FakeTensorMode(allow_non_fake_inputs=True)
        torch.manual_seed(self.random.randrange(2**31))
        floats = (torch.float32, torch.float32, torch.float32, torch.float16, torch.bfloat16, torch.float64)
        others = (torch.uint8,) * 6 + (torch.int32, torch.int64, torch.bool, torch.int8, torch.complex64)
        self.dtypes = floats + others

    def tensor(self) -> Tensor:
        torch, chosen = self.torch, self.random
        if chosen.random() < 0.5:  # activations, a packed weight, numbers of rows
            shape, dtype = chosen.choice(
                (((1, chosen.choice((64, 192, 256))), torch.float32), ((2176,), torch.uint8), ((2, 3), torch.int64))
            )
            made = torch.randint(0, 4, shape).to(dtype)
            if dtype == torch.int64 and chosen.random() < 0.5:
                made[1, 2] = chosen.choice((-1, 4, 100, 2**31, 2**62, -(2**63)))
            return self.changed(made.to("xpu:7"), 0.05)
        shape = [chosen.choice(SIZES) for _ in range(chosen.choice((0, 1, 1, 2, 2, 2, 2, 3, 4)))]
        while torch.Size(shape).numel() > 1 << 18:
            shape.pop()
        device = chosen.choice(DEVICES)
        return self.changed(torch.randint(0, 4, shape).to(chosen.choice(self.dtypes)).to(device), 0.6)

    def changed(self, made: Tensor, share: float) -> Tensor:
        """The tensor, or, for this share of them, a view of it, one whose memory is gone, one without memory."""
        torch, chosen = self.torch, self.random
        how = chosen.randrange(11) if chosen.random() < share else -1
        if how == 0 and made.dim() > 1:
            return made.transpose(0, 1)
        if how == 1 and made.dim() > 0:
            return made[..., ::2]
        if how == 2 and made.dim() > 0 and made.size(0) > 0:
            return made[:1].expand(chosen.choice((1, 3, 4096)), *made.shape[1:])
        if how == 3 and made.dim() > 0:
            return made[1:]
        if how == 4 and made.dim() > 0:
            return made[:0]
        if how == 5:  # an odd address
            held = torch.zeros(made.numel() * made.element_size() + 16, dtype=torch.uint8, device=made.device)
            if made.element_size() == 1 and made.dtype == torch.uint8:
                return held[1 : 1 + made.numel()].view(made.shape).copy_(made)
            first = made.element_size()
            return held[first : first + made.numel() * first].view(made.dtype).view(made.shape).copy_(made)
        if how == 6 and not made.is_meta:
            made.untyped_storage().resize_(chosen.choice((0, made.untyped_storage().nbytes() // 2)))
            return made
        if how == 7:
            return self.fake.from_tensor(made)
        if how == 8 and made.is_floating_point():
            return made.requires_grad_()
        if how == 9 and made.dtype == torch.complex64:
            return made.conj()
        if how == 10 and made.dim() > 0:
            held = made.new_zeros(64)
            return held.as_strided((chosen.choice((1, 3, 2**20)), 64), (0, chosen.choice((0, 1))))
        return made

    def fitting(self, one: Any) -> Any:
        if isinstance(one, int):
            return self.random.choice(INTEGERS) if self.random.random() < 0.1 else one
        if self.random.random() < 0.1:
            return self.tensor()
        if isinstance(one, str):
            made = self.torch.randint(0, 4, (2, 3), dtype=getattr(self.torch, one))
        else:
            made = self.torch.rand(one) if one else self.torch.zeros(2176, dtype=self.torch.uint8)
        return self.changed(made.to("xpu:7"), 0.05)

    def arguments(self, name: str, kinds: list[str]) -> Iterator[Any]:
        if name in FITTING and self.random.random() < 0.7:
            yield from map(self.fitting, FITTING[name])
            return
        integers = itertools.chain(LIKELY, itertools.repeat((1,)))
        for kind in kinds:
            if kind == "int":
                yield self.random.choice(next(integers) if self.random.random() < 0.8 else INTEGERS)
            elif kind == "ScalarType":
                yield self.random.choice(self.dtypes)
            else:
                yield self.tensor() if kind == "Tensor" else self.tensor().device


def functions() -> list[str]:
    """Names of what is called: functions of the module, and operators that are none."""
    import torch

    import quillon  # noqa: F401
    import vesper_linear

    names = [name for name in dir(vesper_linear) if not name.startswith("__")]
    for name in ("expand_weight", "expand_rows_of", "expand_weight_fast", "rows_at_once"):
        assert hasattr(torch.ops.quillon_kernels, name)
        names.append(name)
    return names


def routes_to(name: str) -> tuple[list[Any], list[str], list[str]]:
    """Functions of that name, and names and types of their arguments."""
    import torch

    import quillon  # noqa: F401
    import vesper_linear

    libraries = (torch.ops.quillon, torch.ops.quillon_kernels)
    operators = [getattr(library, name) for library in libraries if hasattr(library, name)]
    routes = [*([getattr(vesper_linear, name)] if hasattr(vesper_linear, name) else []), *operators]
    if operators:
        arguments = operators[0].default._schema.arguments
        kinds = [re.sub(r"\W.*", "", str(one.type)) for one in arguments]
        if name == "rows_at_once":
            kinds[2] = "ScalarType"
        return routes, [one.name for one in arguments], kinds
    signature = routes[0].__doc__.splitlines()[0]
    kinds = re.findall(r"arg\d+: ([\w.]+)", signature)
    return routes, [""] * len(kinds), [kind.removeprefix("torch.") for kind in kinds]


def shown(value: object) -> str:
    import torch

    if not isinstance(value, torch.Tensor):
        return repr(value)
    extra = f" storage {value.untyped_storage().nbytes()}" if type(value) is torch.Tensor else " fake"
    return f"{list(value.shape)} {list(value.stride())} {value.dtype} {value.device}{extra}"


def has_memory(value: Tensor) -> bool:
    """Whether all elements of a tensor are there to be compared."""
    import torch

    if type(value) is not torch.Tensor or value.is_meta:
        return False
    last = value.storage_offset() + sum((n - 1) * s for n, s in zip(value.shape, value.stride(), strict=True))
    return value.numel() == 0 or (last + 1) * value.element_size() <= value.untyped_storage().nbytes()


def leave_memory() -> None:
    """Take less than 2^31 elements of two bytes from here on.

    A result may have as many, and the system ends a process that fills more memory than there is.
    """
    import torch

    torch.ones(1, device="xpu:7")
    mapped = int(Path("/proc/self/statm").read_text().split()[0]) * os.sysconf("SC_PAGE_SIZE")
    most = resource.getrlimit(resource.RLIMIT_AS)[1]
    resource.setrlimit(resource.RLIMIT_AS, (mapped + (1 << 32) - (1 << 20), most))


def call(name: str, calls: int, seed: int) -> Counter[str]:
    """Call a function that many times; the last line on standard error is the call."""
    import torch

    maker, outcomes = Maker(f"{name} {seed}"), Counter[str]()
    routes, names, kinds = routes_to(name)
    leave_memory()
    for _ in range(calls):
        arguments = list(maker.arguments(name, kinds))
        print(f"{name}:", ", ".join(map(shown, arguments)), file=sys.stderr, flush=True)
        kept = [moved(one) if isinstance(one, torch.Tensor) and has_memory(one) else one for one in arguments]
        route = maker.random.choice(routes)
        result, problem = outcome_of(route, arguments)
        torch.xpu.synchronize()
        outcomes["error" if problem else "result"] += 1
        for argument, one, before in zip(names, arguments, kept, strict=True):
            written = argument.endswith("state") or argument == "output"
            if isinstance(one, torch.Tensor) and has_memory(one) and not written:
                assert torch.equal(one.detach(), before), "an argument was written"
        if any(one is before for one, before in zip(arguments, kept, strict=True) if isinstance(one, torch.Tensor)):
            continue  # not all of it has memory to be copied
        again, other_problem = outcome_of(route, kept)
        assert (problem is None) == (other_problem is None), (problem, other_problem)
        if isinstance(result, torch.Tensor) and has_memory(result):
            outcomes["compared"] += 1
            first, second = (one.detach().cpu().nan_to_num() for one in (result, again))
            assert torch.equal(first, second), "another result where the arguments lie elsewhere"
    torch.xpu.synchronize()
    return outcomes


def moved(value: Tensor) -> Tensor:
    """The same tensor in a copy of its memory."""
    import torch

    held = value.detach()
    made = torch.empty(0, dtype=held.dtype, device=held.device)
    made.set_(held.untyped_storage().clone(), held.storage_offset(), held.shape, held.stride())
    return torch.conj(made) if held.is_conj() else made


def outcome_of(route: Any, arguments: list[Any]) -> tuple[Any, str | None]:
    """The result, or the message of an error that a call may end in."""
    try:
        return route(*arguments), None
    except ERRORS as error:
        problem = str(error)
    assert problem
    assert "INTERNAL ASSERT" not in problem, problem
    return None, problem


# ---- damaged files ------------------------------------------------------------------------------------------------


def damaged(data: bytes, chosen: random.Random) -> bytes:
    """A few bytes of a file changed, most of them where it tells of itself, or a piece cut out, doubled or lost."""
    made = bytearray(data)
    end = len(made) if chosen.random() < 0.2 else min(len(made), 2000)
    how = chosen.randrange(8)
    at, length = chosen.randrange(end), chosen.choice((1, 4, 8, 100))
    if how == 0:
        del made[chosen.randrange(len(made)) :]
    elif how == 1:
        del made[at : at + length]
    elif how == 2:
        made[at:at] = made[at : at + length]
    elif how == 3:
        made[at : at + 8] = chosen.choice((0, 1, 2**31, 2**32, 2**62, 2**63, 2**64 - 1)).to_bytes(8, "little")
    elif how == 4:
        made[at : at + 4] = chosen.choice((0, 1, 255, 2**31, 2**32 - 1)).to_bytes(4, "little")
    else:
        for _ in range(chosen.choice((1, 1, 2, 8))):
            made[chosen.randrange(end)] = chosen.choice((0, 1, 0x7F, 0x80, 0xFF, chosen.randrange(256)))
    return bytes(made)


def good_files(folder: Path) -> dict[str, bytes]:
    """A GGUF file of all kinds of tensors, and a folder's packed safetensors."""
    import gguf
    import numpy as np
    import torch
    from safetensors.torch import save_file

    import quillon

    numbers = np.random.default_rng(0)
    writer = gguf.GGUFWriter(folder / "good.gguf", "llama")
    writer.add_block_count(1)
    writer.add_token_list(["a", "b"])
    for name, kind in (("a.weight", "Q4_K"), ("b.weight", "Q8_0"), ("c.weight", "F32"), ("d.weight", "Q6_K")):
        size = gguf.GGML_QUANT_SIZES[gguf.GGMLQuantizationType[kind]]
        data = numbers.integers(0, 60, (2, 256 // size[0] * size[1]), np.uint8)
        if kind == "F32":
            data = numbers.standard_normal((2, 256)).astype(np.float32)
        writer.add_tensor(name, data, raw_dtype=gguf.GGMLQuantizationType[kind])
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    layer = quillon.nn.LowBitLinear.from_linear(torch.nn.Linear(64, 4), "q4_0")
    save_file(layer.state_dict(), folder / "good.safetensors")
    return {kind: (folder / f"good.{kind}").read_bytes() for kind in ("gguf", "safetensors")}


def read_files(files: int, seed: int) -> Counter[str]:
    """Read damaged files; the last line on standard error tells which."""
    import torch
    from safetensors import SafetensorError
    from safetensors.torch import load_file

    import quillon
    from quillon.gguf_import import from_gguf

    outcomes = Counter[str]()
    allowed: dict[str, tuple[type[Exception], ...]] = {
        "gguf": (ValueError,), "safetensors": (ValueError, RuntimeError, SafetensorError),
    }  # fmt: skip
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        good = good_files(folder)
        for number in range(files):
            kind = ("gguf", "gguf", "gguf", "safetensors")[number % 4]
            data = damaged(good[kind], random.Random(f"{kind} {seed} {number}"))
            path = folder / f"{number}.{kind}"
            path.write_bytes(data)
            print(f"file {number}, {kind}, {len(data)} bytes", file=sys.stderr, flush=True)
            try:
                if kind == "gguf":
                    for tensor in from_gguf(path, "q4_0", keep=True).values():
                        assert tensor.data.numel() >= 0
                else:
                    layer = quillon.nn.LowBitLinear.from_linear(torch.nn.Linear(64, 4), "q4_0")
                    layer.load_state_dict(load_file(path))
                    assert layer.to("xpu:7")(torch.ones(1, 64, device="xpu:7")).shape == (1, 4)
            except allowed[kind] as error:
                told = str(error)
                outcomes[f"{kind}: error"] += 1
            else:
                told = "read"
                outcomes[f"{kind}: read"] += 1
            assert told
            path.unlink()
    return outcomes


# ---- workers ------------------------------------------------------------------------------------------------------


def run_worker(name: str, count: int, seed: int, timeout: float, side: str = "behind") -> tuple[Counter[str], str]:
    """What a worker counted, and, if it came to a bad end, how."""
    environment = os.environ | HOST_DEVICES | {"QUILLON_HOST_GUARD": side}
    worker = [sys.executable, __file__, "--worker", name, "--calls", str(count), "--seed", str(seed)]
    try:
        done = subprocess.run(worker, env=environment, capture_output=True, text=True, timeout=timeout)
    except subprocess.TimeoutExpired as expired:
        return Counter(), f"{name}, seed {seed}: hangs in {(expired.stderr or b'').decode()[-500:]}"
    if done.returncode != 0:
        return Counter(), f"{name}, seed {seed}: exit code {done.returncode}: {done.stderr[-3000:]}"
    return Counter({key: int(value) for key, value in (line.split("\t") for line in done.stdout.splitlines())}), ""


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--worker", help=argparse.SUPPRESS)
    parser.add_argument("--calls", type=int, default=20_000)
    parser.add_argument("--files", type=int, default=5_000)
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--of-worker", type=int, default=500, help="calls that one process makes")
    parser.add_argument("--timeout", type=float, default=900, help="seconds that a process may take")
    options = parser.parse_args()
    if options.worker:
        counted = (
            read_files(options.calls, options.seed)
            if options.worker == "files"
            else call(options.worker, options.calls, options.seed)
        )
        for key, value in counted.items():
            print(key, value, sep="\t")
        return 0
    names = functions()
    rounds = -(-options.calls // (len(names) * options.of_worker)) if options.calls else 0
    jobs = [(name, options.of_worker, options.seed + number) for number in range(rounds) for name in names]
    if options.files:
        jobs.append(("files", options.files, options.seed))
    total, amiss, start = Counter[str](), [], time.monotonic()
    for name, count, seed in jobs:
        counted, problem = run_worker(name, count, seed, options.timeout)
        total += counted
        if problem:
            amiss.append(problem)
        told = ", ".join(f"{value} {key}" for key, value in sorted(counted.items())) or problem[-300:]
        print(f"{time.monotonic() - start:6.0f} s  {name} {seed}: {told}", flush=True)
    print(", ".join(f"{value} {key}" for key, value in sorted(total.items())))
    print("\n".join(amiss) or "no crash, no hang, no wrong result")
    return bool(amiss)


if __name__ == "__main__":
    sys.exit(main())
