"""The quantizer for transformers: ``quantization_config=quillon.QuillonConfig(...)`` packs a model while it loads.

Importing this module registers it. ``quillon.QuillonConfig`` does, and after ``import quillon`` so does whoever loads a
model. A folder that ``save_pretrained`` wrote from a packed model loads packed, without being quantized again.
"""

from __future__ import annotations

import copy
import functools
import json
import os
import re
import struct
import types
from collections.abc import Callable, Iterable, Mapping
from pathlib import Path
from typing import Any

import torch
from torch import Tensor, nn
from transformers.core_model_loading import ConversionOps, WeightConverter, WeightRenaming, rename_source_key
from transformers.distributed import tensor_parallel
from transformers.quantizers.auto import register_quantization_config, register_quantizer
from transformers.quantizers.base import HfQuantizer
from transformers.utils.quantization_config import QuantizationConfigMixin

from quillon import host_device
from quillon import nn as layers
from quillon._modes import plain_modes
from quillon._named import naming
from quillon.calibration import Calibration, say_uncalibrated
from quillon.embedding import LowBitEmbedding
from quillon.formats import weight_bytes, weight_format
from quillon.joined import join_projections
from quillon.nn import LowBitExperts, LowBitLinear
from quillon.parallel import fill, parallel_plan, pieces, read_part, set_persistent, split_layers, whole_state
from quillon.peers import names_the_stopped
from quillon.quantizers import InputMoments
from quillon.recipe import Recipe, pack

__all__ = ["METHOD", "QuillonConfig", "QuillonQuantizer"]

METHOD = "quillon"
"""What ``quant_method`` is in the configuration of a packed model."""


class Job:
    """What accompanies one loading of a model, and is no part of its configuration.

    sources   parameter name -> a format, and what gives the weight packed in it
    moments   layer name -> second moments of its inputs
    journal   keeps packed layers on disk (:class:`quillon.commands.quantize.Journal`), or None
    progress  is told how many weights are packed (:class:`quillon.commands.quantize.Bar`), or None
    """

    def __init__(self) -> None:
        self.sources: dict[str, tuple[str, Callable[[], Tensor]]] = {}
        self.moments: Mapping[str, InputMoments] = {}
        self.journal: Any = None
        self.progress: Any = None

    def __deepcopy__(self, memo: Any) -> Job:
        """Return itself: transformers copies configurations, and this may stand for a whole file."""
        return self


@register_quantization_config(METHOD)
class QuillonConfig(QuantizationConfigMixin):
    """How a model is packed, for ``quantization_config`` of ``from_pretrained``.

    format            of every linear layer and expert; None keeps them dense
    output_format     of the layer that gives the logits; None keeps it dense
    embedding_format  of the embedding; None, the default, keeps it dense
    fallback          in place of a format whose kernels do not cover a layer's rows; None keeps such layers dense
    recipe            shell patterns of layer names -> format, or None for dense: ``{"*.down_proj": "q6_k"}``; the first
                      that matches counts, ahead of all the others
    device_class      the class of the device that the model will run on, as ``vesper_linear.get_xpu_device_name``
                      gives; by default that of the device it is loaded on
    fuse_mlp          whether :func:`quillon.nn.fuse_mlps` follows each loading: a token of generation takes gate, up
                      and activation in one launch
    join_projections  whether :func:`quillon.join_projections` follows each loading, for models that are not compiled
    calibration       what :func:`quillon.calibrate` has found of this model, or the folder that it was written to: by
                      it errors of columns are made good by others. It is not saved with the model. A warning of the
                      logger ``quillon.calibration`` names layers that it says nothing of

    A loaded model's ``config.quantization_config`` also says what became of each layer:

    packed    name of each packed layer -> its format
    replaced  name of each layer in its second-choice format -> why the first does not fit
    dense     name of each layer that stayed dense -> why
    exact     names of the packed layers that have the very values of the GGUF file they came from
    """

    def __init__(
        self,
        format: str | None = "q4_0",
        *,
        output_format: str | None = "q8_0",
        embedding_format: str | None = None,
        fallback: str | None = "q8_0",
        recipe: Mapping[str, str | None] | None = None,
        device_class: str | None = None,
        fuse_mlp: bool = False,
        join_projections: bool = False,
        calibration: Mapping[str, InputMoments] | str | os.PathLike[str] | None = None,
        packed: Mapping[str, str] | None = None,
        replaced: Mapping[str, str] | None = None,
        dense: Mapping[str, str] | None = None,
        exact: Iterable[str] = (),
        **others: Any,
    ) -> None:
        """Check the formats; raises ``ValueError`` for one that does not exist, ``TypeError`` for another argument."""
        self.quant_method: Any = METHOD
        if others.pop("quant_method", METHOD) != METHOD:
            raise ValueError(f"quant_method must be {METHOD!r}")
        if others:
            raise TypeError(f"QuillonConfig has no {', '.join(sorted(others))}; was it written by a newer quillon?")
        self.format = format
        self.output_format = output_format
        self.embedding_format = embedding_format
        self.fallback = fallback
        self.recipe = dict(recipe or {})
        self.device_class = device_class
        self.fuse_mlp = fuse_mlp
        self.join_projections = join_projections
        self.packed = dict(packed or {})
        self.replaced = dict(replaced or {})
        self.dense = dict(dense or {})
        self.exact = list(exact)
        self._job = Job()
        if isinstance(calibration, str | os.PathLike):
            calibration = Calibration.load(calibration)
        self._job.moments = calibration or {}
        self.rules()

    def rules(self) -> Recipe:
        """The configuration's choice of formats."""
        return Recipe(self.format, self.output_format, self.embedding_format, self.fallback, self.recipe)

    def to_dict(self) -> dict[str, Any]:
        """Everything that is written to a model's configuration."""
        return copy.deepcopy({name: value for name, value in self.__dict__.items() if not name.startswith("_")})

    def __iter__(self) -> Any:
        """The items of :meth:`to_dict`."""
        yield from self.to_dict().items()


class _Target:
    """A dense module on the meta device, to be packed as soon as its parameters are there."""

    def __init__(self, name: str, module: nn.Module, format: str) -> None:
        self.name, self.module, self.format = name, module, format
        self.waiting = {leaf for leaf, _ in module.named_parameters(recurse=False)}
        self.elements = sum(parameter.numel() for parameter in module.parameters(recurse=False))
        self.device = torch.device("cpu")

    def take(self, leaf: str, value: Tensor) -> None:
        """Put one of the parameters into its place."""
        self.device = value.device
        # The bytes of a host device are packed where they are; those of an XPU come to the CPU.
        setattr(self.module, leaf, nn.Parameter(host_device.as_cpu(value.detach()), requires_grad=False))
        self.waiting.discard(leaf)


class _PackParameter(ConversionOps):
    """What transformers calls with each parameter of a layer that is to be packed."""

    def __init__(self, quantizer: QuillonQuantizer) -> None:
        self._quantizer = quantizer

    def convert(self, input_dict: dict[str, Any], *_: Any, **context: Any) -> dict[str, Any]:
        """Take what is to be packed, and give the rest back."""
        left: dict[str, Any] = {}
        for name in list(input_dict):
            values = input_dict.pop(name)
            if not self._quantizer.takes(name):
                left[name] = values
                continue
            value = values[0] if isinstance(values, list) else values
            del values
            self._quantizer.take(context["model"], name, value)
            if context.get("missing_keys") is not None:
                context["missing_keys"].discard(name)
        return left


def _xpus_of(device_map: Any) -> list[torch.device]:
    """The XPUs that a map of a model's parts names."""
    places = device_map.values() if isinstance(device_map, dict) else ()
    devices = [torch.device("xpu", one) if isinstance(one, int) else torch.device(one) for one in places]
    return [device for device in dict.fromkeys(devices) if device.type == "xpu"]


def _bytes_of(layer: nn.Module) -> dict[str, Tensor]:
    """The packed buffers of a layer."""
    return {name: buffer for name, buffer in layer.named_buffers(recurse=False) if name.startswith("packed")}


def _mark_as_loaded(module: nn.Module) -> None:
    """Tell transformers not to give the tensors of a module their initial values."""
    for one in module.modules():
        one._is_hf_initialized = True  # type: ignore[assignment]
    for tensor in (*module.parameters(), *module.buffers()):
        tensor._is_hf_initialized = True  # type: ignore[attr-defined]


def _put(model: Any, name: str, layer: nn.Module) -> None:
    """Put a layer into its place, and keep transformers from giving initial values to weights that are not there."""
    model.set_submodule(name, layer)
    while name:
        name = name.rpartition(".")[0]
        parent = model.get_submodule(name)
        if any(True for _ in parent.parameters(recurse=False)) or any(True for _ in parent.buffers(recurse=False)):
            break
        parent._is_hf_initialized = True


def _empty_like(module: Any, format: str) -> nn.Module:
    """The packed module in place of a dense one on the meta device, without bytes."""
    with torch.device("meta"):
        if isinstance(module, nn.Embedding):
            embedding = LowBitEmbedding(module.num_embeddings, module.embedding_dim, format)
            embedding.like = embedding.like.to(module.weight.dtype)
            return embedding
        shapes = layers._packed_shapes(module)
        if shapes is None:
            raise ValueError(f"{type(module).__name__} cannot be packed")
        layout = layers._expert_layout(module)
        if layout is None:
            ((rows, columns),) = shapes
            linear = LowBitLinear(columns, rows, format, module.bias is not None)
            if linear.bias is not None:
                linear.bias = linear.bias.to(module.bias.dtype)
            return linear
        up, down = (
            torch.empty(layout.experts, weight_bytes(format, rows, columns), dtype=torch.uint8)
            for rows, columns in shapes
        )
        delattr(module, layout.up)
        del module.down_proj
        module._is_hf_initialized = True
        return LowBitExperts(module, up, down, layout, weight_format(format))


# ---- several processes -----------------------------------------------------------------------------------------------


def _split_packed_layers() -> None:
    """Have the styles of transformers' plans split packed layers as :mod:`quillon.parallel` does."""

    def with_packed(stock: Callable[[Any, Any], Any]) -> Callable[[Any, Any], Any]:
        @functools.wraps(stock)
        def install_forward(module: Any, mesh: Any) -> Any:
            if not hasattr(module, "parallel_style"):
                return stock(module, mesh)
            name, style = module.parallel_style
            del module.parallel_style
            try:
                style._apply(module, mesh)
            except ValueError as problem:
                raise ValueError(f"{name}: {problem}") from problem
            # Not for the loader, which would read all of them: _read_parts reads the parts.
            set_persistent(module, False)
            return module

        return install_forward

    styles: Any = tensor_parallel.ALL_PARALLEL_STYLES  # type: ignore[attr-defined]
    for style in styles.values():
        style.install_forward = with_packed(style.install_forward)


_split_packed_layers()


def _prepare_to_split(model: Any, override: Any) -> None:
    """Note at each packed layer how it is to be split by the plan of the model."""
    plan = {**model.tp_plan, **(override if isinstance(override, dict) else {})}
    styles = parallel_plan(model, plan)
    for name, style in styles.items():
        model.get_submodule(name).parallel_style = (name, style)
        if isinstance(model.get_submodule(name), LowBitExperts):  # whose dense weights have rules of their own
            rule = re.sub(r"\.\d+(?=\.)", ".*", name)
            model.tp_plan = {key: value for key, value in model.tp_plan.items() if not key.startswith(f"{rule}.")}
    ignored = {rf"(^|\.){re.escape(name)}\." for name in styles}
    model._keys_to_ignore_on_load_unexpected = ignored | set(model._keys_to_ignore_on_load_unexpected or ())


def _places_in(file: Path) -> dict[str, tuple[int, list[int]]]:
    """Where in a file of safetensors each tensor lies, and its shape."""
    with file.open("rb") as opened:
        (length,) = struct.unpack("<Q", opened.read(8))
        header = json.loads(opened.read(length))
    header.pop("__metadata__", None)
    return {name: (8 + length + entry["data_offsets"][0], entry["shape"]) for name, entry in header.items()}


def _read_parts(model: Any, files: Iterable[Path]) -> None:
    """Fill the split layers of a model, of each no more than this process has."""
    from safetensors import safe_open
    from transformers.conversion_mapping import get_model_conversion_mapping

    conversions = get_model_conversion_mapping(model, None, None)
    renamings = [one for one in conversions if isinstance(one, WeightRenaming)]
    converters = [one for one in conversions if isinstance(one, WeightConverter)]
    waiting = {
        f"{name}.{leaf}": (layer, leaf, piece)
        for name, layer in split_layers(model)
        for leaf, piece in pieces(layer, layer.split).items()
    }
    state = model.state_dict() | dict.fromkeys(waiting)
    for path in files:
        if path.suffix != ".safetensors":
            raise ValueError(f"{path.name} is no file of safetensors, of which alone a part can be read")
        with path.open("rb") as file, safe_open(path, "pt") as tensors:
            for key, (offset, shape) in _places_in(path).items():
                name, _ = rename_source_key(key, renamings, converters, model.base_model_prefix, state)
                layer, leaf, piece = waiting.pop(name, (None, "", None))
                if layer is None or piece is None:
                    continue
                if tuple(shape) != piece.whole:
                    raise ValueError(f"{key} must have shape {piece.whole}, got {tuple(shape)}")
                value = read_part(file.fileno(), offset, tensors.get_slice(key), piece)
                fill(layer, leaf, value)
    if waiting:
        raise ValueError(f"the files have no {', '.join(list(waiting)[:3])}")
    for _, layer in split_layers(model):
        set_persistent(layer, True)
        _mark_as_loaded(layer)


def _configs_of(model: Any) -> list[Any]:
    return list({id(one): one for one in (model.config, model.config.get_text_config(decoder=True))}.values())


def _untie(model: Any) -> None:
    """Let embedding and output layer of a model have weights of their own from now on."""
    output = model.get_output_embeddings()
    for name, module in model.named_modules():
        if module is output:
            model.all_tied_weights_keys.pop(f"{name}.weight", None)
    for config in _configs_of(model):
        config.tie_word_embeddings = False


@register_quantizer(METHOD)
class QuillonQuantizer(HfQuantizer):
    """Packs a model's layers while transformers loads it, or makes room for bytes that are packed already."""

    requires_calibration = False
    quantization_config: QuillonConfig

    def __init__(self, quantization_config: QuillonConfig, **kwargs: Any) -> None:
        """As transformers makes it: one for each model."""
        super().__init__(copy.copy(quantization_config), **kwargs)
        self._targets: dict[str, _Target] = {}
        self._of_parameter: dict[str, _Target] = {}
        self._problem: Exception | None = None
        self._uncalibrated: list[str] = []
        self._files: list[Path] = []

    def validate_environment(self, *_: Any, device_map: Any = None, **__: Any) -> None:
        """Raise ``ValueError`` for a placement in which packed layers cannot run."""
        places = device_map.values() if isinstance(device_map, dict) else [device_map]
        if any(str(place) == "disk" for place in places):
            raise ValueError(
                "device_map puts layers on disk, and packed layers stay in memory: allow more with max_memory, or use "
                "a format of fewer bits"
            )

    def update_device_map(self, device_map: Any) -> Any:
        """Put the model on the current XPU unless it is said where."""
        if device_map is None and torch.xpu.is_available():
            return {"": torch.device("xpu", torch.xpu.current_device())}
        return device_map

    def is_serializable(self, *_: Any) -> bool:
        """Say that ``save_pretrained`` works."""
        return True

    @property
    def is_trainable(self) -> bool:
        """Say that adapters beside packed layers train."""
        return True

    @property
    def is_compileable(self) -> bool:
        """Say that ``generate`` may compile the model."""
        return True

    # ---- before the weights are loaded -------------------------------------------------------------------------------

    def _process_model_before_weight_loading(
        self, model: Any, device_map: Any = None, checkpoint_files: Iterable[str] | None = None, **_: Any
    ) -> Any:
        distributed = getattr(model.config, "distributed_config", None)
        if self.pre_quantized:
            for name, format in self._names_in(model, self.quantization_config.packed).items():
                _put(model, name, _empty_like(model.get_submodule(name), format))
            if distributed is not None and distributed.tp_size > 1:
                self._files = [Path(file) for file in checkpoint_files or ()]
                _prepare_to_split(model, distributed.tp_plan)
            return model
        if distributed is not None and distributed.tp_size > 1:
            raise ValueError(
                "a model is packed by one process: pack it and save it first, then load the packed folder with tp_plan"
            )
        config = self.quantization_config
        rules = config.rules()
        device_class = config.device_class or rules.device_class(_xpus_of(device_map))
        given = {name.removesuffix(".weight"): format for name, (format, _) in config._job.sources.items()}
        plan = rules.plan(model, device_class, given)
        config.packed, config.dense, config.replaced = plan.packed, plan.dense, plan.replaced
        config.exact = [name for name, format in plan.packed.items() if given.get(name) == format]
        for name in list(config._job.sources):
            if name.removesuffix(".weight") not in config.exact:
                del config._job.sources[name]
        # A tied weight arrives under another layer's name: it is packed when all is loaded.
        tied = {*model.all_tied_weights_keys, *model.all_tied_weights_keys.values()}
        for name, format in plan.packed.items():
            target = self._targets[name] = _Target(name, model.get_submodule(name), format)
            parameters = {f"{name}.{leaf}": target for leaf in target.waiting}
            if not tied & parameters.keys():
                self._of_parameter |= parameters
        if config._job.progress is not None:
            config._job.progress.start(sum(target.elements for target in self._targets.values()))
        return model

    @staticmethod
    def _names_in(model: Any, packed: Mapping[str, str]) -> dict[str, str]:
        """The packed layers by their names in this class of model, which may be the saved one's body or head."""
        prefix = f"{model.base_model_prefix}."
        found: dict[str, str] = {}
        names = {name for name, _ in model.named_modules()}
        for name, format in packed.items():
            candidates = (name, name.removeprefix(prefix), prefix + name)
            chosen = next((one for one in candidates if one in names), None)
            if chosen is not None:
                found[chosen] = format
        if not found and packed:
            raise ValueError(
                f"{type(model).__name__} has none of the packed layers that the configuration names: "
                f"{', '.join(list(packed)[:3])}, ..."
            )
        return found

    # ---- while they are loaded ---------------------------------------------------------------------------------------

    def takes(self, name: str) -> bool:
        """Whether a parameter belongs to a layer that is packed while it is loaded."""
        return name in self._of_parameter

    def param_needs_quantization(self, model: Any, param_name: str, **_: Any) -> bool:
        """As transformers asks."""
        return self.takes(param_name)

    def get_quantize_ops(self) -> ConversionOps:
        """What transformers gives the parameters to."""
        return _PackParameter(self)

    def param_element_size(self, model: Any, param_name: str, param: Tensor) -> float:
        """Bytes of an element of a parameter when all is loaded."""
        target = self._of_parameter.get(param_name)
        if target is None or param.dim() < 2:
            return float(param.element_size())
        return weight_format(target.format).bits_per_weight / 8

    def take(self, model: Any, name: str, value: Tensor) -> None:
        """Take a parameter, and pack its layer if that was the last one."""
        if self._problem is not None:
            return
        target, leaf = self._of_parameter[name], name.rpartition(".")[2]
        source = self.quantization_config._job.sources.get(name)
        if source is not None:
            self._place_packed(model, target, {"packed": source[1]()}, value.device)
            return
        target.take(leaf, value)
        del value
        if not target.waiting:
            try:
                self._finish(model, target)
            except Exception as problem:
                self._problem = problem  # raised here, it would end in a report among the traces of other things

    def _finish(self, model: Any, target: _Target) -> None:
        config = self.quantization_config
        journal = config._job.journal
        saved = None if journal is None else journal.find(target.name, target.format)
        if saved is not None:
            self._place_packed(model, target, saved, target.device)
            return
        with plain_modes(), naming(target.name):
            moments = config._job.moments
            if moments and not isinstance(target.module, nn.Embedding):
                known = ((name, moments.get(name)) for name in layers.matrix_names(target.name, target.module))
                self._uncalibrated += [name for name, found in known if found is None or not found.usable()]

            def find(name: str) -> Tensor | None:
                found = None if journal is None else journal.find(name, target.format, target.name)
                return None if found is None else found["packed"]

            layer = pack(target.module, target.format, target.name, moments, find)
            if journal is not None:
                journal.store(target.name, target.format, _bytes_of(layer))
            layer = layer.to(target.device)
        self._place(model, target, layer)

    def _place_packed(self, model: Any, target: _Target, packed: Mapping[str, Tensor], device: torch.device) -> None:
        layer: Any = _empty_like(target.module, target.format)
        with plain_modes():
            for key, bytes in packed.items():
                setattr(layer, key, bytes.to(device))
            if isinstance(layer, LowBitExperts):
                layer.shell.to(device)
            bias = getattr(target.module, "bias", None)
            if isinstance(bias, Tensor):  # on the meta device if it is still to be loaded
                layer.bias = bias.detach() if bias.is_meta else bias.detach().to(device)
            if isinstance(layer, LowBitEmbedding):
                layer.like = torch.empty(0, dtype=layer.like.dtype, device=device)
        self._place(model, target, layer)

    def _place(self, model: Any, target: _Target, layer: nn.Module) -> None:
        _mark_as_loaded(layer)
        if self.quantization_config._job.progress is not None:
            self.quantization_config._job.progress.advance(target.elements)
        hook = getattr(target.module, "_hf_hook", None)
        _put(model, target.name, layer)
        if hook is not None:
            from accelerate.hooks import add_hook_to_module

            add_hook_to_module(layer, hook)
        self._targets.pop(target.name)
        # Whatever is kept of the target keeps its dense weight.
        self._of_parameter = {name: other for name, other in self._of_parameter.items() if other is not target}

    # ---- after that --------------------------------------------------------------------------------------------------

    def _process_model_after_weight_loading(self, model: Any, **_: Any) -> Any:
        if not self.pre_quantized:
            self._pack_the_rest(model)
        elif self._files:
            _read_parts(model, self._files)
            # Not all collectives are those of packed layers, and an error elsewhere is news to the others too.
            group = model._mesh_manager.get_mesh("tp").get_group()
            # A method of this model, so that a copy has its own.
            model.forward = types.MethodType(names_the_stopped(group, type(model).forward), model)
        config = self.quantization_config
        if config.fuse_mlp:
            layers.fuse_mlps(model, config.device_class or config.rules().device_class(_xpus_of({"": model.device})))
        if config.join_projections:
            join_projections(model)
        return model

    def _pack_the_rest(self, model: Any) -> None:
        if self._problem is not None:
            raise self._problem
        output = getattr(model, "get_output_embeddings", lambda: None)()
        # The output layer first: it may have the embedding's weight.
        for target in sorted(self._targets.values(), key=lambda one: one.module is not output):
            weights = list(target.module.parameters(recurse=False))
            if not all(getattr(one, "_is_hf_initialized", False) for one in weights):
                self.quantization_config.packed.pop(target.name)
                self.quantization_config.dense[target.name] = "the checkpoint has no weight for it"
                self._targets.pop(target.name)
                continue
            if target.module is output:
                _untie(model)
            source = self.quantization_config._job.sources.get(f"{target.name}.weight")
            if source is not None:
                self._place_packed(model, target, {"packed": source[1]()}, weights[0].device)
                continue
            for leaf, parameter in target.module.named_parameters(recurse=False):
                target.take(leaf, parameter)
            self._finish(model, target)
        say_uncalibrated(self._uncalibrated)
        self.quantization_config._job = Job()

    def get_state_dict_and_metadata(self, model: Any) -> tuple[dict[str, Tensor] | None, dict[str, str]]:
        """Join the parts of layers that are split among processes."""
        return (whole_state(model) if any(split_layers(model)) else None), {}

    def _dequantize(self, model: Any, dtype: torch.dtype | None = None) -> Any:
        """Put dense layers in the place of the packed ones."""
        dtype = dtype or model.dtype
        for name, module in list(model.named_modules()):
            if isinstance(module, LowBitExperts):
                raise NotImplementedError(f"{name}: packed experts are not made dense again; load the original model")
            if not isinstance(module, LowBitLinear | LowBitEmbedding):
                continue
            weight = nn.Parameter(module.dequantize(dtype), requires_grad=False)
            with torch.device("meta"):
                dense: Any
                if isinstance(module, LowBitLinear):
                    dense = nn.Linear(module.in_features, module.out_features, module.bias is not None)
                else:
                    dense = nn.Embedding(module.num_embeddings, module.embedding_dim)
            dense.weight = weight
            if isinstance(module, LowBitLinear) and module.bias is not None:
                dense.bias = nn.Parameter(module.bias.to(dtype), requires_grad=False)
            model.set_submodule(name, dense.train(module.training))
        return model
