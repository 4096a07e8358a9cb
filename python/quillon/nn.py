"""Layers that keep their weight packed, and the replacement of a model's dense layers by them."""

from __future__ import annotations

import fnmatch
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import Any

import torch
from torch import Tensor, nn
from torch.autograd import forward_ad

import vesper_linear
from quillon.formats import Format, row_multiple, weight_bytes, weight_format
from quillon.quantizers import quantize
from quillon.reference import dequantize_reference

__all__ = ["LowBitLinear", "QuantizationReport", "kernel_row_multiple", "quantize_model"]

# The matrix-vector kernels of these formats sum whole rounds of a work-group alone: a row that is no multiple of a
# round would lose its tail without a word. On class elm a work-group, and with it a round, is twice as large.
_WHOLE_ROUNDS = {"q4_k": {"elm": 1024, "": 512}, "q6_k": {"elm": 1024, "": 512}}


def kernel_row_multiple(format: str | int, device_class: str = "unknown") -> int:
    """What a row length must be a multiple of for the batch-1 kernel of ``format`` on a device of ``device_class``.

    ``device_class`` is what ``vesper_linear.get_xpu_device_name`` gives. The storage alone asks for 64 or 256.
    """
    name = weight_format(format).name
    rounds = _WHOLE_ROUNDS.get(name)
    return row_multiple(name) if rounds is None else rounds.get(device_class, rounds[""])


DEVICE_CLASSES = ("oak", "elm", "ash", "fir", "yew", "bay", "legacy", "unknown")
"""What ``vesper_linear.get_xpu_device_name`` can give, in order of code."""


def chosen_device_class(device_class: str | None, formats: Iterable[Format]) -> str:
    """The class whose row rule counts: the given one, by default that of the current XPU.

    Without an XPU it is the class that asks the most of the given formats' rows, so that what is packed runs anywhere.
    Raises ``ValueError`` for a name that no class has.
    """
    if device_class is None and torch.xpu.is_available():
        return vesper_linear.get_xpu_device_name(torch.device("xpu"))
    if device_class is None:
        chosen = list(formats)
        return max(DEVICE_CLASSES, key=lambda name: sum(kernel_row_multiple(one.name, name) for one in chosen))
    if device_class not in DEVICE_CLASSES:
        raise ValueError(f"unknown device class {device_class!r}; allowed: {', '.join(DEVICE_CLASSES)}")
    return device_class


def _shape_problem(format: Format, in_features: int, device_class: str) -> str | None:
    multiple = kernel_row_multiple(format.name, device_class)
    if in_features % multiple == 0:
        return None
    where = f" on device class {device_class}" if format.name in _WHOLE_ROUNDS else ""
    return f"in_features must be a multiple of {multiple} for {format.name}{where}, got {in_features}"


def _multiply(input: Tensor, packed: Tensor, format: Format, out_features: int) -> Tensor:
    """``input`` (..., in_features) times the packed weight: (..., out_features)."""
    columns = input.shape[-1]
    rows = input.reshape(-1, columns).contiguous()
    # Launches queue up behind one another, and the one cat at the end waits for all of them.
    outputs = [
        vesper_linear.forward_new(rows[index : index + 1], packed, format.code, columns)
        for index in range(rows.shape[0])
    ]
    if len(outputs) == 1:
        output = outputs[0]
    else:
        output = torch.cat(outputs) if outputs else rows.new_empty((0, out_features))
    return output.reshape(*input.shape[:-1], out_features)


class _PackedProduct(torch.autograd.Function):
    """:func:`_multiply` with derivatives: it is linear in the input, and the packed weight has none."""

    @staticmethod
    def forward(input: Tensor, packed: Tensor, format: Format, out_features: int) -> Tensor:
        return _multiply(input, packed, format, out_features)

    @staticmethod
    def setup_context(ctx: Any, inputs: tuple[Tensor, Tensor, Format, int], output: Tensor) -> None:
        input, packed, ctx.format, ctx.out_features = inputs
        ctx.in_features = input.shape[-1]
        ctx.save_for_backward(packed)
        ctx.save_for_forward(packed)

    @staticmethod
    def backward(ctx: Any, gradient: Tensor) -> tuple[Tensor | None, ...]:
        if not ctx.needs_input_grad[0]:
            return None, None, None, None
        (packed,) = ctx.saved_tensors
        weight = dequantize_reference(packed, ctx.format.name, ctx.out_features, ctx.in_features, gradient.dtype)
        return gradient @ weight.to(gradient.device), None, None, None

    @staticmethod
    def jvp(ctx: Any, tangent: Tensor, *_: Any) -> Tensor:
        (packed,) = ctx.saved_tensors
        return _product(tangent, packed, ctx.format, ctx.out_features)

    @staticmethod
    def vmap(
        info: Any, in_dims: tuple[int | None, ...], input: Tensor, packed: Tensor, format: Format, out_features: int
    ) -> tuple[Tensor, int]:
        if in_dims[0] is None or in_dims[1] is not None:
            raise NotImplementedError("vmap over the packed weight of a LowBitLinear; map over its input")
        return _product(input.movedim(in_dims[0], 0), packed, format, out_features), 0


_product: Callable[[Tensor, Tensor, Format, int], Tensor] = _PackedProduct.apply


def _needs_derivatives(input: Tensor) -> bool:
    """Whether autograd, forward-mode differentiation or a transform of ``torch.func`` looks at a call."""
    return (
        (input.requires_grad and torch.is_grad_enabled())
        or forward_ad._current_level >= 0
        or torch._C._functorch.peek_interpreter_stack() is not None
    )


def _as_autocast(input: Tensor) -> Tensor:
    """The input in the element type in which autocast has dense layers compute: all but float64 is cast."""
    if torch.is_autocast_enabled("xpu") and input.is_floating_point() and input.dtype != torch.float64:
        return input.to(torch.get_autocast_dtype("xpu"))
    return input


class LowBitLinear(nn.Module):
    """``y = x W^T + b`` with ``W`` kept in one of the storage formats and read packed by the device's kernels.

    Made by :meth:`from_linear`, or empty from shapes to be filled by ``load_state_dict``.

    Buffers: ``packed``, uint8, one dimension, the bytes of the weight; ``bias``, of the activations' element type, or
    None. Both move with ``.to(device)``; ``.half()`` and the like leave the bytes alone.

    The input is (..., in_features) of float32, float64, float16 or bfloat16 on an XPU; the output has its element
    type and is (..., out_features). In this release rows go through one by one. Autocast is followed as by a dense
    layer.

    The weight is not trained. The input's gradient is the output's times :meth:`dequantize`, so what lies before the
    layer, and adapters beside it, train as in a dense model. Where a format rounds the activations (iq2_xxs, q2_k,
    iq1_s) the gradient is that of the product without this rounding.
    """

    packed: Tensor
    bias: Tensor | None

    def __init__(self, in_features: int, out_features: int, format: str | int, bias: bool = True) -> None:
        """Make a layer of zero bytes.

        Raises ``ValueError`` for an unknown format or an ``in_features`` that the format's kernels do not cover.
        """
        super().__init__()
        self.format = weight_format(format)
        self.in_features = in_features
        self.out_features = out_features
        problem = _shape_problem(self.format, in_features, "unknown")
        if problem:
            raise ValueError(problem)
        size = weight_bytes(self.format.name, out_features, in_features)
        self.register_buffer("packed", torch.zeros(size, dtype=torch.uint8))
        self.register_buffer("bias", torch.zeros(out_features) if bias else None)
        self._checked_devices: set[torch.device] = set()

    @classmethod
    def from_linear(cls, linear: nn.Linear, format: str | int, *, importance: Tensor | None = None) -> LowBitLinear:
        """Pack the weight of a dense layer. The result lies on the device of ``linear``.

        ``importance``: (in_features,), how much each column counts in the quantizer's squared error.
        """
        layer = cls(linear.in_features, linear.out_features, format, bias=linear.bias is not None)
        device = linear.weight.device
        packed = quantize(linear.weight.detach().cpu(), layer.format.name, importance=importance)
        layer.packed = packed.to(device)
        if linear.bias is not None:
            layer.bias = linear.bias.detach().clone()
        return layer.train(linear.training)

    def forward(self, input: Tensor) -> Tensor:
        """Apply the layer to ``input``, (..., in_features); gives (..., out_features)."""
        if input.shape[-1] != self.in_features:
            raise ValueError(
                f"input must have {self.in_features} columns (in_features), got shape {tuple(input.shape)}"
            )
        if input.device not in self._checked_devices:
            self._check_device(input.device)
        input = _as_autocast(input)
        product = _product if _needs_derivatives(input) else _multiply
        output = product(input, self.packed, self.format, self.out_features)
        if self.bias is not None:
            output = (output + self.bias).to(output.dtype)
        return output

    def dequantize(self, dtype: torch.dtype = torch.float32) -> Tensor:
        """Return the weight that the layer stands for, (out_features, in_features), on the CPU."""
        return dequantize_reference(
            self.packed.cpu(), self.format.name, self.out_features, self.in_features, dtype=dtype
        )

    def extra_repr(self) -> str:
        """Return the shape and format for ``repr``."""
        return (
            f"in_features={self.in_features}, out_features={self.out_features}, format={self.format.name}, "
            f"bias={self.bias is not None}"
        )

    def _check_device(self, device: torch.device) -> None:
        if device.type != "xpu":
            raise ValueError(f"input must be on an XPU, where the packed kernels run, got device {device}")
        problem = _shape_problem(self.format, self.in_features, vesper_linear.get_xpu_device_name(device))
        if problem:
            raise ValueError(problem)
        self._checked_devices.add(device)


@dataclass
class QuantizationReport:
    """What :func:`quantize_model` did: names of the layers by outcome, and bytes of their weights."""

    replaced: dict[str, str] = field(default_factory=dict)
    """Name of each replaced layer -> its format."""
    kept: dict[str, str] = field(default_factory=dict)
    """Name of each dense layer that stayed -> why."""
    dense_bytes: int = 0
    """Bytes of the replaced layers' weights before."""
    packed_bytes: int = 0
    """Bytes of the replaced layers' weights after."""


def quantize_model(
    model: nn.Module,
    format: str | int,
    skip: Iterable[str] = (),
    *,
    fallback: str | int | None = None,
    device_class: str | None = None,
    progress: Callable[[int, int, str], None] | None = None,
) -> QuantizationReport:
    """Replace every ``nn.Linear`` inside ``model`` by a :class:`LowBitLinear`, in place.

    skip          names of layers that stay dense, as in ``model.named_modules()``; shell patterns are allowed
                  (``"lm_head"``, ``"*.mlp.*"``)
    fallback      format of the layers whose row length ``format`` does not cover; None keeps them dense
    device_class  the class of the device that the model will run on, as ``vesper_linear.get_xpu_device_name`` gives;
                  by default that of the current XPU
    progress      called as ``progress(done, total, name)`` before each layer

    Layers of any subclass of ``nn.Linear`` are left alone, since what they do beside the product is not known.
    """
    chosen = weight_format(format)
    second = None if fallback is None else weight_format(fallback)
    device_class = chosen_device_class(device_class, [chosen] if second is None else [chosen, second])
    patterns = tuple(skip)
    layers = [(name, module) for name, module in model.named_modules() if type(module) is nn.Linear]
    report = QuantizationReport()
    for done, (name, linear) in enumerate(layers):
        if progress is not None:
            progress(done, len(layers), name)
        if any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
            report.kept[name] = "skipped by name"
            continue
        problem = _shape_problem(chosen, linear.in_features, device_class)
        used = chosen
        if problem and second and not _shape_problem(second, linear.in_features, device_class):
            used, problem = second, None
        if problem:
            report.kept[name] = problem
            continue
        layer = LowBitLinear.from_linear(linear, used.name)
        parent_name, _, child = name.rpartition(".")
        setattr(model.get_submodule(parent_name), child, layer)
        report.replaced[name] = used.name
        report.dense_bytes += linear.weight.numel() * linear.weight.element_size()
        report.packed_bytes += layer.packed.numel()
    return report
