"""One host device of each class, in class order, for the whole session; and a sample of the large grids."""

from __future__ import annotations

import os
import zlib

import pytest
from shim.devices import HOST_DEVICES

os.environ.update(HOST_DEVICES)

# Brings them up ahead of every test module that imports vesper_linear.
import quillon  # noqa: F401


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--whole-grids", action="store_true", help="run every case of the large grids in place of a fixed sample"
    )


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Leave out what a ``grid(share)`` is too large for; which cases stay follows from their names alone."""
    if config.getoption("--whole-grids"):
        return
    left_out = []
    for item in items:
        grid = item.get_closest_marker("grid")
        if grid is not None and zlib.crc32(item.nodeid.encode()) >= grid.args[0] * 2**32:
            left_out.append(item)
    if left_out:
        config.hook.pytest_deselected(items=left_out)
        gone = set(left_out)
        items[:] = [item for item in items if item not in gone]
