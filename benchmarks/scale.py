"""Several processes: bytes of each, bytes sent and time in collectives for a token; and many users of one process.

    python benchmarks/scale.py                         # 1, 2 and 4 processes, then 16 requests
    python benchmarks/scale.py --parts processes --processes 1,2 --layers 2

The model has the shape of a Llama of some hundred million parameters, and weights that repeat. Processes share this
machine's processor: more of them do not make a token faster here, and what counts is what each holds, reads and sends.
Time in collectives includes waiting for kernels launched before, and for the slowest process.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

import torch

PROJECT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PROJECT / "tools"))

HIDDEN, INNER, HEADS, KV_HEADS, VOCABULARY = 2048, 5632, 16, 8, 32000
TOKENS = 16


def repeated(format: str, rows: int, cols: int) -> torch.Tensor:
    """A packed weight of real values whose rows repeat."""
    import quillon
    from quillon.joined import join_packed

    band = next(count for count in (64, 32, 16, 8) if rows % count == 0)
    random = torch.Generator().manual_seed(rows + cols)
    packed = quillon.quantize(0.02 * torch.randn(band, cols, generator=random), format)
    return join_packed(quillon.formats.get_format(format), [packed] * (rows // band))


def write_model(folder: Path, format: str, layers: int) -> None:
    """A packed folder, made without a dense model."""
    from safetensors.torch import save_file
    from transformers import AutoModelForCausalLM, LlamaConfig

    from quillon.nn import LowBitLinear
    from quillon.transformers import QuillonConfig, _empty_like, _put

    sizes = {"hidden_size": HIDDEN, "intermediate_size": INNER, "num_hidden_layers": layers, "vocab_size": VOCABULARY}
    heads = {"num_attention_heads": HEADS, "num_key_value_heads": KV_HEADS, "head_dim": HIDDEN // HEADS}
    config = LlamaConfig(**sizes, **heads, eos_token_id=None, pad_token_id=0)
    with torch.device("meta"):
        model: Any = AutoModelForCausalLM.from_config(config, dtype=torch.float32)
    packed = {name: format for name, _ in model.named_modules() if name.endswith("_proj")}
    packed |= {"lm_head": "q8_0", "model.embed_tokens": "q4_k"}
    for name, one in packed.items():
        _put(model, name, _empty_like(model.get_submodule(name), one))
    cache: dict[tuple[str, int, int], torch.Tensor] = {}
    state = {name: torch.ones(tensor.shape) for name, tensor in model.state_dict().items() if "norm" in name}
    for name, one in packed.items():
        layer = model.get_submodule(name)
        shape = (layer.out_features, layer.in_features) if isinstance(layer, LowBitLinear) else (VOCABULARY, HIDDEN)
        if (one, *shape) not in cache:
            cache[one, *shape] = repeated(one, *shape)
        state[f"{name}.packed"] = cache[one, *shape].clone()
    save_file(state, folder / "model.safetensors", {"format": "pt"})
    written = config.to_dict() | {
        "architectures": ["LlamaForCausalLM"],
        "quantization_config": QuillonConfig(format, packed=packed).to_dict(),
        "dtype": "float32",
    }
    (folder / "config.json").write_text(json.dumps(written))


def memory(name: str) -> int:
    """A figure of the process in bytes, as Linux names it."""
    line = next(line for line in Path("/proc/self/status").read_text().splitlines() if line.startswith(name))
    return 1024 * int(line.split()[1])


def one_process(folder: str) -> None:
    """What torchrun starts: load, generate, and print what it took."""
    import torch.distributed as dist
    from transformers import AutoModelForCausalLM

    import quillon  # noqa: F401  (tells transformers of packed folders)
    from quillon import parallel

    size = int(os.environ["WORLD_SIZE"])
    torch.xpu.set_device(int(os.environ["LOCAL_RANK"]))
    torch.zeros(1, device="xpu").add_(1)
    if size > 1:
        dist.init_process_group()
        dist.all_reduce(torch.ones(1, device="xpu"))
    counted = {"seconds": 0.0, "bytes": 0.0, "calls": 0}

    def count(call: Any, sent: Any) -> Any:
        def timed(*tensors: Any, **options: Any) -> Any:
            start = time.perf_counter()
            result = call(*tensors, **options)
            counted["seconds"] += time.perf_counter() - start
            counted["bytes"] += sent(tensors)
            counted["calls"] += 1
            return result

        return timed

    stock_reduce = dist.all_reduce
    dist.all_reduce = count(dist.all_reduce, lambda given: 2 * given[0].nbytes * (size - 1) / size)
    parallel._gather_in_one = count(parallel._gather_in_one, lambda given: given[1].nbytes * (size - 1))
    read, stock = [0], os.preadv
    os.preadv = lambda *given: (read.append(stock(*given)), read[-1])[1]  # type: ignore[assignment]
    Path("/proc/self/clear_refs").write_text("5")  # the peak starts again from here
    before = memory("VmRSS")
    start = time.perf_counter()
    plan = {"tp_plan": "auto"} if size > 1 else {}
    model: Any = AutoModelForCausalLM.from_pretrained(folder, dtype=torch.float32, **plan)
    torch.xpu.synchronize()
    loading, peak = time.perf_counter() - start, memory("VmHWM") - before
    token = torch.tensor([[7]], device=model.device)
    model.generate(token, max_new_tokens=2, do_sample=False)
    counted.update(seconds=0.0, bytes=0.0, calls=0)
    start = time.perf_counter()
    text = model.generate(token, max_new_tokens=TOKENS, do_sample=False)
    seconds = time.perf_counter() - start
    packed = sum(one.numel() for one in model.buffers() if one.dtype == torch.uint8)
    hidden = torch.zeros(HIDDEN, device=model.device)
    start = time.perf_counter()
    for _ in range(100 if size > 1 else 0):
        stock_reduce(hidden)
    lone = (time.perf_counter() - start) / 100
    figures = {"lone": lone} | {
        "packed": packed,
        "read": sum(read),
        "peak": peak,
        "loading": loading,
        "token": seconds / TOKENS,
    }
    figures |= {f"collective_{key}": value / TOKENS for key, value in counted.items()}
    output = Path(folder) / f"figures{os.environ['RANK']}of{size}"
    output.write_text(json.dumps(figures | {"text": text.tolist()}))
    if size > 1:
        dist.barrier()


def processes(counts: list[int], format: str, layers: int) -> None:
    """The first part, a line for each number of processes."""
    from scale_table import Model, head_bytes, layer_bytes, sent_bytes

    model = Model(HIDDEN, INNER, layers, HEADS, KV_HEADS, HIDDEN // HEADS, VOCABULARY)
    with tempfile.TemporaryDirectory() as folder:
        write_model(Path(folder), format, layers)
        size = (Path(folder) / "model.safetensors").stat().st_size
        print(
            f"{format}, {layers} layers, {size / 1e6:.0f} MB on disk, float32 activations, {TOKENS} tokens", flush=True
        )
        print(
            "| processes | packed MB of each | computed | read MB | peak MB | loading s | token ms | collectives ms | "
            "calls | one alone µs | sent KB a token | computed |"
        )
        print("| --- |" + " --- |" * 11, flush=True)
        texts = []
        for count in counts:
            command = [sys.executable, "-m", "torch.distributed.run", "--standalone", f"--nproc-per-node={count}"]
            threads = str(max(1, (os.cpu_count() or 1) // count))
            devices = {"QUILLON_HOST_DEVICES": ",".join(["0"] * count)}
            devices |= {"OMP_NUM_THREADS": threads, "DPCPP_CPU_NUM_CUS": threads}  # PyTorch's and the kernels' threads
            done = subprocess.run(
                [*command, __file__, "--of", folder],
                env=os.environ | devices,
                capture_output=True,
                text=True,
                check=False,
            )
            if done.returncode:
                raise SystemExit(done.stderr[-4000:])
            each = [json.loads((Path(folder) / f"figures{rank}of{count}").read_text()) for rank in range(count)]
            most = {key: max(one[key] for one in each) for key in each[0] if key != "text"}
            texts += [one["text"] for one in each]
            packed = layers * layer_bytes(model, format, count)
            packed += head_bytes(model, "q8_0", count) + head_bytes(model, "q4_k", count)
            print(
                f"| {count} | {most['packed'] / 1e6:.1f} | {packed / 1e6:.1f} | {most['read'] / 1e6:.1f} | "
                f"{most['peak'] / 1e6:.0f} | {most['loading']:.1f} | {1e3 * most['token']:.1f} | "
                f"{1e3 * most['collective_seconds']:.1f} | {most['collective_calls']:.0f} | "
                f"{1e6 * most['lone']:.0f} | "
                f"{most['collective_bytes'] / 1e3:.1f} | {sent_bytes(model, count, 4) / 1e3:.1f} |",
                flush=True,
            )
        print("texts are the same" if all(text == texts[0] for text in texts) else "texts differ")


def requests(count: int, new_tokens: int, format: str, layers: int) -> None:
    """The second part: requests of different lengths one by one, and all at once."""
    from transformers import AutoModelForCausalLM, ContinuousBatchingConfig, GenerationConfig

    import quillon  # noqa: F401  (tells transformers of packed folders)

    with tempfile.TemporaryDirectory() as folder:
        write_model(Path(folder), format, layers)
        model: Any = AutoModelForCausalLM.from_pretrained(folder)
    random = torch.Generator().manual_seed(0)
    prompts = [torch.randint(5, VOCABULARY, (4 + 3 * one,), generator=random).tolist() for one in range(count)]
    greedy = GenerationConfig(max_new_tokens=new_tokens, do_sample=False, eos_token_id=None, pad_token_id=0)
    sizes = ContinuousBatchingConfig(page_size=32, num_blocks=4 * count, max_batch_tokens=128)

    def one_by_one(prompts: list[list[int]]) -> list[list[int]]:
        given = [torch.tensor([prompt], device=model.device) for prompt in prompts]
        return [model.generate(one, generation_config=greedy)[0, one.shape[1] :].tolist() for one in given]

    def at_once(prompts: list[list[int]]) -> list[list[int]]:
        found = model.generate_batch(prompts, greedy, sizes, progress_bar=False)
        return [found[key].generated_tokens for key in sorted(found, key=lambda key: int(key.rpartition("_")[2]))]

    times, texts = [], []
    for run in (one_by_one, at_once):
        run(prompts)  # kernels of all batches that occur are compiled
        start = time.perf_counter()
        texts.append(run(prompts))
        times.append(time.perf_counter() - start)
    tokens = count * new_tokens
    same = sum(one == other for one, other in zip(*texts, strict=True))
    print(
        f"{count} requests of {new_tokens} tokens: one by one {tokens / times[0]:.1f} tokens/s, at once "
        f"{tokens / times[1]:.1f} tokens/s, {times[0] / times[1]:.2f} times; {same} of {count} texts the same"
    )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--parts", default="processes,requests")
    parser.add_argument("--processes", default="1,2,4")
    parser.add_argument("--format", default="q4_0")
    parser.add_argument("--layers", type=int, default=8)
    parser.add_argument("--requests", type=int, default=16)
    parser.add_argument("--new-tokens", type=int, default=16)
    parser.add_argument("--of", help=argparse.SUPPRESS)
    given = parser.parse_args()
    if given.of:
        one_process(given.of)
        return
    if "processes" in given.parts:
        processes([int(one) for one in given.processes.split(",")], given.format, given.layers)
    if "requests" in given.parts:
        requests(given.requests, given.new_tokens, given.format, given.layers)


if __name__ == "__main__":
    main()
