"""Processors whose vector registers hold eight floats: the device compiler builds for them when it is told to."""

from __future__ import annotations

import hashlib

import torch
from shim.process import output_of

import vesper_linear
from quillon.formats import format_code, weight_bytes

# Those that look values up, whose text is another one there, and two that do not.
NAMES = ("nf4", "fp4", "nf3", "q4_0", "iq2_xxs")
TYPES = ("float32", "float64", "bfloat16")

PROGRAM = """
import hashlib, torch, quillon, vesper_linear
from quillon.formats import format_code, weight_bytes
for name in {names}:
    for dtype in {types}:
        generator = torch.Generator().manual_seed(7)
        x = (torch.rand(1, 768, generator=generator) - 0.5).to(getattr(torch, dtype)).to("xpu")
        weight = torch.randint(0, 0x3C, (weight_bytes(name, 21, 768),), dtype=torch.uint8, generator=generator)
        out = vesper_linear.forward_new(x, weight.to("xpu"), format_code(name), 0).cpu()
        print(name, dtype, hashlib.sha256(out.view(torch.uint8).numpy().tobytes()).hexdigest())
"""


def test_the_same_bits() -> None:
    printed = output_of(
        PROGRAM.format(names=NAMES, types=TYPES),
        CL_CONFIG_CPU_TARGET_ARCH="core-avx2",
        SYCL_CACHE_PERSISTENT="0",
        QUILLON_HOST_DEVICES="0",
    )
    assert len(printed.splitlines()) == len(NAMES) * len(TYPES)
    for line in printed.splitlines():
        name, dtype, digest = line.split()
        generator = torch.Generator().manual_seed(7)
        x = (torch.rand(1, 768, generator=generator) - 0.5).to(getattr(torch, dtype)).to("xpu:7")
        weight = torch.randint(0, 0x3C, (weight_bytes(name, 21, 768),), dtype=torch.uint8, generator=generator)
        out = vesper_linear.forward_new(x, weight.to("xpu:7"), format_code(name), 0).cpu()
        assert out.isfinite().all()
        assert hashlib.sha256(out.view(torch.uint8).numpy().tobytes()).hexdigest() == digest, line
