"""How the fallback calls a CPU kernel: with how many threads, and who owns the memory afterwards."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
import torch

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")


@pytest.fixture
def two_threads() -> Iterator[None]:
    threads = torch.get_num_threads()
    torch.set_num_threads(2)
    yield
    torch.set_num_threads(threads)


@pytest.mark.filterwarnings("ignore:.*Overriding a previously registered kernel")
@pytest.mark.parametrize(
    ("operator", "call", "threads"),
    [
        ("lgamma", torch.lgamma, 1),  # "mm" is part of the name
        ("upsample_bilinear2d", lambda x: torch.nn.functional.interpolate(x, (4, 4), mode="bilinear"), 1),
        ("linalg_vector_norm", torch.linalg.vector_norm, 1),
        ("add.Tensor", lambda x: x + x, 1),
        ("bmm", lambda x: x[0] @ x[0], 2),
        ("baddbmm_", lambda x: x[0].clone().baddbmm_(x[0], x[0]), 2),
        ("convolution", lambda x: torch.nn.functional.conv2d(x, x), 2),
        ("linalg_inv_ex", torch.linalg.inv_ex, 2),
    ],
)
def test_only_work_that_outgrows_its_data_takes_all_threads(
    two_threads: None, operator: str, call: Callable[[torch.Tensor], object], threads: int
) -> None:
    seen: list[int] = []

    def kernel(*_args: object, **_kwargs: object) -> object:
        seen.append(torch.get_num_threads())
        raise NotImplementedError("seen")

    with torch.library._scoped_library("aten", "IMPL") as library:
        library.impl(operator, kernel, "CPU", allow_override=True)
        with pytest.raises(NotImplementedError, match="seen"):
            call(torch.ones(1, 2, 2, 2, device=DEVICE))
    assert seen == [threads]


def test_a_kernel_may_keep_its_argument() -> None:
    kept: list[torch.Tensor] = []
    with torch.library._scoped_library("host_device_test", "FRAGMENT") as library:
        library.define("keep(Tensor x) -> ()")
        library.impl("keep", lambda x: kept.append(x), "CPU")
        x = torch.arange(1000.0, device=DEVICE)
        torch.ops.host_device_test.keep(x)
        x[0] = 5
        assert kept[0].device.type == "cpu"
        assert kept[0][0] == 5  # the same memory
        del x
        others = [torch.zeros(1000, device=DEVICE) for _ in range(3)]
    assert kept[0].sum() == 5 + sum(range(1000))
    assert not any(other.any() for other in others)


def test_a_kernel_may_keep_its_result() -> None:
    kept = torch.zeros(0)
    with torch.library._scoped_library("host_device_test", "FRAGMENT") as library:

        def table(x: torch.Tensor) -> torch.Tensor:
            nonlocal kept
            if kept.numel() == 0:
                kept = x * 2
            return kept

        library.define("table(Tensor x) -> Tensor")
        library.impl("table", table, "CPU")
        first = torch.ops.host_device_test.table(torch.arange(1000.0, device=DEVICE))
        second = torch.ops.host_device_test.table(first)
        assert first.device == second.device == DEVICE
        second[0] = 7
        assert first[0].item() == kept[0].item() == 7
        del first, second
        others = [torch.zeros(1000, device=DEVICE) for _ in range(3)]
    assert kept.sum() == 7 + sum(range(0, 2000, 2))
    assert not any(other.any() for other in others)


def test_a_resized_argument_that_a_kernel_keeps() -> None:
    kept: list[torch.Tensor] = []
    with torch.library._scoped_library("host_device_test", "FRAGMENT") as library:
        library.define("grow(Tensor(a!) x) -> ()")
        library.impl("grow", lambda x: kept.append(x.resize_(1000).fill_(3)), "CPU")
        x = torch.zeros(10, device=DEVICE)
        torch.ops.host_device_test.grow(x)
        assert x.tolist() == [3.0] * 1000
        x.fill_(4)
        del x
        others = [torch.zeros(1000, device=DEVICE) for _ in range(3)]
    assert kept[0].tolist() == [4.0] * 1000
    assert not any(other.any() for other in others)
