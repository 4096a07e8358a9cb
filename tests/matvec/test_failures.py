"""Texts of all failures of a batch-1 call, and which of several comes first."""

from __future__ import annotations

import os
import subprocess
import sys
from itertools import pairwise

import pytest
import torch
from formats.decoders import FORMATS

import vesper_linear

from .harness import DTYPES, TORCH
from .reference import KERNELS

DEVICE = "xpu:7"
CHECKED = {name: kernel for name, kernel in KERNELS.items() if kernel.sub_blk_h is not None}

# The variables that each launcher reads, in order.
ALL_THREE = ("TILE_THRESHOLD", "QUILLON_LOW_MEM", "TILE_SIZE")
READ = {
    "q4_0": ALL_THREE,
    "fp6": ALL_THREE,
    "q4_0_woq": ALL_THREE,
    "q8_0": ("TILE_THRESHOLD", "TILE_SIZE"),
    "fp8_e5m2": ("TILE_THRESHOLD", "TILE_SIZE"),
}
PARSER = {"TILE_THRESHOLD": "stoll", "QUILLON_LOW_MEM": "stoll", "TILE_SIZE": "stoull"}


def call(format_name: str, dtype: torch.dtype = torch.float32, batch: int = 1, k: int = 64) -> torch.Tensor:
    entry = FORMATS[format_name]
    weight = torch.zeros(entry.bytes * 6, dtype=torch.uint8, device=DEVICE)
    return vesper_linear.forward_new(torch.ones(batch, k, dtype=dtype, device=DEVICE), weight, entry.qtype, 0)


def message(error: BaseException) -> str:
    """The text without the C++ stack that PyTorch may put behind it."""
    return str(error).split("\nException raised from")[0]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("format_name", CHECKED)
def test_state_size(format_name: str, dtype: str) -> None:
    unit = CHECKED[format_name].sub_blk_h
    assert unit is not None
    for k in (unit // 2, unit + unit // 2, 3 * unit + 1):
        with pytest.raises(RuntimeError) as caught:
            call(format_name, TORCH[dtype], k=k)
        assert message(caught.value) == f"%d must be a multiple of %d{k}{unit}"


@pytest.mark.parametrize("format_name", ["q5_0", "q5_1"])
def test_state_size_is_not_checked(format_name: str) -> None:
    assert call(format_name, k=24).shape == (1, 16)


@pytest.mark.parametrize("format_name", KERNELS)
@pytest.mark.parametrize(
    ("dtype", "name"), [(torch.int32, "Int"), (torch.bool, "Bool"), (torch.complex64, "ComplexFloat")]
)
def test_element_type(format_name: str, dtype: torch.dtype, name: str) -> None:
    """Before the check of state_size."""
    for k in (64, 12):
        with pytest.raises(RuntimeError) as caught:
            call(format_name, dtype, k=k)
        assert message(caught.value) == f"\"qlinear_forward_xpu\" not implemented for '{name}'"


@pytest.mark.parametrize("format_name", KERNELS)
def test_weight_type(format_name: str) -> None:
    weight = torch.zeros(FORMATS[format_name].bytes, dtype=torch.int8, device=DEVICE)
    with pytest.raises(RuntimeError, match="expected scalar type Byte but found Char"):
        vesper_linear.forward_new(torch.ones(1, 64, device=DEVICE), weight, FORMATS[format_name].qtype, 0)


@pytest.mark.parametrize(("text", "words"), [
    ("many", "invalid {} argument"),
    ("", "invalid {} argument"),
    ("9" * 30, "{} argument out of range"),
])  # fmt: skip
@pytest.mark.parametrize("format_name", KERNELS)
def test_environment(format_name: str, text: str, words: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """A bad value comes before everything else; launchers that do not read a variable do not mind."""
    for variable in ALL_THREE:
        with monkeypatch.context() as patch:
            patch.setenv(variable, text)
            if variable not in READ.get(format_name, ()):
                call(format_name)
                continue
            for arguments in ({}, {"batch": 3}, {"dtype": torch.int32}, {"k": 12}):
                with pytest.raises(RuntimeError) as caught:
                    call(format_name, **arguments)
                assert str(caught.value) == words.format(PARSER[variable])


@pytest.mark.parametrize("format_name", READ)
def test_order_of_variables(format_name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """The first of two bad values is the one that shows."""
    variables = READ[format_name]
    for first, second in pairwise(variables):
        with monkeypatch.context() as patch:
            patch.setenv(first, "9" * 30)
            patch.setenv(second, "many")
            with pytest.raises(RuntimeError) as caught:
                call(format_name)
            assert str(caught.value) == f"{PARSER[first]} argument out of range"


@pytest.mark.parametrize("format_name", READ)
def test_values_change_nothing(format_name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    expected = call(format_name).cpu()
    for values in (("0", "1", "1"), ("-5", "0", "0"), ("12 rows", " 1", "+7")):
        for variable, value in zip(ALL_THREE, values, strict=True):
            monkeypatch.setenv(variable, value)
        assert torch.equal(call(format_name).cpu(), expected)


SITES = """
import torch, quillon
for qtype, k in {cases}:
    weight = torch.zeros({bytes}, dtype=torch.uint8, device="xpu")
    try:
        torch.ops.quillon.forward_new(torch.ones(1, k, device="xpu"), weight, qtype, 0)
    except RuntimeError as error:
        print([line for line in str(error).splitlines() if line.startswith("Exception raised from")])
"""


def test_check_sites() -> None:
    """The check carries the name of the kernel, which PyTorch shows on request."""
    cases = [(FORMATS[name].qtype, 3 * kernel.sub_blk_h // 2) for name, kernel in CHECKED.items() if kernel.sub_blk_h]
    script = SITES.format(cases=cases, bytes=34 * 36 * 25 * 68)
    environment = os.environ | {
        "TORCH_SHOW_CPP_STACKTRACES": "1",
        "TORCH_DISABLE_ADDR2LINE": "1",
        "PYTHONPATH": os.pathsep.join(filter(None, sys.path)),
    }
    result = subprocess.run(
        [sys.executable, "-c", script], env=environment, capture_output=True, text=True, timeout=300, check=True
    )
    lines = result.stdout.splitlines()
    assert len(lines) == len(CHECKED)
    for line, kernel in zip(lines, CHECKED.values(), strict=True):
        assert f"Exception raised from qlinear_xpu_kernel_{kernel.name} at " in line
