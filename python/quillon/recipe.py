"""Which format each layer of a model gets."""

from __future__ import annotations

import fnmatch
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field

import torch
from torch import Tensor, nn

import vesper_linear
from quillon import nn as layers
from quillon.embedding import EMBEDDING_FORMATS, LowBitEmbedding
from quillon.formats import Format, format_name, weight_format
from quillon.quantizers import InputMoments

__all__ = ["Plan", "Recipe"]


def _is_embedding(module: nn.Module) -> bool:
    return type(module) is nn.Embedding and module.max_norm is None


def _why_never(module: nn.Module) -> str | None:
    """Why a module cannot be packed in any format: "" where it holds no matrix, None where it can."""
    if _is_embedding(module) or layers._packed_shapes(module) is not None:
        return None
    return layers._why_not_packed(module) if layers._holds_a_matrix(module) else ""


def _problem(module: nn.Module, format: Format, device_class: str) -> str | None:
    """Why a module cannot be packed in ``format``, or None."""
    if not _is_embedding(module):
        return layers._problem_of_shapes(format, layers._packed_shapes(module) or (), device_class)
    if format.name not in EMBEDDING_FORMATS:
        return f"{format.name} is none of the formats of embeddings: {', '.join(EMBEDDING_FORMATS)}"
    assert isinstance(module, nn.Embedding)
    if module.embedding_dim % format.elements:
        return f"embedding_dim must be a multiple of {format.elements} for {format.name}, got {module.embedding_dim}"
    return None


def pack(
    module: nn.Module,
    format: str,
    place: str = "",
    moments: Mapping[str, InputMoments] | None = None,
    find: Callable[[str], Tensor | None] = lambda name: None,
) -> nn.Module:
    """The packed module in place of the dense one at ``place`` of a model, as :func:`quillon.nn._pack` does."""
    if isinstance(module, nn.Embedding):
        return LowBitEmbedding.from_embedding(module, format)
    return layers._pack(module, weight_format(format), place, moments or {}, find)


@dataclass(frozen=True)
class Recipe:
    """Formats by the place of a layer in a model; None keeps a layer dense.

    patterns          shell patterns of layer names -> format or None; the first that matches counts, ahead of all else
    output_format     of the layer that gives the logits
    embedding_format  of the embedding
    format            of every other layer
    fallback          in place of a format whose kernels do not cover a layer's rows
    """

    format: str | None
    output_format: str | None = None
    embedding_format: str | None = None
    fallback: str | None = None
    patterns: Mapping[str, str | None] = field(default_factory=dict)

    def __post_init__(self) -> None:
        """Check the names; raises ``ValueError`` for one that is no weight format."""
        for name in self._formats():
            weight_format(name)
        if self.embedding_format is not None and format_name(self.embedding_format) not in EMBEDDING_FORMATS:
            raise ValueError(
                f"embedding_format must be one that the device expands row by row, got {self.embedding_format}; "
                f"allowed: {', '.join(EMBEDDING_FORMATS)}"
            )

    def _formats(self) -> list[str]:
        named = (self.format, self.output_format, self.embedding_format, self.fallback, *self.patterns.values())
        return [name for name in named if name is not None]

    def device_class(self, devices: Iterable[torch.device] = ()) -> str:
        """The class of the devices, of several the one that asks the most of rows; without any, the current one's."""
        formats = [weight_format(name) for name in self._formats()]
        classes = {vesper_linear.get_xpu_device_name(device) for device in devices}
        if not classes:
            return layers.chosen_device_class(None, formats)
        return max(classes, key=lambda name: sum(layers.kernel_row_multiple(one.name, name) for one in formats))

    def plan(self, model: nn.Module, device_class: str | None, given: Mapping[str, str] | None = None) -> Plan:
        """Choose for every layer of ``model``, which may be on the meta device.

        device_class  the class whose row rule counts, as for :func:`quillon.quantize_model`
        given         layer names -> formats that their weights have already: kept unless a pattern says otherwise

        Raises ``ValueError`` for a pattern that matches no layer.
        """
        chosen_class = layers.chosen_device_class(device_class, map(weight_format, self._formats()))
        output = getattr(model, "get_output_embeddings", lambda: None)()
        plan, unused = Plan(), set(self.patterns)
        for name, module in model.named_modules():
            embedding = _is_embedding(module)
            reason = _why_never(module)
            if name == "" or reason == "":
                continue
            matching = [pattern for pattern in self.patterns if fnmatch.fnmatchcase(name, pattern)]
            unused.difference_update(matching)
            if reason is not None:
                plan.dense[name] = reason
                continue
            if matching:
                wanted = self.patterns[matching[0]]
            elif given is not None and name in given:
                wanted = given[name]
            else:
                wanted = self.embedding_format if embedding else self.output_format if module is output else self.format
            if wanted is None:
                if not embedding:
                    plan.dense[name] = "by recipe"
                continue
            self._place(plan, name, module, weight_format(wanted), chosen_class)
        if unused:
            found = ", ".join([*plan.packed, *plan.dense][:5])
            raise ValueError(f"no layer matches {', '.join(map(repr, sorted(unused)))}; the model has {found}, ...")
        return plan

    def _place(self, plan: Plan, name: str, module: nn.Module, wanted: Format, device_class: str) -> None:
        problems: list[str] = []
        for candidate in (wanted, *([weight_format(self.fallback)] if self.fallback else [])):
            problem = _problem(module, candidate, device_class)
            if problem is None:
                plan.packed[name] = candidate.name
                if problems:
                    plan.replaced[name] = problems[0]
                return
            problems.append(problem)
        plan.dense[name] = problems[0]


@dataclass
class Plan:
    """What a :class:`Recipe` makes of a model."""

    packed: dict[str, str] = field(default_factory=dict)
    """Layer name -> format."""
    dense: dict[str, str] = field(default_factory=dict)
    """Name of a layer that stays dense -> why."""
    replaced: dict[str, str] = field(default_factory=dict)
    """Name of a layer in the second-choice format -> why its first choice does not fit."""
