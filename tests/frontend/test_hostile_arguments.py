"""Every function, called hundreds of times with arguments of any shape: an error or a result, never a crash."""

from __future__ import annotations

import re

import pytest
from shim.process import run_python

import vesper_linear

CALLS = 600

HOSTILE = """
import itertools, random, sys
import torch, quillon, vesper_linear

random.seed(5)
torch.manual_seed(0)
SIZES = (0, 1, 2, 7, 16, 34, 64, 192, 256, 2176)
DTYPES = (torch.float32, torch.float32, torch.float16, torch.uint8, torch.uint8, torch.uint8, torch.int32, torch.int64)
DEVICES = ("xpu:7", "xpu:7", "xpu:7", "xpu:7", "xpu:7", "xpu:3", "cpu", "meta")
LIKELY = (2, 8, 23, 27), (256,), (4, 20)  # a code, a row length, a number of rows
# Of operators whose arguments have to fit one another: shapes that do, a packed weight for None, and integers.
FITTING = {
    "mlp_forward_xpu": ((1, 256), None, None, 1, 256, 16, 0, 2),
    "rwkv_linear_attention_v4": ((64,), (64,), (2, 3, 64), (2, 3, 64), (2, 64), (2, 64), (2, 64)),
    "rwkv_linear_attention_v5": ((3, 64), (3, 64), (2, 3, 5, 64), (2, 3, 5, 64), (2, 3, 5, 64), (2, 3, 64, 64)),
    "rwkv_time_shift": ((2, 3, 64), (2, 3, 64), (4, 64)),
}
INTEGERS = (26, 12, 9, 25, 5, 0, 1, 64, 256, 4096, -1, 2**40, 2**62, -(2**63))

def tensor():
    if random.random() < 0.5:  # activations, a packed weight, numbers of rows
        shape, dtype = random.choice(
            (((1, random.choice((64, 192, 256))), torch.float32), ((2176,), torch.uint8), ((2, 3), torch.int64))
        )
        made = torch.randint(0, 4, shape).to(dtype)
        if dtype == torch.int64 and random.random() < 0.5:
            made[1, 2] = random.choice((-1, 4, 100, 2**31, 2**62, -(2**63)))
        return made.to("xpu:7")
    shape = [random.choice(SIZES) for _ in range(random.choice((0, 1, 1, 2, 2, 2, 2, 3, 4)))]
    while torch.Size(shape).numel() > 1 << 18:
        shape.pop()
    dtype, device = random.choice(DTYPES), random.choice(DEVICES)
    made = torch.randint(0, 4, shape).to(dtype).to(device)
    how = random.randrange(10)
    if how == 0 and made.dim() > 1:
        made = made.transpose(0, 1)
    elif how == 1 and made.dim() > 0:
        made = made[..., ::2]
    elif how == 2 and made.dim() > 0 and made.size(0) > 0:
        made = made[:1].expand(random.choice((1, 3, 4096)), *made.shape[1:])
    elif how == 3 and made.dim() > 0:
        made = made[1:]
    elif how == 4 and made.dim() > 0:
        made = made[:0]
    return made

def shown(value):
    if not isinstance(value, torch.Tensor):
        return repr(value)
    return f"{list(value.shape)} {list(value.stride())} {value.dtype} {value.device}"

def fitting(one):
    if isinstance(one, int):
        return random.choice(INTEGERS) if random.random() < 0.1 else one
    if random.random() < 0.1:
        return tensor()
    return torch.rand(one).to("xpu:7") if one else torch.zeros(2176, dtype=torch.uint8, device="xpu:7")

def arguments_of(name, kinds):
    if name in FITTING and random.random() < 0.7:
        yield from map(fitting, FITTING[name])
        return
    integers = itertools.chain(LIKELY, itertools.repeat((1,)))
    for kind in kinds:
        if kind == "int":
            yield random.choice(next(integers) if random.random() < 0.8 else INTEGERS)
        else:
            yield tensor() if kind == "torch.Tensor" else tensor().device

routes = [getattr(vesper_linear, sys.argv[1]), getattr(torch.ops.quillon, sys.argv[1], None)]
names = [one.name for one in routes[1].default._schema.arguments] if routes[1] else [""] * 9
kinds = sys.argv[2].split(",")
outcomes = {"result": 0, "error": 0}
for _ in range(int(sys.argv[3])):
    arguments = list(arguments_of(sys.argv[1], kinds))
    print(", ".join(map(shown, arguments)), file=sys.stderr, flush=True)
    kept = [one.clone() if isinstance(one, torch.Tensor) else one for one in arguments]
    try:
        result = random.choice([route for route in routes if route])(*arguments)
    except (RuntimeError, IndexError, TypeError, ValueError, MemoryError) as error:
        assert str(error)
        assert "INTERNAL ASSERT" not in str(error), error
        outcomes["error"] += 1
    else:
        outcomes["result"] += 1
        if isinstance(result, torch.Tensor) and result.is_xpu:
            result.cpu()
    for name, one, before in zip(names, arguments, kept):
        if isinstance(one, torch.Tensor) and not one.is_meta and not name.endswith("state"):
            assert torch.equal(one, before)
torch.xpu.synchronize()
print(outcomes["result"], outcomes["error"])
"""


def _kinds(name: str) -> str:
    """The types of a function's parameters, from the signature that it shows."""
    signature = getattr(vesper_linear, name).__doc__.splitlines()[0]
    return ",".join(re.findall(r"arg\d+: ([\w.]+)", signature))


@pytest.mark.parametrize("name", [name for name in dir(vesper_linear) if not name.startswith("__")])
def test_any_arguments(name: str) -> None:
    done = run_python(HOSTILE, name, _kinds(name), str(CALLS), timeout=400)
    assert done.returncode == 0, done.stderr[-3000:]
    results, errors = map(int, done.stdout.split())
    assert results + errors == CALLS
    assert results > 0
    assert errors > 0 or name == "get_xpu_device_name"
