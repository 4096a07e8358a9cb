"""Packed layers split among processes, by rows or by columns, as styles of torch.distributed.tensor.parallel.

Every process keeps its part of the packed bytes, which is itself a packed weight of the same format: rows of a weight
(column-parallel: a part of the outputs) or columns in whole blocks (row-parallel: a part of the inputs, whose products
are added up). Where a size does not divide, the first processes have a unit more than the last.
"""

from __future__ import annotations

import dataclasses
import itertools
import math
import re
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Literal

import torch
import torch.distributed as dist
from torch import Tensor, nn
from torch.distributed import _functional_collectives as functional
from torch.distributed.device_mesh import DeviceMesh
from torch.distributed.tensor import DTensor, Partial, Placement, Replicate, Shard
from torch.distributed.tensor.parallel import ParallelStyle

from quillon import nn as layers
from quillon import peers
from quillon.formats import weight_bytes
from quillon.nn import LowBitEmbedding, LowBitExperts, LowBitLinear
from quillon.slicing import Strip, cut, paste, read_strips, strips_of

__all__ = [
    "PackedColwiseParallel",
    "PackedEmbeddingParallel",
    "PackedExpertsParallel",
    "PackedRowwiseParallel",
    "Split",
    "parallel_plan",
    "whole_state",
]

Dimension = Literal["rows", "columns"]


def deal(parts: int, processes: int) -> list[range]:
    """Numbers of equal parts, dealt out to processes: each has a range of them, the first at most one more."""
    each, more = divmod(parts, processes)
    starts = [rank * each + min(rank, more) for rank in range(processes + 1)]
    return [range(start, stop) for start, stop in itertools.pairwise(starts)]


def column_unit(layer: LowBitLinear | LowBitExperts) -> int:
    """What the columns of every part of a layer must be a multiple of."""
    return layers.kernel_row_multiple(layer.format.name, layers.chosen_device_class(None, [layer.format]))


# ---- between the processes -------------------------------------------------------------------------------------------


def _all_reduce(tensor: Tensor, group: dist.ProcessGroup) -> Tensor:
    if torch.compiler.is_compiling():
        reduced: Tensor = functional.all_reduce(tensor, "sum", group)
        return reduced
    peers.names_the_stopped(group, dist.all_reduce)(tensor, group=group)
    return tensor


_gather_in_one: Any = getattr(dist, "all_gather_single", dist.all_gather_into_tensor)
"""As newer and older releases of PyTorch call it."""


def _all_gather(tensor: Tensor, group: dist.ProcessGroup) -> Tensor:
    """(processes, ...) of tensors of one shape."""
    processes = group.size()
    if torch.compiler.is_compiling():
        gathered: Tensor = functional.all_gather_tensor(tensor.reshape(-1), 0, group)
        return gathered.view(processes, *tensor.shape)
    output = tensor.new_empty(processes * tensor.numel())
    peers.names_the_stopped(group, _gather_in_one)(output, tensor.reshape(-1), group=group)
    return output.view(processes, *tensor.shape)


class _Sum(torch.autograd.Function):
    """The sum of what the processes have, which all use alike."""

    @staticmethod
    def forward(ctx: Any, tensor: Tensor, group: dist.ProcessGroup) -> Tensor:
        return _all_reduce(tensor.clone(), group)

    @staticmethod
    def backward(ctx: Any, gradient: Tensor) -> tuple[Tensor, None]:
        return gradient, None


class _SumOfGradients(torch.autograd.Function):
    """What all processes have alike, and use in different ways."""

    @staticmethod
    def forward(ctx: Any, tensor: Tensor, group: dist.ProcessGroup) -> Tensor:
        ctx.group = group
        return tensor.view_as(tensor)

    @staticmethod
    def backward(ctx: Any, gradient: Tensor) -> tuple[Tensor, None]:
        return _all_reduce(gradient.contiguous().clone(), ctx.group), None


class _Gather(torch.autograd.Function):
    """The parts of all processes side by side, which all use alike."""

    @staticmethod
    def forward(ctx: Any, tensor: Tensor, split: Split) -> Tensor:
        ctx.share = split.share
        return split._side_by_side(tensor)

    @staticmethod
    def backward(ctx: Any, gradient: Tensor) -> tuple[Tensor, None]:
        return gradient.narrow(-1, ctx.share.start, len(ctx.share)), None


_sum: Callable[[Tensor, dist.ProcessGroup], Tensor] = _Sum.apply
_sum_of_gradients: Callable[[Tensor, dist.ProcessGroup], Tensor] = _SumOfGradients.apply
_gather: Callable[[Tensor, Split], Tensor] = _Gather.apply


def _is_differentiated(tensor: Tensor) -> bool:
    return torch.is_grad_enabled() and tensor.requires_grad


# ---- a layer's part --------------------------------------------------------------------------------------------------


@dataclass(eq=False)
class Split:
    """What part of a packed layer this process has, and how the parts meet.

    mesh      the processes, one dimension
    dim       whether they have rows of the weight or columns
    size      so many rows or columns the whole weight has
    sections  so many equal runs the rows consist of, each of which is split: gate and up in one weight are two
    parts     so many equal parts are dealt out
    input     "split" where every process has the columns of the input that it needs, or "whole"
    output    "split" where every process goes on with its own rows of the output, or "whole"
    """

    mesh: DeviceMesh
    dim: Dimension
    size: int
    parts: int
    sections: int = 1
    input: Literal["split", "whole"] = "whole"
    output: Literal["split", "whole"] = "split"

    def __post_init__(self) -> None:
        """Deal the parts out."""
        processes = self.mesh.size()
        if self.mesh.ndim != 1:
            raise ValueError(f"mesh must have one dimension, got {self.mesh.ndim}")
        if self.size % (self.parts * self.sections):
            raise ValueError(
                f"parts times sections must be a divisor of {self.size} {self.dim}, got {self.parts} times "
                f"{self.sections}"
            )
        if self.parts < processes:
            raise ValueError(
                f"{self.size} {self.dim} are dealt out in {self.parts} parts of {self.size // self.parts}, which is "
                f"not enough for {processes} processes; allowed: up to {self.parts}"
            )
        unit = self.size // self.sections // self.parts
        dealt = deal(self.parts, processes)
        self.shares = [range(one.start * unit, one.stop * unit) for one in dealt]
        self.share = self.shares[self.mesh.get_local_rank()]
        self.group = self.mesh.get_group()
        peers.meet(self.group)

    def __repr__(self) -> str:
        """Say which part of how many."""
        return f"{self.dim} {self.share.start} to {self.share.stop} of {self.size // self.sections}"

    def __deepcopy__(self, memo: Any) -> Split:
        """Return itself: the processes are no others for a copy of a layer."""
        return self

    def ranges(self, process: int | None = None) -> list[range]:
        """The rows or columns of a process, this one by default."""
        share, section = self.share if process is None else self.shares[process], self.size // self.sections
        return [range(start + share.start, start + share.stop) for start in range(0, self.size, section)]

    def enter(self, input: Tensor) -> Tensor:
        """The input as this process's part of the layer takes it."""
        if self.dim == "columns" and self.input == "split":
            if not isinstance(input, DTensor):
                return input
            _check_even(self)  # in all processes alike, before any of them waits
            return input.redistribute(placements=[Shard(-1)]).to_local()
        input = self.enter_whole(input)
        return input if self.dim == "rows" else input.narrow(-1, self.share.start, len(self.share))

    def enter_whole(self, input: Tensor) -> Tensor:
        """An input that every process takes as a whole."""
        if isinstance(input, DTensor):
            return input.redistribute(placements=[Replicate()]).to_local(grad_placements=[Partial()])
        if _is_differentiated(input):
            return _sum_of_gradients(input, self.group)
        return input

    @property
    def is_first(self) -> bool:
        """Whether this is the process that adds what is to be added once."""
        return self.mesh.get_local_rank() == 0

    def sum(self, output: Tensor) -> Tensor:
        """The processes' outputs added up."""
        if _is_differentiated(output):
            return _sum(output, self.group)
        return _all_reduce(output, self.group)

    def gather(self, output: Tensor) -> Tensor:
        """The processes' rows of the output side by side."""
        if _is_differentiated(output):
            return _gather(output, self)
        return self._side_by_side(output)

    def _side_by_side(self, output: Tensor) -> Tensor:
        longest = max(len(share) for share in self.shares)
        parts = _all_gather(nn.functional.pad(output, (0, longest - output.shape[-1])), self.group)
        return torch.cat([part[..., : len(share)] for part, share in zip(parts, self.shares, strict=True)], -1)


@dataclass(frozen=True)
class Piece:
    """Where in a whole tensor of a layer the part of a process lies: in strips of its bytes, or indexed in ``dim``."""

    shape: tuple[int, ...]
    whole: tuple[int, ...]
    strips: list[Strip] | None = None
    dim: int = 0
    ranges: list[range] | None = None

    def of(self, tensor: Tensor) -> Tensor:
        """The part of the whole tensor."""
        if self.strips is not None:
            return cut(tensor.contiguous().view(-1), self.strips).view(self.shape)
        if self.ranges is None:
            return tensor
        return torch.cat([tensor.narrow(self.dim, one.start, len(one)) for one in self.ranges], self.dim)

    def put(self, whole: Tensor, part: Tensor) -> None:
        """Write the part into the whole tensor."""
        if self.strips is not None:
            paste(whole.view(-1), self.strips, part.reshape(-1))
            return
        ranges = self.ranges or []
        for one, piece in zip(ranges, part.split_with_sizes([len(r) for r in ranges], self.dim), strict=True):
            whole.narrow(self.dim, one.start, len(one)).copy_(piece)


def _packed_piece(format: str, rows: int, cols: int, row_ranges: list[range], columns: range, experts: int) -> Piece:
    """The part of a packed weight, or of the weights of several experts."""
    strips = strips_of(format, rows, cols, row_ranges, columns)
    local = sum(one.bytes for one in strips)
    size = weight_bytes(format, rows, cols)
    if experts == 0:
        return Piece((local,), (size,), strips)
    shifted = [dataclasses.replace(one, start=one.start + e * size) for e in range(experts) for one in strips]
    return Piece((experts, local), (experts, size), shifted)


def pieces(layer: nn.Module, split: Split, process: int | None = None) -> dict[str, Piece]:
    """By name the tensors of a split layer of which each process has a part, with the part of one of them."""
    ranges = split.ranges(process)
    own = sum(len(one) for one in ranges)
    if isinstance(layer, LowBitLinear):
        name, whole_rows = layer.format.name, split.size if split.dim == "rows" else layer.out_features
        if split.dim == "columns":
            return {"packed": _packed_piece(name, whole_rows, split.size, [range(whole_rows)], ranges[0], 0)}
        found = {"packed": _packed_piece(name, whole_rows, layer.in_features, ranges, range(layer.in_features), 0)}
        if layer.bias is not None:
            found["bias"] = Piece((own,), (split.size,), dim=0, ranges=ranges)
        return found
    if isinstance(layer, LowBitEmbedding):
        name, dim = layer.format.name, layer.embedding_dim
        return {"packed": _packed_piece(name, split.size, dim, ranges, range(dim), 0)}
    if isinstance(layer, LowBitExperts):
        name, layout, columns = layer.format.name, layer.layout, range(layer.layout.columns)
        inner = split.ranges(process)[0]
        both = _rows_of_up(layer, split, inner)
        up_rows = split.size * 2 if layout.gated else split.size
        found = {
            "packed_up": _packed_piece(name, up_rows, layout.columns, both, columns, layout.experts),
            "packed_down": _packed_piece(
                name, layout.columns, split.size, [range(layout.columns)], inner, layout.experts
            ),
        }
        if layout.biased:
            own_rows = sum(len(one) for one in both)
            found[f"shell.{layout.up}_bias"] = Piece(
                (layout.experts, own_rows), (layout.experts, up_rows), dim=1, ranges=both
            )
        return found
    raise TypeError(f"{type(layer).__name__} is no packed layer that can be split")


def _rows_of_up(experts: LowBitExperts, split: Split, inner: range) -> list[range]:
    """The rows of the experts' first product for columns ``inner`` of the second."""
    if not experts.layout.gated:
        return [inner]
    if not getattr(experts.shell, "is_concatenated", True):  # gate and up in turn
        return [range(2 * inner.start, 2 * inner.stop)]
    return [inner, range(split.size + inner.start, split.size + inner.stop)]


def _tensor(layer: nn.Module, name: str) -> tuple[nn.Module, str, Tensor]:
    """A tensor of a layer or of its shell, with what holds it."""
    path, _, leaf = name.rpartition(".")
    owner = layer.get_submodule(path)
    return owner, leaf, getattr(owner, leaf)


def _set_buffer(layer: nn.Module, name: str, value: Tensor) -> None:
    """Put a buffer into the place of a layer's buffer, or of a parameter of its shell."""
    owner, leaf, _ = _tensor(layer, name)
    delattr(owner, leaf)
    owner.register_buffer(leaf, value)


def set_persistent(layer: Any, persistent: bool) -> None:
    """Say whether the tensors of a split layer of which each process has a part are in its ``state_dict``."""
    for name in pieces(layer, layer.split):
        owner, leaf, _ = _tensor(layer, name)
        change = owner._non_persistent_buffers_set
        (change.discard if persistent else change.add)(leaf)


def read_part(file: int, offset: int, slices: Any, piece: Piece) -> Tensor:
    """The part of a tensor that lies at ``offset`` of an open file and that safetensors gives ``slices`` of."""
    if piece.strips is not None:
        return read_strips(file, offset, piece.strips).view(piece.shape)
    index = (slice(None),) * piece.dim
    return torch.cat([slices[(*index, slice(one.start, one.stop))] for one in piece.ranges or []], piece.dim)


def fill(layer: nn.Module, name: str, value: Tensor) -> None:
    """Give a tensor of a layer its values, on the device and in the element type that it has."""
    tensor = _tensor(layer, name)[2]
    if tensor.is_meta:
        raise ValueError(f"{name} of {layer} has no memory yet")
    with torch.no_grad():
        tensor.copy_(value.view(tensor.shape))


def split_layer(layer: Any, split: Split) -> None:
    """Leave a packed layer with the part of this process, in place."""
    if layer.split is not None:
        raise ValueError(f"{type(layer).__name__} is split already: {layer.split}")
    for name, piece in pieces(layer, split).items():
        tensor = _tensor(layer, name)[2]
        part = tensor.new_empty(piece.shape) if tensor.is_meta else piece.of(tensor.detach())
        _set_buffer(layer, name, part)
    own = sum(len(one) for one in split.ranges())
    if isinstance(layer, LowBitExperts):
        up_rows = 2 * own if layer.layout.gated else own
        layer.layout = dataclasses.replace(layer.layout, inner=own, up_rows=up_rows)
    elif isinstance(layer, LowBitLinear) and split.dim == "columns":
        layer.in_features = own
    elif isinstance(layer, LowBitLinear):
        layer.out_features = own
    layer.split = split


def split_layers(model: nn.Module) -> Iterator[tuple[str, Any]]:
    """The layers of a model of which each process has a part, by name."""
    for name, module in model.named_modules():
        if isinstance(module, LowBitLinear | LowBitEmbedding | LowBitExperts) and module.split is not None:
            yield name, module


def whole_state(model: nn.Module) -> dict[str, Tensor]:
    """``model.state_dict()`` with the parts of split layers joined. Every process calls it; it is whole in process 0.

    In the others the tensors of split layers stay parts. The whole tensors are on the CPU.
    """
    state: dict[str, Tensor] = model.state_dict()
    for prefix, layer in split_layers(model):
        split = layer.split
        for name in pieces(layer, split):
            key = f"{prefix}.{name}" if prefix else name
            part = state[key].contiguous()
            gathered = _gather_in_first(
                part, [pieces(layer, split, one)[name] for one in range(split.mesh.size())], split
            )
            if gathered is not None:
                state[key] = gathered
    return state


def _gather_in_first(part: Tensor, of_processes: Sequence[Piece], split: Split) -> Tensor | None:
    ranks = dist.get_process_group_ranks(split.group)
    if split.mesh.get_local_rank() != 0:
        peers.names_the_stopped(split.group, dist.send)(part, ranks[0], split.group)
        return None
    whole = torch.empty(of_processes[0].whole, dtype=part.dtype)
    of_processes[0].put(whole, part.cpu())
    for rank, piece in list(zip(ranks, of_processes, strict=True))[1:]:
        received = part.new_empty(piece.shape)
        peers.names_the_stopped(split.group, dist.recv)(received, rank, split.group)
        piece.put(whole, received.cpu())
    return whole


# ---- styles ----------------------------------------------------------------------------------------------------------


def _check_type(style: ParallelStyle, module: nn.Module, kind: type[nn.Module]) -> None:
    if not isinstance(module, kind):
        raise TypeError(f"{type(style).__name__} is for {kind.__name__}, got {type(module).__name__}")


def _check_packed_alone(module: nn.Module) -> None:
    if type(module) is not LowBitLinear:
        raise TypeError(f"a {type(module).__name__} is not split; split its layers before they are joined")


def _lay_out_input(module: nn.Module, mesh: DeviceMesh, placement: Placement) -> None:
    """Have a layer take local inputs that are laid out otherwise than it needs them."""

    def annotate(_: nn.Module, inputs: tuple[Any, ...]) -> Any:
        input = inputs[0]
        if not isinstance(input, DTensor):
            input = DTensor.from_local(input, mesh, [placement], run_check=False)
        return (input, *inputs[1:])

    module.register_forward_pre_hook(annotate)


def _lay_out_output(module: nn.Module, mesh: DeviceMesh, has: Placement, wanted: Placement, local: bool) -> None:
    """Have a layer give its output, which is laid out as ``has``, otherwise."""

    def redistribute(_: nn.Module, __: Any, output: Tensor) -> Tensor:
        placed = DTensor.from_local(output, mesh, [has], run_check=False).redistribute(placements=[wanted])
        return placed.to_local() if local else placed

    module.register_forward_hook(redistribute)


class PackedColwiseParallel(ParallelStyle):
    """Each process has some rows of a :class:`quillon.nn.LowBitLinear`, and so a part of the outputs.

    input_layouts     how the input lies, ``Replicate()`` by default
    output_layouts    how the output is to lie: ``Shard(-1)`` by default, or ``Replicate()``
    use_local_output  False: the output is a DTensor
    parts             so many equal parts of the rows are dealt out, by default as many as there are rows. A layer that
                      takes the output as its input must be split in as many parts of its columns:
                      :func:`parallel_plan` chooses them.
    sections          so many equal runs the rows consist of, each of which is split; 2 for gate and up in one weight
    """

    def __init__(
        self,
        *,
        input_layouts: Placement | None = None,
        output_layouts: Placement | None = None,
        use_local_output: bool = True,
        parts: int | None = None,
        sections: int = 1,
    ) -> None:
        """Say how input and output lie."""
        super().__init__()
        self.input_layouts = input_layouts or Replicate()
        self.output_layouts = output_layouts or Shard(-1)
        self.use_local_output = use_local_output
        self.parts = parts
        self.sections = sections

    def _apply(self, module: nn.Module, device_mesh: DeviceMesh) -> nn.Module:
        _check_type(self, module, LowBitLinear)
        _check_packed_alone(module)
        layer: Any = module
        gathers = self.output_layouts == Replicate()
        split = Split(
            device_mesh,
            "rows",
            layer.out_features,
            self.parts or layer.out_features // self.sections,
            self.sections,
            "whole",
            "whole" if gathers else "split",
        )
        has: Placement = Replicate() if gathers else Shard(-1)
        if not (gathers or (self.output_layouts == has and self.use_local_output)):
            _check_even(split)
        split_layer(layer, split)
        if self.input_layouts != Replicate():
            _lay_out_input(layer, device_mesh, self.input_layouts)
        if self.output_layouts != has or not self.use_local_output:
            _lay_out_output(layer, device_mesh, has, self.output_layouts, self.use_local_output)
        return module


def _check_even(split: Split) -> None:
    if split.parts % split.mesh.size():
        raise ValueError(
            f"{split.parts} parts are not the same for each of {split.mesh.size()} processes, which inputs and "
            "outputs that are DTensors of parts must be"
        )


class PackedRowwiseParallel(ParallelStyle):
    """Each process has some columns of a :class:`quillon.nn.LowBitLinear`; their products are added up.

    Columns are split in multiples of what the format's kernel on the device needs, ``quillon.nn.kernel_row_multiple``.

    input_layouts     how the input lies: ``Shard(-1)`` by default, or ``Replicate()``
    output_layouts    how the output is to lie, ``Replicate()`` by default
    use_local_output  False: the output is a DTensor
    parts             so many equal parts of the columns are dealt out, by default as many as the format allows
    """

    def __init__(
        self,
        *,
        input_layouts: Placement | None = None,
        output_layouts: Placement | None = None,
        use_local_output: bool = True,
        parts: int | None = None,
    ) -> None:
        """Say how input and output lie."""
        super().__init__()
        self.input_layouts = input_layouts or Shard(-1)
        self.output_layouts = output_layouts or Replicate()
        self.use_local_output = use_local_output
        self.parts = parts

    def _apply(self, module: nn.Module, device_mesh: DeviceMesh) -> nn.Module:
        _check_type(self, module, LowBitLinear)
        _check_packed_alone(module)
        layer: Any = module
        unit = column_unit(layer)
        parts = self.parts or layer.in_features // unit
        if layer.in_features % (parts * unit):
            raise ValueError(
                f"parts must be a divisor of {layer.in_features // unit}, since {layer.in_features} columns of "
                f"{layer.format.name} are split in multiples of {unit}, got {parts}"
            )
        whole = self.input_layouts == Replicate()
        split = Split(device_mesh, "columns", layer.in_features, parts, 1, "whole" if whole else "split", "whole")
        if self.input_layouts not in (Replicate(), Shard(-1)):
            _check_even(split)
        split_layer(layer, split)
        if self.input_layouts not in (Replicate(), Shard(-1)):
            _lay_out_input(layer, device_mesh, self.input_layouts)
        if self.output_layouts != Replicate() or not self.use_local_output:
            _lay_out_output(layer, device_mesh, Replicate(), self.output_layouts, self.use_local_output)
        return module


class PackedExpertsParallel(ParallelStyle):
    """Each process has a part of every expert of a :class:`quillon.nn.LowBitExperts`; their products are added up.

    parts  so many equal parts of the experts' inner columns are dealt out, by default as many as the format allows
    """

    def __init__(self, *, parts: int | None = None) -> None:
        """Say in how many parts experts are split."""
        super().__init__()
        self.parts = parts

    def _apply(self, module: nn.Module, device_mesh: DeviceMesh) -> nn.Module:
        _check_type(self, module, LowBitExperts)
        layer: Any = module
        inner, unit = layer.layout.inner, column_unit(layer)
        parts = self.parts or inner // unit
        if inner % (parts * unit):
            raise ValueError(
                f"parts must be a divisor of {inner // unit}, since {inner} inner columns of {layer.format.name} are "
                f"split in multiples of {unit}, got {parts}"
            )
        split_layer(layer, Split(device_mesh, "columns", inner, parts, output="whole"))
        return module


class PackedEmbeddingParallel(ParallelStyle):
    """Each process has some rows of a :class:`quillon.nn.LowBitEmbedding`; each row comes from whoever has it."""

    def _apply(self, module: nn.Module, device_mesh: DeviceMesh) -> nn.Module:
        _check_type(self, module, LowBitEmbedding)
        layer: Any = module
        split_layer(layer, Split(device_mesh, "rows", layer.num_embeddings, layer.num_embeddings, output="whole"))
        return module


# ---- plans of transformers -------------------------------------------------------------------------------------------

_COLWISE = {"colwise": Shard(-1), "colwise_gather_output": Replicate(), "colwise_rep": Replicate()}
_ROWWISE = {"rowwise": Shard(-1), "rowwise_split_input": Replicate(), "rowwise_rep": Replicate()}
_WITHOUT_PARTS = ("replicate", "replicated_with_grad_allreduce")


def parallel_plan(model: nn.Module, plan: Mapping[str, str]) -> dict[str, ParallelStyle]:
    """The styles by which the packed layers of a model follow a plan of transformers, for ``parallelize_module``.

    ``plan`` has names of modules, numbers of layers replaced by ``*``, and names of styles, as ``model.tp_plan`` has
    them. The parts in which layers are split are chosen here, so that the outputs of a layer are the inputs of the
    next: whole heads of an attention, and multiples of what the kernels of row-parallel layers need.

    Raises ``ValueError`` for a style that a packed layer does not have.
    """
    named: dict[str, tuple[Any, str]] = {}
    for name, module in model.named_modules():
        style = plan.get(re.sub(r"\.\d+(?=\.|$)", ".*", name))
        if style is not None and style not in _WITHOUT_PARTS:
            named[name] = (module, style)
    result: dict[str, ParallelStyle] = {}
    for name, (module, style) in named.items():
        if isinstance(module, LowBitLinear | LowBitEmbedding | LowBitExperts):
            try:
                result[name] = _style_for(module, style, _common_parts(model, name, named))
            except ValueError as problem:
                raise ValueError(f"{name}: {problem}") from problem
    return result


def _style_for(module: nn.Module, style: str, parts: int | None) -> ParallelStyle:
    if isinstance(module, LowBitLinear) and style in _COLWISE:
        return PackedColwiseParallel(output_layouts=_COLWISE[style], parts=parts if style == "colwise" else None)
    if isinstance(module, LowBitLinear) and style == "packed_colwise":
        return PackedColwiseParallel(parts=parts, sections=2)
    if isinstance(module, LowBitLinear) and style in _ROWWISE:
        return PackedRowwiseParallel(input_layouts=_ROWWISE[style], parts=parts if style == "rowwise" else None)
    if isinstance(module, LowBitExperts) and style == "moe_tp_experts":
        return PackedExpertsParallel()
    if isinstance(module, LowBitEmbedding) and style == "embedding_rowwise":
        return PackedEmbeddingParallel()
    raise ValueError(f"a {type(module).__name__} cannot be split by the style {style!r}")


def _common_parts(model: nn.Module, name: str, named: Mapping[str, tuple[Any, str]]) -> int | None:
    """In how many parts the layers beside ``name``, itself among them, are split, or None: each for itself."""
    parent = name.rpartition(".")[0]
    head = getattr(model.get_submodule(parent), "head_dim", 1)
    counts = []
    for other, (module, style) in named.items():
        if other.rpartition(".")[0] != parent or not hasattr(module, "in_features"):
            continue
        if style in ("colwise", "packed_colwise"):
            counts.append(module.out_features // (head * (2 if style == "packed_colwise" else 1)))
        elif style == "rowwise":
            counts.append(module.in_features // (column_unit(module) if isinstance(module, LowBitLinear) else 1))
    return math.gcd(*counts) or None
