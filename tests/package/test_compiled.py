"""Operators, layers and models inside compiled and exported graphs."""

from __future__ import annotations

from pathlib import Path

import pytest
import torch

import quillon
from quillon.nn import LowBitEmbedding, LowBitLinear

DEVICE = "xpu:7"
TYPES = [torch.float32, torch.float64, torch.float16, torch.bfloat16]


@pytest.mark.parametrize(
    ("operator", "format"),
    [("forward_new", "q4_0"), ("forward_new", "iq1_s"), ("dequant", "nf4"), ("dequantize_rows", "q4_k")],
)
@pytest.mark.parametrize("dtype", TYPES)
def test_opcheck(operator: str, format: str, dtype: torch.dtype) -> None:
    code = quillon.formats.format_code(format)
    packed = quillon.quantize(torch.randn(6, 512), format).to(DEVICE)
    x = torch.randn(1, 512, device=DEVICE).to(dtype)
    arguments = {
        "forward_new": (x, packed, code, 512),
        "dequant": (x, packed, code),
        "dequantize_rows": (torch.tensor([[1, 5, 1]], device=DEVICE), packed, code, 512, 6),
    }[operator]
    found = torch.library.opcheck(getattr(torch.ops.quillon, operator).default, arguments)
    assert set(found.values()) == {"SUCCESS"}
    assert len(found) == 4


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
