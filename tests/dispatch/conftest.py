"""Fixtures."""

from __future__ import annotations

import pytest
from shim.spine import SpineShim

import quillon  # noqa: F401  (brings the host device up before anything asks for it)


@pytest.fixture(scope="session")
def spine() -> SpineShim:
    """The C++ rules that need no device."""
    return SpineShim()
