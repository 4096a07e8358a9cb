"""What each of several processes runs: ``python -m parallel.program FOLDER``, started as torchrun starts it.

FOLDER holds the packed models and what one process makes of them; how each check ended is written there.
"""

from __future__ import annotations

import contextlib
import datetime
import json
import os
import sys
import time
import traceback
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from pathlib import Path
from typing import Any

import torch
import torch.distributed as dist
from torch import Tensor, nn
from torch.distributed.device_mesh import DeviceMesh, init_device_mesh
from torch.distributed.pipelining import ScheduleGPipe
from torch.distributed.tensor import DTensor, Replicate, Shard, distribute_tensor
from torch.distributed.tensor.parallel import parallelize_module
from transformers import AutoModelForCausalLM

import quillon
from quillon import parallel, peers, pipeline
from quillon.nn import LowBitLinear
from quillon.parallel import PackedColwiseParallel, PackedRowwiseParallel

from .models import MODEL_FORMATS, SIZES, random_weight

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))

import scale_table

LAYER_FORMATS = ("q6_k", "q5_1", "q4_0", "fp6", "q5_k", "q2_k", "iq1_s")
"""Regions and records, of 64 and 256; activations as they are and quantized; tails that a kernel leaves out. Four
processes take the first two alone, for the time."""

PATIENCE = 5.0
"""Seconds that the groups wait in which a process fails."""


def device() -> torch.device:
    return torch.device("xpu", torch.xpu.current_device())


def layer(name: str, rows: int, cols: int, bias: bool, seed: int = 0) -> LowBitLinear:
    made = LowBitLinear(cols, rows, name, bias)
    made.packed = random_weight(name, rows, cols, seed)
    if made.bias is not None:
        made.bias = torch.randn(rows, generator=torch.Generator().manual_seed(seed))
    return made.to(device())


def activations(*shape: int, seed: int = 3) -> Tensor:
    return torch.randn(shape, generator=torch.Generator().manual_seed(seed)).to(device())


def order_bound(whole: LowBitLinear, input: Tensor) -> Tensor:
    """How far two orders of the additions of a float32 product are apart at most, at each output.

    Each sum of K products in float32 is within K roundings of the exact one, relative to the sum of magnitudes; the
    dense road rounds a weight to half first, which both sides do alike.
    """
    magnitudes = input.abs().double().cpu() @ whole.dequantize(torch.float32).double().cpu().abs().T
    return 2 * whole.in_features * 2.0**-24 * magnitudes * 1.1  # activations in q8_1 are a little larger at times


def split_pair(mesh: DeviceMesh, name: str, inner: int) -> tuple[nn.ModuleDict, nn.ModuleDict]:
    """Two layers, one after the other, whole and split."""

    def pair() -> nn.ModuleDict:
        first, second = layer(name, inner, 512, True, 1), layer(name, 48, inner, True, 2)
        return nn.ModuleDict({"first": first, "second": second})

    whole, split = pair(), pair()
    second: Any = split["second"]
    parts = inner // parallel.column_unit(second)
    plan = {"first": PackedColwiseParallel(parts=parts), "second": PackedRowwiseParallel(parts=parts)}
    parallelize_module(split, mesh, plan)
    return whole, split


def layers_of_every_layout(mesh: DeviceMesh) -> None:
    """Rows of a single activation row have the same bits, columns the same sum within the bound of its order."""
    for name in LAYER_FORMATS if mesh.size() == 2 else LAYER_FORMATS[:2]:
        inner = 512 * mesh.size() if name == "q6_k" else 256 * mesh.size()
        whole, split = split_pair(mesh, name, inner)
        second: Any = whole["second"]
        for rows in (1, 3):
            x = activations(rows, 512)
            middle, part = whole["first"](x), split["first"](x)
            own = split["first"].split.share
            expected = middle[:, own.start : own.stop]
            if rows == 1:
                assert torch.equal(part, expected), name
            got, one = split["second"](expected.contiguous()), second(middle)
            error = (got.double() - one.double()).abs().cpu()
            assert (error <= order_bound(second, middle)).all(), (name, rows, error.max())
            # Another process's columns are far beyond the bound.
            other = torch.roll(middle, len(own), -1)[:, own.start : own.stop].contiguous()
            error = (split["second"](other).double() - one.double()).abs().cpu()
            assert not (error <= order_bound(second, middle)).all(), name


def uneven_parts(mesh: DeviceMesh) -> None:
    """The first processes have a part more."""
    parts = 2 * mesh.size() - 1
    whole, split = split_pair(mesh, "q4_0", 64 * parts)
    shares = [len(share) for share in split["second"].split.shares]
    assert shares == [128] * (mesh.size() - 1) + [64]
    x = activations(1, 512)
    error = (split["second"](split["first"](x)) - whole["second"](whole["first"](x))).abs().double().cpu()
    second: Any = whole["second"]
    assert (error <= order_bound(second, whole["first"](x))).all()
    gathered = layer("q4_0", 10 * mesh.size() + 1, 512, True)
    expected = gathered(x)
    PackedColwiseParallel(output_layouts=Replicate())._apply(gathered, mesh)
    assert torch.equal(gathered(x), expected)


def layouts(mesh: DeviceMesh) -> None:
    """Inputs and outputs that lie otherwise, as local tensors and as distributed ones."""
    x = activations(1, 4, 512)
    rows, columns = 16 * mesh.size(), 512
    expected = layer("q8_0", rows, columns, True)(x)
    bound = order_bound(layer("q8_0", rows, columns, True), x)

    def close(got: Tensor) -> None:
        assert got.shape == expected.shape
        assert ((got - expected).abs().double().cpu() <= bound).all()

    def applied(style: Any) -> Any:
        made = layer("q8_0", rows, columns, True)
        style._apply(made, mesh)
        return made

    close(applied(PackedRowwiseParallel(input_layouts=Replicate()))(x))
    close(applied(PackedRowwiseParallel())(distribute_tensor(x, mesh, [Shard(-1)])))
    close(applied(PackedRowwiseParallel(input_layouts=Shard(1)))(_local(x, mesh, 1)))
    shard = applied(PackedRowwiseParallel(input_layouts=Replicate(), output_layouts=Shard(1), use_local_output=False))(
        x
    )
    assert isinstance(shard, DTensor)
    close(shard.full_tensor())
    close(applied(PackedColwiseParallel(input_layouts=Shard(1), output_layouts=Replicate()))(_local(x, mesh, 1)))
    out = applied(PackedColwiseParallel(use_local_output=False))(distribute_tensor(x, mesh, [Replicate()]))
    assert isinstance(out, DTensor)
    assert out.placements == (Shard(2),)
    close(out.full_tensor())


def _local(x: Tensor, mesh: DeviceMesh, dim: int) -> Tensor:
    return x.chunk(mesh.size(), dim)[mesh.get_local_rank()].contiguous()


def gradients(mesh: DeviceMesh) -> None:
    """The gradient of a split pair's input is that of the whole pair."""
    whole, split = split_pair(mesh, "q4_0", 128 * mesh.size())
    found = []
    for pair in (whole, split):
        x = activations(2, 512).requires_grad_()
        hidden = torch.nn.functional.silu(pair["first"](x))
        pair["second"](hidden).square().sum().backward()
        assert x.grad is not None
        found.append(x.grad)
    torch.testing.assert_close(found[1], found[0], rtol=1e-4, atol=1e-4 * float(found[0].abs().max()))
    gathering = layer("q4_0", 8 * mesh.size(), 512, False)
    x, y = (activations(2, 512).requires_grad_() for _ in range(2))
    gathering(x).square().sum().backward()
    PackedColwiseParallel(output_layouts=Replicate())._apply(gathering, mesh)
    gathering(y).square().sum().backward()
    assert x.grad is not None
    torch.testing.assert_close(y.grad, x.grad, rtol=1e-4, atol=1e-4 * float(x.grad.abs().max()))


def compiled(mesh: DeviceMesh) -> None:
    """Split layers are one graph, collectives among it, and give what they give without being compiled."""
    _, split = split_pair(mesh, "q4_0", 128 * mesh.size())
    gathering = layer("q4_0", 10 * mesh.size() + 1, 512, True)
    PackedColwiseParallel(output_layouts=Replicate())._apply(gathering, mesh)

    def run(x: Tensor) -> tuple[Tensor, Tensor]:
        return split["second"](nn.functional.silu(split["first"](x))), gathering(x)

    one_graph = torch.compile(run, fullgraph=True, backend="aot_eager")
    for rows in (1, 3):
        x = activations(rows, 512)
        with torch.no_grad():
            for found, expected in zip(one_graph(x), run(x), strict=True):
                assert torch.equal(found, expected), rows


def refusals(mesh: DeviceMesh) -> None:
    few = layer("q5_k", 8, 256, False)
    with raises(ValueError, "256 columns are dealt out in 1 parts of 256, which is not enough for"):
        PackedRowwiseParallel()._apply(few, mesh)
    with raises(ValueError, "parts must be a divisor of 8, since 512 columns of q4_0"):
        PackedRowwiseParallel(parts=5)._apply(layer("q4_0", 8, 512, False), mesh)
    with raises(TypeError, "is for LowBitLinear, got Linear"):
        PackedColwiseParallel()._apply(nn.Linear(4, 4), mesh)
    split = layer("q4_0", 8 * mesh.size(), 512, False)
    PackedColwiseParallel()._apply(split, mesh)
    with raises(ValueError, "is split already: rows"):
        PackedColwiseParallel()._apply(split, mesh)
    uneven = layer("q4_0", 8 * mesh.size() + 1, 512, False)
    with raises(ValueError, "are not the same for each of"):
        PackedColwiseParallel(use_local_output=False)._apply(uneven, mesh)


@contextlib.contextmanager
def raises(kind: type[Exception], text: str) -> Iterator[None]:
    """pytest's, which the processes do without."""
    message = None
    try:
        yield
    except kind as problem:
        message = str(problem)
    assert message is not None, f"no {kind.__name__}: {text}"
    assert text in message


FOLDER = Path(sys.argv[-1])


def loaded(kind: str, dtype: torch.dtype) -> Any:
    return AutoModelForCausalLM.from_pretrained(FOLDER / kind, tp_plan="auto", dtype=dtype)


def check_model(kind: str) -> None:
    """Only the parts are read, and logits and texts are those of one process."""
    read: list[int] = []
    stock = os.preadv

    def counted(file: int, buffers: Any, offset: int) -> int:
        read.append(stock(file, buffers, offset))
        return read[-1]

    os.preadv = counted
    try:
        model = loaded(kind, torch.float64)
    finally:
        os.preadv = stock
    packed = [name for name, module in model.named_modules() if hasattr(module, "split")]
    split = dict(parallel.split_layers(model))
    assert list(split) == packed
    parts = [buffer for one in split.values() for name, buffer in one.named_buffers(recurse=False) if name != "bias"]
    here = sum(one.numel() for one in parts if one.dtype == torch.uint8)
    assert sum(read) == here
    assert here <= 1.02 * (FOLDER / kind / "model.safetensors").stat().st_size / dist.get_world_size()
    expected = torch.load(FOLDER / f"{kind}.pt")
    prompt = expected["prompt"].to(model.device)
    with torch.no_grad():
        logits = model(prompt).logits.cpu()
    error = float((logits - expected["logits"]).abs().max())
    assert error <= expected["bound"], (error, expected["bound"])
    assert model.generate(prompt, max_new_tokens=12, do_sample=False).tolist() == expected["text"]
    if kind == "llama":
        one_token = prompt[:, :1]
        with torch.no_grad():
            before = model(one_token).logits
            assert quillon.nn.fuse_mlps(model), "an MLP of split layers is fused"
            assert quillon.join_projections(model), "split projections are joined"
            after = model(one_token).logits
        # Fused, the activation is taken in float of the same sums; joined, the sums are the same.
        torch.testing.assert_close(after, before, rtol=1e-4, atol=1e-4)
    model = loaded(kind, torch.float32)
    quillon.nn.fuse_mlps(model)
    quillon.join_projections(model)
    model.save_pretrained(FOLDER / f"{kind}-of-{dist.get_world_size()}")


def llama(mesh: DeviceMesh) -> None:
    check_model("llama")


def bytes_that_the_table_counts(mesh: DeviceMesh) -> None:
    """The table of several devices counts the bytes that a process holds, and those that it sends for a token."""
    sizes = (SIZES["hidden_size"], SIZES["intermediate_size"], 1, SIZES["num_attention_heads"])
    shape = scale_table.Model(*sizes, SIZES["num_key_value_heads"], SIZES["head_dim"], SIZES["vocab_size"])
    processes = mesh.size()
    model = loaded("llama", torch.float64)
    layers = [scale_table.layer_bytes(shape, name, processes) for name in MODEL_FORMATS]
    ends = [scale_table.head_bytes(shape, name, processes) for name in ("q8_0", "q4_k")]
    assert sum(one.numel() for one in model.buffers() if one.dtype == torch.uint8) == sum(layers + ends)
    sent: list[int] = []
    reduce, gather = dist.all_reduce, parallel._gather_in_one

    def counted_reduce(tensor: Tensor, **options: Any) -> Any:
        sent.append(2 * tensor.nbytes * (processes - 1) // processes)
        return reduce(tensor, **options)

    def counted_gather(output: Tensor, tensor: Tensor, **options: Any) -> Any:
        sent.append(tensor.nbytes * (processes - 1))
        return gather(output, tensor, **options)

    dist.all_reduce, parallel._gather_in_one = counted_reduce, counted_gather
    try:
        with torch.no_grad():
            model(torch.tensor([[7]], device=model.device))
    finally:
        dist.all_reduce, parallel._gather_in_one = reduce, gather
    assert sum(sent) == scale_table.sent_bytes(replace(shape, layers=len(MODEL_FORMATS)), processes, 8)


def mixtral(mesh: DeviceMesh) -> None:
    check_model("mixtral")


def shapes_that_do_not_divide(mesh: DeviceMesh) -> None:
    with raises(ValueError, "parts of"):
        loaded("narrow", torch.float32)


def stages(mesh: DeviceMesh) -> None:
    """A pipeline of packed stages, of which each process loads its own, gives the logits and texts of one process."""
    expected = torch.load(FOLDER / "llama.pt")
    prompt = expected["prompt"].to(device())
    stage = pipeline.load_stage(FOLDER / "llama", dtype=torch.float64)
    own = sum(one.numel() for one in stage.submod.buffers() if one.dtype == torch.uint8)
    assert own < 0.7 * (FOLDER / "llama" / "model.safetensors").stat().st_size
    schedule = ScheduleGPipe(stage, 2)
    with torch.no_grad():
        logits = schedule.step(*([prompt.repeat(4, 1)] if mesh.get_local_rank() == 0 else []))
    if mesh.get_local_rank() == mesh.size() - 1:
        error = float((logits.cpu() - expected["logits"]).abs().max())
        assert error <= expected["bound"], (error, expected["bound"])
    model: Any = stage.submod
    assert model.model.generate(prompt, max_new_tokens=12, do_sample=False).tolist() == expected["text"]


def group_of_short_patience() -> Any:
    group: Any = dist.new_group(timeout=datetime.timedelta(seconds=PATIENCE))
    x = torch.ones(2, device=device())
    dist.all_reduce(x, group=group)  # the processes are connected
    return group


def expect_peer_error(group: Any, text: str, seconds: float) -> None:
    start = time.monotonic()
    reduce = peers.names_the_stopped(group, dist.all_reduce)
    with raises(peers.PeerError, text):
        reduce(torch.ones(2, device=device()), group=group)
    assert time.monotonic() - start < seconds


def fail_once(group: Any) -> None:
    def fail() -> None:
        raise MemoryError("no room")

    with raises(MemoryError, "no room"):
        peers.names_the_stopped(group, fail)()


def another_version(group: Any) -> None:
    stock = peers.identity
    if dist.get_rank() == 1:
        peers.identity = lambda: "quillon 0.0"
    try:
        with raises(peers.PeerError, "quillon 0.0"):
            peers.meet(group)
    finally:
        peers.identity = stock


def one_that_does_not_come(group: Any) -> None:
    last = dist.get_world_size() - 1
    if dist.get_rank() != last:
        with raises(peers.PeerError, f"process {last} of {last + 1} did not come within {PATIENCE:.0f} s"):
            peers.meet(group)


def one_that_fails(group: Any) -> None:
    last = dist.get_world_size() - 1
    if dist.get_rank() == last:
        fail_once(group)
    else:
        expect_peer_error(group, f"process {last} of {last + 1} has failed: MemoryError: no room", PATIENCE + 12)


def one_that_hangs(group: Any) -> None:
    last = dist.get_world_size() - 1
    if dist.get_rank() != last:  # that one waits for the end of the others, and is silent in this group
        expect_peer_error(group, f"process {last} of {last + 1} has died or hangs", PATIENCE + 12)


def one_that_dies(group: Any) -> None:
    """Errors that the processes went on from explain nothing of it."""
    last = dist.get_world_size() - 1
    if dist.get_rank() in (1, last):
        fail_once(group)
    peers.names_the_stopped(group, dist.all_reduce)(torch.ones(2, device=device()), group=group)
    if dist.get_rank() == last:
        OUTCOMES["one_that_dies"] = None
        write_outcomes()
        os._exit(0)
    expect_peer_error(group, f"process {last} of {last + 1} has died or hangs", PATIENCE + 12)


Check = Callable[[Any], None]
OUTCOMES: dict[str, str | None] = {}

ON_MESH: list[Check] = [
    layers_of_every_layout,
    uneven_parts,
    layouts,
    gradients,
    refusals,
    llama,
    bytes_that_the_table_counts,
    mixtral,
    shapes_that_do_not_divide,
    stages,
]
OF_TWO: list[Check] = [compiled]
FAILURES: list[Check] = [another_version, one_that_does_not_come, one_that_fails, one_that_hangs, one_that_dies]
"""Each has a group of its own; those that wait for a time-out do so together."""
WAITING = FAILURES[1:-1]


def write_outcomes() -> None:
    (FOLDER / f"outcomes{dist.get_rank()}of{dist.get_world_size()}").write_text(json.dumps(OUTCOMES))


def run_check(check: Check, given: Any) -> None:
    torch.xpu.set_device(int(os.environ["LOCAL_RANK"]))  # of this thread
    start = time.monotonic()
    try:
        check(given)
        OUTCOMES[check.__name__] = None
    except Exception:
        OUTCOMES[check.__name__] = traceback.format_exc()
    seconds = time.monotonic() - start
    print(f"{dist.get_rank()}: {check.__name__} {seconds:.1f} s {OUTCOMES[check.__name__] or ''}", flush=True)


def main() -> None:
    torch.xpu.set_device(int(os.environ["LOCAL_RANK"]))
    dist.init_process_group(timeout=datetime.timedelta(minutes=4))
    size = dist.get_world_size()
    mesh = init_device_mesh("xpu", (size,))
    for check in [*ON_MESH, *(OF_TWO if size == 2 else [])]:
        torch.manual_seed(0)
        run_check(check, mesh)
        dist.barrier()
    if size == 4:
        groups = {check: group_of_short_patience() for check in FAILURES}
        run_check(another_version, groups[another_version])
        dist.barrier()
        with ThreadPoolExecutor(len(WAITING)) as pool:
            list(pool.map(run_check, WAITING, [groups[check] for check in WAITING]))
        dist.barrier()
        run_check(one_that_dies, groups[one_that_dies])
    write_outcomes()
    os._exit(0)  # groups that are broken are not taken down


if __name__ == "__main__":
    main()
