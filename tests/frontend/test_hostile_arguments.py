"""Every function, called hundreds of times with arguments of any kind: an error or a result, never a crash.

The calls are those of tests/trust/fuzz.py, which makes tens of thousands of them.
"""

from __future__ import annotations

import pytest
import torch
from torch._subclasses.fake_tensor import FakeTensorMode
from trust import fuzz

import vesper_linear

CALLS = 200


@pytest.mark.parametrize("name", fuzz.functions())
def test_any_arguments(name: str) -> None:
    outcomes, problem = fuzz.run_worker(name, CALLS, seed=5, timeout=400)
    assert not problem, problem
    assert outcomes["result"] + outcomes["error"] == CALLS
    assert outcomes["result"] > 0
    assert outcomes["error"] > 0 or name == "get_xpu_device_name"


@pytest.mark.parametrize("bytes_left", [0, 100])
def test_memory_that_was_taken_from_a_tensor(bytes_left: int) -> None:
    def cut(tensor: torch.Tensor) -> torch.Tensor:
        tensor.untyped_storage().resize_(bytes_left)
        return tensor

    def row() -> torch.Tensor:
        return torch.ones(1, 256, device="xpu:7")

    def weight() -> torch.Tensor:
        return torch.zeros(2176, dtype=torch.uint8, device="xpu:7")

    numbers = torch.zeros(64, 1, dtype=torch.int64, device="xpu:7")
    with pytest.raises(RuntimeError, match=f"forward_new: weight must have 2176 bytes .* got {bytes_left} in"):
        vesper_linear.forward_new(row(), cut(weight()), 2, 256)
    with pytest.raises(RuntimeError, match="forward_new: input must have 1024 bytes"):
        vesper_linear.forward_new(cut(row()), weight(), 2, 256)
    with pytest.raises(RuntimeError, match="dequant: weight must have 2176 bytes"):
        vesper_linear.dequant(row(), cut(weight()), 2)
    with pytest.raises(RuntimeError, match="dequantize_rows: weight must have 2176 bytes"):
        vesper_linear.dequantize_rows(numbers, cut(weight()), 23, 256, 16)
    with pytest.raises(RuntimeError, match="expand_weight: weight must have 2176 bytes"):
        torch.ops.quillon_kernels.expand_weight(cut(weight()), row().new_empty(16, 256), 2)
    with pytest.raises(RuntimeError, match="get_moe_indexes: ids must have 512 bytes"):
        vesper_linear.get_moe_indexes(cut(numbers), 4)


def test_tensors_without_memory() -> None:
    """A fake tensor says that it is on the device, and has no address."""
    given = [torch.ones(shape, device="xpu:7") for shape in ((64,), (64,), (2, 3, 64), (2, 3, 64))]
    states = [torch.ones(2, 64, device="xpu:7") for _ in range(3)]
    with FakeTensorMode(allow_non_fake_inputs=True) as mode:
        fake = mode.from_tensor(given[0])
    with pytest.raises(RuntimeError, match="time_decay has no memory"):
        vesper_linear.rwkv_linear_attention_v4(fake, *given[1:], *states)


def test_shapes_of_no_columns_are_refused_for_fake_tensors_too() -> None:
    with FakeTensorMode():
        row, weight = torch.ones(1, 0, device="xpu:7"), torch.zeros(34, dtype=torch.uint8, device="xpu:7")
        for operator, more in ((torch.ops.quillon.dequant, ()), (torch.ops.quillon.forward_new, (0,))):
            with pytest.raises(RuntimeError, match="input has rows of 0 elements"):
                operator(row, weight, 2, *more)
