"""The host devices of the tests: one of each class, in the order of the classes, whose numbers the indices are."""

from __future__ import annotations

ARCHITECTURES = {
    "oak": 0x30DC00800,
    "elm": 0x30F000700,
    "ash": 0x311800400,
    "fir": 0x501000400,
    "yew": 0x500400400,
    "bay": 0x312800400,
    "legacy": 0x300000000,
    "unknown": 0,
}
HOST_DEVICES = {"QUILLON_HOST_DEVICES": ",".join(map(hex, ARCHITECTURES.values()))}
