"""A GGUF file as a packed model of transformers.

transformers knows which of its parameters a tensor of a file is, and what has to be done to the values. Where that is
nothing, or another order of rows, and a format holds the block type as it is, the blocks are rearranged and no value is
ever computed; everything else is decoded, one tensor at a time, and packed as it is loaded.
"""

from __future__ import annotations

from collections.abc import Callable
from os import PathLike
from pathlib import Path
from typing import Any

import numpy as np
import torch
from torch import Tensor
from transformers import AutoConfig, AutoModelForCausalLM
from transformers.modeling_gguf_pytorch_utils import (
    TENSOR_PROCESSORS,
    Gemma2TensorProcessor,
    LlamaTensorProcessor,
    NemotronTensorProcessor,
    TensorProcessor,
    get_gguf_hf_weights_map,
    load_gguf_checkpoint,
)

from quillon._modes import plain_modes
from quillon.gguf_blocks import EQUAL_FORMATS, rearrange
from quillon.gguf_import import open_gguf
from quillon.transformers import QuillonConfig

__all__ = ["load_gguf"]

_ONE_BY_ONE = (TensorProcessor, LlamaTensorProcessor, Gemma2TensorProcessor, NemotronTensorProcessor)
"""What transformers does to tensors each by itself, in place of several at a time."""


class _Decoded:
    """The values of a tensor, computed when transformers takes them."""

    def __init__(self, values: Callable[[], Tensor], is_packed: Callable[[], bool]) -> None:
        self._values, self._is_packed = values, is_packed

    def __getitem__(self, _: Any) -> Tensor:
        return torch.empty(0) if self._is_packed() else self._values()


def _row_order(processor: Any, name: str, rows: int) -> Tensor | None:
    """The order into which transformers puts a matrix's rows, or None if it does something else to the matrix."""
    numbers = np.arange(rows, dtype=np.float64)
    done = processor.process(weights=np.stack((numbers, -numbers - 1), axis=1), name=name)
    if done.name != name or done.weights.shape != (rows, 2):
        return None
    order = torch.tensor(done.weights[:, 0]).long()
    same = bool((torch.tensor(done.weights[:, 1]) == -order - 1).all())
    return order if same and torch.equal(order.sort().values, torch.arange(rows)) else None


def _values(tensor: Any, processor: Any, decode: Callable[[Any, Any], Any]) -> Tensor:
    with plain_modes():
        values = np.asarray(decode(tensor.data, tensor.tensor_type), dtype=np.float32)
        return torch.tensor(processor.process(weights=values, name=tensor.name).weights)


def _packed(tensor: Any, order: Tensor, format: str) -> Tensor:
    cols, rows = (int(n) for n in tensor.shape)
    with plain_modes():
        return rearrange(torch.tensor(tensor.data)[order], format, rows, cols)


def load_gguf(
    path: str | PathLike[str],
    config: QuillonConfig | None = None,
    *,
    keep: bool = True,
    dtype: torch.dtype = torch.float32,
    **options: Any,
) -> Any:
    """Load a GGUF file as a model of transformers for text generation, packed.

    path     the file
    config   how layers are packed whose block type no format holds as it is; by default ``QuillonConfig()``
    keep     False packs every layer as ``config`` says, and rearranges only where the block type is that format's
    dtype    element type of what stays dense, and so of the activations
    options  as for ``from_pretrained``, ``device_map`` for example

    ``model.config.quantization_config.exact`` names the layers that have the very values of the file. Architectures
    whose tensors transformers takes apart or joins (mixtures of experts, GPT-2) are decoded as a whole first. Raises
    ``ValueError`` for a damaged file and for an architecture that transformers does not know.
    """
    file = Path(path)
    given, config = config, QuillonConfig() if config is None else QuillonConfig(**config.to_dict())
    if given is not None:
        config._job.journal, config._job.progress = given._job.journal, given._job.progress
        config._job.moments = given._job.moments
    shell, state = _state(file, config, keep)
    if state is None:
        read: Any = load_gguf_checkpoint
        state = read(str(file), return_tensors=True, model_to_load=shell, torch_dtype=dtype)["tensors"]
    return type(shell).from_pretrained(
        None, config=shell.config, state_dict=state, quantization_config=config, dtype=dtype, **options
    )


def kept_formats(path: Path, config: QuillonConfig, keep: bool) -> dict[str, str]:
    """Name of a layer -> the format in which :func:`load_gguf` takes the file's blocks as they are."""
    config = QuillonConfig(**config.to_dict())
    _state(path, config, keep)
    return {name.removesuffix(".weight"): format for name, (format, _) in config._job.sources.items()}


def _state(file: Path, config: QuillonConfig, keep: bool) -> tuple[Any, dict[str, Any] | None]:
    """The model without values, and what stands for them; None where transformers has to decode the file as a whole.

    What is only rearranged goes to the configuration's sources.
    """
    reader, decode = open_gguf(file)
    hf_config = AutoConfig.from_pretrained(file.parent, gguf_file=file.name)
    try:
        model_class: Any = AutoModelForCausalLM._model_mapping[type(hf_config)]
    except KeyError as unknown:
        raise ValueError(f"{file} is a {hf_config.model_type}, which is no model for text generation") from unknown
    with torch.device("meta"):
        shell = model_class(hf_config)
    architecture = str(reader.fields["general.architecture"].contents())
    make_processor: Any = TENSOR_PROCESSORS.get(architecture, TensorProcessor)
    read: Any = load_gguf_checkpoint
    processor = make_processor(config=read(str(file))["config"])
    if type(processor) not in _ONE_BY_ONE:
        return shell, None
    names = get_gguf_hf_weights_map(shell, processor)
    state: dict[str, Any] = {}
    for tensor in reader.tensors:
        if tensor.name in names:
            _add(state, names[tensor.name], tensor, processor, decode, config, keep)
    for target, source in shell.all_tied_weights_keys.items():
        if target not in state and source in config._job.sources:
            config._job.sources[target] = config._job.sources[source]
    return shell, state


def _add(
    state: dict[str, Any],
    name: str,
    tensor: Any,
    processor: Any,
    decode: Callable[[Any, Any], Any],
    config: QuillonConfig,
    keep: bool,
) -> None:
    """Put a tensor of the file into the state that transformers loads."""
    sources, format = config._job.sources, EQUAL_FORMATS.get(tensor.tensor_type.name)
    if format is not None and len(tensor.shape) == 2 and (keep or format == config.format):
        order = _row_order(processor, tensor.name, int(tensor.shape[1]))
        if order is not None:
            sources[name] = (format, lambda: _packed(tensor, order, format))
    state[name] = _Decoded(lambda: _values(tensor, processor, decode), lambda: name in sources)
