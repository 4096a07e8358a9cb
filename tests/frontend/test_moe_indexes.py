"""get_moe_indexes: for each expert, the slots and tokens that go to it."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import pytest
import torch
from hypothesis import given
from hypothesis import strategies as st

from vesper_linear import get_moe_indexes

Lists = list[list[list[int]]]


def _ids(rows: list[list[int]]) -> torch.Tensor:
    return torch.tensor(rows, dtype=torch.int32)


def _naive(rows: list[list[int]], num_experts: int) -> Lists:
    places = [(slot, token, e) for token, row in enumerate(rows) for slot, e in enumerate(row)]
    return [[[place[i] for place in places if place[2] == e] for e in range(num_experts)] for i in (0, 1)]


def test_small_case() -> None:
    assert get_moe_indexes(_ids([[1, 0], [1, 2]]), 3) == [[[1], [0, 0], [1]], [[0], [0, 1], [1]]]


def test_types_of_the_result() -> None:
    result = get_moe_indexes(_ids([[0]]), 1)
    assert type(result) is list
    assert type(result[0]) is list
    assert type(result[0][0]) is list
    assert type(result[0][0][0]) is int


def test_expert_that_no_token_chose() -> None:
    assert get_moe_indexes(_ids([[3, 1]]), 5) == [[[], [1], [], [0], []], [[], [0], [], [0], []]]


def test_no_tokens() -> None:
    assert get_moe_indexes(torch.empty(0, 2, dtype=torch.int32), 3) == [[[], [], []], [[], [], []]]
    assert get_moe_indexes(torch.empty(0, 2, dtype=torch.int32), 0) == [[], []]


def test_no_slots() -> None:
    assert get_moe_indexes(torch.empty(4, 0, dtype=torch.int32), 2) == [[[], []], [[], []]]


def test_token_that_names_an_expert_twice() -> None:
    assert get_moe_indexes(_ids([[0, 0], [1, 0]]), 2) == [[[0, 1, 1], [0]], [[0, 0, 1], [1]]]


@given(
    st.integers(1, 20).flatmap(
        lambda experts: st.integers(0, 5).flatmap(
            lambda cols: st.tuples(
                st.lists(st.lists(st.integers(0, experts - 1), min_size=cols, max_size=cols), max_size=12),
                st.just(cols),
                st.just(experts),
            )
        )
    )
)
def test_agrees_with_the_naive_form(case: tuple[list[list[int]], int, int]) -> None:
    rows, cols, experts = case
    ids = torch.tensor(rows, dtype=torch.int32).reshape(len(rows), cols)
    assert get_moe_indexes(ids, experts) == _naive(rows, experts)


def _failure(ids: torch.Tensor, num_experts: int = 12) -> str:
    with pytest.raises(RuntimeError) as error:
        get_moe_indexes(ids, num_experts)
    assert type(error.value) is RuntimeError
    return str(error.value)


HELD = torch.arange(12, dtype=torch.int32).reshape(3, 4)


@pytest.mark.parametrize("device", ["cpu", "xpu:3"])
@pytest.mark.parametrize(
    ("view", "shown"),
    [
        (lambda ids: ids.t(), "shape [4, 3] with strides [1, 4]"),
        (lambda ids: ids[:, ::2], "shape [3, 2] with strides [4, 2]"),
        (lambda ids: ids[:, 1:3], "shape [3, 2] with strides [4, 1]"),
        (lambda ids: ids[:1].expand(50, 4), "shape [50, 4] with strides [0, 1]"),
        (lambda ids: ids[:1, :1].expand(1, 4096), "shape [1, 4096] with strides [4, 0]"),
    ],
    ids=["transposed", "every second", "columns", "expanded rows", "expanded columns"],
)
def test_ids_that_are_not_contiguous(view: Callable[[torch.Tensor], torch.Tensor], shown: str, device: str) -> None:
    ids = view(HELD.to(device))
    assert _failure(ids) == f"ids must be contiguous, got {shown}; give ids.contiguous()"
    assert get_moe_indexes(ids.contiguous(), 12) == _naive(ids.tolist(), 12)


def test_contiguous_views() -> None:
    assert get_moe_indexes(HELD[1:], 12) == _naive(HELD[1:].tolist(), 12)
    assert get_moe_indexes(HELD[:1, 1:3], 12) == _naive([[1, 2]], 12)
    assert get_moe_indexes(HELD[:, :0], 2) == [[[], []], [[], []]]


@pytest.mark.parametrize("shape", [(), (4,), (256, 7, 0), (2, 2, 1), (0, 3, 5)])
def test_ids_of_other_than_two_dimensions(shape: tuple[int, ...]) -> None:
    text = _failure(torch.zeros(shape, dtype=torch.int32))
    assert text == f"ids must have two dimensions, tokens by top-k slots, got shape {list(shape)}"


@pytest.mark.parametrize("shape", [(2**31, 1), (1, 2**31)])
def test_more_rows_or_columns_than_an_entry_can_count(shape: tuple[int, int], tmp_path: Path) -> None:
    held = torch.from_file(str(tmp_path / "sparse"), shared=True, size=2**31, dtype=torch.int32)
    text = _failure(held.view(shape))
    assert text == f"ids has shape {list(shape)}, but rows and columns are counted in 32 bits"


def test_empty_ids_of_any_length() -> None:
    assert get_moe_indexes(torch.empty(2**31, 0, dtype=torch.int32), 1) == [[[]], [[]]]
    assert get_moe_indexes(torch.empty(0, 2**40, dtype=torch.int32), 1) == [[[]], [[]]]


def test_ids_without_data() -> None:
    with pytest.raises(NotImplementedError, match="Cannot copy out of meta tensor"):
        get_moe_indexes(torch.zeros(2, 2, dtype=torch.int32, device="meta"), 1)


def test_tensor_on_the_host_device() -> None:
    assert get_moe_indexes(_ids([[1, 0]]).to("xpu:3"), 2) == [[[1], [0]], [[0], [0]]]


@pytest.mark.parametrize(("expert", "num_experts"), [(3, 3), (100, 3), (-1, 3), (-(2**31), 1), (2**31 - 1, 4), (0, 0)])
def test_expert_number_out_of_range(expert: int, num_experts: int) -> None:
    with pytest.raises(RuntimeError) as error:
        get_moe_indexes(_ids([[expert]]), num_experts)
    assert str(error.value) == (
        f"ids[0][0] is expert {expert}, but an expert number must be at least 0 and below num_experts, "
        f"which is {num_experts}"
    )


def test_place_of_the_first_wrong_expert() -> None:
    with pytest.raises(RuntimeError, match=r"^ids\[1\]\[2\] is expert 7,.* which is 7$"):
        get_moe_indexes(_ids([[0, 1, 2], [6, 5, 7], [9, 0, 0]]), 7)


@pytest.mark.parametrize(
    ("dtype", "name"), [(torch.int64, "Long"), (torch.int16, "Short"), (torch.uint8, "Byte"), (torch.float32, "Float")]
)
def test_wrong_element_type(dtype: torch.dtype, name: str) -> None:
    with pytest.raises(RuntimeError) as error:
        get_moe_indexes(torch.zeros(2, 2, dtype=dtype), 3)
    assert str(error.value) == f"expected scalar type Int but found {name}"


@pytest.mark.parametrize("num_experts", [-1, -(2**31), -(2**63), 2**63 - 1])
def test_length_that_no_vector_has(num_experts: int) -> None:
    with pytest.raises(RuntimeError) as error:
        get_moe_indexes(_ids([[0]]), num_experts)
    assert str(error.value) == "vector too long"
