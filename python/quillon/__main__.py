"""Command line: ``python -m quillon``."""

from __future__ import annotations

import argparse
import contextlib
import errno
import importlib.metadata
import os
import platform
import re
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any, BinaryIO

import torch

import quillon
import vesper_linear
from quillon import host_device
from quillon._device_table import DEVICE_CLASSES
from quillon.calibration import calibration_text
from quillon.nn import chosen_device_class

_DTYPES = ("float32", "float64", "float16", "bfloat16")


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


def _configuration(options: argparse.Namespace) -> Any:
    """What the options of packing say, as a QuillonConfig."""
    output = None if options.output_format == _DENSE else _format(options.output_format)
    recipe = {}
    for rule in options.rule:
        pattern, separator, format = rule.rpartition("=")
        if not separator:
            raise ValueError(f"--rule must be PATTERN=FORMAT or PATTERN={_DENSE}, got {rule!r}")
        recipe[pattern] = None if format == _DENSE else _format(format)
    return quillon.QuillonConfig(
        _format(options.format),
        output_format=output,
        embedding_format=_format(options.embedding_format) if options.embedding_format else None,
        fallback=None if options.fallback == _DENSE else _format(options.fallback),
        recipe=recipe,
        device_class=getattr(options, "device_class", None),
    )


def _quantize(options: argparse.Namespace) -> int:
    from quillon.commands import quantize

    if options.tensors:
        if options.calibrate is not None:
            raise ValueError("--calibrate runs the model, of which --tensors packs the matrices alone; leave one out")
        fallback = None if options.fallback == _DENSE else options.fallback
        print(quantize_file(options.source, options.format, options.target, fallback, options.device_class))
        return 0
    source, target = Path(options.source), Path(options.target)
    quantize.check_target(source, target)
    config = _configuration(options)
    text = None
    if options.calibrate is not None:
        text = calibration_text() if options.calibrate == "" else Path(options.calibrate).read_text(encoding="utf-8")
    said = quantize.quantize_model_files(
        source, target, config, keep=not options.anew, max_shard_size=options.shard_size, calibrate_on=text
    )
    print(said)
    return 0


def _text(options: argparse.Namespace) -> int:
    from quillon.commands import text

    command = {"generate": text.generate, "chat": text.chat}[options.command]
    return command(options, _configuration(options))


def _formats_of(names: str | None) -> list[str]:
    return [_format(name) for name in names.split(",")] if names else list(quillon.formats.WEIGHT_FORMATS)


def _bench(options: argparse.Namespace) -> int:
    from quillon.commands import measure

    shape = re.fullmatch(r"(\d{1,7})x(\d{1,7})", options.shape)
    if shape is None:
        raise ValueError(f"--shape must be ROWSxCOLUMNS, 4096x4096 for example, got {options.shape!r}")
    rows, cols = map(int, shape.groups())
    for line in measure.bench(_formats_of(options.formats), rows, cols, options.dtype, options.device, options.seconds):
        print(line, flush=True)
    return 0


def _selftest(options: argparse.Namespace) -> int:
    from quillon.commands import selftest

    names = options.formats.split(",") if options.formats else selftest.SUBJECTS
    subjects = [name if name == selftest.RWKV else _format(name) for name in names]
    checks = []
    for check in selftest.selftest(options.device, subjects):
        checks.append(check)
        if sys.stderr.isatty():
            sys.stderr.write(f"\r{check.subject:10} {check.operation:14} {check.dtype:10}")
    if sys.stderr.isatty():
        sys.stderr.write("\r" + " " * 40 + "\r")
    print("\n".join(selftest.table(checks)))
    return 0 if all(check.passed for check in checks) else 1


def _listing(options: argparse.Namespace) -> int:
    lines = info() if options.command == "info" else formats(options.names, options.device_class)
    for what, value in lines:
        print(f"{what:14}{value}")
    return 0


def _transformers(options: argparse.Namespace) -> int:
    from quillon.commands import text

    return text.transformers_command(options.arguments)


_DENSE = "dense"
_FAILURES = (ValueError, OSError, ImportError, RuntimeError)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python -m quillon", description=quillon.__doc__)
    commands = parser.add_subparsers(dest="command", required=True)

    def add(name: str, run: Callable[[argparse.Namespace], int], help: str, example: str) -> argparse.ArgumentParser:
        command = commands.add_parser(
            name,
            help=help,
            description=help[0].upper() + help[1:] + ".",
            epilog=f"example: python -m quillon {example}",
        )
        command.set_defaults(run=run)
        return command

    def add_packing(command: argparse.ArgumentParser) -> None:
        command.add_argument("--output-format", default="q8_0", help="of the layer that gives the logits (q8_0)")
        command.add_argument("--embedding-format", help="of the embedding, q2_k or q4_k (dense)")
        command.add_argument("--fallback", default="q8_0", help="for rows that the format does not fit (q8_0)")
        command.add_argument(
            "--rule",
            action="append",
            default=[],
            metavar="PATTERN=FORMAT",
            help=f"for layers whose name matches; FORMAT may be {_DENSE}; the first that matches counts",
        )

    add("info", _listing, "versions, XPU layer, kernel cache, and the devices with class and architecture", "info")
    listing = add("formats", _listing, "what each weight format is", "formats q4_0 q6_k")
    listing.add_argument("names", nargs="*", metavar="format", help="default: all")

    packing = add(
        "quantize",
        _quantize,
        "pack a model, of a GGUF file or a folder, into a folder that transformers loads; interrupted, it goes on "
        "where it was",
        "quantize model.gguf q4_0 packed",
    )
    packing.add_argument("source", help="a GGUF file, or a folder with a model of transformers")
    packing.add_argument("format", help="a weight format")
    packing.add_argument("target", help="folder to make")
    add_packing(packing)
    packing.add_argument(
        "--anew", action="store_true", help="quantize also what a format could hold as the file has it"
    )
    packing.add_argument(
        "--calibrate",
        nargs="?",
        const="",
        metavar="TEXT",
        help="run the model over a text first, a file or else one that comes with this, and let columns make good what "
        "rounding others costs",
    )
    packing.add_argument("--shard-size", default="5GB", help="largest file (%(default)s)")
    packing.add_argument(
        "--tensors", action="store_true", help="the tensors of a GGUF file alone, in one file for torch.load"
    )
    for command in (listing, packing):
        command.add_argument("--device-class", choices=DEVICE_CLASSES, help="default: that of the current XPU")

    talking = [
        add("generate", _text, "continue a text", 'generate packed "Once upon a time" --new-tokens 100'),
        add("chat", _text, "talk to a model", "chat packed --temperature 0.7"),
    ]
    for command in talking:
        command.add_argument("model", help="a packed folder, a folder with a model of transformers, or a GGUF file")
        if command is talking[0]:
            command.add_argument("text", help="what to go on from")
            command.add_argument("--question", action="store_true", help="the text is a question to a chat model")
        else:
            command.add_argument("--system", help="what the model is told ahead of the conversation")
        command.add_argument("--format", default="q4_0", help="for a model that is not packed yet (%(default)s)")
        add_packing(command)
        command.add_argument("--new-tokens", type=int, default=256, help="at most (%(default)s)")
        command.add_argument("--temperature", type=float, default=0.0, help="0: the likeliest token (%(default)s)")
        command.add_argument("--seed", type=int, help="for the same text again at a temperature above 0")
        command.add_argument("--device", default="xpu", help="default: %(default)s")

    timing = add("bench", _bench, "time the product of each format against a dense one", "bench --shape 11008x4096")
    timing.add_argument("--shape", default="4096x4096", metavar="ROWSxCOLUMNS", help="of the weight (%(default)s)")
    timing.add_argument(
        "--dtype", choices=_DTYPES, help="of the activations (default: float16, on the host device float32)"
    )
    timing.add_argument("--seconds", type=float, default=0.3, help="for each format (%(default)s)")
    testing = add(
        "selftest",
        _selftest,
        "run every kernel on the device against the reference; the exit code is 0 if all give what they should",
        "selftest --device xpu:0",
    )
    timing.add_argument("--formats", metavar="FORMAT,...", help="default: all")
    testing.add_argument(
        "--formats", metavar="FORMAT,...", help="rwkv stands for the operators without one (default: all)"
    )
    for command in (timing, testing):
        command.add_argument("--device", default="xpu", help="default: %(default)s")

    running = add(
        "transformers",
        _transformers,
        "run transformers' own command line where packed folders load: its server, its chat",
        "transformers serve packed --port 8000",
    )
    running.add_argument("arguments", nargs=argparse.REMAINDER, help="as for the command transformers")
    return parser


def main(arguments: list[str] | None = None) -> int:
    """Run the command line and return the exit code."""
    options = _parser().parse_args(arguments)
    run: Callable[[argparse.Namespace], int] = options.run
    try:
        return run(options)
    except _FAILURES as problem:
        print(f"python -m quillon {options.command}: {problem}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(f"python -m quillon {options.command}: interrupted", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
