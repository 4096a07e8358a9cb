"""The command: compiles kernels for GPUs and shows what they use."""

from __future__ import annotations

import argparse
import re
import sys
from dataclasses import asdict
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))  # for `python tools/gpu_compile`

from gpu_compile.jobs import SOURCES, GpuCompileError
from gpu_compile.ocloc import assembly, compile_for_gpu, device_argument
from gpu_compile.spirv import dump_spirv
from quillon._device_table import ARCHITECTURES


def _parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="gpu_compile", description="Compiles kernels for GPUs and shows what they use."
    )
    parser.add_argument("header", help="header that holds the kernel template, relative to the root")
    parser.add_argument("kernel", nargs="+", help="instantiation, such as 'name<float,16,32,2>'")
    parser.add_argument("--root", type=Path, default=SOURCES, help="folder of device text (default: csrc)")
    parser.add_argument(
        "--architecture",
        action="append",
        type=lambda text: int(text, 0),
        help="64-bit identifier; may be repeated (default: all that the library lists)",
    )
    parser.add_argument(
        "--build-option",
        action="append",
        default=[],
        help="of the kernel's build, such as -DQUILLON_SUB_GROUP_SIZE=16; written with =, may be repeated",
    )
    parser.add_argument("--options", default="", help="options for the GPU's code generator")
    parser.add_argument("--assembly", type=Path, help="folder to write the assembly to")
    return parser.parse_args()


def main() -> int:
    arguments = _parse_arguments()
    try:
        spirv = dump_spirv(arguments.header, arguments.kernel, arguments.root, arguments.build_option)
        for architecture in arguments.architecture or ARCHITECTURES:
            for name, kernel in spirv.items():
                module = compile_for_gpu(kernel.module, architecture, arguments.options)
                info = asdict(module.kernels[kernel.entry])
                del info["entry"]
                print(f"{device_argument(architecture):8} {name}: {info}")
                if arguments.assembly:
                    arguments.assembly.mkdir(parents=True, exist_ok=True)
                    stem = re.sub(r"\W+", "_", name).strip("_")
                    file = arguments.assembly / f"{stem}.{device_argument(architecture)}.asm"
                    file.write_text(assembly(module)[kernel.entry])
    except GpuCompileError as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
