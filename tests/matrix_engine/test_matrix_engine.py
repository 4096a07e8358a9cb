"""The product on matrix engines: values, batches, shares of K, and what the path alone does."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, pack, read, split
from matvec.guards import output_guard
from matvec.harness import TORCH, device_of
from shim.process import output_of, run_python

import quillon
import vesper_linear
from quillon._kernels import ENGINE_BATCHES

from .harness import BATCHES, NAMES, TYPES, activations, as_float64, case, goes_to_engine, run, within
from .reference import Rules, multiply, rounded

CLASSES = tuple(BATCHES)

# Less than a share for each work-item, one for each, one more, and many.
BLOCKS = (1, 7, 8, 9, 64)
# Last tiles of 3 and of 8 rows, alone and behind others.
SOME_BATCHES = {"elm": (8, 3, 16, 11), "oak": (8, 19, 64, 11)}
COLUMNS = (16, 48, 80, 160)


@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", NAMES)
def test_values(name: str, dtype: str, device_class: str) -> None:
    single = every = 0
    for i, blocks in enumerate(BLOCKS):
        n, k = COLUMNS[i % len(COLUMNS)], 64 * blocks
        batch = SOME_BATCHES[device_class][i % 4]
        weight, x = case(name, batch, n, k, dtype)
        result = as_float64(run(name, weight, x, dtype, device_class))
        assert result.shape == (batch, n)
        low, high = multiply(name, weight, x, dtype)
        assert within(result, (low, high)), (batch, n, k)
        single += np.count_nonzero(low == high)
        every += low.size
    assert single > 0.5 * every  # mostly the reference leaves nothing open


@pytest.mark.grid(0.05)
@pytest.mark.parametrize("batch", range(1, 66))
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_every_batch(device_class: str, dtype: str, batch: int) -> None:
    """Batches of the table are launched in one tile for each eight rows; no others are."""
    n, k = 32, 64 * 9
    for name in NAMES:
        weight, x = case(name, batch, n, k, dtype)
        engine = goes_to_engine(device_class, name, batch)
        if not engine and dtype == "bfloat16" and name == "fp8_e4m3" and batch > 1:
            continue  # has no other road
        with quillon.record_launches() as launches:
            result = as_float64(run(name, weight, x, dtype, device_class))
        kernels = [launch.kernel for launch in launches]
        if engine:
            of_type = {"float32": "float,c10::Half", "float16": "c10::Half,c10::Half"}
            types = of_type.get(dtype, "c10::BFloat16,c10::BFloat16")
            constants = f"{(batch - 1) % 8 + 1},{16 if device_class == 'elm' else 8},8"
            assert kernels == [f"loom_forward_kernel<{types},float,{types.split(',')[1]},{constants}>"]
            assert within(result, multiply(name, weight, x, dtype)), name
        else:
            assert not any("loom" in kernel for kernel in kernels), kernels


def test_the_table_of_batches() -> None:
    assert ENGINE_BATCHES == BATCHES


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", NAMES)
def test_a_row_does_not_depend_on_its_batch_or_the_engine(name: str, dtype: str) -> None:
    weight, x = case(name, 64, 48, 640, dtype)
    whole = run(name, weight, x, dtype, "oak").cpu()
    assert torch.equal(run(name, weight, x[:16], dtype, "elm").cpu(), whole[:16])
    assert torch.equal(run(name, weight, x[:3], dtype, "elm").cpu(), whole[:3])
    assert torch.equal(run(name, weight, x[45:], dtype, "oak").cpu(), whole[45:])


# ---- codes and scales --------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", NAMES)
def test_every_code_at_every_element(name: str, dtype: str) -> None:
    """Activations of one 1 give single elements of the weight: its bare values, times a scale of 2."""
    rng = np.random.default_rng(3)
    n = 256
    fields = split(FORMATS[name], rng.integers(0, 256, n * FORMATS[name].bytes, np.uint8))
    fields["qs"] = (
        ((np.arange(256)[:, None] + 37 * np.arange(fields["qs"].shape[1])) % 256)
        .astype(np.uint8)
        .view(fields["qs"].dtype)
    )  # each byte of a block has each code in one of the columns
    fields["d"] = np.full_like(fields["d"], 2)
    kind = "bfloat16" if dtype == "bfloat16" else "float16"
    bits = read(f"operand_{name}", fields, kind).reshape(n, 64)
    values = (bits.astype(np.uint32) << 16).view(np.float32) if kind == "bfloat16" else bits.view(np.float16)
    result = as_float64(run(name, pack(FORMATS[name], fields), np.eye(64), dtype, "oak"))
    with np.errstate(over="ignore", invalid="ignore"):
        expected = rounded(2 * values.astype(np.float64), kind).T
    # A NaN, or an infinity that 0 turns into one, fills its column.
    bad = ~np.isfinite(values).all(axis=1)
    assert bad.any() == (name == "fp8_e5m2")
    assert np.array_equal(result[:, ~bad], expected[:, ~bad])
    assert np.isnan(result[:, bad]).all()


def test_fp8_e4m3_has_zeros() -> None:
    """Nowhere else: the readers that set a bit behind the code have none."""
    blocks = 4 * 16
    fields = {"qs": np.tile(np.array([0x00, 0x80], np.uint8), (blocks, 32)), "d": np.ones((blocks, 1), np.float32)}
    weight = pack(FORMATS["fp8_e4m3"], fields)
    x = np.abs(activations(8, 256, "float32"))
    assert np.array_equal(as_float64(run("fp8_e4m3", weight, x, "float32", "elm")), np.zeros((8, 16)))
    one_row = vesper_linear.forward_new(
        torch.from_numpy(x[:1]).to(device_of("elm")), torch.from_numpy(weight).to(device_of("elm")), 15, 0
    )
    assert not torch.equal(one_row.cpu(), torch.zeros(1, 16))


FAULTS: list[tuple[str, dict[str, Any]]] = [
    ("q4_0", {"scaled": False}),
    ("fp8_e5m2", {"scaled": False}),
    ("fp8_e4m3", {"reader": "decode_fp8_e4m3", "scaled": False}),
    ("q8_0", {"rounds_partial_tiles": False}),
    ("q8_0", {"backwards": True}),
    ("q8_0", {"interleaved_shares": True}),
]


@pytest.mark.parametrize("dtype", ["float32", "bfloat16"])
@pytest.mark.parametrize(("name", "fault"), FAULTS)
def test_faults_are_found_out(name: str, fault: dict[str, Any], dtype: str) -> None:
    weight, x = case(name, 8, 32, 64 * 24, dtype)
    result = as_float64(run(name, weight, x, dtype, "oak"))
    assert within(result, multiply(name, weight, x, dtype))
    if "reader" in fault:  # the values of all other readers, with scales of 1
        fields = split(FORMATS[name], weight)
        fields["d"] = np.ones_like(fields["d"])
        weight = pack(FORMATS[name], fields)
        result = as_float64(run(name, weight, x, dtype, "oak"))
        assert within(result, multiply(name, weight, x, dtype))
    assert not within(result, multiply(name, weight, x, dtype, Rules(**{"reader": f"operand_{name}"} | fault)))


@pytest.mark.parametrize("dtype", TYPES)
def test_results_pass_through_sixteen_bits(dtype: str) -> None:
    """A total of 65536 is one more than half has; the sum of shares that cancel is then no number."""
    k, kind = 64 * 16, "bfloat16" if dtype == "bfloat16" else "float16"
    fields = {"qs": np.full((16 * 16, 64), 64, np.int8), "d": np.ones((16 * 16, 1), np.float32)}
    x = np.zeros((8, k))
    x[:, :16] = 64.0  # 16 * 64 * 64 in the share of the first work-item
    x[4:, k - 16 :] = -64.0  # and the opposite in that of the last one
    result = as_float64(run("q8_0", pack(FORMATS["q8_0"], fields), x, dtype, "elm"))
    if kind == "float16":
        assert np.array_equal(result[:4], np.full((4, 16), np.inf))
        assert np.isnan(result[4:]).all()
    else:
        assert np.array_equal(result[:4], np.full((4, 16), 65536.0))
        assert np.array_equal(result[4:], np.zeros((4, 16)))


# ---- the call ----------------------------------------------------------------------------------------------


@pytest.mark.parametrize("device_class", CLASSES)
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", NAMES)
def test_guard_bytes(name: str, dtype: str, device_class: str) -> None:
    batch, n, k = 11, 48, 128
    weight, x = case(name, batch, n, k, dtype)
    device = device_of(device_class)
    packed = torch.from_numpy(weight).to(device)
    rows = torch.from_numpy(x).to(TORCH[dtype]).to(device)
    with output_guard(batch * n, TORCH[dtype], device) as address:
        out = vesper_linear.forward_new(rows, packed, FORMATS[name].qtype, 0)
        assert address in (None, out.data_ptr())
        assert within(as_float64(out), multiply(name, weight, x, dtype))


@pytest.mark.parametrize("name", NAMES)
def test_tensors_that_start_anywhere(name: str) -> None:
    weight, x = case(name, 8, 32, 192, "float16")
    expected = run(name, weight, x, "float16", "oak")
    device = expected.device
    packed = torch.zeros(weight.size + 1, dtype=torch.uint8, device=device)
    rows = torch.zeros(x.size + 1, dtype=torch.float16, device=device)
    packed[1:], rows[1:] = torch.from_numpy(weight).to(device), torch.from_numpy(x).to(device).reshape(-1)
    out = vesper_linear.forward_new(rows[1:].view(8, 192), packed[1:], FORMATS[name].qtype, 0)
    assert torch.equal(out.cpu(), expected.cpu())


def test_rows_that_end_inside_a_block() -> None:
    """Nothing looks at the length of a row: whole blocks count, and by those the rows of both tensors follow."""
    batch, n, k = 8, 16, 100
    weight = case("q8_0", batch, n, 192, "float32")[0][: 26 * 68]  # 1664 elements, 16 rows of 100 and a rest
    x = activations(batch, k, "float32")
    result = as_float64(run("q8_0", weight, x, "float32", "oak"))
    assert result.shape == (batch, n)
    quants, scales = weight[: 16 * 64], weight[25 * 64 : 25 * 64 + 16 * 4]  # 1600 / 64 blocks of quants in front
    expected = multiply(
        "q8_0", np.concatenate([quants, scales]), x.reshape(-1)[: batch * 64].reshape(batch, 64), "float32"
    )
    finite = np.isfinite(expected[0]) & np.isfinite(expected[1])
    assert within(result[finite], (expected[0][finite], expected[1][finite]))


def test_the_environment_is_not_read(monkeypatch: pytest.MonkeyPatch) -> None:
    for variable in ("TILE_THRESHOLD", "QUILLON_LOW_MEM", "TILE_SIZE"):
        monkeypatch.setenv(variable, "no number")
    weight, x = case("q4_0", 8, 16, 64, "float32")
    assert within(as_float64(run("q4_0", weight, x, "float32", "elm")), multiply("q4_0", weight, x, "float32"))


@pytest.mark.parametrize("backing", ["items", "vectors"])
def test_one_form_on_the_host_device(backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """Explicit-SIMD code for GPUs is nothing that the CPU device could run, whoever asks for it."""
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    weight, x = case("q4_0", 8, 16, 64, "float32")
    assert within(as_float64(run("q4_0", weight, x, "float32", "elm")), multiply("q4_0", weight, x, "float32"))


UNSUPPORTED = """
import torch, quillon, vesper_linear
x = torch.ones(8, 64, dtype=getattr(torch, {dtype!r}), device="xpu:{index}")
weight = torch.zeros(68 * 16, dtype=torch.uint8, device="xpu:{index}")
print("called", flush=True)
vesper_linear.forward_new(x, weight, 8, 0)
print("returned", flush=True)
"""


@pytest.mark.parametrize("index", [0, 1], ids=CLASSES[::-1])
@pytest.mark.parametrize("dtype", ["float64", "int32"])
def test_an_unsupported_type_ends_the_process(dtype: str, index: int) -> None:
    done = run_python(UNSUPPORTED.format(dtype=dtype, index=index))
    assert (done.returncode, done.stdout) == (2, "called\n")
    assert done.stderr.splitlines()[-1] == "unsupported dtype"


def test_at_batch_1_it_does_not() -> None:
    done = run_python(UNSUPPORTED.replace("ones(8", "ones(1").format(dtype="float64", index=1))
    assert (done.returncode, done.stdout) == (0, "called\nreturned\n"), done.stderr


# ---- processors --------------------------------------------------------------------------------------------

PROGRAM = """
import hashlib, sys
import quillon
sys.path.insert(0, {tests!r})
from matrix_engine.harness import case, run
for batch in (2, 7, 16):
    out = run("q4_0", *case("q4_0", batch, 48, 320, "float32"), "float32", "elm").cpu()
    print(hashlib.sha256(out.numpy().tobytes()).hexdigest())
"""


def test_narrow_registers_give_the_same_bits() -> None:
    """Registers of eight floats have tiles of their own, and the same order of products."""
    program = PROGRAM.format(tests=str(Path(__file__).resolve().parents[1]))
    environment = {"SYCL_CACHE_PERSISTENT": "0"}
    narrow = output_of(program, CL_CONFIG_CPU_TARGET_ARCH="core-avx2", **environment)
    assert len(narrow.splitlines()) == 3
    assert narrow == output_of(program)


IN_BFLOAT16 = """
import sys
sys.path.insert(0, {tests!r})
import quillon
from matrix_engine.harness import as_float64, case, run, within
from matrix_engine.reference import multiply
for name in ("q4_0", "fp8_e4m3"):
    weight, x = case(name, 11, 48, 320, "bfloat16")
    assert within(as_float64(run(name, weight, x, "bfloat16", "elm")), multiply(name, weight, x, "bfloat16"))
print("good")
"""


@pytest.mark.parametrize("target", ["skx", "core-avx2"])
def test_processors_without_products_of_bfloat16(target: str) -> None:
    """They multiply in float; on the machine of the test its own way is that of all other tests."""
    program = IN_BFLOAT16.format(tests=str(Path(__file__).resolve().parents[1]))
    assert output_of(program, CL_CONFIG_CPU_TARGET_ARCH=target, SYCL_CACHE_PERSISTENT="0") == "good\n"
