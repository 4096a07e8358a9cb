"""Eight host devices: identities, the current device, refusals of mixtures, memory, threads, profiler."""

from __future__ import annotations

import os
import re
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
import torch

from quillon import host_device

DECLARED = [int(item, 0) for item in os.environ["QUILLON_HOST_DEVICES"].split(",")]


def test_identities() -> None:
    assert torch.xpu.is_available()
    assert torch.xpu.device_count() == len(DECLARED) == 8
    assert host_device.is_active()
    assert host_device.declared_architectures() == DECLARED
    properties = [torch.xpu.get_device_properties(i) for i in range(8)]
    # The last member of the structure, written by one library and read by another: they agree on its layout.
    assert [p.architecture for p in properties] == DECLARED
    assert len({p.name for p in properties}) == 1
    assert torch.xpu.get_device_name(3) == properties[3].name != ""
    assert properties[0].total_memory > 2**30
    assert 16 in properties[0].sub_group_sizes
    assert 32 in properties[0].sub_group_sizes
    assert torch.xpu.get_device_capability(1)["architecture"] == DECLARED[1]
    assert f"architecture=0x{DECLARED[1]:X}" in repr(properties[1])


def test_properties_are_those_of_the_stock_class() -> None:
    stub = (Path(torch.__file__).parent / "_C" / "__init__.pyi").read_text()
    body = stub.split("class _XpuDeviceProperties:\n")[1].split("\n\n")[0]
    declared = dict(re.findall(r"^    (\w+): (.+)$", body, re.MULTILINE))
    assert len(declared) > 20
    properties = [torch.xpu.get_device_properties(i) for i in range(8)]
    types = {"_int": int, "_bool": bool, "str": str, "list[_int]": list, "Any": object}
    for name, kind in declared.items():
        assert isinstance(getattr(properties[0], name), types[kind]), name
    assert properties[0].gpu_subslice_count > 0
    assert len({str(p.uuid) for p in properties}) == 8
    assert all(len(p.uuid.bytes) == 16 for p in properties)
    assert re.fullmatch(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", str(properties[3].uuid))


def test_accelerator_interface() -> None:
    assert torch.accelerator.is_available()
    assert torch.accelerator.current_accelerator() == torch.device("xpu")
    assert torch.accelerator.device_count() == 8
    torch.accelerator.synchronize()
    assert torch.accelerator.current_stream().device.type == "xpu"


def test_what_libraries_ask_an_accelerator() -> None:
    with torch.xpu.device(3):
        assert torch.xpu.is_current_stream_capturing() is False
        assert torch.xpu.is_bf16_supported()
        assert torch.xpu.get_device_capability()["architecture"] == torch.xpu.get_device_properties().architecture
        free, total = torch.accelerator.get_memory_info()
        assert 0 < free < total == torch.xpu.get_device_properties().total_memory
        states = torch.xpu.get_rng_state_all()
        drawn = torch.rand(3, device="xpu")
        torch.xpu.set_rng_state_all(states)
        assert torch.equal(torch.rand(3, device="xpu"), drawn)
        held = torch.empty(1 << 20, dtype=torch.uint8, device="xpu")
        assert torch.accelerator.memory_allocated() >= held.nbytes
        torch.accelerator.reset_peak_memory_stats()
        assert torch.accelerator.max_memory_allocated() == torch.xpu.max_memory_allocated() >= held.nbytes
        torch.accelerator.empty_cache()
        torch.accelerator.synchronize()
        assert torch.xpu.get_arch_list() == []


def test_all_devices_compute() -> None:
    for index in range(8):
        x = torch.full((4,), float(index), device=f"xpu:{index}")
        y = (x + 1).square()
        assert y.get_device() == index
        assert y.sum().item() == 4 * (index + 1) ** 2


def test_current_device() -> None:
    assert torch.xpu.current_device() == 0
    with torch.xpu.device(5):
        assert torch.xpu.current_device() == 5
        assert torch.empty(1, device="xpu").get_device() == 5
        with torch.xpu.device_of(torch.empty(1, device="xpu:2")):
            assert torch.xpu.current_device() == 2
        with torch.xpu.device(-1):
            assert torch.xpu.current_device() == 5
    torch.xpu.set_device("xpu:3")
    assert torch.ones(2).xpu().get_device() == 3
    torch.xpu.set_device(0)
    with torch.device("xpu:4"):
        assert torch.nn.Linear(2, 2).weight.get_device() == 4


@pytest.mark.parametrize("index", [8, 100])
def test_device_that_is_not_there(index: int) -> None:
    message = rf"The device index is out of range. It must be in \[0, 8\), but got {index}"
    with pytest.raises(RuntimeError, match=message):
        torch.zeros(1, device=f"xpu:{index}")
    with pytest.raises(RuntimeError, match=message):
        torch.xpu.set_device(index)


MIXTURE = "Expected all tensors to be on the same device"


def test_mixed_devices_are_refused() -> None:
    here, there, host = torch.ones(2, 2, device="xpu:0"), torch.ones(2, 2, device="xpu:1"), torch.ones(2, 2)
    for other in (there, host):
        for left, right in ((here, other), (other, here)):
            for operator in (torch.add, torch.mm, torch.maximum, torch.nn.functional.linear, torch.dot):
                arguments = (left[0], right[0]) if operator is torch.dot else (left, right)
                with pytest.raises(RuntimeError, match=MIXTURE):
                    operator(*arguments)
            with pytest.raises(RuntimeError, match=MIXTURE):
                torch.cat([left, right])
            with pytest.raises(RuntimeError, match=MIXTURE):
                left.add_(right)
            with pytest.raises(RuntimeError, match=MIXTURE):
                torch.add(left, left, out=right)
            with pytest.raises(RuntimeError, match=MIXTURE):
                torch.where(left > 0, right, left)
    with pytest.raises(RuntimeError, match=MIXTURE):
        here.gather(1, torch.zeros(2, 1, dtype=torch.int64))
    with pytest.raises(RuntimeError, match=MIXTURE):
        here.index_put_((torch.tensor([0]),), host[0])
    with pytest.raises(RuntimeError, match=MIXTURE):
        torch.nn.Linear(2, 2)(here)
    where = "got mat2 is on cpu, different from other tensors on xpu:0"
    with pytest.raises(RuntimeError, match=rf"{where} \(when checking argument in method wrapper_XPU_mm\)"):
        here @ host


def test_scalars_on_the_cpu_are_allowed() -> None:
    x = torch.ones(3, device="xpu:1")
    scalar = torch.tensor(2.0)
    assert (x * scalar).tolist() == (scalar * x).tolist() == [2.0, 2.0, 2.0]
    assert torch.where(x > 2, x, scalar).tolist() == [2.0, 2.0, 2.0]
    assert (x + torch.tensor(2.0, dtype=torch.float64)).dtype == torch.float32
    with pytest.raises(RuntimeError, match=MIXTURE):
        scalar.add_(x[0])  # but a result cannot go there


def test_memory_statistics() -> None:
    torch.xpu.empty_cache()
    before = torch.xpu.memory_allocated(6)
    torch.xpu.reset_peak_memory_stats(6)
    block = torch.empty(1 << 20, dtype=torch.uint8, device="xpu:6")
    address = block.data_ptr()
    assert torch.xpu.memory_allocated(6) - before == 1 << 20
    assert torch.xpu.memory_allocated("xpu:6") == torch.accelerator.memory_allocated(6)
    del block
    assert torch.xpu.memory_allocated(6) == before
    assert torch.xpu.max_memory_allocated(6) - before == 1 << 20
    assert torch.xpu.memory_reserved(6) - before >= 1 << 20
    assert torch.empty((1 << 20) - 7, dtype=torch.uint8, device="xpu:6").data_ptr() == address  # from the cache
    reserved = torch.xpu.memory_reserved(6)
    torch.xpu.empty_cache()
    assert torch.xpu.memory_reserved(6) <= reserved - (1 << 20)
    free, total = torch.xpu.mem_get_info(6)
    assert 0 < free <= total


def test_results_stay_in_device_memory_without_copies() -> None:
    before = torch.xpu.memory_stats(7)["num_device_alloc"]
    x = torch.ones(1 << 16, device="xpu:7")
    for _ in range(100):
        x = x + 1
    assert x[0].item() == 101
    assert torch.xpu.memory_stats(7)["num_device_alloc"] - before <= 8


def test_out_of_memory() -> None:
    with pytest.raises(torch.OutOfMemoryError, match=r"XPU out of memory\. Tried to allocate"):
        torch.empty(1 << 52, dtype=torch.uint8, device="xpu")


def test_threads_have_their_own_current_device() -> None:
    seen: dict[int, int] = {}
    barrier = threading.Barrier(8, timeout=300)

    def work(index: int) -> None:
        torch.xpu.set_device(index)
        barrier.wait()
        seen[index] = torch.empty(1, device="xpu").get_device()

    threads = [threading.Thread(target=work, args=(i,)) for i in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert seen == {i: i for i in range(8)}
    assert torch.xpu.current_device() == 0


def test_threads_compute_at_once() -> None:
    def work(index: int) -> float:
        device = f"xpu:{index % 8}"
        with torch.xpu.stream(torch.xpu.Stream(device)):
            module = torch.nn.Linear(16, 16, bias=False).to(device)
            torch.nn.init.ones_(module.weight)
            x = torch.ones(4, 16, device=device)
            for step in range(50):
                y = torch.cat([module(x), x[:, : 1 + step % 5]], 1).sum()
            y.backward()
            assert module.weight.grad is not None
            return y.item() + module.weight.grad.sum().item()

    with ThreadPoolExecutor(8) as pool:
        results = list(pool.map(work, range(32)))
    assert set(results) == {4 * 16 * 16 + 4 * 5 + 4.0 * 16 * 16}


def test_memory_freed_by_another_thread() -> None:
    tensors = [torch.full((1000,), float(i), device="xpu:2") for i in range(50)]
    thread = threading.Thread(target=tensors.clear)
    thread.start()
    thread.join()
    assert torch.full((1000,), 3.0, device="xpu:2").sum().item() == 3000


def test_profiler_records_operators_and_memory() -> None:
    x = torch.ones(8, 8, device="xpu:1")
    with torch.profiler.profile(
        activities=[torch.profiler.ProfilerActivity.CPU], profile_memory=True, record_shapes=True
    ) as profile:
        torch.softmax(x @ x, -1)
    names = {event.key for event in profile.key_averages()}
    assert {"aten::mm", "aten::softmax", "aten::_softmax"} <= names
    product = next(event for event in profile.events() if event.name == "aten::mm")
    assert product.input_shapes[:2] == [[8, 8], [8, 8]]
    assert product.device_memory_usage == 512
