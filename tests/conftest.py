"""Eight host devices, one of each class, for every test of the process."""

from __future__ import annotations

import os

# Classes oak, elm, ash, fir, yew, bay, legacy, unknown, in index order.
os.environ["QUILLON_HOST_DEVICES"] = (
    "0x30DC00800,0x30F000700,0x311800400,0x501000400,0x500400400,0x312800400,0x300000000,0"
)

import quillon  # noqa: E402, F401
