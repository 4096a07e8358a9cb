"""Weights of a GGUF file, repacked into this library's formats."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from fnmatch import fnmatchcase
from os import PathLike
from typing import Any

import torch
from torch import Tensor

from quillon._modes import plain_modes
from quillon.calibration import say_uncalibrated
from quillon.formats import weight_format
from quillon.gguf_blocks import EQUAL_FORMATS, rearrange
from quillon.nn import chosen_device_class, kernel_row_multiple
from quillon.quantizers import InputMoments, quantize
from quillon.quantizers._progress import Progress
from quillon.reference import dequantize_reference

__all__ = ["ImportedTensor", "from_gguf"]


@dataclass(frozen=True)
class ImportedTensor:
    """One tensor of a file.

    format  name of the storage format, or None for a tensor that is kept dense
    shape   (rows, cols) of a packed weight; the shape of a dense tensor, slowest dimension first
    data    packed: uint8, one dimension; dense: float32 of ``shape``
    exact   whether the values are the file's own: what is dense, and what was rearranged and not quantized again
    """

    format: str | None
    shape: tuple[int, ...]
    data: Tensor
    exact: bool = True

    def dense(self) -> Tensor:
        """The values, float32 of ``shape``."""
        if self.format is None:
            return self.data
        rows, cols = self.shape
        return dequantize_reference(self.data, self.format, rows, cols)


def _patterns(patterns: str | Iterable[str]) -> tuple[str, ...]:
    return (patterns,) if isinstance(patterns, str) else tuple(patterns)


def open_gguf(path: str | PathLike[str]) -> tuple[Any, Any]:
    """Open a file: the gguf package's reader, and its function that decodes blocks. Raises as :func:`from_gguf`."""
    try:
        import gguf
    except ImportError as missing:
        raise ImportError("reading GGUF files needs the gguf package: pip install 'quillon[gguf]'") from missing
    with open(path, "rb") as file:
        magic = file.read(4)
    if magic != b"GGUF":
        raise ValueError(f"{path} is no GGUF file: it begins with {magic!r}")
    try:
        return gguf.GGUFReader(path), gguf.quants.dequantize
    except OSError:
        raise
    except Exception as problem:  # whatever a parser runs into in bytes that are not there or not what they should be
        raise ValueError(
            f"{path} cannot be read as a GGUF file: it is cut short, damaged, or of a version that the gguf package "
            "does not know"
        ) from problem


def _by_tensor(calibration: Iterable[str], reader: Any) -> dict[str, str]:
    """Name of a tensor of the file -> under which name a calibration knows its layer."""
    import gguf

    architecture = str(reader.fields["general.architecture"].contents())
    number = next((key for key, name in gguf.MODEL_ARCH_NAMES.items() if name == architecture), None)
    count = reader.fields.get(f"{architecture}.block_count")
    names = gguf.get_tensor_name_map(number, int(count.contents())) if number is not None and count else None
    found = {}
    for name in calibration:
        own = None if names is None else names.get_name(name)
        found[f"{own or name.removesuffix('.weight')}.weight"] = name
    return found


@plain_modes()
def from_gguf(
    path: str | PathLike[str],
    format: str | int,
    *,
    tensors: str | Iterable[str] = "*",
    dense: str | Iterable[str] = (),
    fallback: str | int | None = None,
    keep: bool = False,
    calibration: Mapping[str, InputMoments] | None = None,
    device_class: str | None = None,
    progress: bool | None = None,
) -> dict[str, ImportedTensor]:
    """Read tensors of a GGUF file and pack the matrices into ``format``.

    Block types whose values ``format`` can hold as they are (:data:`quillon.gguf_blocks.EQUAL_FORMATS`: Q4_K in q4_k,
    for example) are rearranged, which loses nothing and takes a fraction of the time. All others, such as those with
    blocks of 32 elements, are decoded and quantized again.

    path          the file
    format        name or code of the storage format for the matrices
    tensors       shell-style pattern or patterns of the tensor names to read, for example ``"blk.*.weight"``
    dense         pattern or patterns of names to keep dense, for example ``"token_embd.*"``
    fallback      format for matrices whose row length is not a multiple of what the kernels of ``format`` need
                  (:func:`quillon.nn.kernel_row_multiple`); without one such a matrix is an error
    keep          where a format holds a matrix's block type as it is, use that format and not ``format``
    calibration   what :func:`quillon.calibrate` has found of the model, under its names of layers or the file's;
                  read layer by layer. A warning of the logger ``quillon.calibration`` names matrices it says nothing of
    device_class  the class of the device that the weights will be used on, as ``vesper_linear.get_xpu_device_name``
                  gives; by default that of the current XPU
    progress      as for :func:`quillon.quantize`

    Returns name -> :class:`ImportedTensor`, in the file's order. Tensors that do not have two dimensions are
    always dense. Names, and the order of a matrix's rows, are the file's own: some architectures keep the
    rows of the query and key projections in another order there than in a checkpoint of another kind
    (:func:`quillon.load_gguf` puts them in order). What the file's own quantization lost stays lost. Raises
    ``FileNotFoundError``, ``ImportError`` without the gguf package,
    and ``ValueError`` for a file that is damaged or no GGUF file, a pattern that matches nothing,
    a matrix that does not fit, and a tensor that cannot be decoded or packed.
    """
    wanted, kept_dense = _patterns(tensors), _patterns(dense)
    formats = [weight_format(name) for name in (format, fallback) if name is not None]
    target = formats[0].name
    device_class = chosen_device_class(device_class, formats)
    reader, decode = open_gguf(path)
    names = [tensor.name for tensor in reader.tensors]
    for pattern in (*wanted, *kept_dense):
        if not any(fnmatchcase(name, pattern) for name in names):
            raise ValueError(f"no tensor of {path} matches {pattern!r}; it has {', '.join(names[:5])}, ...")

    def choose(name: str, shape: tuple[int, ...], kind: str) -> str | None:
        if len(shape) != 2 or any(fnmatchcase(name, pattern) for pattern in kept_dense):
            return None
        own = [EQUAL_FORMATS[kind]] if keep and kind in EQUAL_FORMATS else []
        for candidate in (*own, *(one.name for one in formats)):
            if shape[1] % kernel_row_multiple(candidate, device_class) == 0:
                return candidate
        multiple = kernel_row_multiple(target, device_class)
        raise ValueError(
            f"{name} has {shape[1]} columns, which is no multiple of the {multiple} that the kernel of "
            f"{target} needs on device class {device_class}; name a fallback format that fits or keep the tensor dense"
        )

    # The file gives the fastest dimension first. All choices are made before the long work starts.
    chosen = [
        (tensor, shape, choose(tensor.name, shape, tensor.tensor_type.name))
        for tensor in reader.tensors
        if any(fnmatchcase(tensor.name, pattern) for pattern in wanted)
        for shape in [tuple(int(n) for n in reversed(tensor.shape))]
    ]
    known_as = {} if calibration is None else _by_tensor(calibration, reader)
    bar = Progress(f"repack as {target}", sum(int(tensor.n_elements) for tensor, _, _ in chosen), progress)
    result = {}
    uncalibrated: list[str] = []
    for tensor, shape, name in chosen:
        rearranged = name is not None and EQUAL_FORMATS.get(tensor.tensor_type.name) == name
        try:
            if name is not None and rearranged:
                data = rearrange(torch.tensor(tensor.data), name, *shape)
            else:
                values = torch.tensor(decode(tensor.data, tensor.tensor_type), dtype=torch.float32).view(shape)
                data = values
                if name is not None:
                    known = known_as.get(tensor.name)
                    # Read when its turn comes: those of a whole model may be more than memory holds.
                    moments = calibration[known] if calibration is not None and known is not None else None
                    data = quantize(values, name, moments=moments, progress=False)
                    if calibration is not None and (moments is None or not moments.usable()):
                        uncalibrated.append(tensor.name)
        except (ValueError, NotImplementedError) as problem:
            raise ValueError(f"{tensor.name} of {path}, type {tensor.tensor_type.name}: {problem}") from problem
        result[tensor.name] = ImportedTensor(name, shape, data, exact=rearranged or name is None)
        bar.advance(int(tensor.n_elements))
    bar.close()
    say_uncalibrated(uncalibrated)
    return result
