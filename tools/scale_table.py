"""What models need on several devices, computed; writes the table of docs/scale.md.

    python tools/scale_table.py            # into docs/scale.md
    python tools/scale_table.py --print    # all formats and numbers of devices

Assumed is what stands in `Device`, `MODELS` and the comments of `need`. The packed bytes of a process are counted by
the rules by which `quillon.parallel` splits layers; tests/parallel and benchmarks/scale.py hold them and the bytes that
are sent against what processes really have and send.
"""

from __future__ import annotations

import argparse
import math
from dataclasses import dataclass
from pathlib import Path

from sections import write_section

from quillon.formats import WEIGHT_FORMATS, weight_bytes
from quillon.nn import kernel_row_multiple

PAGE = Path(__file__).resolve().parents[1] / "docs" / "scale.md"
SHOWN = ("q8_0", "q4_0", "q4_k", "q2_k")
DEVICES = (1, 2, 4, 8, 16, 32, 64)
GIB = 2**30


@dataclass(frozen=True)
class Device:
    """A device, and the link between two of them."""

    memory: float = 24 * GIB
    usable: float = 0.9  # of the memory; the rest is the runtime's and the allocator's
    bandwidth: float = 450e9 * 0.7  # bytes a second that a kernel of one row gets of the stated figure
    link: float = 25e9  # bytes a second that a process sends and receives at once
    latency: float = 15e-6  # seconds of one step of a collective, its launch among them


@dataclass(frozen=True)
class Model:
    """Sizes of a Llama-shaped model."""

    hidden: int
    inner: int
    layers: int
    heads: int
    kv_heads: int
    head_dim: int
    vocabulary: int

    @property
    def weights(self) -> dict[str, tuple[int, int, str]]:
        """The packed weights of a decoder layer: rows, columns, and which of the two is split."""
        heads, kv = self.heads * self.head_dim, self.kv_heads * self.head_dim
        return {
            "q_proj": (heads, self.hidden, "rows"),
            "k_proj": (kv, self.hidden, "rows"),
            "v_proj": (kv, self.hidden, "rows"),
            "o_proj": (self.hidden, heads, "columns"),
            "gate_proj": (self.inner, self.hidden, "rows"),
            "up_proj": (self.inner, self.hidden, "rows"),
            "down_proj": (self.hidden, self.inner, "columns"),
        }


MODELS = {
    "8 billion": Model(4096, 14336, 32, 32, 8, 128, 128256),
    "70 billion": Model(8192, 28672, 80, 64, 8, 128, 128256),
    "400 billion": Model(16384, 53248, 126, 128, 8, 128, 128256),
}
CONTEXT = 8192  # tokens of one user whose keys and values are kept, in two bytes
ELEMENT = 2  # bytes of an activation


def parts(model: Model, format: str, device_class: str = "unknown") -> tuple[int, int]:
    """In how many parts at most attention and MLP can be split."""
    unit = kernel_row_multiple(format, device_class)
    heads = model.heads * model.head_dim
    return math.gcd(model.kv_heads, heads // unit), model.inner // unit


def share(count: int, processes: int) -> int:
    """Parts of the process that has the most."""
    return -(-count // processes)


def layer_bytes(model: Model, format: str, processes: int, device_class: str = "unknown") -> int:
    """Packed bytes of a decoder layer in the process that has the most."""
    attention, mlp = parts(model, format, device_class)
    total = 0
    for name, (rows, cols, dim) in model.weights.items():
        count = attention if name[0] in "qkvo" else mlp
        own_rows = rows // count * share(count, processes) if dim == "rows" else rows
        own_cols = cols // count * share(count, processes) if dim == "columns" else cols
        total += weight_bytes(format, own_rows, own_cols)
    return total


def head_bytes(model: Model, format: str, processes: int) -> int:
    """Packed bytes of embedding or output layer, split by the vocabulary."""
    return weight_bytes(format, share(model.vocabulary, processes), model.hidden)


def sent_bytes(model: Model, processes: int, element: int = ELEMENT) -> int:
    """Bytes that a process sends for a token: sums of hidden states, and its part of the logits.

    A sum of n bytes over p processes costs each 2 n (p - 1) / p, a gathering of parts of n bytes n (p - 1).
    """
    sums = (2 * model.layers + 1) * model.hidden * element
    logits = share(model.vocabulary, processes) * element
    return 2 * sums * (processes - 1) // processes + logits * (processes - 1)


@dataclass(frozen=True)
class Need:
    """What a model needs on a number of devices."""

    split: int  # processes among which layers are split
    stages: int
    memory: float  # bytes of the fullest device
    fits: bool
    milliseconds: float  # of a token of one user


def need(model: Model, format: str, devices: int, device: Device) -> Need:
    """Layers are split as far as they can be and no further than 8; the rest of the devices are pipeline stages."""
    most = min(*parts(model, format), 8)
    split = max(one for one in (1, 2, 4, 8) if one <= most and devices % one == 0)
    stages = devices // split
    layers = -(-model.layers // stages)
    embedding = head_bytes(model, "q4_k", split)
    head = head_bytes(model, "q8_0", split)
    # Keys and values of the layers and heads of a device; norms and activations are less than a hundredth and left out.
    cache = 2 * layers * share(model.kv_heads, split) * model.head_dim * CONTEXT * ELEMENT
    weights = layers * layer_bytes(model, format, split)
    ends = embedding + head if stages == 1 else max(embedding, head)
    memory = weights + ends + cache
    # One user: stages work one after the other. Each reads its weights and its cache once for a token.
    read = model.layers * layer_bytes(model, format, split) + head + cache * stages
    steps = (2 * model.layers + 2) * 2 * (split - 1) + (stages - 1)
    passed = (stages - 1) * model.hidden * ELEMENT
    seconds = read / device.bandwidth + (sent_bytes(model, split) + passed) / device.link + steps * device.latency
    return Need(split, stages, memory, memory <= device.usable * device.memory, 1e3 * seconds)


def tables(formats: tuple[str, ...], device: Device) -> str:
    """Markdown, a table for each model."""
    lines = [
        f"Devices of {device.memory / GIB:.0f} GiB, of which {device.usable:.0%} hold weights and cache; "
        f"{device.bandwidth / 1e9:.0f} GB/s from memory, {device.link / 1e9:.0f} GB/s and "
        f"{device.latency * 1e6:.0f} µs a step between devices; one user with {CONTEXT} tokens of 16-bit keys and "
        "values; embedding q4_k, output layer q8_0. Cells: GiB of the fullest device, split by stages, milliseconds "
        "a token; a dash where it does not fit.",
        "",
    ]
    for name, model in MODELS.items():
        lines += [f"### {name} parameters", "", "| format | " + " | ".join(map(str, DEVICES)) + " |"]
        lines += ["| --- |" + " --- |" * len(DEVICES)]
        for format in formats:
            cells = []
            for devices in DEVICES:
                if devices > 8 and devices // 8 > model.layers:
                    cells.append("–")
                    continue
                one = need(model, format, devices, device)
                text = f"{one.memory / GIB:.1f}, {one.split}×{one.stages}, {one.milliseconds:.1f} ms"
                cells.append(text if one.fits else f"– ({one.memory / GIB:.1f})")
            lines.append(f"| {format} | " + " | ".join(cells) + " |")
        lines.append("")
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--print", action="store_true", help="write all formats to the terminal, and no file")
    if parser.parse_args().print:
        print(tables(WEIGHT_FORMATS, Device()))
    else:
        write_section(PAGE, "computed", tables(SHOWN, Device()))


if __name__ == "__main__":
    main()
