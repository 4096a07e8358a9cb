"""Command line: ``python -m quillon info``, ``formats`` and ``quantize``."""

from __future__ import annotations

import argparse
import contextlib
import errno
import importlib.metadata
import os
import platform
import re
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import BinaryIO

import torch

import quillon
import vesper_linear
from quillon import host_device
from quillon._device_table import DEVICE_CLASSES
from quillon.nn import chosen_device_class


def _version(package: str) -> str:
    try:
        return importlib.metadata.version(package)
    except importlib.metadata.PackageNotFoundError:
        return "not installed"


def _architecture(index: int) -> str:
    declared = host_device.declared_architectures()
    if declared:
        return f"{declared[index]:#x}"
    architecture = getattr(torch.xpu.get_device_properties(index), "architecture", None)
    return "unknown to this PyTorch" if architecture is None else f"{int(architecture):#x}"


def info() -> list[tuple[str, str]]:
    """Return what this installation consists of and which devices it sees, as (what, value) lines."""
    if host_device.is_active():
        layer = "quillon's host device (the SYCL CPU device)"
    else:
        layer = "PyTorch's own"
    folder = host_device.cache_folder()
    lines = [
        ("quillon", _version("quillon")),
        ("PyTorch", torch.__version__),
        ("SYCL runtime", _version("dpcpp-cpp-rt")),
        ("Python", platform.python_version()),
        ("XPU layer", layer),
        ("kernel cache", "off (SYCL_CACHE_PERSISTENT)" if folder is None else str(folder)),
        ("formats", ", ".join(quillon.formats.WEIGHT_FORMATS)),
    ]
    for index in range(torch.xpu.device_count()):
        try:
            name = vesper_linear.get_xpu_device_name(torch.device("xpu", index))
            facts = f"{torch.xpu.get_device_name(index)}, class {name}, {_architecture(index)}"
        except RuntimeError as problem:
            facts = f"not usable: {problem}"
        lines.append((f"xpu:{index}", facts))
    return lines


def _format(text: str) -> str:
    """A format's name, from a name or a code."""
    return quillon.formats.format_name(int(text) if re.fullmatch("[0-9]{1,9}", text) else text)


def formats(names: list[str], device_class: str | None) -> list[tuple[str, str]]:
    """Return a line on each named format, or on all, as (name, facts)."""
    lines = []
    for name in names or quillon.formats.WEIGHT_FORMATS:
        found = quillon.formats.weight_format(_format(name))
        multiple = quillon.nn.kernel_row_multiple(found.name, chosen_device_class(device_class, [found]))
        facts = f"code {found.code:2}  {found.bits_per_weight:7.4f} bits per weight  rows a multiple of {multiple}"
        lines.append((found.name, facts))
    return lines


@contextlib.contextmanager
def _written_when_complete(target: Path) -> Iterator[BinaryIO]:
    """Open a file that takes the place of ``target`` at the end; nothing is left of it after a failure.

    It is opened at once, so that a target which cannot be written fails before the work, not after it.
    """
    if target.is_dir():
        raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), str(target))
    if target.exists() and not os.access(target, os.W_OK):
        raise PermissionError(errno.EACCES, os.strerror(errno.EACCES), str(target))
    if target.exists() and not target.is_file():  # a pipe or a device
        with open(target, "wb") as file:
            yield file
        return
    part = target.with_name(target.name + ".part")
    try:
        with open(part, "wb") as file:
            yield file
        os.replace(part, target)
    finally:
        part.unlink(missing_ok=True)


def quantize_file(source: str, format: str, target: str, fallback: str | None, device_class: str | None) -> str:
    """Pack the matrices of a GGUF file and save them with torch.save; return a sentence about the result."""
    if os.path.exists(target) and os.path.exists(source) and os.path.samefile(source, target):
        raise ValueError(f"the target is the source: {target}")
    with _written_when_complete(Path(target)) as file:
        tensors = quillon.from_gguf(
            source, _format(format), fallback=_format(fallback) if fallback else None, device_class=device_class
        )
        try:
            torch.save({name: vars(tensor) for name, tensor in tensors.items()}, file)
        except RuntimeError as problem:  # torch's own word for a write that failed
            raise OSError(f"writing {target} failed: {problem}") from problem
    packed = sum(tensor.format is not None for tensor in tensors.values())
    size = sum(tensor.data.nbytes for tensor in tensors.values())
    return f"{packed} matrices packed, {len(tensors) - packed} tensors dense, {size / 1e6:.1f} MB in {target}"


def main(arguments: list[str] | None = None) -> int:
    """Run the command line and return the exit code."""
    parser = argparse.ArgumentParser(prog="python -m quillon", description=quillon.__doc__)
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("info", help="versions, XPU layer, kernel cache, and the devices with class and architecture")
    listing = commands.add_parser("formats", help="what each weight format is")
    listing.add_argument("names", nargs="*", metavar="format", help="default: all")
    packing = commands.add_parser("quantize", help="pack the matrices of a GGUF file into a format")
    packing.add_argument("source", help="a GGUF file")
    packing.add_argument("format", help="a weight format")
    packing.add_argument("target", help="file to write, for torch.load")
    packing.add_argument("--fallback", help="format for matrices whose rows do not fit")
    for command in (listing, packing):
        command.add_argument("--device-class", choices=DEVICE_CLASSES, help="default: that of the current XPU")
    options = parser.parse_args(arguments)
    try:
        if options.command == "quantize":
            print(quantize_file(options.source, options.format, options.target, options.fallback, options.device_class))
            return 0
        lines = info() if options.command == "info" else formats(options.names, options.device_class)
    except (ValueError, OSError, ImportError) as problem:
        print(f"python -m quillon {options.command}: {problem}", file=sys.stderr)
        return 2
    for what, value in lines:
        print(f"{what:14}{value}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
