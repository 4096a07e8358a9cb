"""Fixtures of the format tests."""

from __future__ import annotations

import pytest

from .shim import Shim


@pytest.fixture(scope="session")
def shim() -> Shim:
    """The C++ rules, compiled by the host compiler."""
    return Shim()
