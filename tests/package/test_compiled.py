"""Operators, layers and models inside compiled and exported graphs."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
import torch
from torch import Tensor

import quillon
from quillon.nn import LowBitEmbedding, LowBitLinear

DEVICE = "xpu:7"
TYPES = [torch.float32, torch.float64, torch.float16, torch.bfloat16]


def registered() -> dict[str, torch._ops.OpOverload]:
    """The operators of this package that take tensors, as the dispatcher lists them."""
    found = {}
    for name in sorted(torch._C._dispatch_get_all_op_names()):
        library, _, short = name.partition("::")
        if library in ("quillon", "quillon_kernels"):
            operator = getattr(getattr(torch.ops, library), short).default
            if any("Tensor" in str(argument.type) for argument in operator._schema.arguments):
                found[name] = operator
    return found


def random(*shape: int, dtype: torch.dtype = torch.float32) -> Tensor:
    return torch.randn(shape, device=DEVICE).to(dtype)


def weight(format: str) -> tuple[Tensor, int]:
    """Six packed rows of 512 elements, and the code of their format."""
    return quillon.quantize(torch.randn(6, 512), format).to(DEVICE), quillon.formats.format_code(format)


Arguments = tuple[Any, ...]


def of_mlp(dtype: torch.dtype) -> Arguments:
    (gate, code), (up, _) = weight("q4_0"), weight("q4_0")
    return random(1, 512, dtype=dtype), gate, up, 1, 512, 6, 0, code


def of_attention_v4(dtype: torch.dtype) -> Arguments:
    inputs = (random(*shape, dtype=dtype) for shape in ((64,), (64,), (2, 3, 64), (2, 3, 64)))
    return (*inputs, *quillon.nn.rwkv_state_v4(2, 64, DEVICE))


def of_attention_v5(_: torch.dtype) -> Arguments:
    inputs = (random(*shape) for shape in ((3, 64), (3, 64), (2, 3, 5, 64), (2, 3, 5, 64), (2, 3, 5, 64)))
    return (*inputs, quillon.nn.rwkv_state_v5(2, 3, DEVICE))


def of_time_shift(dtype: torch.dtype) -> Arguments:
    return tuple(random(*shape, dtype=dtype) for shape in ((2, 5, 64), (2, 5, 64), (3, 64)))


def of_expansion(format: str, dtype: torch.dtype) -> Arguments:
    packed, code = weight(format)
    return packed, torch.empty(6, 512, dtype=dtype, device=DEVICE), code


SINGLE, SINGLE_AND_HALF = TYPES[:1], [torch.float32, torch.float16]
EXAMPLES: dict[str, tuple[list[torch.dtype], Callable[[torch.dtype], Arguments]]] = {
    "quillon::forward_new": (TYPES, lambda dtype: (random(1, 512, dtype=dtype), *weight("q4_0"), 512)),
    "quillon::dequant": (TYPES, lambda dtype: (random(1, 512, dtype=dtype), *weight("nf4"))),
    "quillon::mlp_forward_xpu": (TYPES, of_mlp),
    "quillon::rwkv_linear_attention_v4": (SINGLE_AND_HALF, of_attention_v4),
    "quillon::rwkv_linear_attention_v5": (SINGLE, of_attention_v5),
    "quillon::rwkv_time_shift": (SINGLE_AND_HALF, of_time_shift),
    "quillon::dequantize_rows": (
        SINGLE,
        lambda _: (torch.tensor([[1, 5, 1]], device=DEVICE), *weight("q4_k"), 512, 6),
    ),
    "quillon_kernels::rwkv_linear_attention_v4": (SINGLE_AND_HALF, of_attention_v4),
    "quillon_kernels::rwkv_linear_attention_v5": (SINGLE, of_attention_v5),
    "quillon_kernels::expand_weight": (TYPES, lambda dtype: of_expansion("nf3", dtype)),
    "quillon_kernels::expand_weight_fast": (SINGLE_AND_HALF, lambda dtype: of_expansion("q4_0", dtype)),
    "quillon_kernels::expand_rows_of": (TYPES, lambda dtype: (*of_expansion("q8_0", dtype), 6, 0)),
}
"""By operator, the element types that it serves, and arguments."""

WRITES_UNTOLD = {
    "quillon::rwkv_linear_attention_v4": "Argument num_state is not defined as mutable but was mutated",
    "quillon::rwkv_linear_attention_v5": "Argument state is not defined as mutable but was mutated",
}
"""What is found in the schemas that do not say that states are written to. Graphs get their namesakes instead."""


def check(operator: torch._ops.OpOverload, arguments: Arguments) -> None:
    found = torch.library.opcheck(operator, arguments, raise_exception=False)
    problem = WRITES_UNTOLD.get(operator.name(), "SUCCESS")
    assert {name: str(result) for name, result in found.items()} == {
        "test_schema": problem,
        "test_autograd_registration": "SUCCESS",
        "test_faketensor": "SUCCESS",
        "test_aot_dispatch_dynamic": "SUCCESS",
    }


@pytest.mark.parametrize("name", registered())
def test_opcheck(name: str) -> None:
    types, arguments = EXAMPLES[name]
    for dtype in types:
        check(registered()[name], arguments(dtype))


@pytest.mark.parametrize("format", ["q6_k", "nf3", "iq1_s"])
def test_opcheck_of_other_formats(format: str) -> None:
    check(torch.ops.quillon.forward_new.default, (random(1, 512), *weight(format), 512))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [(1, 512), (3, 512), (2, 2, 512)])
def test_a_layer_is_one_graph(dtype: torch.dtype, shape: tuple[int, ...]) -> None:
    torch._dynamo.reset()
    layer = LowBitLinear.from_linear(torch.nn.Linear(512, 6), "q4_0").to(DEVICE).to(dtype)
    x = torch.randn(shape, device=DEVICE).to(dtype)
    with torch.no_grad():
        assert torch.equal(torch.compile(layer, fullgraph=True, backend="aot_eager")(x), layer(x))


def test_an_embedding_is_one_graph() -> None:
    layer = LowBitEmbedding.from_embedding(torch.nn.Embedding(9, 256), "q4_k").to(DEVICE)
    x = torch.tensor([[1, 8, 0]], device=DEVICE)
    assert torch.equal(torch.compile(layer, fullgraph=True, backend="aot_eager")(x), layer(x))


@pytest.mark.parametrize("rows", [1, 3])
def test_a_layer_is_exported(rows: int, tmp_path: Path) -> None:
    layer = LowBitLinear.from_linear(torch.nn.Linear(512, 6), "q4_0").to(DEVICE)
    x = torch.randn(rows, 512, device=DEVICE)
    program = torch.export.export(layer, (torch.zeros_like(x),))
    assert torch.equal(program.module()(x), layer(x))
    called = [str(node.target) for node in program.graph.nodes if node.op == "call_function"]
    assert "quillon.forward_new.default" in called
    torch.export.save(program, tmp_path / "layer.pt2")
    assert torch.equal(torch.export.load(tmp_path / "layer.pt2").module()(x), layer(x))


@pytest.mark.filterwarnings("ignore")
def test_a_packed_model_generates_compiled(tmp_path: Path) -> None:
    transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    from small_models import random_model

    random_model("llama").save_pretrained(tmp_path)
    model = transformers.AutoModelForCausalLM.from_pretrained(
        tmp_path, quantization_config=quillon.QuillonConfig("q4_0"), device_map=DEVICE
    )
    prompt = torch.tensor([[5, 9, 17]], device=DEVICE)
    options = {"max_new_tokens": 6, "do_sample": False, "eos_token_id": None}
    expected = model.generate(prompt, **options)
    torch._dynamo.utils.counters.clear()
    compiling = transformers.CompileConfig(backend="aot_eager", mode=None, fullgraph=True)
    found = model.generate(prompt, cache_implementation="static", compile_config=compiling, **options)
    counters = torch._dynamo.utils.counters
    assert counters["stats"]["unique_graphs"] > 0
    assert not counters["graph_break"]
    assert torch.equal(found, expected)
