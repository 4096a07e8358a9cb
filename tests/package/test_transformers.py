"""QuillonConfig: models packed while they load, saved and loaded packed, and used as transformers uses models."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
import torch

import quillon
from quillon.joined import JoinedLinear
from quillon.nn import FusedMLP, LowBitExperts, LowBitLinear

transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
pytest.importorskip("accelerate", reason="the demo's packages are not installed: make demo")

from small_models import ARCHITECTURES, random_model, save_tokenizer  # noqa: E402

DEVICE = "xpu:7"
each_architecture = pytest.mark.parametrize("kind", ARCHITECTURES)


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Any:
    """A folder with a dense model of an architecture, made once."""
    made: dict[str, Path] = {}

    def of(kind: str) -> Path:
        if kind not in made:
            made[kind] = tmp_path_factory.mktemp(kind)
            random_model(kind).save_pretrained(made[kind])
            save_tokenizer(made[kind])
        return made[kind]

    return of


def load(path: Path, config: Any = None, **options: Any) -> Any:
    if config is not None:
        options["quantization_config"] = config
    model = transformers.AutoModelForCausalLM.from_pretrained(path, **({"device_map": DEVICE} | options))
    assert not model.training
    return model


def logits(model: Any, length: int = 5) -> torch.Tensor:
    tokens = torch.arange(3, 3 + length)[None]
    with torch.inference_mode():
        return model(tokens.to(model.device)).logits.cpu()


def packed_layers(model: Any) -> dict[str, str]:
    kinds = (LowBitLinear, LowBitExperts)
    return {name: module.format.name for name, module in model.named_modules() if isinstance(module, kinds)}


def no_work(*_: Any, **__: Any) -> None:
    raise AssertionError("quantized again")


@each_architecture
def test_a_model_is_packed_while_it_loads_as_quantize_model_packs_it(kind: str, folder: Any) -> None:
    dense = random_model(kind)
    model = load(folder(kind), quillon.QuillonConfig("q4_0"))
    said = model.config.quantization_config
    assert packed_layers(model) == said.packed
    assert set(said.packed.values()) == {"q4_0", "q8_0"}
    assert said.packed["lm_head"] == "q8_0"
    routers = [f"model.layers.{layer}.mlp.gate" for layer in (0, 1)] if kind == "mixtral" else []
    assert said.dense == dict.fromkeys(
        routers, "MixtralTopKRouter is no layer that can be packed; it holds weight (4, 128)"
    )

    expected = random_model(kind)
    quillon.quantize_model(expected, "q4_0", skip="lm_head", device_class="unknown")
    expected.set_output_embeddings(LowBitLinear.from_linear(dense.get_output_embeddings(), "q8_0"))
    assert sorted(packed_layers(expected)) == sorted(said.packed)
    assert torch.equal(logits(model), logits(expected.to(DEVICE)))
    assert {tensor.device for tensor in (*model.parameters(), *model.buffers())} == {torch.device(DEVICE)}


@each_architecture
def test_a_packed_model_is_saved_and_loads_without_being_quantized_again(
    kind: str, folder: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    model = load(folder(kind), quillon.QuillonConfig("nf4", output_format="q8_0"))
    model.save_pretrained(tmp_path, max_shard_size="60kB")
    assert len(list(tmp_path.glob("model-*.safetensors"))) > 3
    assert not list(tmp_path.glob("*.bin"))
    monkeypatch.setattr("quillon.nn.quantize", no_work)
    again, info = transformers.AutoModelForCausalLM.from_pretrained(
        tmp_path, device_map=DEVICE, output_loading_info=True
    )
    assert not any(info.values()), info
    assert torch.equal(logits(again), logits(model))
    assert packed_layers(again) == packed_layers(model)
    assert again.config.quantization_config.to_dict() == model.config.quantization_config.to_dict()
    state, expected = again.state_dict(), model.state_dict()
    assert state.keys() == expected.keys()
    assert all(torch.equal(state[name].cpu(), expected[name].cpu()) for name in expected)
    # A second generation is the same again.
    again.save_pretrained(tmp_path / "again")
    third = load(tmp_path / "again")
    assert torch.equal(logits(third), logits(model))


@pytest.mark.parametrize("kind", ["llama", "qwen2"])
def test_fused_and_joined_whenever_it_is_loaded(kind: str, folder: Any, tmp_path: Path) -> None:
    plain = load(folder(kind), quillon.QuillonConfig("q4_0"))
    model = load(folder(kind), quillon.QuillonConfig("q4_0", fuse_mlp=True, join_projections=True))
    model.save_pretrained(tmp_path)
    again = load(tmp_path)
    for one in (model, again):
        block = one.model.layers[1]
        assert isinstance(block.mlp, FusedMLP)
        assert [type(block.self_attn.get_submodule(name)) for name in ("q_proj", "k_proj", "v_proj")] == [
            JoinedLinear
        ] * 3
        with quillon.record_launches() as launches:
            single = logits(one, 1)
        assert sum("mlp_forward" in launch.kernel for launch in launches) == 2
        assert torch.equal(single, logits(model, 1))
        assert torch.equal(logits(one), logits(plain))  # several rows go through the layers
    state, expected = again.state_dict(), plain.state_dict()
    assert state.keys() == expected.keys()
    assert all(torch.equal(state[name], expected[name]) for name in expected)


def test_recipe(folder: Any, tmp_path: Path) -> None:
    config = quillon.QuillonConfig(
        "q4_k",  # whose rows are of 256 elements, which these are not
        fallback="q5_0",
        output_format="fp8_e4m3",
        recipe={"model.layers.0.mlp.down_proj": "q8_0", "*.down_proj": "nf4", "*.1.self_attn.*": None},
    )
    model = load(folder("llama"), config)
    said = model.config.quantization_config
    prefix = "model.layers."
    assert said.packed == {
        **{f"{prefix}0.self_attn.{name}_proj": "q5_0" for name in "qkvo"},
        **{f"{prefix}{layer}.mlp.{name}_proj": "q5_0" for layer in (0, 1) for name in ("gate", "up")},
        f"{prefix}0.mlp.down_proj": "q8_0",
        f"{prefix}1.mlp.down_proj": "nf4",
        "lm_head": "fp8_e4m3",
    }
    assert said.dense == {f"{prefix}1.self_attn.{name}_proj": "by recipe" for name in "qkvo"}
    assert set(said.replaced) == {name for name, format in said.packed.items() if format == "q5_0"}
    assert set(said.replaced.values()) == {
        "in_features must be a multiple of 512 for q4_k on device class unknown, got 128"
    }
    assert packed_layers(model) == said.packed
    assert type(model.model.layers[1].self_attn.q_proj) is torch.nn.Linear

    model.save_pretrained(tmp_path)
    saved = json.loads((tmp_path / "config.json").read_text())["quantization_config"]
    assert saved["quant_method"] == "quillon"
    assert saved["packed"] == said.packed
    assert saved["dense"] == said.dense
    assert saved["recipe"] == config.recipe
    assert torch.equal(logits(load(tmp_path)), logits(model))
    # The configuration that was given serves the next model.
    assert config.packed == {}


def test_layers_that_fit_no_format_stay_dense(folder: Any) -> None:
    model = load(folder("llama"), quillon.QuillonConfig("q5_k", fallback=None, output_format=None))
    said = model.config.quantization_config
    assert said.packed == {}
    assert len(said.dense) == 15
    assert said.dense["lm_head"] == "by recipe"
    assert said.dense["model.layers.0.mlp.up_proj"] == "in_features must be a multiple of 256 for q5_k, got 128"
    assert torch.equal(logits(model), logits(random_model("llama").to(DEVICE)))


def test_a_tied_output_layer_is_packed_and_the_embedding_is_not(folder: Any, tmp_path: Path) -> None:
    model = load(folder("llama_tied"), quillon.QuillonConfig("q4_0"))
    assert not model.config.tie_word_embeddings
    assert isinstance(model.lm_head, LowBitLinear)
    assert model.lm_head.format.name == "q8_0"
    assert model.get_input_embeddings().weight.dtype == torch.float32
    model.tie_weights()
    assert isinstance(model.lm_head, LowBitLinear)
    kept = load(folder("llama_tied"), quillon.QuillonConfig("q4_0", output_format=None))
    assert kept.config.tie_word_embeddings
    assert kept.lm_head.weight is kept.get_input_embeddings().weight
    kept.save_pretrained(tmp_path)
    assert torch.equal(logits(load(tmp_path)), logits(kept))


def test_a_packed_embedding(tmp_path: Path) -> None:
    from transformers import LlamaConfig, LlamaForCausalLM

    for tied in (False, True):
        dense = LlamaForCausalLM(
            LlamaConfig(
                hidden_size=512, intermediate_size=128, num_hidden_layers=1, vocab_size=64, tie_word_embeddings=tied,
                num_attention_heads=4,
            )
        )  # fmt: skip
        dense.save_pretrained(tmp_path / "dense")
        config = quillon.QuillonConfig("q4_0", embedding_format="q4_k")
        model = load(tmp_path / "dense", config)
        embedding = model.get_input_embeddings()
        assert isinstance(embedding, quillon.nn.LowBitEmbedding)
        assert model.config.quantization_config.packed["model.embed_tokens"] == "q4_k"
        weight = dense.get_input_embeddings().weight.detach()
        assert torch.equal(embedding.packed.cpu(), quillon.quantize(weight, "q4_k"))
        assert torch.equal(model.lm_head.packed.cpu(), quillon.quantize(dense.lm_head.weight.detach(), "q8_0"))
        model.save_pretrained(tmp_path / "packed")
        assert torch.equal(logits(load(tmp_path / "packed")), logits(model))
    with pytest.raises(
        ValueError, match=r"embedding_format must be one that .* row by row, got q4_0; allowed: q2_k, q4_k"
    ):
        quillon.QuillonConfig(embedding_format="q4_0")


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16])
def test_element_types(dtype: torch.dtype, folder: Any, tmp_path: Path) -> None:
    model = load(folder("qwen2"), quillon.QuillonConfig("q4_0"), dtype=dtype)
    bias = model.model.layers[0].self_attn.q_proj.bias
    assert bias.dtype == dtype
    assert logits(model).dtype == dtype
    model.save_pretrained(tmp_path)
    again = load(tmp_path)
    assert again.dtype == dtype
    assert again.model.layers[0].self_attn.q_proj.bias.dtype == dtype
    assert torch.equal(logits(again), logits(model))


def test_other_classes_of_the_same_folder(folder: Any, tmp_path: Path) -> None:
    """The body of a model for generation, and a model for generation from a saved body."""
    whole = load(folder("llama"), quillon.QuillonConfig("q4_0"))
    whole.save_pretrained(tmp_path / "whole")
    body = transformers.AutoModel.from_pretrained(tmp_path / "whole", device_map=DEVICE)
    tokens = torch.tensor([[5, 6, 7]], device=DEVICE)
    with torch.inference_mode():
        hidden = whole.model(tokens).last_hidden_state
        assert torch.equal(body(tokens).last_hidden_state, hidden)
    body.save_pretrained(tmp_path / "body")
    again = transformers.AutoModel.from_pretrained(tmp_path / "body", device_map=DEVICE)
    with torch.inference_mode():
        assert torch.equal(again(tokens).last_hidden_state, hidden)
    scores = transformers.AutoModelForSequenceClassification.from_pretrained(
        folder("llama"), quantization_config=quillon.QuillonConfig("q4_0"), device_map=DEVICE
    )
    assert type(scores.score) is torch.nn.Linear  # it is still to be trained
    assert scores.config.quantization_config.dense == {"score": "the checkpoint has no weight for it"}


# ---- how transformers uses a model -----------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def packed(folder: Any) -> Any:
    return load(folder("llama"), quillon.QuillonConfig("q4_0"))


def by_hand(model: Any, tokens: torch.Tensor, count: int) -> list[int]:
    """The greedy continuation without a cache."""
    row = tokens
    with torch.inference_mode():
        for _ in range(count):
            row = torch.cat((row, model(row).logits[:, -1:].argmax(-1)), dim=1)
    return row[0, tokens.shape[1] :].tolist()


@each_architecture
def test_greedy_generation(kind: str, folder: Any) -> None:
    model = load(folder(kind), quillon.QuillonConfig("q8_0"))
    prompt = torch.tensor([[5, 9, 17]], device=DEVICE)
    produced = model.generate(prompt, max_new_tokens=6, do_sample=False, eos_token_id=None)
    assert produced[0, 3:].tolist() == by_hand(model, prompt, 6)


def test_generation_with_a_static_cache(packed: Any) -> None:
    prompt = torch.tensor([[5, 9, 17]], device=DEVICE)
    produced = packed.generate(
        prompt,
        max_new_tokens=6,
        do_sample=False,
        eos_token_id=None,
        cache_implementation="static",
        disable_compile=True,
    )
    assert produced[0, 3:].tolist() == by_hand(packed, prompt, 6)


def test_sampling_is_repeated_by_its_seed(packed: Any) -> None:
    prompt = torch.tensor([[5, 9, 17]], device=DEVICE)

    def sample(seed: int) -> list[int]:
        torch.manual_seed(seed)
        return packed.generate(prompt, max_new_tokens=12, do_sample=True, eos_token_id=None)[0].tolist()

    assert sample(1) == sample(1)
    assert sample(1) != sample(2)


def test_beams(packed: Any) -> None:
    prompt = torch.tensor([[5, 9, 17]], device=DEVICE)
    options = {"max_new_tokens": 5, "do_sample": False, "eos_token_id": None, "return_dict_in_generate": True}
    found = packed.generate(prompt, num_beams=4, num_return_sequences=4, output_scores=True, **options)
    assert found.sequences.shape == (4, 8)

    def score(row: torch.Tensor) -> float:
        with torch.inference_mode():
            chances = packed(row[None]).logits[0, 2:-1].float().log_softmax(-1)
        return float(chances.gather(1, row[3:, None]).mean())

    scores = [score(row) for row in found.sequences]
    assert scores == sorted(scores, reverse=True)
    assert scores == pytest.approx(found.sequences_scores.tolist(), abs=1e-3)
    assert scores[0] >= score(packed.generate(prompt, **options).sequences[0]) - 1e-4


def test_a_padded_batch_gives_what_each_row_gives_alone(packed: Any) -> None:
    options = {"max_new_tokens": 5, "do_sample": False, "eos_token_id": None}
    rows = [[5, 9, 17, 33, 4], [8, 21], [7, 6, 5, 4]]
    width = max(map(len, rows))
    tokens = torch.tensor([[0] * (width - len(row)) + row for row in rows], device=DEVICE)
    mask = (tokens != 0).long()
    together = packed.generate(tokens, attention_mask=mask, **options)
    for row, produced in zip(rows, together, strict=True):
        alone = packed.generate(torch.tensor([row], device=DEVICE), **options)
        assert produced[width:].tolist() == alone[0, len(row) :].tolist()


def test_pipeline(folder: Any, packed: Any, tmp_path: Path) -> None:
    packed.save_pretrained(tmp_path)
    save_tokenizer(tmp_path)
    generate = transformers.pipeline("text-generation", model=str(tmp_path), device_map=DEVICE)
    assert isinstance(generate.model.lm_head, LowBitLinear)
    (found,) = generate("a harbour", max_new_tokens=4, do_sample=False, return_full_text=False)
    tokens = generate.tokenizer("a harbour", return_tensors="pt").input_ids.to(DEVICE)
    produced = packed.generate(tokens, max_new_tokens=4, do_sample=False)[0, tokens.shape[1] :]
    assert found["generated_text"] == generate.tokenizer.decode(produced, skip_special_tokens=True)


def test_projections_are_joined_after_loading(folder: Any, tmp_path: Path) -> None:
    model = load(folder("llama"), quillon.QuillonConfig("q4_0"))
    before = logits(model)
    assert len(quillon.join_projections(model)) == 4
    assert torch.equal(logits(model), before)
    model.save_pretrained(tmp_path)
    assert torch.equal(logits(load(tmp_path)), before)


def test_dequantize_makes_layers_dense(packed: Any, folder: Any) -> None:
    model = load(folder("qwen2"), quillon.QuillonConfig("q8_0"))
    before = logits(model)
    model.dequantize()
    assert packed_layers(model) == {}
    assert not hasattr(model.config, "quantization_config")
    # Several rows go by an expansion that rounds to half on the way.
    assert (logits(model) - before).norm() < 3e-3 * before.norm()
    row = torch.randn(1, 128, device=DEVICE)
    expected = load(folder("qwen2"), quillon.QuillonConfig("q8_0")).lm_head(row)
    assert (model.lm_head(row) - expected).norm() < 1e-6 * expected.norm()


def test_devices(folder: Any) -> None:
    model = load(folder("llama"), quillon.QuillonConfig("q4_0"), device_map=None)
    assert model.device == torch.device("xpu", torch.xpu.current_device())
    on_cpu = load(folder("llama"), quillon.QuillonConfig("q4_0"), device_map="cpu")
    assert on_cpu.device == torch.device("cpu")
    assert torch.equal(logits(on_cpu.to(DEVICE)), logits(load(folder("llama"), quillon.QuillonConfig("q4_0"))))
    two = {"model.embed_tokens": 6, "model.rotary_emb": 6, "model.layers.0": 6, "model.layers.1": 7, "model.norm": 7}
    spread = load(folder("llama"), quillon.QuillonConfig("q4_0"), device_map={**two, "lm_head": 7})
    assert spread.model.layers[0].mlp.up_proj.packed.device == torch.device("xpu:6")
    assert spread.model.layers[1].mlp.up_proj.packed.device == torch.device("xpu:7")
    assert torch.equal(logits(spread), logits(on_cpu))
    with pytest.raises(ValueError, match="device_map puts layers on disk, and packed layers stay in memory"):
        load(folder("llama"), quillon.QuillonConfig("q4_0"), device_map={"model": 7, "lm_head": "disk"})


def test_errors(folder: Any, tmp_path: Path) -> None:
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        quillon.QuillonConfig("q9")
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        quillon.QuillonConfig(recipe={"*": "q9"})
    with pytest.raises(TypeError, match="QuillonConfig has no bits, group; was it written by a newer quillon"):
        quillon.QuillonConfig("q4_0", bits=4, group=64)
    with pytest.raises(
        ValueError, match=r"no layer matches '\*.down'; the model has model.layers.0.self_attn.q_proj, "
    ):
        load(folder("llama"), quillon.QuillonConfig(recipe={"*.down": "q8_0"}))
    with pytest.raises(ValueError, match="unknown device class 'Elm'"):
        load(folder("llama"), quillon.QuillonConfig(device_class="Elm"))
    broken = random_model("llama")
    with torch.no_grad():
        broken.model.layers[1].mlp.up_proj.weight[3, 4] = float("nan")
    broken.save_pretrained(tmp_path)
    with pytest.raises(Exception, match=r"model.layers.1.mlp.up_proj") as raised:
        load(tmp_path, quillon.QuillonConfig("q4_0"))
    assert "weight must be finite" in str(raised.value)


# ---- in processes of their own ---------------------------------------------------------------------------------------


def run(program: str, *arguments: str) -> str:
    done = subprocess.run(
        [sys.executable, "-c", program, *arguments], capture_output=True, text=True, check=False, timeout=600
    )
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_importing_quillon_does_not_import_transformers() -> None:
    program = "import sys, quillon; print('transformers' in sys.modules, 'safetensors' in sys.modules)"
    assert run(program).split() == ["False", "False"]


@pytest.mark.parametrize("imports", ["import quillon", "import transformers, quillon"])
def test_who_loads_a_packed_folder(imports: str, packed: Any, tmp_path: Path) -> None:
    packed.save_pretrained(tmp_path)
    program = f"""{imports}
import sys
from transformers import AutoModelForCausalLM
print(type(AutoModelForCausalLM.from_pretrained(sys.argv[1]).lm_head).__name__)"""
    assert run(program, str(tmp_path)).split() == ["LowBitLinear"]


PEAK = """
import ctypes, re, sys, threading, time
import torch, transformers, quillon
from transformers import AutoModelForCausalLM

def anonymous():
    return 1024 * int(re.search(r"RssAnon:\\s+(\\d+)", open("/proc/self/status").read())[1])

def load(path):
    config = quillon.QuillonConfig("q4_0")
    return AutoModelForCausalLM.from_pretrained(path, quantization_config=config, device_map="xpu")

load(sys.argv[1])  # what the first use of everything keeps is not the model's
torch.xpu.empty_cache()
torch.xpu.reset_peak_memory_stats()
ctypes.CDLL(None).malloc_trim(0)
before = peak = anonymous()
running = True

def watch():
    global peak
    while running:
        peak = max(peak, anonymous())
        time.sleep(0.0005)

watcher = threading.Thread(target=watch)
watcher.start()
model = load(sys.argv[2])
running = False
watcher.join()
held = sum(tensor.nbytes for tensor in (*model.parameters(), *model.buffers()))
print(held, torch.xpu.max_memory_allocated(), peak - before)
"""


def test_peak_memory_is_the_packed_model_and_one_dense_layer(folder: Any, tmp_path: Path) -> None:
    from transformers import LlamaConfig, LlamaForCausalLM

    config = LlamaConfig(
        hidden_size=1024, intermediate_size=2048, num_hidden_layers=6, vocab_size=1024, num_attention_heads=8
    )
    model = LlamaForCausalLM(config)
    dense = sum(parameter.nbytes for parameter in model.parameters())
    layer = max(parameter.nbytes for parameter in model.parameters())
    model.save_pretrained(tmp_path, max_shard_size="50MB")
    del model
    held, on_device, of_process = map(int, run(PEAK, str(folder("llama")), str(tmp_path)).split())
    assert held < dense / 6
    assert held / 2 + layer < on_device < held + 1.1 * layer
    # The process has the device's memory, pieces of a layer in work, and what the allocators keep of both.
    assert of_process < dense / 2, f"{of_process / 1e6:.0f} MB for {held / 1e6:.0f} MB packed, {dense / 1e6:.0f} dense"


def test_help_names_what_is_missing(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, "quillon.transformers", None)
    monkeypatch.delattr(quillon, "transformers", raising=False)
    with pytest.raises(
        ImportError, match=r"needs transformers 5.23 or later \(.+\): pip install 'quillon\[transformers\]'"
    ):
        _ = quillon.QuillonConfig
    with pytest.raises(AttributeError, match="has no attribute 'Quillonconfig'"):
        _ = quillon.Quillonconfig
