"""Layers that read the same input, with their weights joined to one packed matrix: one product in place of several.

A launch costs some microseconds, and a small matrix does not fill a device. The rows of packed weights of one format
and row length stand in one matrix without being packed again, and every row is multiplied as before, so the results
are the same to the bit. Where a batch is so large that the weight is expanded for PyTorch's own product, they are so as
far as that product does not depend on the number of rows.
"""

from __future__ import annotations

import inspect
from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Any

import torch
from torch import Tensor, nn

from quillon.formats import MAX_ELEMENTS, Format, field_offsets
from quillon.nn import FusedMLP, LowBitLinear, _gives_its_rows, _has_hooks, apply_packed

__all__ = ["JoinedLinear", "join_projections"]

_SIBLINGS = (("q_proj", "k_proj", "v_proj"), ("gate_proj", "up_proj"))
"""Names of layers that read the same input in the attention and MLP modules of Llama and its relatives."""

_SECOND_INPUTS = ("key_value_states", "encoder_hidden_states", "cross_attention_states")
"""Parameters of an attention's ``forward`` by which keys and values come from another input than queries."""


def join_packed(format: Format, parts: Sequence[Tensor]) -> Tensor:
    """The packed matrix that has the rows of all ``parts``, packed weights of one format and row length."""
    arrays = [_arrays(format, part, 0, part.numel() // format.bytes) for part in parts]
    return torch.cat([piece for pieces in zip(*arrays, strict=True) for piece in pieces])


def _arrays(format: Format, packed: Tensor, first: int, blocks: int) -> list[Tensor]:
    """Where ``blocks`` blocks from number ``first`` on lie in ``packed``: one view for each array of the format."""
    if format.storage == "records":
        return [packed.narrow(0, first * format.bytes, blocks * format.bytes)]
    offsets = field_offsets(format.name, packed.numel() // format.bytes).values()
    return [packed.narrow(0, start + first * size, blocks * size) for start, size in offsets]


@dataclass(eq=False)
class _Pending:
    """A product of which some layers have not yet had their part."""

    input: Tensor
    circumstances: tuple[int | None, bool, torch.dtype | None]
    product: Tensor
    waiting: set[int]


@dataclass(eq=False)
class _Shared:
    """What joined layers have in common. The first of them holds the bytes, and so moves with the model."""

    rows: tuple[int, ...]
    owner: JoinedLinear | None = None
    pending: _Pending | None = field(default=None, repr=False)

    def __getstate__(self) -> dict[str, Any]:
        return self.__dict__ | {"pending": None}


def _circumstances(input: Tensor) -> tuple[int | None, bool, torch.dtype | None]:
    """What a product depends on beside the tensor that is multiplied: its contents, and modes of PyTorch."""
    version = None if input.is_inference() else input._version
    autocast = torch.get_autocast_dtype("xpu") if torch.is_autocast_enabled("xpu") else None
    return version, torch.is_grad_enabled(), autocast


class JoinedLinear(LowBitLinear):
    """One of several :class:`LowBitLinear` that read the same input, with their weights in one packed matrix.

    Made by :func:`join_projections`. The layer that is called first multiplies for all; the others, called with the
    same tensor, find their part of the product. Called with another tensor a layer multiplies anew, so the order of
    the calls does not matter. A tensor that is written to between two calls counts as another, except under
    ``torch.inference_mode()``, where PyTorch keeps no count of writes. ``torch.compile`` takes these layers too, but
    there each multiplies by the whole matrix: a model that is to be compiled is better left as it is.

    ``state_dict`` has and takes the same tensors as before joining: ``packed`` of each layer alone, and its ``bias``.
    ``packed`` itself is a copy of the layer's own bytes.
    """

    joined_packed: Tensor

    def __init__(self, layer: LowBitLinear, shared: _Shared, index: int) -> None:
        """Take the place of ``layer``, number ``index`` of those that ``shared`` lists."""
        nn.Module.__init__(self)
        self.format = layer.format
        self.in_features = layer.in_features
        self.out_features = layer.out_features
        self.split = layer.split
        self.register_buffer("bias", layer.bias)
        self._checked_devices = set()
        self._shared = shared
        self._index = index
        self._first_row = sum(shared.rows[:index])
        self.train(layer.training)

    @property
    def packed(self) -> Tensor:  # type: ignore[override]
        """A copy of the layer's own packed bytes."""
        return torch.cat(self._own_arrays())

    def _joined(self) -> Tensor:
        owner = self._shared.owner
        assert owner is not None
        return owner.joined_packed

    def _own_arrays(self) -> list[Tensor]:
        per_row = self.in_features // self.format.elements
        return _arrays(self.format, self._joined(), self._first_row * per_row, self.out_features * per_row)

    def _product(self, input: Tensor) -> Tensor:
        if torch.compiler.is_compiling():  # the compiler finds equal products by itself
            product = self._product_of_all(input)
        else:
            product = self._shared_product(input)
        return product.narrow(-1, self._first_row, self.out_features).contiguous()

    def _shared_product(self, input: Tensor) -> Tensor:
        shared, index, circumstances = self._shared, self._index, _circumstances(input)
        pending = shared.pending
        if (
            pending is not None
            and pending.input is input
            and pending.circumstances == circumstances
            and index in pending.waiting
        ):
            pending.waiting.discard(index)
            if not pending.waiting:
                shared.pending = None
            return pending.product
        product = self._product_of_all(input)
        shared.pending = _Pending(input, circumstances, product, set(range(len(shared.rows))) - {index})
        return product

    def _product_of_all(self, input: Tensor) -> Tensor:
        return apply_packed(input, self._joined(), self.format, sum(self._shared.rows))

    def _save_to_state_dict(self, destination: Any, prefix: str, keep_vars: bool) -> None:
        destination[prefix + "packed"] = self.packed
        super()._save_to_state_dict(destination, prefix, keep_vars)

    def _load_from_state_dict(
        self,
        state_dict: dict[str, Any],
        prefix: str,
        local_metadata: dict[str, Any],
        strict: bool,
        missing_keys: list[str],
        unexpected_keys: list[str],
        error_msgs: list[str],
    ) -> None:
        key = prefix + "packed"
        others = {name: value for name, value in state_dict.items() if name != key}
        super()._load_from_state_dict(others, prefix, local_metadata, strict, missing_keys, unexpected_keys, error_msgs)
        if key not in state_dict:
            missing_keys.append(key)
            return
        given, own = state_dict[key], self._own_arrays()
        size = sum(array.numel() for array in own)
        if given.shape != (size,) or given.dtype != torch.uint8:
            error_msgs.append(f"{key} must be {size} of uint8, got {given.dtype} of shape {tuple(given.shape)}")
            return
        with torch.no_grad():
            for array, bytes in zip(own, given.split([array.numel() for array in own]), strict=True):
                array.copy_(bytes)


def join_projections(model: nn.Module) -> dict[str, tuple[str, ...]]:
    """Join the packed layers of ``model`` that read the same input, in place.

    These are q_proj, k_proj and v_proj of an attention and gate_proj and up_proj of an MLP, where they are
    :class:`LowBitLinear` of one format on one device. Whatever is built otherwise stays as it is: layers of several
    formats, layers with hooks, attention that takes keys and values from another input, and the layers of a
    :class:`quillon.nn.FusedMLP`, whose kernel reads two weights.

    Results are the same to the bit, and so is ``state_dict()``. Returns the name of each module in which layers were
    joined -> their names.
    """
    joined: dict[str, tuple[str, ...]] = {}
    for name, module in model.named_modules():
        for siblings in _SIBLINGS:
            layers = _joinable(module, siblings)
            if layers:
                for sibling, layer in zip(siblings, _join(layers), strict=True):
                    setattr(module, sibling, layer)
                joined[name] = siblings
    return joined


def _joinable(parent: nn.Module, siblings: Sequence[str]) -> list[LowBitLinear]:
    """The layers of these names inside ``parent``, or none unless all of them can be joined."""
    children = [parent._modules.get(sibling) for sibling in siblings]
    layers = [child for child in children if type(child) is LowBitLinear and not _has_hooks(child)]
    if len(set(layers)) < len(siblings) or type(parent) is FusedMLP:
        return []
    if any(name in inspect.signature(parent.forward).parameters for name in _SECOND_INPUTS):
        return []
    if len({(layer.format, layer.in_features, layer.packed.device) for layer in layers}) > 1:
        return []
    if not all(_gives_its_rows(layer) for layer in layers):
        return []
    elements = sum(layer.in_features * layer.out_features for layer in layers)
    return layers if elements <= MAX_ELEMENTS else []


def _join(layers: Sequence[LowBitLinear]) -> list[JoinedLinear]:
    shared = _Shared(tuple(layer.out_features for layer in layers))
    parts = [JoinedLinear(layer, shared, index) for index, layer in enumerate(layers)]
    packed = join_packed(layers[0].format, [layer.packed for layer in layers])
    parts[0].register_buffer("joined_packed", packed, persistent=False)
    shared.owner = parts[0]
    return parts
