"""Streams and events, with work that is pending for sure."""

from __future__ import annotations

import time
from collections.abc import Callable

import pytest
import torch

import quillon  # noqa: F401  (brings the device up)

Fill = Callable[[torch.Tensor, int, torch.xpu.Stream], None]

BYTES = 64 << 20


@pytest.fixture
def block() -> torch.Tensor:
    return torch.zeros(BYTES, dtype=torch.uint8, device="xpu:1")


@pytest.fixture
def stream() -> torch.xpu.Stream:
    return torch.xpu.current_stream("xpu:1")


READS: list[Callable[[torch.Tensor], int]] = [
    lambda block: int(block[-1].item()),
    lambda block: int(block.cpu()[-1]),
    lambda block: int(block.to("xpu:2")[-1]),
    lambda block: int((block[-5:] + 0)[-1]),
    lambda block: int(torch.empty(1, dtype=torch.uint8).copy_(block[-1:])),
    lambda block: int(torch.stack([torch.zeros_like(block[-1:]), block[-1:]])[1]),
    lambda block: int(block.clone()[-1]),
    lambda block: block[-1:].tolist()[0],
]


@pytest.mark.parametrize("read", READS)
def test_reading_waits(
    block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill, read: Callable[[torch.Tensor], int]
) -> None:
    fill_slowly(block, 42, stream)
    assert read(block) == 42
    assert stream.query()


def test_writing_waits(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    fill_slowly(block, 42, stream)
    block[-1] = 7
    assert block[-1].item() == 7
    fill_slowly(block, 42, stream)
    block.copy_(torch.full((BYTES,), 8, dtype=torch.uint8))
    torch.xpu.synchronize(1)
    assert block[-1].item() == 8


def test_views_and_allocations_do_not_wait(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    fill_slowly(block, 42, stream)
    view = block.view(2, -1)[1]
    torch.empty(10, device="xpu:1")
    torch.ones(3, device="xpu:2").sum().item()  # another device has other streams
    assert not stream.query()
    assert view[-1].item() == 42


def test_memory_of_the_same_stream_is_reused_in_order(stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    first = torch.empty(BYTES, dtype=torch.uint8, device="xpu:1")
    address = first.data_ptr()
    fill_slowly(first, 1, stream)
    del first
    second = torch.empty(BYTES, dtype=torch.uint8, device="xpu:1")
    assert second.data_ptr() == address
    second.fill_(2)  # after the fill of what was there before
    torch.xpu.synchronize(1)
    assert second[-1].item() == 2


def test_wait_stream(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    side = torch.xpu.Stream("xpu:1")
    assert side != stream
    fill_slowly(block, 13, side)
    stream.wait_stream(side)
    assert not stream.query()
    assert block[-1].item() == 13


def test_operators_wait_for_the_current_stream_only(block: torch.Tensor, fill_slowly: Fill) -> None:
    side = torch.xpu.Stream("xpu:1")
    fill_slowly(block, 13, side)
    assert torch.ones(2, device="xpu:1").sum().item() == 2
    assert not side.query()
    with torch.xpu.stream(side):
        assert torch.xpu.current_stream() == side
        assert torch.xpu.current_device() == 1
        assert block[-1].item() == 13
    assert torch.xpu.current_stream("xpu:1") != side
    assert torch.xpu.current_device() == 0


def test_synchronize_waits_for_all_streams(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    side = torch.xpu.Stream("xpu:1")
    half = BYTES // 2
    fill_slowly(block[:half], 3, stream)
    fill_slowly(block[half:], 4, side)
    torch.xpu.synchronize("xpu:1")
    assert stream.query()
    assert side.query()
    assert (block[half - 1].item(), block[half].item()) == (3, 4)


def test_events(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    event = torch.xpu.Event()
    assert event.query()
    fill_slowly(block, 5, stream)
    event.record(stream)
    assert not event.query()
    side = torch.xpu.Stream("xpu:1")
    event.wait(side)
    assert not side.query()
    event.synchronize()
    assert event.query()
    assert stream.query()
    assert block[-1].item() == 5
    assert "sycl_event=0x" in repr(event)


def test_timed_events(block: torch.Tensor, stream: torch.xpu.Stream, fill_slowly: Fill) -> None:
    start, end = (torch.xpu.Event(enable_timing=True) for _ in range(2))
    before = time.perf_counter()
    start.record(stream)
    fill_slowly(block, 5, stream)
    end.record(stream)
    end.synchronize()
    wall = (time.perf_counter() - before) * 1e3
    assert 0.5 * wall < start.elapsed_time(end) <= wall
    idle = torch.xpu.Event(enable_timing=True)
    time.sleep(0.05)
    idle.record(stream)  # on an idle stream it tells the time all the same
    idle.synchronize()
    assert end.elapsed_time(idle) >= 50
    untimed = torch.xpu.Event()
    untimed.record(stream)
    untimed.synchronize()
    with pytest.raises(ValueError, match="Both events must be created with argument 'enable_timing=True'"):
        untimed.elapsed_time(end)


def test_record_stream_keeps_memory_until_the_other_stream_is_done(fill_slowly: Fill) -> None:
    side = torch.xpu.Stream("xpu:1")
    block = torch.empty(BYTES, dtype=torch.uint8, device="xpu:1")
    address = block.data_ptr()
    fill_slowly(block, 5, side)
    block.record_stream(side)
    del block
    other = torch.empty(BYTES, dtype=torch.uint8, device="xpu:1")
    assert other.data_ptr() != address
    side.synchronize()
    assert torch.empty(BYTES, dtype=torch.uint8, device="xpu:1").data_ptr() == address


def test_streams_of_the_pool() -> None:
    streams = [torch.xpu.Stream("xpu:1") for _ in range(33)]
    assert len({s.sycl_queue for s in streams}) == 32  # round robin
    assert all(s.device == torch.device("xpu:1") for s in streams)
    assert torch.xpu.Stream.priority_range() == (1, -1)
    assert [torch.xpu.Stream(priority=p).priority for p in (-5, -1, 0, 1, 5)] == [-1, -1, 0, 1, 1]
    assert torch.xpu.current_stream(2) == torch.xpu.current_stream(2)
    assert torch.xpu.current_stream(2) != torch.xpu.current_stream(3)
    assert len(set(streams)) == 32


def test_generic_streams_are_the_same_streams(block: torch.Tensor, fill_slowly: Fill) -> None:
    side = torch.Stream("xpu:1")
    native = torch.xpu.Stream(stream_id=side.stream_id, device_index=1, device_type=side.device_type)
    fill_slowly(block, 6, native)
    event = side.record_event()
    assert not event.query()
    torch.accelerator.current_stream("xpu:1").wait_event(event)
    assert block[-1].item() == 6
    assert side.query()


def test_external_queue(block: torch.Tensor, fill_slowly: Fill) -> None:
    own = torch.xpu.Stream("xpu:1")
    external = torch.xpu.get_stream_from_external(own.sycl_queue, "xpu:1")
    assert external.sycl_queue == own.sycl_queue
    fill_slowly(block, 9, external)
    with torch.xpu.stream(external):
        assert block[-1].item() == 9


def test_backward_runs_on_the_streams_of_forward(block: torch.Tensor, fill_slowly: Fill) -> None:
    side = torch.xpu.Stream("xpu:1")
    used: list[int] = []

    class Probe(torch.autograd.Function):
        @staticmethod
        def forward(ctx: object, x: torch.Tensor) -> torch.Tensor:
            return x.clone()

        @staticmethod
        def backward(ctx: object, grad: torch.Tensor) -> torch.Tensor:
            used.append(torch.xpu.current_stream("xpu:1").stream_id)
            return grad

    x = torch.ones(3, device="xpu:1", requires_grad=True)
    with torch.xpu.stream(side):
        y = Probe.apply(x).sum()
    y.backward()
    assert used == [side.stream_id]
