"""The dispatcher and the first steps of the q4_0 launcher, through both routes."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import torch

import quillon
import vesper_linear
from quillon._device_table import DEVICE_CLASSES as CLASSES

from .test_tables import BLOCKS, path_in_words

Forward = Callable[..., torch.Tensor]

Q4_0 = 2
VARIABLES = ("TILE_THRESHOLD", "QUILLON_LOW_MEM", "TILE_SIZE")

routes = pytest.mark.parametrize(
    "forward", [vesper_linear.forward_new, torch.ops.quillon.forward_new], ids=["module", "torch.ops"]
)


@pytest.fixture(autouse=True)
def _unset_environment(monkeypatch: pytest.MonkeyPatch) -> None:
    for name in VARIABLES:
        monkeypatch.delenv(name, raising=False)


def _input(batch: int = 1, state_size: int = 64, dtype: torch.dtype = torch.float32, device: int = 7) -> torch.Tensor:
    return torch.zeros(batch, state_size, dtype=dtype, device=f"xpu:{device}")


def _weight(size: int = 34 * 64, device: int = 7) -> torch.Tensor:
    return torch.zeros(size, dtype=torch.uint8, device=f"xpu:{device}")


def _failure(kind: type[Exception], forward: Forward, *arguments: object) -> str:
    with pytest.raises(kind) as error:
        forward(*arguments)
    assert type(error.value) is kind
    return str(error.value)


# ---- sizes -----------------------------------------------------------------------------------------------------


@routes
@pytest.mark.parametrize(
    ("size", "state_size", "output_size"),
    [
        (34 * 64, 64, 64),
        (34 * 64, 1024, 4),
        (34 * 64, 192, 21),  # 4096 / 192 = 21.3
        (34 * 63, 128, 31),  # 63 blocks are 31.5 rows
        (34 * 63, 4096, 0),  # less than a row
        (34 * 64 + 33, 64, 64),  # excess bytes short of a block
        (34 * 65, 64, 65),
        (33, 64, 0),
        (0, 64, 0),
    ],
)
def test_output_size(forward: Forward, size: int, state_size: int, output_size: int) -> None:
    output = forward(_input(state_size=state_size), _weight(size), Q4_0, 0)
    assert output.shape == (1, output_size)


@routes
def test_output_size_of_a_row_length_that_fits_no_block(forward: Forward) -> None:
    """4096 elements over rows of 100 are 40 rows, which the dispatcher lets pass; the kernel wants multiples of 16."""
    text = _failure(RuntimeError, forward, _input(state_size=100), _weight(), Q4_0, 0)
    assert text == "%d must be a multiple of %d10016"


@routes
def test_truncation_where_rows_end_inside_blocks(forward: Forward) -> None:
    """A multiple of 16 that is none of 64 passes; the kernel then reads input past the row, which is there."""
    held = torch.zeros(1, 256, device="xpu:7")
    assert forward(held[:, :112], _weight(), Q4_0, 0).shape == (1, 36)  # 4096 / 112 = 36.6


@routes
def test_weight_is_read_through_its_first_size_alone(forward: Forward) -> None:
    assert forward(_input(), _weight().view(64, 34), Q4_0, 0).shape == (1, 1)


@routes
def test_sizes_of_input_past_the_second_are_ignored(forward: Forward) -> None:
    assert forward(torch.zeros(1, 64, 1, device="xpu:7"), _weight(), Q4_0, 0).shape == (1, 64)


@routes
@pytest.mark.parametrize("shape", [(1024, 0, 192), (34 * 64, 0), (2**40, 0)])
def test_weight_without_bytes(forward: Forward, shape: tuple[int, ...]) -> None:
    """The first size names bytes that are not there."""
    text = _failure(RuntimeError, forward, _input(), torch.zeros(shape, dtype=torch.uint8, device="xpu:7"), Q4_0, 0)
    assert text == (
        f"forward_new: weight of shape {list(shape)} has no bytes; give the flat tensor that a quantizer returns"
    )


@routes
def test_weight_without_bytes_that_no_row_needs(forward: Forward) -> None:
    assert forward(_input(), torch.zeros(33, 0, dtype=torch.uint8, device="xpu:7"), Q4_0, 0).shape == (1, 0)


@routes
@pytest.mark.parametrize("shape", [(1, 64, 0), (1, 64, 3, 0), (2, 64, 0)])
def test_input_without_elements(forward: Forward, shape: tuple[int, ...]) -> None:
    text = _failure(RuntimeError, forward, torch.zeros(shape, device="xpu:7"), _weight(), Q4_0, 0)
    assert text == f"forward_new: input of shape {list(shape)} has no elements"


@routes
@pytest.mark.parametrize("state_size", [64, 2**20])
def test_weight_of_more_elements_than_offsets_count(forward: Forward, state_size: int) -> None:
    weight = torch.empty(34 * 2**31 // 64, dtype=torch.uint8, device="xpu:7")
    text = _failure(RuntimeError, forward, _input(state_size=state_size), weight, Q4_0, 0)
    assert text == (
        f"forward_new: a weight of {2**31 // state_size} rows of {state_size} elements is too large; "
        "a weight has at most 2147483647 elements"
    )


@routes
def test_one_dimensional_input(forward: Forward) -> None:
    text = _failure(IndexError, forward, _input()[0], _weight(), Q4_0, 0)
    assert text == "Dimension out of range (expected to be in range of [-1, 0], but got 1)"
    # Sizes come before the format code.
    assert _failure(IndexError, forward, _input()[0], _weight(), 5, 0) == text
    _failure(IndexError, forward, _input(), _weight()[0], 5, 0)


@routes
@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.float16, torch.bfloat16])
def test_output(forward: Forward, dtype: torch.dtype) -> None:
    input, weight = _input(dtype=dtype, device=3), _weight(device=3)
    output = forward(input, weight, Q4_0, 0)
    assert output.dtype == dtype
    assert output.device == torch.device("xpu", 3)
    assert output.is_contiguous()
    assert not output.requires_grad
    assert torch.equal(output, torch.zeros_like(output))


@routes
def test_input_size_changes_nothing_at_batch_1(forward: Forward) -> None:
    input = torch.randn(1, 64, device="xpu:7")
    weight = torch.randint(0, 60, (34 * 64,), dtype=torch.uint8, device="xpu:7")
    outputs = [forward(input, weight, Q4_0, size) for size in (0, 64, -1, 2**62)]
    assert all(torch.equal(output, outputs[0]) for output in outputs)
    assert outputs[0].isfinite().all()


# ---- format codes ----------------------------------------------------------------------------------------------


@routes
@pytest.mark.parametrize("qtype", [*(q for q in range(36) if q not in BLOCKS), 36, 1000, -1, -2, 2**31 - 1, -(2**31)])
def test_codes_without_a_format(forward: Forward, qtype: int) -> None:
    text = _failure(RuntimeError, forward, _input(), _weight(), qtype, 0)
    assert text.startswith(f"forward_new: qtype {qtype}, a code without a format; the weight formats are q4_0 (2), ")
    assert text.endswith(", q4_0_woq (34)")


@routes
@pytest.mark.parametrize(
    ("qtype", "described"),
    [
        (9, "q8_1 (qtype 9)"),
        (22, "qtype 22, a code without a format"),
        (25, "qtype 25, a code without a format"),
    ],
)
def test_codes_with_sizes_and_no_launcher(forward: Forward, qtype: int, described: str) -> None:
    for device in range(8):
        for batch in (1, 8):
            arguments = (_input(batch, 256, device=device), _weight(74 * 256, device), qtype, 0)
            text = _failure(NotImplementedError, forward, *arguments)
            assert text == f"forward_new: there are no kernels for {described}"


@routes
def test_rows_without_elements(forward: Forward) -> None:
    text = _failure(RuntimeError, forward, _input(state_size=0), _weight(), Q4_0, 0)
    assert text.startswith("forward_new: input has rows of 0 elements (shape [1, 0])")


@pytest.mark.parametrize("device", range(8), ids=CLASSES)
def test_matrix_engine_calls(device: int) -> None:
    """Exactly the calls that the decision gives to the matrix-engine path launch its kernel."""
    for qtype in (2, 3, 8, 15, 19):
        for batch in (1, 2, 6, 7, 16, 17, 64, 65):
            for output_size in (32, 40):
                input = _input(batch, 64, device=device)
                weight = _weight(BLOCKS[qtype][1] * output_size, device)
                with quillon.record_launches() as launches:
                    vesper_linear.forward_new(input, weight, qtype, 0)
                expected = path_in_words(CLASSES[device], qtype, batch, output_size) == "matrix engine"
                found = [launch.kernel.startswith("loom_forward_kernel<") for launch in launches]
                assert any(found) is expected, (qtype, batch, output_size)


# ---- element types and row lengths -----------------------------------------------------------------------------


@routes
@pytest.mark.parametrize(
    ("dtype", "name"),
    [
        (torch.int32, "Int"),
        (torch.int64, "Long"),
        (torch.uint8, "Byte"),
        (torch.bool, "Bool"),
        (torch.complex64, "ComplexFloat"),
        (torch.float8_e4m3fn, "Float8_e4m3fn"),
    ],
)
def test_unsupported_element_type(forward: Forward, dtype: torch.dtype, name: str) -> None:
    input = torch.empty(1, 64, dtype=dtype, device="xpu:7")
    text = _failure(NotImplementedError, forward, input, _weight(), Q4_0, 0)
    assert text == f"\"qlinear_forward_xpu\" not implemented for '{name}'"


@routes
@pytest.mark.parametrize(("dtype", "name"), [(torch.int32, "Int"), (torch.int8, "Char"), (torch.float16, "Half")])
def test_weight_that_is_no_bytes(forward: Forward, dtype: torch.dtype, name: str) -> None:
    weight = torch.zeros(34 * 64, dtype=dtype, device="xpu:7")
    text = _failure(RuntimeError, forward, _input(), weight, Q4_0, 0)
    assert text == f"expected scalar type Byte but found {name}"


@routes
@pytest.mark.parametrize("device", range(8), ids=CLASSES)
@pytest.mark.parametrize("state_size", [1, 8, 15, 17, 40, 63, 72, 1000])
def test_row_length_check(forward: Forward, device: int, state_size: int) -> None:
    arguments = (_input(state_size=state_size, device=device), _weight(device=device), Q4_0, 0)
    assert _failure(RuntimeError, forward, *arguments) == f"%d must be a multiple of %d{state_size}16"


# What the matrix-vector road of each format wants rows to be a multiple of; the others want nothing.
ROW_UNITS = dict.fromkeys((2, 3, 10, 11, 16, 26, 27, 29, 30, 34), 16) | dict.fromkeys((8, 15, 19), 8)


@pytest.mark.parametrize("qtype", ROW_UNITS)
@pytest.mark.parametrize("device", [1, 6, 7], ids=["elm", "legacy", "default"])
def test_row_length_check_of_every_format(qtype: int, device: int) -> None:
    unit = ROW_UNITS[qtype]
    for state_size in (unit // 2, 256 + unit // 2, 257):
        arguments = (_input(state_size=state_size, device=device), _weight(BLOCKS[qtype][1] * 16, device), qtype, 0)
        text = _failure(RuntimeError, vesper_linear.forward_new, *arguments)
        assert text == f"%d must be a multiple of %d{state_size}{unit}"


# ---- environment -----------------------------------------------------------------------------------------------

TOO_LARGE = "9" * 30
BAD_VALUES = [
    (name, value, text)
    for name, parser in (("TILE_THRESHOLD", "stoll"), ("QUILLON_LOW_MEM", "stoll"), ("TILE_SIZE", "stoull"))
    for value, text in (
        ("", f"invalid {parser} argument"),
        ("many", f"invalid {parser} argument"),
        ("x1", f"invalid {parser} argument"),
        ("-", f"invalid {parser} argument"),
        (TOO_LARGE, f"{parser} argument out of range"),
        ("-" + TOO_LARGE, f"{parser} argument out of range"),
    )
]


@routes
@pytest.mark.parametrize(("name", "value", "text"), BAD_VALUES)
def test_bad_value(forward: Forward, name: str, value: str, text: str, monkeypatch: pytest.MonkeyPatch) -> None:
    call = (_input(), _weight(), Q4_0, 0)
    forward(*call)
    monkeypatch.setenv(name, value)
    assert _failure(RuntimeError, forward, *call) == text
    # Read anew on each call.
    monkeypatch.delenv(name)
    forward(*call)


@routes
@pytest.mark.parametrize(
    ("name", "limit"), [("TILE_THRESHOLD", 2**63), ("QUILLON_LOW_MEM", 2**63), ("TILE_SIZE", 2**64)]
)
def test_first_value_out_of_range(forward: Forward, name: str, limit: int, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv(name, str(limit - 1))
    forward(_input(), _weight(), Q4_0, 0)
    monkeypatch.setenv(name, str(limit))
    assert "out of range" in _failure(RuntimeError, forward, _input(), _weight(), Q4_0, 0)


@routes
@pytest.mark.parametrize(
    ("name", "value"),
    [(name, value) for name in VARIABLES for value in (" 12", "12abc", "+5", "-5", "0", "1", "2", "010", "0x10")],
)
def test_values_that_parse(forward: Forward, name: str, value: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Leading blanks, signs and a tail after the digits are the parser's to accept; at batch 1 no value matters."""
    input = torch.randn(1, 64, device="xpu:7")
    weight = torch.randint(0, 60, (34 * 64,), dtype=torch.uint8, device="xpu:7")
    expected = forward(input, weight, Q4_0, 0)
    monkeypatch.setenv(name, value)
    assert torch.equal(forward(input, weight, Q4_0, 0), expected)


@routes
@pytest.mark.parametrize(
    ("threshold", "low_mem", "size", "text"),
    [
        ("no", TOO_LARGE, TOO_LARGE, "invalid stoll argument"),
        (TOO_LARGE, "no", "no", "stoll argument out of range"),
        (None, TOO_LARGE, "no", "stoll argument out of range"),
        (None, "no", TOO_LARGE, "invalid stoll argument"),
        ("1", "1", "no", "invalid stoull argument"),
    ],
)
def test_order_of_reading(
    forward: Forward,
    threshold: str | None,
    low_mem: str | None,
    size: str | None,
    text: str,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    for name, value in zip(VARIABLES, (threshold, low_mem, size), strict=True):
        if value is not None:
            monkeypatch.setenv(name, value)
    assert _failure(RuntimeError, forward, _input(), _weight(), Q4_0, 0) == text


@pytest.mark.parametrize("qtype", [q for q in BLOCKS if q not in (9, 22, 25)])
def test_which_formats_read_what(qtype: int, monkeypatch: pytest.MonkeyPatch) -> None:
    """The element type is wrong as well, so that a launcher which does not read the variable fails by that."""
    reads = {"TILE_THRESHOLD": (2, 8, 19, 29, 34), "QUILLON_LOW_MEM": (2, 29, 34), "TILE_SIZE": (2, 8, 19, 29, 34)}
    call = (_input(state_size=256).int(), _weight(BLOCKS[qtype][1] * 16), qtype, 0)
    for name, readers in reads.items():
        with monkeypatch.context() as environment:
            environment.setenv(name, "no number")
            with pytest.raises(RuntimeError) as error:
                vesper_linear.forward_new(*call)
        parser = "stoull" if name == "TILE_SIZE" else "stoll"
        assert (str(error.value) == f"invalid {parser} argument") is (qtype in readers), (name, str(error.value))


@routes
def test_order_of_failures(forward: Forward, monkeypatch: pytest.MonkeyPatch) -> None:
    """Environment, then the road, then the element type, then the row length."""
    wrong_length = _input(state_size=40)
    wrong_both = wrong_length.int()
    monkeypatch.setenv("TILE_SIZE", "no")
    for input in (_input(batch=3), wrong_both, wrong_length):
        assert _failure(RuntimeError, forward, input, _weight(), Q4_0, 0) == "invalid stoull argument"
    # What the dispatcher and the guards refuse never reaches the launcher.
    assert "a code without a format" in _failure(RuntimeError, forward, _input(), _weight(), 5, 0)
    assert "rows of 0" in _failure(RuntimeError, forward, _input(state_size=0), _weight(), Q4_0, 0)
    assert _failure(RuntimeError, forward, _input(), _weight().cpu(), Q4_0, 0) == "weights must be a XPU tensor"

    monkeypatch.delenv("TILE_SIZE")
    text = _failure(NotImplementedError, forward, wrong_both, _weight(), Q4_0, 0)
    assert text == "\"qlinear_forward_xpu\" not implemented for 'Int'"
    text = _failure(RuntimeError, forward, wrong_length, _weight(), Q4_0, 0)
    assert text == "%d must be a multiple of %d4016"
