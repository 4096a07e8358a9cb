"""Device classes and the decision between paths, against rules written apart from them."""

from __future__ import annotations

import pytest
from shim.process import output_of
from shim.spine import SpineShim

from quillon._device_table import ARCHITECTURES as PYTHON_ARCHITECTURES
from quillon._device_table import DEVICE_CLASSES as CLASSES
from quillon._device_table import MAX_DEVICES
from quillon._kernels import ALL_KERNELS, LAUNCHER_TABLES
from quillon.formats import FORMATS

ARCHITECTURES = {
    "legacy": [0x300000000, 0x300400000, 0x300800000, 0x300C00000, 0x301000000],
    "oak": [0x30DC00800, 0x30E000500, 0x30E400000],
    "elm": [0x30F000700],
    "ash": [0x311800400, 0x311C00400],
    "bay": [0x312800400],
    "yew": [0x500400400],
    "fir": [0x501000400],
}
LISTED = [(identifier, name) for name, identifiers in ARCHITECTURES.items() for identifier in identifiers]

# Elements and bytes of a block, by qtype, for every code that has them: the formats and two codes without one.
BLOCKS = {entry.code: (entry.elements, entry.bytes) for entry in FORMATS.values()} | {22: (256, 74), 25: (256, 56)}


def path_in_words(name: str, qtype: int, batch: int, output_size: int) -> str:
    """The decision as prose tells it: what the matrix engine needs, one condition after the other."""
    takes_engine = batch >= 2 and output_size & 15 == 0 and qtype in (2, 8, 15, 19) and name in ("oak", "elm")
    if takes_engine and name == "elm":
        takes_engine = batch < 17
    elif takes_engine:
        takes_engine = batch < 65 and (batch >= 7 or qtype == 15)
    if takes_engine:
        return "matrix engine"
    return name if name in ("legacy", "elm") else "default"


def test_class_names(spine: SpineShim) -> None:
    names = ["oak", "elm", "ash", "fir", "yew", "bay", "legacy", "unknown"]
    assert [spine.class_name(code) for code in range(8)] == names
    assert list(CLASSES) == names


def test_what_python_knows(spine: SpineShim) -> None:
    assert dict(LISTED) == PYTHON_ARCHITECTURES
    assert MAX_DEVICES == 64
    assert spine.qtype_count == 36


def test_launcher_tables() -> None:
    tables = {"elm": "elm", "legacy": "legacy"}
    assert {name: tables.get(name, "default") for name in CLASSES} == LAUNCHER_TABLES


def test_geometry_of_the_launcher_tables() -> None:
    """Sub-group, work-group and rows, as numbers: kernels with 2 or 3 template constants, and 8 rows of q4_0."""
    q4_0 = ("q4_0", "q4_0_woq")
    for kernel in ALL_KERNELS:
        name = kernel.format if kernel.family != "by_batch" else kernel.name
        for table, geometry in kernel.geometries.items():
            sub_group, lanes = (32, 64) if table == "elm" else (16, 32)
            many = name in q4_0 or (kernel.family, name) == ("mlp", "fp6")
            rows = 8 if table == "legacy" and many else 1 if name in ("q5_0", "q5_1") else 2
            expected = {
                "iq2_xxs": ((), 32, 32, 2),
                "q2_k": ((), None, 32, 1),
                "iq1_s": ((), 32, 32, 1),
                "q5_k": ((), 8, 32, 2),
                "q8_1": ((), 32, 256, 1),
            }.get(name)
            if expected is None:
                constants = (sub_group, lanes, rows) if name in (*q4_0, "fp6", "fp6_k") else (sub_group, lanes)
                expected = (constants, sub_group, lanes, rows)
            assert (geometry.constants, geometry.sub_group, geometry.lanes, geometry.rows) == expected, (name, table)


@pytest.mark.parametrize(("identifier", "name"), LISTED, ids=[hex(identifier) for identifier, _ in LISTED])
def test_listed_architecture(spine: SpineShim, identifier: int, name: str) -> None:
    assert CLASSES[spine.classify(identifier)] == name


def test_unlisted_architectures(spine: SpineShim) -> None:
    listed = {identifier for identifier, _ in LISTED}
    neighbours = {identifier + step for identifier in listed for step in (-1, 1, 0x100, 2**32, -(2**32))}
    cut = {identifier & 0xFFFFFFFF for identifier in listed}
    for identifier in (neighbours | cut | {0, 1, 2**64 - 1}) - listed:
        assert CLASSES[spine.classify(identifier)] == "unknown", hex(identifier)


def test_architectures_of_devices() -> None:
    """The module function names the class of devices of every listed identifier, of its neighbour above, and of 0."""
    text = """
        import torch, quillon, vesper_linear
        for index in range(torch.xpu.device_count()):
            print(vesper_linear.get_xpu_device_name(torch.device("xpu", index)))
    """
    identifiers = [identifier for identifier, _ in LISTED]
    declared = [*identifiers, *[identifier + 1 for identifier in identifiers], 0]
    names = output_of(text, QUILLON_HOST_DEVICES=",".join(map(hex, declared))).split()
    assert names == [name for _, name in LISTED] + ["unknown"] * (len(LISTED) + 1)


@pytest.mark.parametrize("device_class", range(8), ids=CLASSES)
def test_every_decision(spine: SpineShim, device_class: int) -> None:
    name = CLASSES[device_class]
    for qtype in range(-1, 37):
        for batch in range(71):
            for output_size in (0, 1, 8, 15, 16, 17, 24, 40, 4096, 4100, 4104, 2**33, 2**33 + 8):
                case = (name, qtype, batch, output_size)
                assert spine.path(device_class, qtype, batch, output_size) == path_in_words(*case), case


@pytest.mark.parametrize("device_class", range(8), ids=CLASSES)
def test_decision_of_batches_past_32_bits(spine: SpineShim, device_class: int) -> None:
    for batch in (2**32 + 2, 2**32 + 8, 2**63, 2**64 - 1):
        assert spine.path(device_class, 2, batch, 4096) != "matrix engine"


@pytest.mark.parametrize(
    ("name", "qtype", "batch", "output_size", "path"),
    [
        ("elm", 2, 1, 4096, "elm"),
        ("elm", 2, 2, 4096, "matrix engine"),
        ("elm", 2, 16, 4096, "matrix engine"),
        ("elm", 2, 17, 4096, "elm"),
        ("oak", 8, 64, 4096, "matrix engine"),
        ("oak", 8, 65, 4096, "default"),
        ("oak", 8, 6, 4096, "default"),
        ("oak", 15, 2, 4096, "matrix engine"),
        ("oak", 15, 6, 4096, "matrix engine"),
        ("oak", 2, 32, 4100, "default"),
        ("oak", 3, 32, 4096, "default"),
        ("legacy", 2, 8, 4096, "legacy"),
        ("unknown", 2, 8, 4096, "default"),
    ],
)
def test_decisions_at_the_edges(
    spine: SpineShim, name: str, qtype: int, batch: int, output_size: int, path: str
) -> None:
    assert spine.path(CLASSES.index(name), qtype, batch, output_size) == path
