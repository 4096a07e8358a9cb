"""A GGUF file or a model folder to a folder of packed safetensors.

The target appears whole, or not at all: work is done in ``<target>.part``, and what is made there takes the target's
name at the end. Each layer is kept there as soon as it is packed, so that after an interrupt, a full disk or a power
failure the same command goes on where it was. With a text to calibrate on, linear layers are packed while the dense
model runs over it, and the model is then loaded with what was kept.
"""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
import shutil
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import torch
from torch import Tensor

import vesper_linear
from quillon import host_device
from quillon.quantizers._progress import Progress

_JOB = "job.json"
_CALIBRATED = "calibrated.json"


class Journal:
    """Packed layers on disk, each under the name of its layer and complete."""

    def __init__(self, folder: Path, job: dict[str, Any]) -> None:
        """Go on with the work in ``folder`` if it is the same job, else begin anew."""
        self.folder = folder
        self._before: set[str] = set()
        self._reused: set[str] = set()
        described = json.dumps(job, sort_keys=True)
        with contextlib.suppress(OSError):
            if (folder / _JOB).read_text() == described:
                self._before = {file.name for file in folder.glob("*.safetensors")}
                return
        if folder.exists():
            shutil.rmtree(folder)  # nothing of another job may be left
        folder.mkdir(parents=True)
        (folder / _JOB).write_text(described)

    @property
    def reused(self) -> int:
        """How many layers were taken that an earlier run has packed."""
        return len(self._reused)

    def uncalibrated(self) -> list[str] | None:
        """Names of the layers that a calibration says nothing of; None if it has not come to its end."""
        file = self.folder / _CALIBRATED
        return json.loads(file.read_text()) if file.exists() else None

    def end_calibration(self, uncalibrated: list[str]) -> None:
        """Keep that all is there that a calibration packs, and the names of the layers that it says nothing of."""
        part = self.folder / f"{_CALIBRATED}.part"
        part.write_text(json.dumps(uncalibrated))
        os.replace(part, self.folder / _CALIBRATED)

    def _file(self, name: str, format: str) -> Path:
        return self.folder / f"{hashlib.sha256(f'{name} {format}'.encode()).hexdigest()[:24]}.safetensors"

    def find(self, name: str, format: str, layer: str | None = None) -> dict[str, Tensor] | None:
        """The tensors of a layer, or of a matrix of ``layer``, that was packed before, or None."""
        from safetensors.torch import load_file

        file = self._file(name, format)
        if not file.exists():
            return None
        if file.name in self._before:
            self._reused.add(layer or name)
        return load_file(file)

    def store(self, name: str, format: str, tensors: dict[str, Tensor]) -> None:
        """Keep the tensors of a layer."""
        from safetensors.torch import save_file

        file = self._file(name, format)
        part = file.with_suffix(".part")
        save_file({key: tensor.contiguous() for key, tensor in tensors.items()}, part)
        os.replace(part, file)


def _fingerprint(source: Path) -> list[list[Any]]:
    """Names, sizes and times of the files that a model is made of."""
    files = sorted(file for file in source.iterdir() if file.is_file()) if source.is_dir() else [source]
    return [[file.name, file.stat().st_size, file.stat().st_mtime_ns] for file in files]


@contextlib.contextmanager
def _readable_failures(part: Path) -> Iterator[None]:
    from safetensors import SafetensorError

    kept = f"what is packed so far is kept in {part}, and the same command goes on from there"
    try:
        yield
    except KeyboardInterrupt:
        raise SystemExit(f"\ninterrupted: {kept}") from None
    except (OSError, SafetensorError) as problem:
        raise OSError(f"{problem}; {kept}") from problem


def check_target(source: Path, target: Path) -> Path:
    """Raise ``OSError`` or ``ValueError`` for a target that cannot be made; return the folder to work in."""
    if not source.exists():
        raise FileNotFoundError(f"{source} does not exist; give a GGUF file or a folder with a model")
    if source.is_dir() and not (source / "config.json").is_file():
        raise FileNotFoundError(
            f"{source} has no config.json; give a folder that save_pretrained wrote, or a GGUF file"
        )
    if target.exists() and not (target.is_dir() and not any(target.iterdir())):
        raise FileExistsError(f"{target} exists already; remove it or name another folder")
    if not target.parent.is_dir():
        raise FileNotFoundError(f"{target.parent} does not exist; make it first")
    if not os.access(target.parent, os.W_OK):
        raise PermissionError(f"{target.parent} cannot be written to; name another folder")
    return target.with_name(target.name + ".part")


def quantize_model_files(
    source: Path,
    target: Path,
    config: Any,
    *,
    keep: bool = True,
    max_shard_size: str = "5GB",
    calibrate_on: str | None = None,
) -> str:
    """Pack a model and write it; return a sentence about the result.

    ``config`` is a ``QuillonConfig``, and ``calibrate_on`` a text by which layers are packed.
    """
    part = check_target(source, target)
    from quillon.gguf_model import load_gguf
    from quillon.transformers import QuillonConfig

    transformers = _transformers()
    transformers.utils.logging.disable_progress_bar()
    job = {"source": str(source.resolve()), "files": _fingerprint(source), "config": config.to_dict(), "keep": keep}
    if calibrate_on is not None:
        job["text"] = hashlib.sha256(calibrate_on.encode()).hexdigest()
    with _readable_failures(part):
        journal = Journal(part / "layers", job)
        if calibrate_on is not None and journal.uncalibrated() is None:
            _pack_by_text(source, config, keep, calibrate_on, journal)
        config = QuillonConfig(**config.to_dict())
        bar = Bar()
        config._job.journal, config._job.progress = journal, bar
        if source.is_dir():
            model = transformers.AutoModelForCausalLM.from_pretrained(
                source, quantization_config=config, device_map="cpu"
            )
        else:
            model = load_gguf(source, config, keep=keep, device_map="cpu")
        bar.close()
        output = part / "model"
        shutil.rmtree(output, ignore_errors=True)
        model.save_pretrained(output, max_shard_size=max_shard_size)
        with contextlib.suppress(OSError, ValueError, KeyError):
            _tokenizer_of(source).save_pretrained(output)
        if target.exists():
            target.rmdir()
        uncalibrated = journal.uncalibrated() or []
        os.replace(output, target)
        shutil.rmtree(part, ignore_errors=True)
    said = model.config.quantization_config
    size = sum(file.stat().st_size for file in target.iterdir())
    before = f", {journal.reused} of them before" if journal.reused else ""
    exact = ""
    if source.is_file():
        again = len(said.packed) - len(said.exact)
        exact = f", {len(said.exact)} with the very values of the file and {again} quantized again"
    if uncalibrated:
        some = ", ".join(uncalibrated[:3]) + (", ..." if len(uncalibrated) > 3 else "")
        exact += f", {len(uncalibrated)} as without a text, which says nothing of them ({some})"
    return f"{len(said.packed)} layers packed{before}{exact}, {len(said.dense)} dense, {size / 1e6:.1f} MB in {target}"


def _pack_by_text(source: Path, config: Any, keep: bool, text: str, journal: Journal) -> None:
    """Pack a model's linear layers into a journal, each by what meets it behind those that are packed already."""
    from quillon.calibration import calibratable, pack_in_step, windows
    from quillon.gguf_model import kept_formats
    from quillon.nn import matrix_names

    tokens = _tokenizer_of(source)(text, return_tensors="pt").input_ids
    if tokens.shape[1] < _LEAST_TOKENS:
        raise ValueError(f"the text to calibrate on has {tokens.shape[1]} tokens, too few: {_LEAST_TOKENS} at least")
    where: dict[str, Any] = {"pretrained_model_name_or_path": source}
    given: dict[str, str] = {}
    if source.is_file():
        where = {"pretrained_model_name_or_path": source.parent, "gguf_file": source.name}
        given = kept_formats(source, config, keep)
    model = _transformers().AutoModelForCausalLM.from_pretrained(**where, dtype=torch.float32, device_map="cpu")
    plan = config.rules().plan(model, config.device_class, given)
    # What a format holds as the file has it is dense here by the same values.
    anew = {
        name: format
        for name, format in plan.packed.items()
        if given.get(name) != format and not isinstance(model.get_submodule(name), torch.nn.Embedding)
    }
    layer_of = {one: name for name in anew for one in matrix_names(name, model.get_submodule(name))}
    formats = {one: anew[name] for one, name in layer_of.items()}
    layers = {name: layer for name, layer in calibratable(model).items() if name in formats}

    def find(name: str, format: str) -> Tensor | None:
        found = journal.find(name, format, layer_of[name])
        return None if found is None else found["packed"]

    def store(name: str, format: str, packed: Tensor) -> None:
        journal.store(name, format, {"packed": packed})

    pack_in_step(model, windows(tokens), layers, formats, find=find, keep=store)
    journal.end_calibration([name for name, format in formats.items() if find(name, format) is None])


# Fewer say nothing of a layer's columns.
_LEAST_TOKENS = 256


def _tokenizer_of(source: Path) -> Any:
    from transformers import AutoTokenizer

    if source.is_dir():
        return AutoTokenizer.from_pretrained(source)
    return AutoTokenizer.from_pretrained(source.parent, gguf_file=source.name)


class Bar:
    """Progress by elements of the packed layers."""

    def __init__(self) -> None:
        """Wait for the number of weights."""
        self._bar: Progress | None = None

    def start(self, elements: int) -> None:
        """Say how many there are."""
        self._bar = Progress("packing", max(elements, 1), None)

    def advance(self, elements: int) -> None:
        """Count some as packed."""
        if self._bar is not None:
            self._bar.advance(elements)

    def close(self) -> None:
        """End the line."""
        if self._bar is not None:
            self._bar.close()


def load_model(source: Path, config: Any, device: str) -> tuple[Any, Any]:
    """A packed model on a device and its tokenizer: of a packed folder, a dense one, or a GGUF file.

    Gated MLPs are fused and layers that read the same input joined. ``config`` is for what is not packed already.
    """
    if not source.exists():
        raise FileNotFoundError(f"{source} does not exist; give a GGUF file or a folder with a model")
    import quillon

    transformers = _transformers()
    transformers.utils.logging.disable_progress_bar()
    transformers.utils.logging.set_verbosity_error()
    if source.is_dir():
        saved = transformers.AutoConfig.from_pretrained(source)
        options = {} if getattr(saved, "quantization_config", None) else {"quantization_config": config}
        model = transformers.AutoModelForCausalLM.from_pretrained(source, device_map=device, **options)
    else:
        model = quillon.load_gguf(source, config, device_map=device)
    if host_device.is_active():
        torch.xpu.synchronize()
    quillon.nn.fuse_mlps(model, vesper_linear.get_xpu_device_name(model.device))
    quillon.join_projections(model)
    return model, _tokenizer_of(source)


def _transformers() -> Any:
    import transformers

    return transformers
