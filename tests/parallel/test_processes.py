"""Packed models on several processes: tensor and pipeline parallelism, and what happens when a process stops."""

from __future__ import annotations

import json
import os
import socket
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
import torch
from safetensors.torch import load_file

from quillon.nn import LowBitExperts, LowBitLinear

from . import models

TESTS = Path(__file__).resolve().parents[1]
KINDS = ("llama", "mixtral")
COARSE, FINE = 2.0**-34, 2.0**-53
"""A rounding as it is simulated, and that of float64."""


def noisy(model: Any, unit: float, seed: int) -> list[Any]:
    """Disturb the outputs of the layers whose sums several processes add, by what ``unit`` allows the order of it."""
    random = torch.Generator().manual_seed(seed)

    def disturb(module: Any, inputs: tuple[Any, ...], output: torch.Tensor) -> torch.Tensor:
        if isinstance(module, LowBitLinear):
            weight = module.dequantize(torch.float64).abs()
            bound = module.in_features * (inputs[0].abs().double() @ weight.T)
        else:
            # Of experts the magnitudes of the inner products are not at hand: the largest output stands for them.
            bound = module.layout.inner * output.abs().max() * torch.ones_like(output)
        signs = torch.randint(0, 2, output.shape, generator=random).to(output.device) * 2 - 1
        return output + signs * unit * bound

    names = ("o_proj", "down_proj", "experts")
    chosen = [m for n, m in model.named_modules() if n.endswith(names) and isinstance(m, LowBitLinear | LowBitExperts)]
    return [module.register_forward_hook(disturb) for module in chosen]


def write_expectations(folder: Path, kind: str) -> None:
    """What one process makes of a model, and how far the order of sums may lead from it."""
    from transformers import AutoModelForCausalLM

    prompt = torch.tensor([[5, 17, 200, 33, 7]])
    model = AutoModelForCausalLM.from_pretrained(folder / kind, dtype=torch.float64)
    on_device = prompt.to(model.device)
    with torch.no_grad():
        logits = model(on_device).logits.cpu()
        changes = []
        for seed in range(3):
            hooks = noisy(model, COARSE, seed)
            changes.append(float((model(on_device).logits.cpu() - logits).abs().max()))
            for hook in hooks:
                hook.remove()
    # To first order the change is linear in the rounding; signs that all pull one way may do more than random ones.
    bound = 16 * max(changes) * FINE / COARSE
    if kind == "mixtral":
        # Routing weights are rounded to float32, and the last bit of each may turn.
        bound += 16 * float(logits.abs().max()) * 2.0**-24
    text = model.generate(on_device, max_new_tokens=12, do_sample=False).tolist()
    torch.save({"prompt": prompt, "logits": logits, "bound": bound, "text": text}, folder / f"{kind}.pt")
    assert bound < 1e-4 * float(logits.abs().max())


def free_port() -> str:
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return str(one.getsockname()[1])


def environment() -> dict[str, str]:
    threads = {"OMP_NUM_THREADS": "1", "DPCPP_CPU_NUM_CUS": "1"}  # of PyTorch and of the kernels
    return os.environ | threads | {"QUILLON_HOST_DEVICES": "0,0,0,0"}


def run(folder: Path, processes: int, by_torchrun: bool) -> dict[str, list[str | None]]:
    """How the checks ended in each of several processes."""
    program = ["-m", "parallel.program", str(folder)]
    log = folder / f"log{processes}"
    with log.open("w") as output:
        if by_torchrun:
            launcher = [sys.executable, "-m", "torch.distributed.run", "--standalone", f"--nproc-per-node={processes}"]
            started = [
                subprocess.Popen([*launcher, *program], cwd=TESTS, env=environment(), stdout=output, stderr=output)
            ]
        else:
            common = environment() | {
                "WORLD_SIZE": str(processes),
                "MASTER_ADDR": "127.0.0.1",
                "MASTER_PORT": free_port(),
            }
            started = [
                subprocess.Popen(
                    [sys.executable, *program],
                    cwd=TESTS,
                    env=common | {"RANK": str(rank), "LOCAL_RANK": str(rank)},
                    stdout=output,
                    stderr=output,
                )
                for rank in range(processes)
            ]
        try:
            for one in started:
                one.wait(timeout=420)
        except subprocess.TimeoutExpired:
            raise AssertionError("not done in time: " + log.read_text()[-6000:]) from None
        finally:
            for one in started:
                one.terminate()  # torchrun ends its workers by this, and not when it is killed
            for one in started:
                try:
                    one.wait(timeout=40)
                except subprocess.TimeoutExpired:
                    one.kill()
    files = [folder / f"outcomes{rank}of{processes}" for rank in range(processes)]
    assert all(file.is_file() for file in files), log.read_text()[-6000:]
    outcomes = [json.loads(file.read_text()) for file in files]
    return {name: [one[name] for one in outcomes] for name in outcomes[0]}


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    made = tmp_path_factory.mktemp("models")
    for kind in KINDS:
        models.write_folder(made / kind, kind)
        write_expectations(made, kind)
    models.write_folder(made / "narrow", "llama", intermediate_size=256, num_hidden_layers=6)
    return made


@pytest.fixture(scope="module")
def four(folder: Path) -> dict[str, list[str | None]]:
    return run(folder, 4, by_torchrun=False)


@pytest.fixture(scope="module")
def two(folder: Path, four: dict[str, list[str | None]]) -> dict[str, list[str | None]]:
    """Two processes, which load what the four have saved."""
    for kind in KINDS:
        (folder / kind).rename(folder / f"{kind}-first")
        (folder / f"{kind}-of-4").rename(folder / kind)
    return run(folder, 2, by_torchrun=True)


def test_many_users(folder: Path) -> None:
    """Requests of different lengths at once give the texts that each gives alone."""
    from transformers import AutoModelForCausalLM, ContinuousBatchingConfig, GenerationConfig

    # In float64 no road rounds to bfloat16: how requests meet in batches, which is timing, changes no text.
    model = AutoModelForCausalLM.from_pretrained(folder / "llama", dtype=torch.float64)
    random = torch.Generator().manual_seed(0)
    prompts = [torch.randint(3, 320, (3 + 2 * one,), generator=random).tolist() for one in range(16)]
    greedy = GenerationConfig(max_new_tokens=4, do_sample=False, eos_token_id=None, pad_token_id=0)
    alone = []
    for prompt in prompts:
        given = torch.tensor([prompt], device=model.device)
        alone.append(model.generate(given, generation_config=greedy)[0, len(prompt) :].tolist())
    sizes = ContinuousBatchingConfig(page_size=16, num_blocks=64, max_batch_tokens=64)
    found = model.generate_batch(prompts, greedy, sizes, progress_bar=False)
    assert [one.error for one in found.values()] == [None] * 16
    got = {tuple(one.prompt_ids): one.generated_tokens for one in found.values()}
    assert [got[tuple(prompt)] for prompt in prompts] == alone
    assert len({tuple(text) for text in alone}) > 8, "the texts tell requests apart"


def test_memory_for_many_users_is_that_which_is_free() -> None:
    """What is not free is taken, whoever has it."""
    from transformers.generation.continuous_batching.utils import get_device_and_memory_breakdown

    device, total, _, allocated = get_device_and_memory_breakdown()
    assert device.type == "xpu"
    free = torch.xpu.mem_get_info()[0]
    assert abs(total - allocated - free) < 0.2 * total
    assert allocated > torch.xpu.memory_allocated()


CHECKS = (
    "layers_of_every_layout",
    "uneven_parts",
    "layouts",
    "gradients",
    "refusals",
    "llama",
    "bytes_that_the_table_counts",
    "mixtral",
    "shapes_that_do_not_divide",
    "stages",
)
FAILURES = ("another_version", "one_that_does_not_come", "one_that_fails", "one_that_hangs", "one_that_dies")


def assert_passed(outcomes: list[str | None]) -> None:
    for rank, outcome in enumerate(outcomes):
        assert outcome is None, f"process {rank}: {outcome}"


@pytest.mark.parametrize("name", CHECKS + FAILURES)
def test_four_processes(four: dict[str, list[str | None]], name: str) -> None:
    assert_passed(four[name])


@pytest.mark.parametrize("name", [*CHECKS, "compiled"])
def test_two_processes(two: dict[str, list[str | None]], name: str) -> None:
    assert_passed(two[name])


@pytest.mark.parametrize("kind", KINDS)
def test_what_processes_save_is_what_they_loaded(folder: Path, two: Any, kind: str) -> None:
    first = load_file(folder / f"{kind}-first" / "model.safetensors")
    for saved in (kind, f"{kind}-of-2"):
        again = load_file(folder / saved / "model.safetensors")
        assert again.keys() == first.keys()
        assert [name for name in first if not torch.equal(first[name], again[name])] == []
