"""The kernels: how each is instantiated, launched and fed on a device of each class.

All of it stands in the C++ table ``kernels/kernel_table.h``, of which the build writes ``_kernel_table.py``.
"""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import dataclass
from types import MappingProxyType
from typing import Literal

from quillon import _kernel_table
from quillon.formats import get_format

ELEMENT_TYPES = ("float", "double", "c10::Half", "c10::BFloat16")
"""Of the activations, as kernels are instantiated for them."""

LAUNCHER_TABLES: Mapping[str, str] = MappingProxyType(_kernel_table.LAUNCHER_TABLES)
"""The launcher table of each device class."""


@dataclass(frozen=True)
class Geometry:
    """A kernel in one launcher table."""

    constants: tuple[int, ...]
    """Template arguments behind the element type."""
    sub_group: int | None
    """The sub-group size that the kernel requires; None leaves it to the compiler."""
    lanes: int
    """Of a work-group, the ways by which the work on a row is split."""
    rows: int
    """Output rows of a work-group."""


def _expression(name: str, element_type: str, geometry: Geometry) -> str:
    return f"{name}<{','.join([element_type, *map(str, geometry.constants)])}>"


@dataclass(frozen=True, eq=False)
class Kernel:
    """A kernel template and its instantiations; each is one object, equal to itself alone."""

    name: str
    header: str
    """Relative to csrc/."""
    format: str
    family: Literal["matvec", "by_batch", "mlp", "quantizer"]
    """What it makes of a weight: the product with one activation row, with a handful of them, with a second weight the
    fused MLP, or nothing."""
    geometries: Mapping[str, Geometry]
    """By the launcher tables that have it."""
    build_options: Mapping[int, tuple[str, ...]]
    """By sub-group size, of a kernel that asks for it in this way: it takes the first size that the device has."""
    range: Literal["rows", "slices", "batches", "elements"]
    """What work-items are dealt: tiles of rows, the slices of one row, tiles of rows by activation rows, or elements
    of the activations."""
    elements: int
    """Elements of one row that a lane takes in a round."""
    rounds_of_pass: int
    """Rounds in one pass of a GPU's loop over K."""
    row_unit: int
    """A row length that is no multiple of it is refused; 0: none is."""
    drops_tail: bool
    """Whether what remains behind the last full round is left out of the sum."""
    arguments: tuple[str, ...]
    local_arrays: int
    """Local arrays among the arguments; kernels have no other local memory."""
    leaves_short_tile: bool
    """Whether output rows that do not fill a tile at the end are not computed."""

    def geometry(self, device_class: str) -> Geometry:
        return self.geometries[LAUNCHER_TABLES[device_class]]

    def geometries_on(self, device_class: str) -> tuple[Geometry, ...]:
        """All that devices of a class run."""
        return (self.geometry(device_class),)

    def row_multiple(self, device_class: str) -> int:
        """What a row length must be a multiple of for no element to be left out."""
        round_ = self.elements * self.geometry(device_class).lanes if self.drops_tail else 1
        return math.lcm(get_format(self.format).elements, round_)

    @property
    def element_types(self) -> tuple[str, ...]:
        """Those that it is instantiated for."""
        return ELEMENT_TYPES

    def runs_on(self, device_class: str) -> bool:
        """Whether devices of a class have it in their launcher table."""
        return LAUNCHER_TABLES[device_class] in self.geometries

    def expression(self, element_type: str, geometry: Geometry) -> str:
        """An instantiation as the library names it: ``"name<float,16,32,2>"``."""
        return _expression(self.name, element_type, geometry)


def _kernel(row: _kernel_table.KernelRow) -> Kernel:
    geometries = {table: Geometry(*numbers) for table, numbers in row["geometries"].items()}
    return Kernel(
        name=row["name"],
        header=row["header"],
        format=row["format"],
        family=row["family"],
        geometries=MappingProxyType(geometries),
        build_options=MappingProxyType(row["build_options"]),
        range=row["range"],
        elements=row["elements"],
        rounds_of_pass=row["rounds_of_pass"],
        row_unit=row["row_unit"],
        drops_tail=row["drops_tail"],
        arguments=row["arguments"],
        local_arrays=row["local_arrays"],
        leaves_short_tile=row["leaves_short_tile"],
    )


ALL_KERNELS: tuple[Kernel, ...] = tuple(_kernel(row) for row in _kernel_table.KERNELS)
"""Those that multiply by a weight, and the quantizer of activations, in the order of the C++ table."""

KERNELS: Mapping[str, Kernel] = MappingProxyType(
    {kernel.format: kernel for kernel in ALL_KERNELS if kernel.family in ("matvec", "quantizer")}
)
"""The kernel of each format: its matrix-vector product, or for activations their quantizer."""

MLP_KERNELS: Mapping[str, Kernel] = MappingProxyType(
    {kernel.format: kernel for kernel in ALL_KERNELS if kernel.family == "mlp"}
)
"""Those of the fused MLP, by format."""


@dataclass(frozen=True, eq=False)
class Expansion:
    """A kernel template that writes a packed weight as a dense matrix; each is one object, equal to itself alone."""

    name: str
    header: str
    """Relative to csrc/."""
    format: str
    operation: Literal["whole", "tile", "rows", "dense"]
    """All of the weight, a band of its rows, the rows that an index names, or all of it for a large batch."""
    form: Literal["row", "flat", "block", "dense"]
    """What a work-group is dealt: one row, elements counted over the whole weight, one super-block, or a number of
    blocks for its one work-item."""
    sub_groups: Mapping[str, int | None]
    """The sub-group size that the kernel requires, by the launcher tables whose device classes run it."""
    blocks_of_item: int
    """Blocks of a work-item where that is a template argument; 0: it is none."""
    span: int
    """Elements that a work-item writes in a round."""
    work_group: int
    """Most work-items of a work-group."""
    row_unit: int
    """A row length that is no multiple of it is refused; 0: none is."""
    waits: bool
    """Whether its host entry returns when the kernel has finished."""

    @property
    def element_types(self) -> tuple[str, ...]:
        """Those that it is instantiated for."""
        return {"rows": ("float",), "dense": ("float", "c10::Half")}.get(self.operation, ELEMENT_TYPES)

    @property
    def build_options(self) -> Mapping[int, tuple[str, ...]]:
        """None: the sub-group size is a template argument or left to the compiler."""
        return {}

    @property
    def local_arrays(self) -> int:
        """Local arrays among the arguments."""
        return 0

    def runs_on(self, device_class: str) -> bool:
        """Whether devices of a class run it."""
        return LAUNCHER_TABLES[device_class] in self.sub_groups

    def geometry(self, device_class: str) -> Geometry:
        """The kernel on devices of a class that runs it."""
        return self.geometries_on(device_class)[0]

    def geometries_on(self, device_class: str) -> tuple[Geometry, ...]:
        """All that devices of a class run: blocks behind the last full work-item have one to themselves."""
        if self.blocks_of_item:
            return tuple(Geometry((blocks,), 1, self.work_group, 1) for blocks in (self.blocks_of_item, 1))
        sub_group = self.sub_groups[LAUNCHER_TABLES[device_class]]
        return (Geometry(() if sub_group is None else (sub_group,), sub_group, self.work_group, 1),)

    def expression(self, element_type: str, geometry: Geometry) -> str:
        """An instantiation as the library names it: ``"name<float,16>"``."""
        return _expression(self.name, element_type, geometry)


def _expansion(row: _kernel_table.ExpansionRow) -> Expansion:
    return Expansion(
        name=row["name"],
        header=row["header"],
        format=row["format"],
        operation=row["operation"],
        form=row["form"],
        sub_groups=MappingProxyType(row["sub_groups"]),
        blocks_of_item=row["blocks_of_item"],
        span=row["span"],
        work_group=row["work_group"],
        row_unit=row["row_unit"],
        waits=row["waits"],
    )


EXPANSIONS: tuple[Expansion, ...] = tuple(_expansion(row) for row in _kernel_table.EXPANSIONS)
"""The kernels that expand, in the order of the C++ table."""


@dataclass(frozen=True, eq=False)
class RwkvKernel:
    """A kernel template of an RWKV operator, the same on every device; each is one object, equal to itself alone."""

    name: str
    header: str
    """Relative to csrc/."""
    head_size: int
    """The first template argument; 0: that is the element type."""
    work_group: int
    """Work-items of a work-group."""
    sub_group: int
    """The sub-group size that the kernel requires."""

    @property
    def element_types(self) -> tuple[str, ...]:
        """Those that it is instantiated for."""
        return ("float",) if self.head_size else ("float", "c10::Half")

    @property
    def build_options(self) -> Mapping[int, tuple[str, ...]]:
        """None: the sub-group size is a template argument."""
        return {}

    @property
    def local_arrays(self) -> int:
        """Local arrays among the arguments."""
        return 0

    def runs_on(self, device_class: str) -> bool:
        """Whether devices of a class run it."""
        return device_class in LAUNCHER_TABLES

    def geometry(self, device_class: str) -> Geometry:
        """The kernel on devices of a class."""
        return Geometry((self.work_group, self.sub_group), self.sub_group, self.work_group, 1)

    def geometries_on(self, device_class: str) -> tuple[Geometry, ...]:
        """All that devices of a class run."""
        return (self.geometry(device_class),)

    def expression(self, element_type: str, geometry: Geometry) -> str:
        """An instantiation as the library names it: ``"name<float,32,16>"``."""
        return _expression(self.name, str(self.head_size) if self.head_size else element_type, geometry)


RWKV_KERNELS: tuple[RwkvKernel, ...] = tuple(RwkvKernel(**row) for row in _kernel_table.RWKV_KERNELS)
"""The kernels of the RWKV operators, in the order of the C++ table."""


@dataclass(frozen=True, eq=False)
class EngineKernel:
    """The kernel for matrix engines with one number of activation rows in its last tile."""

    m_tail: int

    @property
    def name(self) -> str:
        return _kernel_table.ENGINE["name"]

    @property
    def header(self) -> str:
        """Relative to csrc/."""
        return _kernel_table.ENGINE["header"]

    @property
    def element_types(self) -> tuple[str, ...]:
        """Those that it is instantiated for."""
        return tuple(types[0] for types in _kernel_table.ENGINE["types"])

    @property
    def build_options(self) -> Mapping[int, tuple[str, ...]]:
        """None: an explicit-SIMD kernel has no sub-groups."""
        return {}

    @property
    def local_arrays(self) -> int:
        """Local arrays among the arguments."""
        return 0

    def runs_on(self, device_class: str) -> bool:
        """Whether devices of a class have a matrix engine."""
        return device_class in _kernel_table.ENGINE["columns"]

    def geometry(self, device_class: str) -> Geometry:
        columns, k_split = _kernel_table.ENGINE["columns"][device_class], _kernel_table.ENGINE["k_split"]
        return Geometry((self.m_tail, columns, k_split), 1, k_split, columns)

    def geometries_on(self, device_class: str) -> tuple[Geometry, ...]:
        """The only one."""
        return (self.geometry(device_class),)

    def local_memory(self, geometry: Geometry) -> int:
        """Bytes that the kernel itself fixes: a tile of sixteen bits an element for each work-item."""
        return 2 * _kernel_table.ENGINE["row_tile"] * geometry.rows * geometry.lanes

    def expression(self, element_type: str, geometry: Geometry) -> str:
        """An instantiation as the library names it."""
        types = next(types for types in _kernel_table.ENGINE["types"] if types[0] == element_type)
        return _expression(self.name, ",".join(types), geometry)


ENGINE_KERNELS: tuple[EngineKernel, ...] = tuple(
    EngineKernel(m_tail) for m_tail in range(1, _kernel_table.ENGINE["row_tile"] + 1)
)

ENGINE_BATCHES: Mapping[str, Mapping[str, tuple[int, int]]] = MappingProxyType(_kernel_table.ENGINE["batches"])
"""By device class and format, the first and the last batch that goes to the matrix engine."""
