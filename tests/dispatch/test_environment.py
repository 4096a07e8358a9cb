"""The environment variables of the launchers: values, and the C++ exceptions of bad ones."""

from __future__ import annotations

import ctypes

import pytest
from shim.build import load_shim

READERS = {
    "TILE_THRESHOLD": ("shim_tile_threshold", "stoll", 50000),
    "QUILLON_LOW_MEM": ("shim_low_mem", "stoll", 0),
    "TILE_SIZE": ("shim_tile_size", "stoull", 4096),
}
variables = pytest.mark.parametrize("name", READERS)


def read(name: str) -> int | tuple[str, str]:
    """The value, or the exception's type and text."""
    value, text = ctypes.c_longlong(), ctypes.create_string_buffer(200)
    function = getattr(load_shim("environment_shim"), READERS[name][0])
    function.argtypes = [ctypes.POINTER(ctypes.c_longlong), ctypes.c_char_p, ctypes.c_size_t]
    outcome = function(ctypes.byref(value), text, len(text))
    return value.value if outcome == 0 else (["invalid_argument", "out_of_range"][outcome - 1], text.value.decode())


@variables
def test_default(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv(name, raising=False)
    assert read(name) == READERS[name][2]


@pytest.mark.parametrize(
    ("name", "text", "value"),
    [
        ("TILE_THRESHOLD", " -12 rows", -12),
        ("TILE_THRESHOLD", "9223372036854775807", 2**63 - 1),
        ("QUILLON_LOW_MEM", "1", 1),
        ("QUILLON_LOW_MEM", "+1x", 1),
        ("QUILLON_LOW_MEM", "2", 0),
        ("QUILLON_LOW_MEM", "-1", 0),
        ("TILE_SIZE", "0x10", 0),
        ("TILE_SIZE", "4097", 4097),
    ],
)
def test_value(name: str, text: str, value: int, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv(name, text)
    assert read(name) == value


@variables
@pytest.mark.parametrize("text", ["", "many", "-", "x1"])
def test_no_number(name: str, text: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv(name, text)
    assert read(name) == ("invalid_argument", f"invalid {READERS[name][1]} argument")


@variables
@pytest.mark.parametrize("sign", ["", "-"])
def test_out_of_range(name: str, sign: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv(name, sign + "9" * 30)
    assert read(name) == ("out_of_range", f"{READERS[name][1]} argument out of range")
