"""Packed tensors and layers in the workers of a DataLoader: the right result, or an error that says what is wrong."""

from __future__ import annotations

import os
import textwrap
from pathlib import Path
from typing import Any

import pytest
import torch
from shim.process import output_of
from torch.utils.data import DataLoader, Dataset

import quillon

TESTS = Path(__file__).resolve().parents[1]
FORMATS = ("q4_0", "q6_k", "fp8_e4m3", "iq2_xxs")
COLUMNS, ROWS, ITEMS = 512, 16, 6
FORKED = "(?i)Cannot re-initialize XPU in forked subprocess. To use XPU with multiprocessing, you must use the 'spawn'"


def layer_of(name: str) -> quillon.nn.LowBitLinear:
    torch.manual_seed(0)
    return quillon.nn.LowBitLinear.from_linear(torch.nn.Linear(COLUMNS, ROWS), name)


class Products(Dataset[Any]):
    """Products, made by whoever asks for them, on a device that the layers are put on first or lie on already."""

    def __init__(self, device: str | None) -> None:
        self.layers, self.device = [layer_of(name) for name in FORMATS], device

    def __len__(self) -> int:
        return ITEMS

    def __getitem__(self, index: int) -> torch.Tensor:
        layer = self.layers[index % len(self.layers)]
        x = torch.full((1, COLUMNS), 1.0 + index)
        if self.device is not None:
            layer, x = layer.to(self.device), x.to(self.device)
        return layer(x.to(layer.packed.device))


class Weights(Products):
    """Packed bytes, what they stand for, and bytes that are packed on the spot: work for the CPU alone."""

    def __getitem__(self, index: int) -> Any:
        layer = self.layers[index % len(self.layers)]
        dense = layer.dequantize()
        return layer.packed[index:], dense, quillon.quantize(dense, layer.format.name)


def loaded(dataset: Dataset[Any], context: str, **options: Any) -> list[Any]:
    """Everything that one worker process makes of a dataset, item by item."""
    options = {"batch_size": None, "num_workers": 1, "timeout": 200} | options
    return list(DataLoader(dataset, multiprocessing_context=context, **options))


def same(got: list[Any], expected: list[Any]) -> bool:
    """Whether two lists of tensors, or of tuples of them, hold the same bits, wherever those lie."""
    if len(got) != len(expected):
        return False
    pairs = zip(got, expected, strict=True)
    return all(
        torch.equal(a.cpu(), b.cpu()) if isinstance(a, torch.Tensor) else same(list(a), list(b)) for a, b in pairs
    )


@pytest.fixture
def device() -> str:
    torch.ones(1, device="xpu:7")  # in use from here on
    return "xpu:7"


def test_packed_weights_on_the_cpu_in_forked_workers(device: str) -> None:
    dataset = Weights(None)
    assert same(loaded(dataset, "fork"), list(map(dataset.__getitem__, range(ITEMS))))


def test_a_layer_on_the_cpu_is_told_of_in_any_worker(device: str) -> None:
    with pytest.raises(ValueError, match=r"(?s)in DataLoader worker process 0.*input must be on an XPU"):
        loaded(Products(None), "fork")


@pytest.mark.parametrize("moved", ["before", "in-worker"])
def test_the_device_in_a_worker_forked_after_its_use(device: str, moved: str) -> None:
    dataset = Products(device)
    if moved == "before":
        assert same([dataset[0]], [dataset[0]])
        dataset.layers = [layer.to(device) for layer in dataset.layers]
    with pytest.raises(RuntimeError, match=FORKED):
        loaded(dataset, "fork")


@pytest.mark.parametrize("options", [{}, {"batch_size": 2}], ids=["tensors", "batches"])
def test_tensors_of_the_device_out_of_a_worker_forked_after_its_use(device: str, options: dict[str, Any]) -> None:
    """Also where the worker does nothing but send what it inherited."""
    rows = torch.ones(ITEMS, COLUMNS, device=device)
    with pytest.raises(RuntimeError, match=FORKED):
        loaded(rows, "fork", **options)  # type: ignore[arg-type]


def test_the_device_in_a_worker_forked_before_its_use(device: str) -> None:
    dataset = Products(device)
    text = """
        import torch
        from trust.test_workers import ITEMS, Products, loaded
        got = loaded(Products("xpu:7"), "fork", collate_fn=lambda item: item.cpu())
        print([[float(value).hex() for value in item[0]] for item in got])
    """
    expected = [[float(value).hex() for value in dataset[index][0].cpu()] for index in range(ITEMS)]
    path = os.pathsep.join(filter(None, (str(TESTS), os.environ.get("PYTHONPATH"))))
    assert output_of(textwrap.dedent(text), PYTHONPATH=path) == f"{expected}\n"


def test_the_device_in_spawned_workers(device: str) -> None:
    """What lies on the device goes there by shared memory, and comes back by it."""
    dataset = Products(device)
    expected = [dataset[index] for index in range(ITEMS)]
    dataset.layers, dataset.device = [layer.to(device) for layer in dataset.layers], None
    got = loaded(dataset, "spawn")
    assert {str(one.device) for one in got} == {device}
    assert same(got, expected)
