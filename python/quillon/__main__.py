"""Command line: ``python -m quillon info``."""

from __future__ import annotations

import argparse
import importlib.metadata
import platform
import sys

import torch
import vesper_linear

import quillon
from quillon import host_device


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
        device = torch.device("xpu", index)
        name = vesper_linear.get_xpu_device_name(device)
        lines.append((f"xpu:{index}", f"{torch.xpu.get_device_name(index)}, class {name}, {_architecture(index)}"))
    return lines


def main(arguments: list[str] | None = None) -> int:
    """Run the command line and return the exit code."""
    parser = argparse.ArgumentParser(prog="python -m quillon", description=quillon.__doc__)
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("info", help="versions, XPU layer, kernel cache, and the devices with class and architecture")
    parser.parse_args(arguments)
    for what, value in info():
        print(f"{what:14}{value}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
