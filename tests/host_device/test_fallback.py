"""How the fallback calls a CPU kernel: with how many threads."""

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
