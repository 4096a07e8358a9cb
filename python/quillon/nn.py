"""Layers that keep their weight packed, and the replacement of a model's dense layers by them."""

from __future__ import annotations

import fnmatch
import functools
import operator
import sys
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any

import torch
from torch import Tensor, nn
from torch.autograd import forward_ad

import vesper_linear
from quillon._device_table import DEVICE_CLASSES
from quillon._format_table import MAX_ELEMENTS
from quillon._kernels import KERNELS, LAUNCHER_TABLES, MLP_KERNELS
from quillon._named import naming
from quillon.embedding import LowBitEmbedding
from quillon.expansion import dequantize_where_it_is
from quillon.formats import BUDGET_FORMATS, Format, weight_bytes, weight_format
from quillon.quantizers import InputMoments, quantize
from quillon.rwkv import rwkv_attention_v4, rwkv_attention_v5, rwkv_state_v4, rwkv_state_v5, rwkv_time_shift

if TYPE_CHECKING:
    from quillon.parallel import Split

__all__ = [
    "FusedMLP",
    "LowBitEmbedding",
    "LowBitExperts",
    "LowBitLinear",
    "QuantizationReport",
    "fuse_mlps",
    "kernel_row_multiple",
    "quantize_model",
    "rwkv_attention_v4",
    "rwkv_attention_v5",
    "rwkv_state_v4",
    "rwkv_state_v5",
    "rwkv_time_shift",
]


def kernel_row_multiple(format: str | int, device_class: str = "unknown") -> int:
    """What a row length must be a multiple of for the batch-1 kernel of ``format`` on a device of ``device_class``.

    ``device_class`` is what ``vesper_linear.get_xpu_device_name`` gives. The storage alone asks for 64 or 256; some
    kernels sum whole rounds of a work-group alone, so that a row that is no multiple of a round would lose its tail
    without a word.
    """
    if device_class not in LAUNCHER_TABLES:
        raise ValueError(f"unknown device class {device_class!r}; known: {', '.join(LAUNCHER_TABLES)}")
    return KERNELS[weight_format(format).name].row_multiple(device_class)


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
    where = f" on device class {device_class}" if KERNELS[format.name].drops_tail else ""
    return f"in_features must be a multiple of {multiple} for {format.name}{where}, got {in_features}"


def _operator_for(input: Tensor) -> Callable[[Tensor, Tensor, int, int], Tensor]:
    """The product of one row. The module's function costs less, but no mode or subclass of tensors sees it."""
    seen = torch.compiler.is_compiling() or type(input) is not Tensor or torch._C._len_torch_dispatch_stack() > 0
    if not seen:
        return vesper_linear.forward_new
    dispatched: Callable[[Tensor, Tensor, int, int], Tensor] = torch.ops.quillon.forward_new
    return dispatched


@functools.cache
def _rows_at_once(
    format: Format, device: torch.device, dtype: torch.dtype, columns: int, out_features: int
) -> tuple[int, int, int, int]:
    """How many rows a layer may give to one call, 0 for any number, and when it gives fewer.

    A few rows meet the packed weight sooner than it is expanded for them: up to the second number go in one call if
    they are at most the third, else in calls of the fourth.
    """
    if device.type != "xpu":
        return 0, 0, 0, 0
    rows: tuple[int, int, int, int] = torch.ops.quillon_kernels.rows_at_once(
        device, format.code, dtype, columns, out_features
    )
    return rows


def _rows_of_call(
    count: int, format: Format, device: torch.device, dtype: torch.dtype, columns: int, out_features: int
) -> int:
    """How many of ``count`` rows a layer gives to one call; 0: all.

    An exported program takes any number of rows, and knows of no few.
    """
    if count == 1:  # a token of generation asks for nothing
        return 0
    at_once, few, of_call, of_several = _rows_at_once(format, device, dtype, columns, out_features)
    if few > 1 and not torch.compiler.is_exporting() and count <= few:
        return 0 if count <= of_call else of_several
    return at_once if at_once < count else 0


def _input_size(format: Format, columns: int) -> int:
    """What a call is told of the input for the choice of a road.

    Where memory is short and a weight large, a product of more than 128 columns expands it in tiles, which a format
    without right tiles must not.
    """
    return columns if format.name not in _FORMATS_WITHOUT_TILES else 0


_FORMATS_WITHOUT_TILES = ("fp6", "q4_0_woq")


def _multiply(input: Tensor, packed: Tensor, format: Format, out_features: int) -> Tensor:
    """``input`` (..., in_features) times the packed weight: (..., out_features)."""
    columns, forward_new = input.shape[-1], _operator_for(input)
    rows = input.reshape(-1, columns).contiguous()
    if rows.shape[0] == 0:
        return input.new_empty(*input.shape[:-1], out_features)
    size = _input_size(format, columns)
    at_once = _rows_of_call(rows.shape[0], format, rows.device, rows.dtype, columns, out_features)
    if at_once == 0 or at_once == rows.shape[0]:
        output = forward_new(rows, packed, format.code, size)
    else:
        # Launches queue up behind one another, and the one cat at the end waits for all of them.
        output = torch.cat([forward_new(part, packed, format.code, size) for part in torch.split(rows, at_once)])
    return output.view(*input.shape[:-1], out_features)


class _PackedProduct(torch.autograd.Function):
    """:func:`_multiply` with derivatives: it is linear in the input, and the packed weight has none."""

    @staticmethod
    def forward(input: Tensor, packed: Tensor, format: Format, out_features: int) -> Tensor:
        # A copy, because the bias is added in place, which what may be a view forbids.
        return _multiply(input, packed, format, out_features).clone()

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
        weight = dequantize_where_it_is(packed, ctx.format, ctx.out_features, ctx.in_features, gradient.dtype)
        return gradient @ weight, None, None, None

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


def apply_packed(input: Tensor, packed: Tensor, format: Format, out_features: int) -> Tensor:
    """:func:`_multiply` as a layer has it: under autocast in its element type, and with derivatives where asked for."""
    input = _as_autocast(input)
    product = _product if _needs_derivatives(input) else _multiply
    return product(input, packed, format, out_features)


def _check_device(format: Format, row_lengths: Iterable[int], device: torch.device) -> None:
    """Raise ``ValueError`` unless the kernels of ``format`` on ``device`` cover rows of these lengths."""
    if device.type != "xpu":
        raise ValueError(f"input must be on an XPU, where the packed kernels run, got device {device}")
    device_class = vesper_linear.get_xpu_device_name(device)
    for length in row_lengths:
        problem = _shape_problem(format, length, device_class)
        if problem:
            raise ValueError(problem)


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
    type and is (..., out_features). One row, with some formats a handful, and of float32 with most, meet the packed
    bytes as they are; for more the weight is expanded while the call lasts. Autocast is followed as by a dense layer.

    The weight is not trained. The input's gradient is the output's times :meth:`dequantize`, so what lies before the
    layer, and adapters beside it, train as in a dense model. Where a format rounds the activations (iq2_xxs, q2_k,
    iq1_s) the gradient is that of the product without this rounding.
    """

    packed: Tensor
    bias: Tensor | None
    split: Split | None = None
    """Which part of the layer this process has, if several share it (:mod:`quillon.parallel`). Sizes are the part's."""

    def __init__(self, in_features: int, out_features: int, format: str | int, bias: bool = True) -> None:
        """Make a layer of zero bytes.

        Raises ``ValueError`` for an unknown format or an ``in_features`` that the format's kernels do not cover.
        """
        super().__init__()
        for name, value in (("in_features", in_features), ("out_features", out_features)):
            if not isinstance(value, int) or isinstance(value, bool):
                raise TypeError(f"{name} must be an integer, got {value!r}")
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
    def from_linear(
        cls,
        linear: nn.Linear,
        format: str | int,
        *,
        importance: Tensor | None = None,
        moments: InputMoments | None = None,
    ) -> LowBitLinear:
        """Pack the weight of a dense layer. The result lies on the device of ``linear``.

        importance  (in_features,), how much each column counts in the quantizer's squared error
        moments     in its place what :func:`quillon.calibrate` found of the layer's inputs
        """
        layer = cls.from_weight(linear.weight, linear.bias, format, importance=importance, moments=moments)
        return layer.train(linear.training)

    @classmethod
    def from_weight(
        cls,
        weight: Tensor,
        bias: Tensor | None,
        format: str | int,
        *,
        importance: Tensor | None = None,
        moments: InputMoments | None = None,
    ) -> LowBitLinear:
        """Pack a weight, (out_features, in_features). The result lies on its device.

        ``importance`` and ``moments``: as for :meth:`from_linear`.
        """
        packed = functools.partial(quantize, weight.detach(), importance=importance, moments=moments)
        return cls._around(packed, weight, bias, format)

    @classmethod
    def _around(
        cls, pack: Callable[[str], Tensor], weight: Tensor, bias: Tensor | None, format: str | int
    ) -> LowBitLinear:
        """The layer of a dense weight that ``pack`` gives the bytes of, in a format."""
        if weight.dim() != 2:
            raise ValueError(
                f"weight must have two dimensions (out_features, in_features), got shape {tuple(weight.shape)}"
            )
        out_features, in_features = weight.shape
        if bias is not None and bias.shape != (out_features,):
            raise ValueError(f"bias must have shape ({out_features},), got {tuple(bias.shape)}")
        layer = cls(in_features, out_features, format, bias=bias is not None)
        layer.packed = pack(layer.format.name).to(weight.device)
        if bias is not None:
            layer.bias = bias.detach().clone()
        return layer

    def forward(self, input: Tensor) -> Tensor:
        """Apply the layer to ``input``, (..., in_features); gives (..., out_features)."""
        split = self.split
        if split is not None:
            input = split.enter(input)
        if input.dim() == 0 or input.shape[-1] != self.in_features:
            raise ValueError(
                f"input must have {self.in_features} columns (in_features), got shape {tuple(input.shape)}"
            )
        if input.device not in self._checked_devices:
            _check_device(self.format, (self.in_features,), input.device)
            self._checked_devices.add(input.device)
        try:
            output = self._product(input)
        except RuntimeError:
            self._check_packed(input.device)
            raise
        if split is not None and split.dim == "columns":
            output = split.sum(output)
        if self.bias is not None:
            output += self.bias
        if split is not None and split.dim == "rows" and split.output == "whole":
            output = split.gather(output)
        return output

    def _product(self, input: Tensor) -> Tensor:
        return apply_packed(input, self.packed, self.format, self.out_features)

    def dequantize(self, dtype: torch.dtype = torch.float32) -> Tensor:
        """Return the weight that the layer stands for, (out_features, in_features), on the layer's device."""
        return dequantize_where_it_is(self.packed, self.format, self.out_features, self.in_features, dtype)

    def _check_packed(self, device: torch.device) -> None:
        """Raise ``ValueError`` if the bytes are not those of this layer, or not on ``device``: somebody put others."""
        size = weight_bytes(self.format.name, self.out_features, self.in_features)
        if self.packed.shape != (size,) or self.packed.dtype != torch.uint8:
            raise ValueError(
                f"packed must be uint8 of shape ({size},) for {self.out_features} by {self.in_features} in "
                f"{self.format.name}, got {self.packed.dtype} of shape {tuple(self.packed.shape)}"
            )
        if self.packed.device != device:
            raise ValueError(f"input is on {device} and the layer on {self.packed.device}; both must be on one device")

    def extra_repr(self) -> str:
        """Return the shape and format for ``repr``."""
        return (
            f"in_features={self.in_features}, out_features={self.out_features}, format={self.format.name}, "
            f"bias={self.bias is not None}" + (f", {self.split}" if self.split is not None else "")
        )


class LowBitExperts(nn.Module):
    """The experts of a mixture-of-experts layer, their weights packed one by one.

    Made by :meth:`from_experts` from a module that keeps its experts as two parameters of three dimensions. What else
    that module had, biases and activation, stays in ``shell``.

    Buffers: ``packed_up`` and ``packed_down``, uint8, (experts, bytes): the products before and after the activation.
    """

    packed_up: Tensor
    packed_down: Tensor
    split: Split | None = None
    """As of a :class:`LowBitLinear`; each process has a part of every expert."""

    def __init__(
        self, shell: nn.Module, packed_up: Tensor, packed_down: Tensor, layout: _ExpertLayout, format: Format
    ) -> None:
        """Make the module from what :meth:`from_experts` has packed."""
        super().__init__()
        self.shell = shell
        self.layout = layout
        self.format = format
        self.register_buffer("packed_up", packed_up)
        self.register_buffer("packed_down", packed_down)
        self._checked_devices: set[torch.device] = set()

    @classmethod
    def from_experts(cls, experts: nn.Module, format: str | int) -> LowBitExperts:
        """Pack the experts of a module, which loses its two parameters to the result's ``shell``.

        The module is one of those whose parameters :func:`torch.nn.functional.linear` takes expert by expert, or their
        transposes, and which says so in ``is_transposed``, ``has_gate`` and ``has_bias``.
        """
        target = weight_format(format)
        return cls._packed_by(experts, target, lambda _, weight: quantize(weight, target.name))

    @classmethod
    def _packed_by(cls, experts: nn.Module, target: Format, pack_one: Callable[[str, Tensor], Tensor]) -> LowBitExperts:
        """``pack_one`` is given what :meth:`_ExpertLayout.matrices` calls a matrix, and the matrix."""
        layout = _expert_layout(experts)
        if layout is None:
            raise ValueError(f"{type(experts).__name__} is no module of experts that can be packed")

        def pack(name: str) -> Tensor:
            weights = getattr(experts, name).detach()
            if layout.transposed:
                weights = weights.transpose(1, 2)
            packed = [pack_one(f"{name}.{number}", weight) for number, weight in enumerate(weights)]
            return torch.stack(packed).to(weights.device)

        up, down = pack(layout.up), pack("down_proj")
        delattr(experts, layout.up)
        del experts.down_proj
        return cls(experts, up, down, layout, target).train(experts.training)

    def forward(self, hidden_states: Tensor, top_k_index: Tensor, top_k_weights: Tensor) -> Tensor:
        """Sum of the experts that each token chose, times their weights.

        hidden_states (tokens, columns); top_k_index (tokens, slots), numbers of experts, where the number of experts
        itself stands for none; top_k_weights (tokens, slots). Returns (tokens, columns).
        """
        layout, device, split = self.layout, hidden_states.device, self.split
        shell: Any = self.shell
        if split is not None:
            hidden_states, top_k_weights = split.enter_whole(hidden_states), split.enter_whole(top_k_weights)
        if hidden_states.dim() != 2 or hidden_states.shape[1] != layout.columns:
            raise ValueError(
                f"hidden_states must have shape (tokens, {layout.columns}), got {tuple(hidden_states.shape)}"
            )
        for name, given in (("top_k_index", top_k_index), ("top_k_weights", top_k_weights)):
            if given.dim() != 2 or given.shape[0] != hidden_states.shape[0] or given.shape != top_k_index.shape:
                raise ValueError(
                    f"{name} must have shape ({hidden_states.shape[0]}, slots), the same as the other's, "
                    f"got {tuple(given.shape)}"
                )
        if device not in self._checked_devices:
            _check_device(self.format, (layout.columns, layout.inner), device)
            self._checked_devices.add(device)
        ids = top_k_index.to(device="cpu", dtype=torch.int32).contiguous()
        slots, tokens = vesper_linear.get_moe_indexes(ids, layout.experts + 1)
        result = torch.zeros_like(hidden_states)
        for expert in range(layout.experts):
            if not tokens[expert]:
                continue
            token = torch.tensor(tokens[expert], device=device)
            slot = torch.tensor(slots[expert], device=device)
            up = apply_packed(hidden_states[token], self.packed_up[expert], self.format, layout.up_rows)
            if layout.biased:
                up = up + getattr(shell, layout.up + "_bias")[expert].to(up.dtype)
            inner = shell._apply_gate(up) if layout.gated else shell.act_fn(up)
            output = apply_packed(inner, self.packed_down[expert], self.format, layout.columns)
            if layout.biased and (split is None or split.is_first):
                output = output + shell.down_proj_bias[expert].to(output.dtype)
            output = output * top_k_weights[token, slot, None]
            result.index_add_(0, token, output.to(result.dtype))
        return result if split is None else split.sum(result)

    def extra_repr(self) -> str:
        """Return the shape and format for ``repr``."""
        layout = self.layout
        text = f"experts={layout.experts}, columns={layout.columns}, inner={layout.inner}, format={self.format.name}"
        return text if self.split is None else f"{text}, {self.split}"


@dataclass(frozen=True)
class _ExpertLayout:
    """How a module keeps its experts."""

    experts: int
    columns: int
    """Row length of the first product, which is also the length of the result's rows."""
    inner: int
    """Row length of the second product."""
    up: str
    """Name of the first product's parameter."""
    up_rows: int
    transposed: bool
    gated: bool
    biased: bool

    def matrices(self) -> list[str]:
        """What a calibration calls the module's matrices, behind the module's name."""
        return [f"{name}.{number}" for name in (self.up, "down_proj") for number in range(self.experts)]


def _expert_inner(module: Any, layout: _ExpertLayout, number: int, rows: Tensor) -> Tensor:
    """What an expert's second product is given for some rows, by the module's dense parameters."""
    weight = getattr(module, layout.up).detach()[number]
    bias = getattr(module, layout.up + "_bias").detach()[number] if layout.biased else None
    up = nn.functional.linear(rows, weight.T if layout.transposed else weight, bias)
    inner: Tensor = module._apply_gate(up) if layout.gated else module.act_fn(up)
    return inner


def matrix_names(name: str, module: nn.Module) -> list[str]:
    """Under which names a calibration knows the matrices of a module that can be packed."""
    layout = _expert_layout(module)
    return [name] if layout is None else [f"{name}.{one}" for one in layout.matrices()]


def _expert_layout(module: nn.Module) -> _ExpertLayout | None:
    """The layout of a module that says of itself how it keeps its experts, or None."""
    says = [getattr(module, name, None) for name in ("is_transposed", "has_gate", "has_bias", "has_post_expert_norm")]
    if not all(isinstance(one, bool) for one in says) or says[3]:
        return None
    transposed, gated, biased, _ = says
    up = "gate_up_proj" if gated else "up_proj"
    parameters = dict(module.named_parameters(recurse=False))
    expected = {up, "down_proj"} | ({f"{up}_bias", "down_proj_bias"} if biased else set())
    if set(parameters) != expected or not hasattr(module, "_apply_gate" if gated else "act_fn"):
        return None
    first, second = parameters[up], parameters["down_proj"]
    if first.dim() != 3 or second.dim() != 3:
        return None
    experts, up_rows, columns = first.mT.shape if transposed else first.shape
    down_shape = second.mT.shape if transposed else second.shape
    inner = up_rows // 2 if gated else up_rows
    if down_shape != (experts, columns, inner):
        return None
    return _ExpertLayout(experts, columns, inner, up, up_rows, bool(transposed), bool(gated), bool(biased))


_ELEMENT_TYPES = (torch.float32, torch.float64, torch.float16, torch.bfloat16)
_SILU = 0
"""How the fused kernel's first activation is named in a call."""


def _mlp_is_served(format_name: str, device: torch.device, rows: int) -> bool:
    """Whether a device has a fused kernel of a format that computes all of so many rows."""
    return device.type == "xpu" and _mlp_fits(format_name, vesper_linear.get_xpu_device_name(device), rows)


@functools.cache
def _mlp_fits(format_name: str, device_class: str, rows: int) -> bool:
    kernel = MLP_KERNELS.get(format_name)
    if kernel is None or not kernel.runs_on(device_class):
        return False
    return not kernel.leaves_short_tile or rows % kernel.geometry(device_class).rows == 0


def _is_silu(activation: nn.Module) -> bool:
    library = sys.modules.get("transformers.activations")
    return type(activation) in (nn.SiLU, getattr(library, "SiLUActivation", None))


def _has_hooks(module: nn.Module) -> bool:
    return bool(
        module._forward_hooks or module._forward_pre_hooks or module._backward_hooks or "forward" in vars(module)
    )


def _gives_its_rows(layer: LowBitLinear) -> bool:
    """Whether the output of a layer is the product of its weight and the input, and no more is to be done."""
    return layer.split is None or (layer.split.dim == "rows" and layer.split.output == "split")


def _operator_for_mlp(input: Tensor) -> Callable[[Tensor, Tensor, Tensor, int, int, int, int, int], Tensor]:
    if _operator_for(input) is vesper_linear.forward_new:
        return vesper_linear.mlp_forward_xpu
    dispatched: Callable[..., Tensor] = torch.ops.quillon.mlp_forward_xpu
    return dispatched


class FusedMLP(nn.Module):
    """``down_proj(act_fn(gate_proj(x)) * up_proj(x))``, a single row through gate, up and activation in one launch.

    The launch is there for SiLU over two :class:`LowBitLinear` of one shape, without bias, in q4_0, q4_0_woq, fp4,
    fp6, fp8_e5m2 or, on devices of class elm and legacy, iq2_xxs. Everything else goes through the layers themselves,
    and gives what they give: several rows, calls that need a derivative, devices without a kernel. The fused sums have
    the bits of the layers'; the activation is taken of them in float, where between layers each step is rounded.

    The kernel's second activation is not the usual GELU (its cube has a factor of its own), so that models with GELU
    stay as they are.
    """

    def __init__(self, gate_proj: LowBitLinear, up_proj: LowBitLinear, down_proj: nn.Module, act_fn: nn.Module) -> None:
        """Take the layers of an MLP."""
        super().__init__()
        if (gate_proj.format, gate_proj.in_features, gate_proj.out_features) != (
            up_proj.format,
            up_proj.in_features,
            up_proj.out_features,
        ):
            raise ValueError(f"gate_proj and up_proj must be alike, got {gate_proj} and {up_proj}")
        self.gate_proj = gate_proj
        self.up_proj = up_proj
        self.down_proj = down_proj
        self.act_fn = act_fn
        self._silu = type(act_fn) if _is_silu(act_fn) else None

    def forward(self, input: Tensor) -> Tensor:
        """Apply the MLP to ``input``, (..., in_features)."""
        if self._is_fused(input):
            gated = self._gated(input)
        else:
            gated = self.act_fn(self.gate_proj(input)) * self.up_proj(input)
        output: Tensor = self.down_proj(gated)
        return output

    def _is_fused(self, input: Tensor) -> bool:
        gate, up = self.gate_proj, self.up_proj
        return (
            type(gate) is LowBitLinear
            and type(up) is LowBitLinear
            and (gate.format, gate.in_features, gate.out_features) == (up.format, up.in_features, up.out_features)
            and input.dim() > 0
            and input.numel() == input.shape[-1] == gate.in_features
            and input.dtype in _ELEMENT_TYPES
            and _mlp_is_served(gate.format.name, input.device, gate.out_features)
            and gate.bias is None
            and up.bias is None
            and _gives_its_rows(gate)
            and _gives_its_rows(up)
            and type(self.act_fn) is self._silu
            and not (_has_hooks(gate) or _has_hooks(up) or _has_hooks(self.act_fn))
            and not self._is_differentiated(input)
        )

    @staticmethod
    def _is_differentiated(input: Tensor) -> bool:
        if torch.compiler.is_compiling():  # which cannot follow the question for transforms, and answers yes
            return input.requires_grad and torch.is_grad_enabled()
        return _needs_derivatives(input)

    def _gated(self, input: Tensor) -> Tensor:
        gate, up = self.gate_proj, self.up_proj
        columns, rows = gate.in_features, gate.out_features
        row = _as_autocast(input).reshape(1, columns).contiguous()
        try:
            gated = _operator_for_mlp(row)(row, gate.packed, up.packed, 1, columns, rows, _SILU, gate.format.code)
        except RuntimeError:
            gate._check_packed(input.device)
            up._check_packed(input.device)
            raise
        return gated.view(*input.shape[:-1], rows)


class _LeafTracer(torch.fx.Tracer):
    """Records the calls of a module's children, whatever they are."""

    def is_leaf_module(self, m: nn.Module, module_qualified_name: str) -> bool:
        return True


def _is_gated_mlp(module: nn.Module) -> bool:
    """Whether a module does what :class:`FusedMLP` does, with children of those names and nothing else."""
    names = ("gate_proj", "up_proj", "down_proj", "act_fn")
    if set(module._modules) != set(names) or module._parameters or module._buffers or _has_hooks(module):
        return False
    try:
        graph = _LeafTracer().trace(module)
    except Exception:  # whatever a forward does with what it is given that is no tensor
        return False
    nodes = list(graph.nodes)
    calls = {node.target: node for node in nodes if node.op == "call_module"}
    products = [node for node in nodes if node.op == "call_function" and node.target is operator.mul]
    if len(nodes) != 7 or set(calls) != set(names) or len(products) != 1 or nodes[0].op != "placeholder":
        return False
    gate, up, down, activation = (calls[name] for name in names)
    return (
        gate.args == up.args == (nodes[0],)
        and activation.args == (gate,)
        and set(products[0].args) == {activation, up}
        and down.args == (products[0],)
        and nodes[-1].args == (down,)
        and not any(node.kwargs for node in nodes)
    )


def _is_fusible(module: Any, device_class: str) -> bool:
    """Whether :class:`FusedMLP` in place of a module would have its launch on devices of a class."""
    children = module._modules
    gate, up = children.get("gate_proj"), children.get("up_proj")
    if type(gate) is not LowBitLinear or type(up) is not LowBitLinear or gate is up:
        return False
    return (
        (gate.format, gate.in_features, gate.out_features) == (up.format, up.in_features, up.out_features)
        and gate.bias is None
        and up.bias is None
        and _gives_its_rows(gate)
        and _gives_its_rows(up)
        and not (_has_hooks(gate) or _has_hooks(up))
        and _mlp_fits(gate.format.name, device_class, gate.out_features)
        and isinstance(children.get("act_fn"), nn.Module)
        and _is_silu(module.act_fn)
        and not _has_hooks(module.act_fn)
        and _is_gated_mlp(module)
    )


def fuse_mlps(model: nn.Module, device_class: str | None = None) -> list[str]:
    """Put a :class:`FusedMLP` in place of each MLP inside ``model`` that allows it. Returns their names.

    These are modules that do what a :class:`FusedMLP` does and nothing else, over layers that its kernel on devices of
    ``device_class`` serves (by default that of the current XPU). :func:`quantize_model` does this by itself.
    """
    if device_class is None:
        device_class = chosen_device_class(None, [])
    fused: dict[nn.Module, FusedMLP] = {}
    names = []
    for name, module in list(model.named_modules(remove_duplicate=False)):
        if not name or type(module) is FusedMLP or not _is_fusible(module, device_class):
            continue
        if module not in fused:
            parts: Any = module
            layer = FusedMLP(parts.gate_proj, parts.up_proj, parts.down_proj, parts.act_fn)
            fused[module] = layer.train(module.training)
        parent_name, _, child = name.rpartition(".")
        setattr(model.get_submodule(parent_name), child, fused[module])
        names.append(name)
    return names


@dataclass
class QuantizationReport:
    """What :func:`quantize_model` did: names of the layers by outcome, and bytes of their weights."""

    replaced: dict[str, str] = field(default_factory=dict)
    """Name of each replaced layer -> its format."""
    kept: dict[str, str] = field(default_factory=dict)
    """Name of each dense layer that stayed -> why."""
    uncalibrated: list[str] = field(default_factory=list)
    """Names of the replaced layers, and of the matrices of experts, that the text of a calibration never reached. They
    are packed as without one."""
    fused: list[str] = field(default_factory=list)
    """Names of the MLPs that became a :class:`FusedMLP`."""
    dense_bytes: int = 0
    """Bytes of the replaced layers' weights before."""
    packed_bytes: int = 0
    """Bytes of the replaced layers' weights after."""


def quantize_model(
    model: nn.Module,
    format: str | int | None = None,
    skip: str | Iterable[str] = (),
    *,
    bits: float | None = None,
    fallback: str | int | None = None,
    calibration: Mapping[str, InputMoments] | Iterable[Any] | None = None,
    device_class: str | None = None,
    fuse_mlp: bool = True,
    progress: Callable[[int, int, str], None] | None = None,
) -> QuantizationReport:
    """Replace every dense layer inside ``model`` by one that keeps its weight packed, in place.

    format        of every layer; with ``bits`` none
    skip          names of layers that stay dense, as in ``model.named_modules()``; shell patterns are allowed
                  (``"lm_head"``, ``"*.mlp.*"``)
    bits          in place of a format the most bits for each weight, scales included: every layer gets one of
                  :data:`quillon.formats.BUDGET_FORMATS` that its rows fit, by what its errors cost. With batches as the
                  calibration that is measured on them, forth and back through the model; otherwise the errors of the
                  weights alone count
    fallback      format of the layers whose row length ``format`` does not cover; None keeps them dense
    calibration   what :func:`quillon.calibrate` has found, by which errors of columns are made good by others; or the
                  batches themselves, as for that function, which are then taken through the model block by block, each
                  layer being packed by what meets it behind those that are packed already
    device_class  the class of the device that the model will run on, as ``vesper_linear.get_xpu_device_name`` gives;
                  by default that of the current XPU
    fuse_mlp      whether MLPs with SiLU whose gate and up projections have been packed alike become a
                  :class:`FusedMLP`, where devices of the class have a kernel for it
    progress      called as ``progress(done, total, name)`` before each layer

    Packed are ``nn.Linear`` and the ``Conv1D`` of transformers (:class:`LowBitLinear`), and modules that keep the
    experts of a mixture as parameters of three dimensions in the layout of transformers (:class:`LowBitExperts`).
    Whatever else holds a matrix stays as it is and, embeddings apart, is named in the report's ``kept``: subclasses of
    ``nn.Linear`` for example, since what they do beside the product is not known.
    """
    if not isinstance(model, nn.Module):
        raise TypeError(f"model must be a torch.nn.Module, got {type(model).__name__}")
    if (format is None) == (bits is None):
        raise ValueError(f"either format or bits must be given, got format {format!r} and bits {bits!r}")
    if bits is not None and fallback is not None:
        raise ValueError("fallback belongs to a format; with bits every layer gets one that its rows fit")
    names_of = BUDGET_FORMATS if bits is not None else (format, fallback)
    formats = [weight_format(name) for name in names_of if name is not None]
    device_class = chosen_device_class(device_class, formats)
    if isinstance(calibration, Tensor | str) or not isinstance(calibration, Iterable | None):
        raise TypeError(
            "calibration must be what quillon.calibrate found, or batches in a list or other iterable, "
            f"got {type(calibration).__name__}"
        )
    if isinstance(calibration, Iterable) and not isinstance(calibration, Mapping):
        calibration = list(calibration)
        if not calibration:
            raise ValueError("calibration must hold at least one batch, got none")
    patterns = (skip,) if isinstance(skip, str) else tuple(skip)
    # A module that has several places in the model is packed once and replaced in all of them.
    places: dict[nn.Module, list[str]] = {}
    for name, module in model.named_modules(remove_duplicate=False):
        places.setdefault(module, []).append(name)
    report = QuantizationReport()
    candidates = []
    for module, names in places.items():
        shapes = _packed_shapes(module)
        if shapes is not None:
            candidates.append((module, names, shapes))
        elif _holds_a_matrix(module):
            report.kept |= dict.fromkeys(names, _why_not_packed(module))
    if any(module is model for module, _, _ in candidates):
        raise ValueError(
            f"model is a {type(model).__name__} itself, which has no place to be replaced in; "
            "give the module that holds it, or use LowBitLinear.from_linear"
        )
    chosen: dict[nn.Module, Format] = {}
    for module, names, shapes in candidates:
        problems = [_problem_of_shapes(one, shapes, device_class) for one in formats]
        if any(fnmatch.fnmatchcase(name, pattern) for name in names for pattern in patterns):
            report.kept |= dict.fromkeys(names, "skipped by name")
        elif all(problems):
            report.kept |= dict.fromkeys(names, str(problems[0]))
        elif any(weight.is_meta for weight in _weights(module)):
            report.kept |= dict.fromkeys(names, "its weight holds no data, being on the meta device")
        else:
            chosen[module] = formats[problems.index(None)]
    if bits is not None:
        chosen = _within(model, {places[module][0]: module for module in chosen}, bits, device_class, calibration)
    by_name = {places[module][0]: (module, used) for module, used in chosen.items()}
    moments, bytes_of = _calibrated(model, by_name, calibration)
    for done, (module, names, _) in enumerate(candidates):
        if progress is not None:
            progress(done, len(candidates), names[0])
        if module not in chosen:
            continue
        used = chosen[module]
        report.dense_bytes += sum(weight.numel() * weight.element_size() for weight in _weights(module))
        known = matrix_names(names[0], module)
        with naming(names[0]):
            layer = _pack(module, used, names[0], moments, bytes_of.get)
        if calibration is not None:
            missing = [one for one in known if one not in bytes_of and not _is_calibrated(moments, one)]
            report.uncalibrated += names if missing == names[:1] else missing
        report.packed_bytes += sum(
            buffer.numel() for name, buffer in layer.named_buffers() if name.startswith("packed")
        )
        for name in names:
            parent_name, _, child = name.rpartition(".")
            setattr(model.get_submodule(parent_name), child, layer)
            report.replaced[name] = used.name
    if fuse_mlp:
        report.fused = fuse_mlps(model, device_class)
    return report


def _within(
    model: nn.Module, layers: Mapping[str, nn.Module], bits: float, device_class: str, calibration: Any
) -> dict[nn.Module, Format]:
    """A format for each layer, with at most ``bits`` for each weight in all."""
    from quillon.budget import choose_formats, measure_sensitivity

    measured = {}
    if calibration is not None and not isinstance(calibration, Mapping):
        simple = {name: layer for name, layer in layers.items() if len(_packed_shapes(layer) or ()) == 1}
        measured = measure_sensitivity(model, calibration, simple)
    weights = {name: _matrices(layer) for name, layer in layers.items()}

    def fits(name: str, format: Format) -> bool:
        return _problem_of_shapes(format, _packed_shapes(layers[name]) or (), device_class) is None

    found = choose_formats(weights, bits, fits, measured)
    return {layers[name]: weight_format(format) for name, format in found.items()}


def _matrices(module: Any) -> list[Tensor]:
    """The matrices that :func:`_pack` would pack."""
    if type(module) is nn.Linear:
        return [module.weight.detach()]
    if _is_conv1d(module):
        return [module.weight.detach().T]
    layout = _expert_layout(module)
    assert layout is not None
    both = [getattr(module, layout.up).detach(), module.down_proj.detach()]
    return [one for weights in both for one in (weights.mT if layout.transposed else weights)]


def _calibrated(
    model: nn.Module, chosen: Mapping[str, tuple[nn.Module, Format]], calibration: Any
) -> tuple[Mapping[str, InputMoments], dict[str, Tensor]]:
    """The moments of layers that are still to be packed by them, and the bytes of those that are packed already."""
    if calibration is None:
        return {}, {}
    if isinstance(calibration, Mapping):
        return calibration, {}
    from quillon.calibration import calibratable, pack_in_step

    formats = {one: used.name for name, (module, used) in chosen.items() for one in matrix_names(name, module)}
    layers = {name: layer for name, layer in calibratable(model).items() if name in formats}
    bytes_of: dict[str, Tensor] = {}

    def keep(name: str, _: str, packed: Tensor) -> None:
        bytes_of[name] = packed

    pack_in_step(model, calibration, layers, formats, keep=keep)
    return {}, bytes_of


def _is_calibrated(moments: Mapping[str, InputMoments], name: str) -> bool:
    found = moments.get(name)
    return found is not None and found.usable()


def _is_conv1d(module: nn.Module) -> bool:
    """Whether a module is transformers' linear layer with a transposed weight."""
    library = sys.modules.get("transformers.pytorch_utils")
    return library is not None and type(module) is library.Conv1D


def _weights(module: nn.Module) -> list[nn.Parameter]:
    """The weights of a module that can be packed: biases have a dimension less."""
    parameters = list(module.parameters(recurse=False))
    return [one for one in parameters if one.dim() == max(other.dim() for other in parameters)]


def _packed_shapes(module: Any) -> list[tuple[int, int]] | None:
    """Rows and columns of the matrices that :func:`_pack` would make of a module, or None for what it cannot pack."""
    if type(module) is nn.Linear:
        return [(module.out_features, module.in_features)]
    if _is_conv1d(module):
        columns, rows = module.weight.shape
        return [(rows, columns)]
    layout = _expert_layout(module)
    return None if layout is None else [(layout.up_rows, layout.columns), (layout.columns, layout.inner)]


def _problem_of_shapes(format: Format, shapes: Iterable[tuple[int, int]], device_class: str) -> str | None:
    for rows, columns in shapes:
        problem = _shape_problem(format, columns, device_class)
        if problem is None and rows * columns > MAX_ELEMENTS:
            problem = f"a weight has at most {MAX_ELEMENTS} elements, got {rows} by {columns}"
        if problem is not None:
            return problem
    return None


def _pack(
    module: Any,
    format: Format,
    place: str,
    moments: Mapping[str, InputMoments],
    find: Callable[[str], Tensor | None] = lambda name: None,
) -> nn.Module:
    """The packed module at ``place`` of a model, in place of one that :func:`_packed_shapes` has shapes of.

    By the moments of its inputs; ``find`` gives what a matrix is packed to already. Both know a matrix by its name of
    :func:`matrix_names`.
    """

    def packed(name: str, weight: Tensor) -> Tensor:
        found = find(name)
        return quantize(weight, format.name, moments=moments.get(name)) if found is None else found

    if type(module) is not nn.Linear and not _is_conv1d(module):
        return LowBitExperts._packed_by(module, format, lambda name, weight: packed(f"{place}.{name}", weight))
    weight = module.weight.detach() if type(module) is nn.Linear else module.weight.detach().T

    def pack(_: str) -> Tensor:
        return packed(place, weight)

    return LowBitLinear._around(pack, weight, module.bias, format.name).train(module.training)


def _holds_a_matrix(module: nn.Module) -> bool:
    if isinstance(module, nn.Embedding | nn.EmbeddingBag | LowBitEmbedding | LowBitLinear | LowBitExperts):
        return False
    return any(parameter.dim() > 1 for parameter in module.parameters(recurse=False))


def _why_not_packed(module: nn.Module) -> str:
    kind = type(module).__name__
    if isinstance(module, nn.Linear):
        return f"{kind} is a subclass of Linear, and what it does beside the product is not known"
    shapes = {name: tuple(p.shape) for name, p in module.named_parameters(recurse=False) if p.dim() > 1}
    described = ", ".join(f"{name} {shape}" for name, shape in shapes.items())
    return f"{kind} is no layer that can be packed; it holds {described}"
