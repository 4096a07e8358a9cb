"""Kernels as the C++ table has them, and which launcher table serves a device class; written by the build."""

from typing import Literal, TypedDict

class KernelRow(TypedDict):
    format: str
    family: Literal["matvec", "by_batch", "mlp", "quantizer"]
    name: str
    header: str
    geometries: dict[str, tuple[tuple[int, ...], int | None, int, int]]
    build_options: dict[int, tuple[str, ...]]
    range: Literal["rows", "slices", "batches", "elements"]
    elements: int
    rounds_of_pass: int
    row_unit: int
    drops_tail: bool
    arguments: tuple[str, ...]
    local_arrays: int
    leaves_short_tile: bool

class ExpansionRow(TypedDict):
    format: str
    name: str
    header: str
    operation: Literal["whole", "tile", "rows", "dense"]
    form: Literal["row", "flat", "block", "dense"]
    sub_groups: dict[str, int | None]
    blocks_of_item: int
    span: int
    work_group: int
    row_unit: int
    waits: bool

class RwkvRow(TypedDict):
    name: str
    header: str
    head_size: int
    work_group: int
    sub_group: int

class EngineRow(TypedDict):
    name: str
    header: str
    row_tile: int
    k_split: int
    types: tuple[tuple[str, str, str, str], ...]
    columns: dict[str, int]
    batches: dict[str, dict[str, tuple[int, int]]]

LAUNCHER_TABLES: dict[str, str]
"""The launcher table of each device class, at a batch of one row."""

KERNELS: tuple[KernelRow, ...]
"""One for each kernel. Geometries, by the launcher tables that have it: template constants behind the element type,
required sub-group size, lanes and rows of a work-group. Build options, where there are some: by the sub-group size that
they ask for."""

EXPANSIONS: tuple[ExpansionRow, ...]
"""One for each kernel that writes a packed weight as a dense matrix. Sub-groups: the required size in each launcher
table whose device classes run the kernel."""

RWKV_KERNELS: tuple[RwkvRow, ...]
"""One for each kernel of the RWKV operators. Head size: the first template argument, or 0 where it is the type."""

ENGINE: EngineRow
"""The kernel for matrix engines. Types: of input and output, operands, the engine's sums and partial tiles. By device
class, the columns of an operation, and by format the first and the last batch that goes to it."""
