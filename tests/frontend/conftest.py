"""Fixtures."""

from __future__ import annotations

import pytest
from shim.spine import SpineShim


@pytest.fixture(scope="session")
def spine() -> SpineShim:
    """The C++ rules that need no device."""
    return SpineShim()
