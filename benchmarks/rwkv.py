"""Prints how fast the RWKV operators are, beside the same recurrences step by step in PyTorch, as a markdown table.

    python benchmarks/rwkv.py [--heads 32] [--steps 1024] [--dtype float32,float16]

A model has `heads` heads of 64 channels; v4 and the time shift, with five mixes, have as many channels without heads.
Contenders are measured in interleaved rounds, each call waited for; a time is the least of all.

us / step     the operator's time for a sequence of `steps` in one call, by its steps
loop          the loop over the steps in plain PyTorch, on the device, where a model has its tensors, and on plain CPU
              tensors; in parentheses how many times the operator's time goes into it
one step, us  a call of a single step, as in generation
state         bytes that a step must read and write where states do not stay in registers
copy, us      a copy on the device that reads and writes as many bytes as the states have
"""

from __future__ import annotations

import argparse
import time
from collections.abc import Callable

import torch
from matvec import table_head, table_line
from torch import Tensor

import quillon  # noqa: F401  (brings the host device up)
import vesper_linear

HEADINGS = ("operator", "element type", "us / step", "loop", "loop, CPU", "one step, us", "state, KB", "copy, us")
SIZE = 64
MIXES = 5


def loop_v4(w: Tensor, u: Tensor, key: Tensor, value: Tensor, num: Tensor, den: Tensor, top: Tensor) -> Tensor:
    """RWKV v4 attention, step by step."""
    outputs = []
    for k, v in zip(key.unbind(1), value.unbind(1), strict=True):
        k, v = k.float(), v.float()
        largest = torch.maximum(top, u + k)
        past, present = torch.exp(top - largest), torch.exp(u + k - largest)
        outputs.append((past * num + present * v) / (past * den + present))
        largest = torch.maximum(top + w, k)
        past, present = torch.exp(top + w - largest), torch.exp(k - largest)
        num, den, top = past * num + present * v, past * den + present, largest
    return torch.stack(outputs, 1).to(key.dtype)


def loop_v5(w: Tensor, u: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor) -> Tensor:
    """RWKV v5 attention, step by step."""
    outputs = []
    w, u = w[:, :, None], u[:, :, None]
    for r, k, v in zip(receptance.unbind(2), key.unbind(2), value.unbind(2), strict=True):
        product = k[..., :, None] * v[..., None, :]
        outputs.append((r[..., None, :] @ (u * product + state)).squeeze(-2))
        state = product + w * state
    return torch.stack(outputs, 1)


def shift(hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
    """The time shift of all steps at once."""
    return shifted + mix[:, None, None] * (hidden - shifted)


def inputs_of(name: str, heads: int, steps: int, dtype: torch.dtype) -> list[Tensor]:
    """Arguments of an operator, on the CPU."""
    channels = heads * SIZE
    if name == "v4":
        state = torch.zeros(2, 1, channels)
        return [
            *(-torch.rand(channels).to(dtype), torch.rand(channels).to(dtype)),
            *torch.randn(2, 1, steps, channels).to(dtype),
            *(*state, torch.full((1, channels), -1e38)),
        ]
    if name == "v5":
        rates = torch.rand(2, heads, SIZE)
        return [*rates, *torch.randn(3, 1, heads, steps, SIZE), torch.zeros(1, heads, SIZE, SIZE)]
    return [*torch.randn(2, 1, steps, channels).to(dtype), torch.rand(MIXES, channels).to(dtype)]


OPERATORS: dict[str, tuple[Callable[..., Tensor], Callable[..., Tensor], int]] = {
    "v4": (vesper_linear.rwkv_linear_attention_v4, loop_v4, 3),
    "v5": (vesper_linear.rwkv_linear_attention_v5, loop_v5, 1),
    "time shift": (vesper_linear.rwkv_time_shift, shift, 0),
}


def least_times(calls: dict[str, Callable[[], object]], rounds: int, device: torch.device) -> dict[str, float]:
    """Seconds of each call: the least of some rounds, behind one that does not count."""
    times: dict[str, list[float]] = {name: [] for name in calls}
    for _ in range(rounds + 1):
        for name, call in calls.items():
            time.sleep(0.02)
            for _ in range(3):
                torch.xpu.synchronize(device)
                start = time.perf_counter()
                call()
                torch.xpu.synchronize(device)
                times[name].append(time.perf_counter() - start)
    return {name: min(seconds[3:]) for name, seconds in times.items()}


def measured_row(name: str, dtype: str, arguments: argparse.Namespace) -> list[str]:
    """A row under ``HEADINGS``."""
    operator, loop, states = OPERATORS[name]
    device = torch.device(arguments.device)
    element_type = getattr(torch, dtype)
    on_cpu = inputs_of(name, arguments.heads, arguments.steps, element_type)
    on_device = [one.to(device) for one in on_cpu]
    one_step = [one.to(device) for one in inputs_of(name, arguments.heads, 1, element_type)]
    calls: dict[str, Callable[[], object]] = {
        "operator": lambda: operator(*on_device),
        "loop": lambda: loop(*on_device),
        "loop, CPU": lambda: loop(*on_cpu),
        "step": lambda: operator(*one_step),
    }
    bytes_moved = 2 * sum(one.nbytes for one in one_step[-states:]) if states else 0
    if states:
        source = torch.zeros(bytes_moved // 8, device=device)
        target = torch.empty_like(source)
        calls["copy"] = lambda: target.copy_(source)
    seconds = least_times(calls, arguments.rounds, device)
    own = seconds["operator"]
    micros = 1e6 / arguments.steps
    return [
        name,
        dtype,
        f"{own * micros:.2f}",
        *(f"{seconds[loop] * micros:.1f} ({seconds[loop] / own:.0f})" for loop in ("loop", "loop, CPU")),
        f"{seconds['step'] * 1e6:.0f}",
        f"{bytes_moved / 1e3:.0f}",
        f"{seconds['copy'] * 1e6:.0f}" if states else "-",
    ]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--heads", type=int, default=32)
    parser.add_argument("--steps", type=int, default=1024)
    parser.add_argument("--dtype", default="float32,float16")
    parser.add_argument("--device", default="xpu:0")
    parser.add_argument("--rounds", type=int, default=5)
    arguments = parser.parse_args()
    print("\n".join(table_head(HEADINGS)), flush=True)
    for name in OPERATORS:
        for dtype in arguments.dtype.split(","):
            if name != "v5" or dtype == "float32":
                print(table_line(measured_row(name, dtype, arguments)), flush=True)


if __name__ == "__main__":
    main()
