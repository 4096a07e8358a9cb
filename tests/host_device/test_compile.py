"""torch.compile with its default backend on the host device."""

from __future__ import annotations

import copy
from collections.abc import Callable
from pathlib import Path
from subprocess import CompletedProcess
from typing import Any

import pytest
import torch
from torch.nn import functional

import quillon

DEVICE = torch.device("xpu:1")


@pytest.fixture(autouse=True)
def fresh_compiler(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TORCHINDUCTOR_CACHE_DIR", str(tmp_path))
    torch.compiler.reset()


def compiled(function: Callable[..., Any], **options: Any) -> Callable[..., Any]:
    return torch.compile(function, fullgraph=True, **options)


def test_module_in_inference_and_training() -> None:
    torch.manual_seed(0)
    module = torch.nn.Sequential(
        torch.nn.Linear(16, 32), torch.nn.GELU(), torch.nn.LayerNorm(32), torch.nn.Linear(32, 4)
    ).to(DEVICE)
    x = torch.randn(3, 16, device=DEVICE)
    with torch.no_grad():
        got = compiled(module)(x)
        assert got.device == DEVICE
        torch.testing.assert_close(got, module(x))
    expected = copy.deepcopy(module)
    for one in (compiled(module), expected):
        one(x).square().sum().backward()
    for p, reference in zip(module.parameters(), expected.parameters(), strict=True):
        assert p.grad is not None
        assert p.grad.device == DEVICE
        torch.testing.assert_close(p.grad, reference.grad)


def test_results_and_arguments() -> None:
    def function(a: torch.Tensor, b: torch.Tensor, n: int) -> tuple[torch.Tensor, ...]:
        b.add_(a)
        return a * 2, b[1:], torch.arange(n, device=a.device), a.cpu() + 1, a, a.t().contiguous().t()

    a, b = torch.ones(4, 4, device=DEVICE), torch.zeros(4, 4, device=DEVICE)
    for round in (1, 2):
        doubled, view, numbers, on_cpu, same, transposed = compiled(function)(a, b, 3)
        assert b.tolist() == [[float(round)] * 4] * 4
        assert view.untyped_storage().data_ptr() == b.untyped_storage().data_ptr()
        assert view.shape == (3, 4)
        assert numbers.tolist() == [0, 1, 2]
        assert same.data_ptr() == a.data_ptr()
        assert transposed.stride() == (1, 4)
        assert [t.device for t in (doubled, view, numbers, same)] == [DEVICE] * 4
        assert on_cpu.device.type == "cpu"
        doubled.zero_()
        on_cpu.zero_()
        assert a.sum().item() == 16


def test_results_lie_in_device_memory() -> None:
    before = torch.xpu.memory_allocated(DEVICE)
    result = compiled(lambda x: x.exp() + 1)(torch.zeros(1 << 16, device=DEVICE))
    assert torch.xpu.memory_allocated(DEVICE) - before == result.nbytes
    del result
    assert torch.xpu.memory_allocated(DEVICE) == before


def test_dynamic_shapes() -> None:
    function = compiled(lambda x: (x * 2).sum(0), dynamic=True)
    for rows in (2, 5, 9):
        x = torch.randn(rows, 7, device=DEVICE)
        torch.testing.assert_close(function(x), (x * 2).sum(0))


def test_random_numbers_come_from_the_generator_of_the_device() -> None:
    function = compiled(lambda x: functional.dropout(x, 0.5))
    x = torch.ones(1000, device=DEVICE)
    function(x)
    cpu_state = torch.get_rng_state()
    with torch.xpu.device(DEVICE):
        torch.xpu.manual_seed(4)
        first, second = function(x), function(x)
        torch.xpu.manual_seed(4)
        assert torch.equal(function(x), first)
    assert not torch.equal(first, second)
    assert 300 < first.count_nonzero().item() < 700
    assert torch.equal(torch.get_rng_state(), cpu_state)


def test_attention() -> None:
    q, k = torch.randn(1, 4, 1, 16, device=DEVICE), torch.randn(1, 2, 30, 16, device=DEVICE)
    mask = torch.rand(1, 1, 1, 30, device=DEVICE) > 0.3

    def attend(q: torch.Tensor, k: torch.Tensor) -> torch.Tensor:
        return functional.scaled_dot_product_attention(q, k, k, mask, enable_gqa=True)

    torch.testing.assert_close(compiled(attend)(q, k), attend(q, k))


def test_operators_that_the_cpu_lacks() -> None:
    def function(ids: torch.Tensor, image: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        return torch.histc(ids, 4, 0, 3) + 1, functional.interpolate(image, (3, 3), mode="bicubic", antialias=True)

    arguments = torch.tensor([0, 1, 1, 3], device=DEVICE), torch.randn(1, 1, 8, 8, device=DEVICE).bfloat16()
    for got, expected in zip(compiled(function)(*arguments), function(*arguments), strict=True):
        assert torch.equal(got, expected)


@pytest.mark.parametrize(("format", "rows"), [("q4_0", 1), ("q4_0", 9), ("q8_0", 1)])
def test_packed_layers(format: str, rows: int) -> None:
    torch.manual_seed(0)
    model = torch.nn.Sequential(torch.nn.Linear(128, 64), torch.nn.SiLU(), torch.nn.Linear(64, 128, bias=False))
    assert len(quillon.quantize_model(model, format).replaced) == 2
    model = model.eval().to(DEVICE)
    x = torch.randn(rows, 128, device=DEVICE)
    with torch.no_grad():
        expected = model(x)  # also checks the device, which is not traced
        function = compiled(model)
        for _ in range(3):
            torch.testing.assert_close(function(x), expected)


def test_graph_of_several_devices_is_refused() -> None:
    def function(x: torch.Tensor) -> torch.Tensor:
        return x.to("xpu:2") + 1

    x = torch.ones(2, device=DEVICE)
    message = r'this graph has tensors on xpu:1, xpu:2; .*Compile the parts, or use backend="aot_eager"'
    with pytest.raises(Exception, match=message):
        compiled(function)(x)
    assert compiled(function, backend="aot_eager")(x).tolist() == [2, 2]


def test_tensors_of_the_cpu_compile_as_before() -> None:
    assert compiled(lambda x: x.sin() + 1)(torch.zeros(3)).tolist() == [1, 1, 1]


@pytest.mark.filterwarnings("ignore")
@pytest.mark.parametrize("attention", ["sdpa", "eager"])
def test_generation_with_a_static_cache(attention: str) -> None:
    transformers = pytest.importorskip("transformers")
    torch.manual_seed(0)
    config = transformers.LlamaConfig(
        hidden_size=64,
        num_hidden_layers=2,
        num_attention_heads=4,
        num_key_value_heads=2,
        intermediate_size=128,
        vocab_size=200,
        attn_implementation=attention,
    )
    model = transformers.LlamaForCausalLM(config).eval().to(DEVICE)
    prompt = torch.randint(200, (1, 7), device=DEVICE)
    options = {"max_new_tokens": 8, "min_new_tokens": 8, "do_sample": False, "pad_token_id": 0}
    torch._dynamo.utils.counters.clear()
    got = model.generate(prompt, cache_implementation="static", **options)
    assert torch._dynamo.utils.counters["stats"]["unique_graphs"] > 0  # it was compiled
    assert torch.equal(got, model.generate(prompt, **options))


def test_cached_graphs_of_another_process(
    run_python: Callable[..., CompletedProcess[str]], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    script = """
import torch, quillon
weight = torch.nn.Parameter(torch.arange(6.0, device="xpu").view(2, 3))
function = torch.compile(lambda x: (x @ weight).relu() * 3)
y = function(torch.ones(4, 2, device="xpu"))
y.sum().backward()
print(y.device, y[0].tolist(), weight.grad.tolist())
"""
    outputs = []
    for _ in range(2):
        result = run_python(script, TORCHINDUCTOR_CACHE_DIR=str(tmp_path))
        assert result.returncode == 0, result.stderr
        outputs.append(result.stdout)
    assert outputs == ["xpu:0 [9.0, 15.0, 21.0] [[12.0, 12.0, 12.0], [12.0, 12.0, 12.0]]\n"] * 2
