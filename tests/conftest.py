"""One host device of each class, in class order, for the whole session."""

from __future__ import annotations

import os

# oak, elm, ash, fir, yew, bay, legacy, unknown: device index = class number.
os.environ["QUILLON_HOST_DEVICES"] = (
    "0x30DC00800,0x30F000700,0x311800400,0x501000400,0x500400400,0x312800400,0x300000000,0"
)

# Brings them up ahead of every test module that imports vesper_linear.
import quillon  # noqa: F401
