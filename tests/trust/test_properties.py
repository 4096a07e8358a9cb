"""What every product has to satisfy whatever its weight is: no reference but the operator itself.

A weight is made in fields, so that its rows can be permuted and its columns cut without knowing how a format stores
them.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np
import pytest
import torch
from dispatch.test_roads import Call, road_in_words
from formats.decoders import FORMATS, Array, Fields, decode, pack, split
from matvec.harness import TORCH, device_of, random_weight

import quillon
import vesper_linear
from quillon.formats import WEIGHT_FORMATS

ROWS, COLUMNS = 32, 1024
SCALE_TABLES = ("iq2_xxs", "q2_k", "iq1_s")  # their single rows meet activations of eight bits
# Where single rows and batches do not mean the same weight, by definition: nibbles in another order, scales left out or
# put in, the bit behind the code.
OTHER_VALUES = {("q4_0_woq", "by_batch"), ("fp8_e4m3", "engine"), ("fp8_e5m2", "engine"), ("fp8_e5m2", "dense")}


@dataclass(frozen=True)
class Road:
    name: str
    road: str
    device_class: str
    batch: int
    dtype: str = "float32"

    @property
    def call(self) -> Call:
        tiles = (1, 1, 7) if self.road == "tiled" else (None, None, None)
        return Call(self.name, self.device_class, self.dtype, self.batch, COLUMNS, ROWS, COLUMNS, *tiles)

    def __str__(self) -> str:
        return f"{self.name}-{self.road}-{self.device_class}-{self.dtype}"

    @property
    def unit(self) -> float:
        """What an element of the result may be off, beside the sum of its products' sizes."""
        if self.dtype == "bfloat16" or self.road == "engine":
            return 2.0**-7
        # Expansions for large batches round values to half, and oneDNN's activations are of it.
        half = self.dtype == "float16" or self.road in ("dense", "tiled", "onednn")
        return 2.0**-9 if half else 2.0**-18


def roads() -> Iterator[Road]:
    for name in WEIGHT_FORMATS:
        for device_class, batch, dtype in (
            ("yew", 1, "float32"), ("elm", 1, "float32"), ("yew", 1, "float16"), ("yew", 5, "float32"),
            ("yew", 20, "float32"), ("elm", 8, "float32"), ("oak", 30, "float16"), ("yew", 20, "float16"),
        ):  # fmt: skip
            made = Road(
                name, road_in_words(Call(name, device_class, dtype, batch, COLUMNS, ROWS)), device_class, batch, dtype
            )
            if made.road != "onednn" or dtype == "float16":
                yield made
    for name, device_class in (("q4_0", "ash"), ("q8_0", "oak"), ("fp8_e5m2", "oak"), ("fp6", "ash")):
        yield Road(name, "tiled", device_class, 70)


ROADS = list(dict.fromkeys(roads()))


def test_every_format_has_its_roads() -> None:
    assert {(one.name, one.road) for one in ROADS} >= {(name, "matvec") for name in WEIGHT_FORMATS}
    assert {one.road for one in ROADS} == {"matvec", "by_batch", "dense", "tiled", "engine", "onednn"}
    assert all(one.road == road_in_words(one.call) for one in ROADS)


@dataclass
class Case:
    """A call on a road, over a weight that its fields make."""

    road: Road
    fields: Fields
    x: torch.Tensor

    def __call__(self, fields: Fields | None = None, x: torch.Tensor | None = None) -> torch.Tensor:
        packed = torch.from_numpy(pack(FORMATS[self.road.name], self.fields if fields is None else fields))
        x = self.x if x is None else x
        device = device_of(self.road.device_class)
        return vesper_linear.forward_new(
            x.to(device), packed.to(device), FORMATS[self.road.name].qtype, x.shape[1]
        ).cpu()

    def cut(self, change: object) -> Fields:
        """The fields of a weight of which `change` gives blocks: (rows, blocks of a row, ...) to the same."""
        of_row = COLUMNS // FORMATS[self.road.name].elements

        def cut_one(field: Array) -> Array:
            changed: Array = change(field.reshape(ROWS, of_row, *field.shape[1:]))  # type: ignore[operator]
            return np.ascontiguousarray(changed.reshape(-1, *field.shape[1:]))

        return {name: cut_one(field) for name, field in self.fields.items()}

    def off(self, x: torch.Tensor) -> torch.Tensor:
        """How far an element of the product with `x` may be from what it is in other words."""
        weight = pack(FORMATS[self.road.name], self.fields)
        dense = torch.from_numpy(decode(f"decode_{self.road.name}", weight, "float32").copy()).view(ROWS, COLUMNS)
        return self.road.unit * (x.float().abs() @ dense.abs().t())


@pytest.fixture
def case(road: Road, monkeypatch: pytest.MonkeyPatch) -> Case:
    road.call.environment(monkeypatch)
    entry, generator = FORMATS[road.name], torch.Generator().manual_seed(road.batch)
    fields = split(entry, random_weight(road.name, ROWS * COLUMNS // entry.elements, 11))
    if "dmin" in fields:
        fields["dmin"] = fields["d"][::-1].copy()
    return Case(road, fields, (torch.rand(road.batch, COLUMNS, generator=generator) - 0.5).to(TORCH[road.dtype]))


ALL = pytest.mark.parametrize("road", ROADS, ids=str)
GRID = pytest.mark.grid(0.15)


@GRID
@ALL
def test_twice_the_activations_are_twice_the_product(case: Case, road: Road) -> None:
    """To the bit where no product is too small for it: powers of two and signs are exact."""
    once, twice = case(), case(x=case.x * 2)
    assert once.abs().max() > 0
    if road.dtype == "float32" and road.road != "engine":
        assert torch.equal(twice, once * 2)
    assert ((twice.float() - 2 * once.float()).abs() <= case.off(case.x)).all()
    assert torch.equal(case(x=-case.x), -once)
    assert not case(x=torch.zeros_like(case.x)).any()


@GRID
@ALL
def test_the_product_of_a_sum(case: Case, road: Road) -> None:
    """Of parts that no block shares, since the activations of some kernels are quantized by blocks."""
    blocks = torch.arange(COLUMNS) // 256 % 2 == 0
    parts = torch.where(blocks, case.x, 0), torch.where(blocks, 0, case.x)
    off = (case().float() - case(x=parts[0]).float() - case(x=parts[1]).float()).abs()
    assert (off <= 2 * case.off(case.x)).all()


@GRID
@ALL
def test_rows_of_the_weight_in_another_order(case: Case, road: Road) -> None:
    order = np.random.default_rng(5).permutation(ROWS)
    there, here = case(case.cut(lambda blocks: blocks[order])), case()[:, torch.from_numpy(order)]
    if road.road in ("matvec", "by_batch", "engine"):
        assert torch.equal(there, here)
    else:
        assert ((there.float() - here.float()).abs() <= case.off(case.x)[:, torch.from_numpy(order)]).all()
    assert not torch.equal(there, case())


@GRID
@ALL
def test_columns_in_two_parts(case: Case, road: Road) -> None:
    half = COLUMNS // FORMATS[road.name].elements // 2
    parts = (
        case(case.cut(lambda blocks: blocks[:, :half]), case.x[:, : COLUMNS // 2].contiguous()),
        case(case.cut(lambda blocks: blocks[:, half:]), case.x[:, COLUMNS // 2 :].contiguous()),
    )
    assert ((case().float() - parts[0].float() - parts[1].float()).abs() <= 2 * case.off(case.x)).all()


@GRID
@pytest.mark.parametrize(
    "road", [road for road in ROADS if road.batch > 1 and (road.name, road.road) not in OTHER_VALUES], ids=str
)
def test_a_batch_against_its_rows(case: Case, road: Road) -> None:
    with quillon.record_launches() as launches:
        together = case()
        apart = torch.cat([case(x=row) for row in case.x.split(1)])
    assert len({launch.kernel for launch in launches}) > 1
    if road.road == "by_batch":
        assert torch.equal(together, apart)
        return
    allowed = 2 * case.off(case.x)
    if road.name in SCALE_TABLES:  # a step of eight bits, of the largest activation of a block
        allowed = allowed + case.off(torch.full_like(case.x, case.x.abs().max() / 127)) / road.unit
    assert ((together.float() - apart.float()).abs() <= allowed).all()
