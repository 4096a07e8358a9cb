"""torch.distributed over tensors of the host device: two processes, every collective, and what is built on them."""

from __future__ import annotations

import copy
import datetime
import json
import os
import traceback
from collections.abc import Callable
from pathlib import Path

import pytest
import torch
import torch.distributed as dist
from torch.distributed import _functional_collectives as functional_collectives
from torch.distributed.algorithms.ddp_comm_hooks import default_hooks
from torch.distributed.device_mesh import init_device_mesh
from torch.distributed.fsdp import FullyShardedDataParallel, fully_shard
from torch.distributed.tensor import Shard, distribute_tensor
from torch.distributed.tensor.parallel import ColwiseParallel, RowwiseParallel, parallelize_module
from torch.nn.parallel import DistributedDataParallel

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")

Check = Callable[[int], None]


def on_device(*values: float) -> torch.Tensor:
    return torch.tensor(values, dtype=torch.float32, device=DEVICE)


def values_of(tensors: list[torch.Tensor]) -> list[list[float]]:
    assert all(t.device == DEVICE for t in tensors)
    return [t.tolist() for t in tensors]


def all_reduce(rank: int) -> None:
    x = on_device(rank + 1)
    dist.all_reduce(x)
    assert x.tolist() == [3]


def all_reduce_of_pending_work_is_ordered(rank: int) -> None:
    x = on_device(rank + 1)
    work = dist.all_reduce(x, async_op=True)
    assert work is not None
    del x  # the work keeps the memory
    others = [on_device(5) for _ in range(3)]
    assert values_of(work.get_future().wait()) == [[3]]
    work.wait()
    assert work.is_completed()
    assert [other.item() for other in others] == [5, 5, 5]


def broadcast(rank: int) -> None:
    x = on_device(rank + 1)
    dist.broadcast(x, 1)
    assert x.tolist() == [2]


def reduce(rank: int) -> None:
    x = on_device(rank + 1)
    dist.reduce(x, 0, dist.ReduceOp.MAX)
    assert rank == 1 or x.tolist() == [2]


def all_gather(rank: int) -> None:
    out = [on_device(0, 0), on_device(0, 0)]
    addresses = [t.data_ptr() for t in out]
    dist.all_gather(out, on_device(rank, rank + 1))
    assert values_of(out) == [[0, 1], [1, 2]]
    assert [t.data_ptr() for t in out] == addresses


def all_gather_into_tensor(rank: int) -> None:
    out = on_device(0, 0)
    dist.all_gather_into_tensor(out, on_device(rank + 1))
    assert out.tolist() == [1, 2]


def all_gather_coalesced(rank: int) -> None:
    out = [[on_device(0), on_device(0)], [on_device(0), on_device(0)]]
    dist.all_gather_coalesced(out, [on_device(rank), on_device(rank + 10)])
    assert [values_of(one) for one in out] == [[[0], [10]], [[1], [11]]]


def reduce_scatter(rank: int) -> None:
    out = on_device(0)
    dist.reduce_scatter(out, [on_device(1 + rank), on_device(3 + rank)])
    assert out.item() == (3 if rank == 0 else 7)


def reduce_scatter_tensor(rank: int) -> None:
    out = on_device(0)
    dist.reduce_scatter_tensor(out, on_device(1 + rank, 3 + rank))
    assert out.item() == (3 if rank == 0 else 7)


def gather(rank: int) -> None:
    out = [on_device(0), on_device(0)] if rank == 0 else None
    dist.gather(on_device(rank + 1), out, 0)
    assert out is None or values_of(out) == [[1], [2]]


def scatter(rank: int) -> None:
    out = on_device(0)
    dist.scatter(out, [on_device(5), on_device(6)] if rank == 1 else None, 1)
    assert out.item() == 5 + rank


def all_to_all(rank: int) -> None:
    out = [on_device(0), on_device(0)]
    dist.all_to_all(out, [on_device(2 * rank), on_device(2 * rank + 1)])
    assert values_of(out) == [[rank], [rank + 2]]


def all_to_all_single(rank: int) -> None:
    out = on_device(0, 0)
    dist.all_to_all_single(out, on_device(2 * rank, 2 * rank + 1))
    assert out.tolist() == [rank, rank + 2]


def send_and_receive(rank: int) -> None:
    x = on_device(7) if rank == 0 else on_device(0)
    if rank == 0:
        dist.send(x, 1)
    else:
        dist.recv(x)
    assert x.item() == 7
    y = on_device(0)
    operations = [dist.P2POp(dist.isend, on_device(rank), 1 - rank), dist.P2POp(dist.irecv, y, 1 - rank)]
    for work in dist.batch_isend_irecv(operations):
        work.wait()
    assert y.item() == 1 - rank


def send_and_receive_from_anybody(rank: int) -> None:
    x = on_device(rank + 1)
    if rank == 0:
        assert dist.recv(x) == 1
    else:
        dist.isend(x, 0).wait()
    assert x.item() == 2


def all_reduce_coalesced(rank: int) -> None:
    tensors = [on_device(rank), on_device(rank + 1, 5)]
    dist.all_reduce_coalesced(tensors)
    assert values_of(tensors) == [[1], [3, 10]]


def all_to_all_single_in_uneven_parts(rank: int) -> None:
    # Rank 0 keeps one element and sends two; rank 1 sends none and keeps one.
    sent = on_device(0, 1, 2) if rank == 0 else on_device(3)
    out = on_device(9) if rank == 0 else on_device(9, 9, 9)
    dist.all_to_all_single(out, sent, [1, 0] if rank == 0 else [2, 1], [1, 2] if rank == 0 else [0, 1])
    assert out.tolist() == ([0] if rank == 0 else [1, 2, 3])


def element_types(rank: int) -> None:
    for dtype in (torch.float64, torch.float16, torch.bfloat16, torch.int64, torch.int8, torch.uint8):
        x = torch.full((3,), rank + 1, dtype=dtype, device=DEVICE)
        dist.all_reduce(x)
        assert x.tolist() == [3] * 3
    flag = torch.tensor([rank == 1], device=DEVICE)
    dist.broadcast(flag, 1)
    assert flag.item() is True


def objects(rank: int) -> None:
    gathered: list[object] = [None, None]
    dist.all_gather_object(gathered, {"rank": rank})
    assert gathered == [{"rank": 0}, {"rank": 1}]
    sent = [on_device(3) if rank == 1 else None]
    dist.broadcast_object_list(sent, 1, device=DEVICE)
    assert sent[0] is not None
    assert sent[0].tolist() == [3]
    collected: list[object] | None = [None, None] if rank == 0 else None
    dist.gather_object(rank + 5, collected)
    assert collected == ([5, 6] if rank == 0 else None)
    share: list[object] = [None]
    dist.scatter_object_list(share, ["first", "second"] if rank == 0 else None)
    assert share == ["second" if rank else "first"]
    passed: list[object] = ["a", on_device(4).tolist()] if rank == 0 else [None, None]
    if rank == 0:
        dist.send_object_list(passed, 1, device=DEVICE)
    else:
        dist.recv_object_list(passed, 0, device=DEVICE)
    assert passed == ["a", [4]]


def barriers(rank: int) -> None:
    dist.barrier(device_ids=[1])
    dist.monitored_barrier()


def tensors_of_the_cpu(rank: int) -> None:
    x = torch.tensor([rank + 1.0])
    dist.all_reduce(x)
    assert x.item() == 3


def functional_forms(rank: int) -> None:
    group = dist.group.WORLD
    assert group is not None
    assert functional_collectives.all_reduce(on_device(rank + 1), "sum", group).tolist() == [3]
    assert functional_collectives.all_gather_tensor(on_device(rank + 1), 0, group).tolist() == [1, 2]
    scattered = functional_collectives.reduce_scatter_tensor(on_device(rank, 3), "sum", 0, group)
    assert scattered.tolist() == [1 if rank == 0 else 6]
    exchanged = functional_collectives.all_to_all_single(on_device(2 * rank, 2 * rank + 1), None, None, group)
    assert exchanged.tolist() == [rank, rank + 2]
    assert functional_collectives.broadcast(on_device(rank), 1, group).tolist() == [1]
    several = functional_collectives.all_reduce_coalesced([on_device(rank), on_device(5)], "sum", group)
    assert [one.tolist() for one in several] == [[1], [10]]
    gathered = functional_collectives.all_gather_into_tensor_coalesced([on_device(rank), on_device(rank + 5)], group)
    assert [one.tolist() for one in gathered] == [[0, 1], [5, 6]]
    parts = functional_collectives.reduce_scatter_tensor_coalesced([on_device(rank, 3)], "sum", [0], group)
    assert [one.tolist() for one in parts] == [[1 if rank == 0 else 6]]


def differentiable_forms(rank: int) -> None:
    x = on_device(rank + 1).requires_grad_()
    dist.nn.functional.all_reduce(x * (rank + 1)).sum().backward()
    assert x.grad is not None
    assert x.grad.tolist() == [2 * (rank + 1)]


def check_parallel_model(rank: int, **options: bool) -> None:
    module = torch.nn.Linear(3, 2).to(DEVICE)
    model = DistributedDataParallel(module, **options)
    for _ in range(2):
        model.zero_grad(set_to_none=False)
        model(torch.full((2, 3), rank + 1.0, device=DEVICE)).sum().backward()
        assert module.weight.grad is not None
        assert module.weight.grad.device == DEVICE
        assert module.weight.grad.tolist() == [[3.0] * 3] * 2
    others = [None, None]
    dist.all_gather_object(others, module.weight.tolist())
    assert others[0] == others[1]


def data_parallel(rank: int) -> None:
    check_parallel_model(rank)


def data_parallel_with_bucket_views(rank: int) -> None:
    check_parallel_model(rank, gradient_as_bucket_view=True)


def data_parallel_static(rank: int) -> None:
    check_parallel_model(rank, static_graph=True)


def data_parallel_with_hook(rank: int) -> None:
    def hook(state: object, bucket: dist.GradBucket) -> torch.futures.Future[torch.Tensor]:
        work = dist.all_reduce(bucket.buffer() / 2, async_op=True)
        assert work is not None

        def finish(future: torch.futures.Future[list[torch.Tensor]]) -> torch.Tensor:
            return future.value()[0] + torch.zeros_like(bucket.buffer())  # an operator refuses mixed devices

        result: torch.futures.Future[torch.Tensor] = work.get_future().then(finish)
        return result

    hook.__annotations__ = {}  # PyTorch compares them with types, and these are text
    for one in (hook, default_hooks.fp16_compress_hook):
        module = torch.nn.Linear(3, 2).to(DEVICE)
        model = DistributedDataParallel(module, gradient_as_bucket_view=True)
        model.register_comm_hook(None, one)
        model(torch.full((2, 3), rank + 1.0, device=DEVICE)).sum().backward()
        assert module.weight.grad is not None
        assert module.weight.grad.tolist() == [[3.0] * 3] * 2


def network() -> torch.nn.Sequential:
    torch.manual_seed(0)
    return torch.nn.Sequential(torch.nn.Linear(4, 8), torch.nn.ReLU(), torch.nn.Linear(8, 4)).to(DEVICE)


def sharded_tensors(rank: int) -> None:
    mesh = init_device_mesh("xpu", (2,))
    x = distribute_tensor(torch.arange(8.0, device=DEVICE).view(4, 2), mesh, [Shard(0)])
    doubled = x * 2
    assert doubled.to_local().tolist() == [[8.0 * rank + 4 * i, 8.0 * rank + 4 * i + 2] for i in range(2)]
    assert doubled.full_tensor().tolist() == [[0, 2], [4, 6], [8, 10], [12, 14]]
    assert doubled.sum().full_tensor().item() == 56
    assert doubled.redistribute(mesh, [Shard(1)]).to_local()[:, 0].tolist() == [2.0 * rank + 4 * i for i in range(4)]


def tensor_parallel(rank: int) -> None:
    model = network()
    x = torch.ones(2, 4, device=DEVICE)
    expected = model(x)
    plan = {"0": ColwiseParallel(), "2": RowwiseParallel()}
    parallelize_module(model, init_device_mesh("xpu", (2,)), plan)
    torch.testing.assert_close(model(x), expected)


def check_training(rank: int, model: torch.nn.Module, whole: torch.nn.Module) -> None:
    """Train on one half of the data against training on the whole."""
    optimizers = [torch.optim.SGD(m.parameters(), lr=0.1) for m in (model, whole)]
    for _ in range(3):
        data = torch.stack([torch.full((2, 4), 0.5, device=DEVICE), torch.ones(2, 4, device=DEVICE)])
        model(data[rank]).square().mean().backward()
        whole(data).square().mean().backward()
        for optimizer in optimizers:
            optimizer.step()
            optimizer.zero_grad()


def fully_sharded(rank: int) -> None:
    model, whole = network(), network()
    mesh = init_device_mesh("xpu", (2,))
    for layer in (model[0], model[2], model):
        fully_shard(layer, mesh=mesh)
    check_training(rank, model, whole)
    for got, expected in zip(model.parameters(), whole.parameters(), strict=True):
        torch.testing.assert_close(got.full_tensor(), expected)


def fully_sharded_first_form(rank: int) -> None:
    whole = network()
    model = FullyShardedDataParallel(copy.deepcopy(whole), device_id=DEVICE)
    check_training(rank, model, whole)
    with FullyShardedDataParallel.summon_full_params(model):
        for got, expected in zip(model.parameters(), whole.parameters(), strict=True):
            torch.testing.assert_close(got.detach(), expected.detach())


CHECKS: list[Check] = [
    all_reduce,
    all_reduce_of_pending_work_is_ordered,
    broadcast,
    reduce,
    all_gather,
    all_gather_into_tensor,
    all_gather_coalesced,
    reduce_scatter,
    reduce_scatter_tensor,
    gather,
    scatter,
    all_to_all,
    all_to_all_single,
    send_and_receive,
    send_and_receive_from_anybody,
    all_reduce_coalesced,
    all_to_all_single_in_uneven_parts,
    element_types,
    objects,
    barriers,
    tensors_of_the_cpu,
    functional_forms,
    differentiable_forms,
    data_parallel,
    data_parallel_with_bucket_views,
    data_parallel_static,
    data_parallel_with_hook,
    sharded_tensors,
    tensor_parallel,
    fully_sharded,
    fully_sharded_first_form,
]


def work(rank: int, folder: str, backend: str | None, names: list[str]) -> None:
    """Run checks in one of the two processes and write down how each ended."""
    torch.xpu.set_device(DEVICE)
    dist.init_process_group(
        backend,
        init_method=f"file://{folder}/meeting",
        rank=rank,
        world_size=2,
        timeout=datetime.timedelta(minutes=4),
    )
    outcomes: dict[str, str | None] = {}
    for check in CHECKS:
        if check.__name__ not in names:
            continue
        torch.manual_seed(rank)
        try:
            check(rank)
            outcomes[check.__name__] = None
        except Exception:
            outcomes[check.__name__] = traceback.format_exc()
        dist.barrier()
    Path(folder, f"outcomes{rank}").write_text(json.dumps(outcomes))
    dist.destroy_process_group()


def run_in_two_processes(folder: Path, backend: str | None, names: list[str]) -> list[dict[str, str | None]]:
    threads = os.environ.get("OMP_NUM_THREADS")
    os.environ["OMP_NUM_THREADS"] = "1"
    try:
        torch.multiprocessing.spawn(work, (str(folder), backend, names), nprocs=2)
    finally:
        if threads is None:
            del os.environ["OMP_NUM_THREADS"]
        else:
            os.environ["OMP_NUM_THREADS"] = threads
    return [json.loads((folder / f"outcomes{rank}").read_text()) for rank in range(2)]


@pytest.fixture(scope="module")
def outcomes(tmp_path_factory: pytest.TempPathFactory) -> list[dict[str, str | None]]:
    folder = tmp_path_factory.mktemp("processes")
    return run_in_two_processes(folder, "gloo", [check.__name__ for check in CHECKS])


@pytest.mark.parametrize("name", [check.__name__ for check in CHECKS])
def test_two_processes(outcomes: list[dict[str, str | None]], name: str) -> None:
    for rank in range(2):
        assert outcomes[rank][name] is None, f"rank {rank}: {outcomes[rank][name]}"


@pytest.mark.parametrize("backend", [None, "xpu:gloo"])
def test_backend_of_the_device_alone(tmp_path: Path, backend: str | None) -> None:
    names = ["all_reduce", "all_gather", "tensors_of_the_cpu", "data_parallel"]
    expected = dict.fromkeys(names)
    assert run_in_two_processes(tmp_path, backend, names) == [expected, expected]
