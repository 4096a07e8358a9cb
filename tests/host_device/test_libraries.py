"""What transformers and accelerate do where they see an accelerator: each against the same on the CPU."""

from __future__ import annotations

import copy
from pathlib import Path
from typing import Any

import pytest
import torch

import quillon  # noqa: F401  (brings the device up)

transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
accelerate = pytest.importorskip("accelerate", reason="the demo's packages are not installed: make demo")

pytestmark = pytest.mark.filterwarnings("ignore")

PROMPT = torch.tensor([[3, 14, 15, 92, 65]])
SIZES = {"vocab_size": 200, "hidden_size": 64, "intermediate_size": 128, "num_attention_heads": 4}


@pytest.fixture(autouse=True)
def first_device() -> Any:
    with torch.xpu.device(0):
        yield


def llama(layers: int = 2) -> Any:
    torch.manual_seed(0)
    config = transformers.LlamaConfig(**SIZES, num_key_value_heads=2, num_hidden_layers=layers)
    return transformers.LlamaForCausalLM(config).eval()


@pytest.fixture
def saved(tmp_path: Path) -> Path:
    """A model of four layers in several files."""
    llama(4).save_pretrained(tmp_path / "model", max_shard_size="200KB")
    return tmp_path / "model"


def load(path: Path, **options: Any) -> Any:
    return transformers.AutoModelForCausalLM.from_pretrained(path, **options)


def check(model: Any, expected: torch.Tensor) -> None:
    with torch.no_grad():
        torch.testing.assert_close(model(PROMPT.to("xpu")).logits.cpu(), expected, rtol=1e-4, atol=1e-4)


GENERATION: dict[str, dict[str, Any]] = {
    "greedy": {"do_sample": False},
    "beams": {"num_beams": 3},
    "sampling": {"do_sample": True, "top_k": 20, "top_p": 0.9, "min_p": 0.01, "temperature": 0.7},
    "penalties": {"do_sample": False, "repetition_penalty": 1.2, "no_repeat_ngram_size": 2},
    "look-up": {"do_sample": False, "prompt_lookup_num_tokens": 2},
}


@pytest.mark.parametrize("name", GENERATION)
def test_generation(name: str) -> None:
    model = llama()
    texts = []
    for device in ("cpu", "xpu"):
        torch.manual_seed(1)
        options = GENERATION[name] | {"max_new_tokens": 8, "pad_token_id": 0}
        texts.append(model.to(device).generate(PROMPT.to(device), **options).tolist())
    assert texts[0] == texts[1]


def test_assisted_generation() -> None:
    model, assistant = llama(), llama(1)
    options = {"max_new_tokens": 8, "do_sample": False, "pad_token_id": 0}
    expected = model.generate(PROMPT, **options)
    got = model.to("xpu").generate(PROMPT.to("xpu"), assistant_model=assistant.to("xpu"), **options)
    assert got.tolist() == expected.tolist()


def test_continuous_batching() -> None:
    model, prompts = llama(), [[3, 14, 15], [92, 65]]
    options = {"max_new_tokens": 4, "do_sample": False, "eos_token_id": -1, "pad_token_id": 0}
    expected = [model.generate(torch.tensor([prompt]), **options)[0, len(prompt) :].tolist() for prompt in prompts]
    configuration = transformers.generation.configuration_utils.ContinuousBatchingConfig(max_memory_percent=0.02)
    results = model.to("xpu").generate_batch(
        prompts,
        generation_config=transformers.GenerationConfig(**options),
        continuous_batching_config=configuration,
    )
    assert [results[key].generated_tokens for key in sorted(results)] == expected


@pytest.mark.parametrize("dtype", [torch.float32, torch.bfloat16])
@pytest.mark.parametrize("implementation", ["eager", "batched_mm", "grouped_mm"])
def test_mixture_of_experts(implementation: str, dtype: torch.dtype) -> None:
    torch.manual_seed(0)
    config = transformers.MixtralConfig(**SIZES, num_hidden_layers=1, num_key_value_heads=2, num_local_experts=4)
    config._experts_implementation = implementation
    model = transformers.MixtralForCausalLM(config).to(dtype)
    results = []
    for device in ("cpu", "xpu"):
        model.zero_grad()
        output = model.to(device)(PROMPT.to(device), labels=PROMPT.to(device))
        output.loss.backward()
        results.append((output.logits.detach().cpu(), model.lm_head.weight.grad.cpu().clone()))
    for got, expected in zip(results[1], results[0], strict=True):
        assert (got.float() - expected.float()).norm() < (0.02 if dtype == torch.bfloat16 else 1e-5) * expected.norm()


# ---- where accelerate puts a model -----------------------------------------------------------------------------------

SPLIT = {f"model.layers.{layer}": place for layer, place in enumerate((0, "cpu", 1, "disk"))} | dict.fromkeys(
    ("model.embed_tokens", "model.norm", "model.rotary_emb", "lm_head"), 0
)


@pytest.mark.parametrize("places", ["auto", "balanced", "xpu", 0, SPLIT], ids=["auto", "balanced", "xpu", "0", "split"])
def test_places_of_the_layers(saved: Path, tmp_path: Path, places: Any) -> None:
    with torch.no_grad():
        expected = load(saved)(PROMPT).logits
    check(load(saved, device_map=places, offload_folder=tmp_path / "offloaded"), expected)


def test_offloading(saved: Path, tmp_path: Path) -> None:
    with torch.no_grad():
        expected = load(saved)(PROMPT).logits
    check(accelerate.cpu_offload(load(saved), execution_device="xpu"), expected)
    check(accelerate.disk_offload(load(saved), tmp_path / "offloaded", execution_device="xpu"), expected)
    model, hook = accelerate.cpu_offload_with_hook(load(saved), "xpu")
    check(model, expected)
    hook.offload()
    assert {parameter.device.type for parameter in model.parameters()} == {"cpu"}


# ---- training --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("precision", ["no", "fp16", "bf16"])
def test_accelerator_trains_and_goes_on_from_a_checkpoint(precision: str, tmp_path: Path) -> None:
    accelerator = accelerate.Accelerator(mixed_precision=precision)
    try:
        assert accelerator.device.type == "xpu"
        module = llama().train()
        optimizer = torch.optim.AdamW(module.parameters(), 1e-3, fused=True)
        batches = torch.utils.data.DataLoader(PROMPT.repeat(12, 1), batch_size=2)
        model, optimizer, batches = accelerator.prepare(module, optimizer, batches)
        losses = []
        for batch in batches:
            loss = model(batch, labels=batch).loss
            accelerator.backward(loss)
            accelerator.clip_grad_norm_(model.parameters(), 1.0)
            optimizer.step()
            optimizer.zero_grad()
            losses.append(loss.item())
        assert losses[-1] < losses[0]
        accelerator.save_state(tmp_path)
        before = copy.deepcopy(module.state_dict())
        with torch.no_grad():
            module.lm_head.weight.zero_()
        accelerator.load_state(tmp_path)
        assert all(torch.equal(value, before[name]) for name, value in module.state_dict().items())
        accelerator.free_memory()
    finally:
        accelerate.state.AcceleratorState._reset_state(True)


def test_batch_size_that_fits_is_found() -> None:
    tried = []

    @accelerate.utils.find_executable_batch_size(starting_batch_size=8)
    def run(batch_size: int) -> int:
        tried.append(batch_size)
        torch.empty(2 if batch_size < 5 else 1 << 50, dtype=torch.uint8, device="xpu")
        return batch_size

    assert run() == tried[-1] < 5
    assert tried[0] == 8
