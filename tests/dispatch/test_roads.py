"""The road that a call takes, proven by what it launches, and the values that it gives there.

The rules are written here once more, in the order in which prose tells them. Values on the roads that expand the
weight are those of PyTorch's own product with the weight as the decoders of tests/formats see it, to the bit: the host
device has no other product.
"""

from __future__ import annotations

import random
from dataclasses import dataclass

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, RAW, Array, decode
from matvec.harness import CLASSES, DTYPES, TORCH, random_weight
from torch import Tensor

import quillon
import vesper_linear
from quillon._device_table import DEVICE_CLASSES
from quillon.formats import WEIGHT_FORMATS
from quillon.launches import Launch

from .test_tables import path_in_words

VARIABLES = ("TILE_THRESHOLD", "QUILLON_LOW_MEM", "TILE_SIZE")
HALF_OR_FLOAT = ("float32", "float16")

# Blocks of a work-item of the expansion for large batches, and what the number of blocks must be a multiple of.
FAST = {
    "q4_0": (8, 8), "q4_1": (8, 8), "fp4": (8, 8), "q8_0": (4, 4), "fp8_e5m2": (4, 4), "fp8_e4m3": (4, 1),
    "fp6": (8, 8), "fp6_k": (2, 8), "q4_k": (2, 0), "q6_k": (2, 0),
}  # fmt: skip
WITHOUT_WHOLE = ("fp8_e4m3", "fp6", "fp6_k")
WAITING_WHOLE = ("q5_0", "q5_1", "nf3", "nf4", "q2_k", "iq1_s", "iq2_xxs")
ONE_KERNEL = {
    "q5_0": "q5_0<{},{sub_group}>", "q5_1": "q5_1<{},{sub_group}>", "nf3": "nf3_new<{},{sub_group}>",
    "iq2_xxs": "iq2_xxs<{}>", "q2_k": "q2_k<{}>", "iq1_s": "iq1_s<{}>", "q5_k": "q5_k<{}>", "q4_k": "q4_k<{}>",
    "q6_k": "q6_k<{}>",
}  # fmt: skip
SPANS = {"q4_0": (4, 2), "q4_1": (4, 2), "fp4": (4, 2), "nf4": (4, 2), "q8_0": (2, 1), "fp8_e5m2": (2, 1)}
CPP = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}


@dataclass(frozen=True)
class Call:
    """One call of forward_new and what it depends on."""

    name: str
    device_class: str
    dtype: str
    batch: int
    columns: int
    rows: int
    input_size: int = 128
    threshold: int | None = None
    low_mem: int | None = None
    tile_size: int | None = None

    @property
    def sub_group(self) -> int:
        return 32 if self.device_class == "elm" else 16

    def environment(self, monkeypatch: pytest.MonkeyPatch) -> None:
        for variable, value in zip(VARIABLES, (self.threshold, self.low_mem, self.tile_size), strict=True):
            if value is None:
                monkeypatch.delenv(variable, raising=False)
            else:
                monkeypatch.setenv(variable, str(value))


def tiled(call: Call) -> bool:
    threshold = 50000 if call.threshold is None else call.threshold
    if call.name in ("q4_0", "fp6", "q4_0_woq"):
        low = call.device_class == "ash" or call.low_mem == 1
        return low and threshold < call.rows and call.input_size > 128
    if call.name in ("q8_0", "fp8_e5m2"):
        return call.device_class == "oak" and call.rows >= threshold
    return False


def road_in_words(call: Call) -> str:
    qtype = FORMATS[call.name].qtype
    if path_in_words(call.device_class, qtype, call.batch, call.rows) == "matrix engine":
        return "engine"
    if call.batch == 1:
        return "matvec"
    if call.name in ("q4_0", "q4_0_woq") and call.device_class != "elm" and call.batch <= 7:
        return "by_batch"
    if call.name == "nf4" and call.batch <= 14:
        return "by_batch"
    if call.name == "q4_0_woq":
        return "none" if tiled(call) else "onednn"
    return "tiled" if tiled(call) else "dense"


def is_fast(call: Call) -> bool:
    if call.name not in FAST or call.dtype not in HALF_OR_FLOAT:
        return False
    multiple = FAST[call.name][1]
    return call.columns % 256 == 0 if multiple == 0 else call.columns * call.rows // 64 % multiple == 0


def dense_launches(call: Call) -> list[tuple[str, bool]]:
    """Kernels, and whether they are waited for."""
    name, element = call.name, CPP[call.dtype]
    if is_fast(call):
        blocks, of_item = call.columns * call.rows // FORMATS[name].elements, FAST[name][0]
        launched = [(f"dequantize_{name}_kernel<{element},{of_item}>", False)] if blocks >= of_item else []
        return launched + ([(f"dequantize_{name}_kernel<{element},1>", False)] if blocks % of_item else [])
    if name in ONE_KERNEL:
        kernel = ONE_KERNEL[name].format(element, sub_group=call.sub_group)
        return [(f"qlinear_xpu_dequantize_kernel_{kernel}", name in WAITING_WHOLE and name != "q5_1")]
    span = SPANS[name][call.device_class != "elm"]
    waits = (name, call.device_class == "elm") != ("q4_0", True)
    return [(f"qlinear_xpu_dequantize_kernel_{name}_1x{span}<{element},{call.sub_group}>", waits)]


def tile_launches(call: Call) -> list[tuple[str, bool]]:
    size = min(4096 if call.tile_size is None else call.tile_size, call.rows)
    elm = call.device_class == "elm"
    kernel = {
        "q4_0": "q4_0_1x4" if elm else "q4_0_1x2",
        "q8_0": "q8_0_1x1",
        "fp8_e5m2": "fp8_e5m2_1x1",
        "fp6": "fp6_1x16",
    }
    text = f"qlinear_xpu_tile_dequantize_kernel_{kernel[call.name]}<{CPP[call.dtype]},{call.sub_group}>"
    return [(text, not (elm and call.name == "q4_0"))] * -(-call.rows // size)


def tensor(raw: Array, dtype: str) -> Tensor:
    """From the raw form of an element type."""
    if RAW[dtype] is np.uint16:
        return torch.from_numpy(raw.view(np.int16).copy()).view(TORCH[dtype])
    return torch.from_numpy(raw.copy())


def expected_product(call: Call, road: str, weight: Array, input: Tensor) -> Tensor:
    reader = "expand" if road == "dense" and is_fast(call) else "decode"
    dense = tensor(decode(f"{reader}_{call.name}", weight, call.dtype), call.dtype).view(call.rows, call.columns)
    if road == "dense":
        return torch.nn.functional.linear(input, dense)
    tiles = dense.split(4096 if call.tile_size is None else call.tile_size)
    return torch.cat([torch.nn.functional.linear(input, tile) for tile in tiles], dim=1)


def run(call: Call, monkeypatch: pytest.MonkeyPatch) -> tuple[Tensor, list[Launch], Array, Tensor]:
    """The result, what was launched, and the packed weight and the input."""
    entry, device = FORMATS[call.name], torch.device("xpu", CLASSES.index(call.device_class))
    weight = random_weight(call.name, call.rows * call.columns // entry.elements, call.columns + call.rows)
    generator = torch.Generator().manual_seed(call.batch)
    input = (torch.rand(call.batch, call.columns, generator=generator) - 0.5).to(TORCH[call.dtype])
    call.environment(monkeypatch)
    with quillon.record_launches() as launches:
        given = (input.to(device), torch.from_numpy(weight).to(device), entry.qtype, call.input_size)
        result = vesper_linear.forward_new(*given)
    assert result.shape == (call.batch, call.rows)
    assert result.dtype == TORCH[call.dtype]
    assert all(launch.device == device for launch in launches)
    return result, launches, weight, input


def check(call: Call, monkeypatch: pytest.MonkeyPatch) -> None:
    road = road_in_words(call)
    if road == "engine" and call.dtype == "float64":
        return  # ends the process: tests/matrix_engine
    if road == "none":
        with pytest.raises(NotImplementedError, match="is not served with a batch of"):
            run(call, monkeypatch)
        return
    if road == "onednn" and call.dtype != "float16":
        with pytest.raises(RuntimeError, match="takes float16 activations"):
            run(call, monkeypatch)
        return
    if road == "dense" and call.name in WITHOUT_WHOLE and not is_fast(call):
        with pytest.raises(RuntimeError, match=r"^Unsupported input dtype, only fp32 and fp16 are supported$"):
            run(call, monkeypatch)
        return
    result, launches, weight, input = run(call, monkeypatch)
    told = [(launch.kernel, launch.waited) for launch in launches]
    if road == "matvec":
        assert [kernel.startswith("qlinear_xpu_kernel_") for kernel, _ in told][-1:] == [True], told
        assert len(told) == (2 if call.name in ("iq2_xxs", "q2_k", "iq1_s") else 1), told
        assert not any("_batch<" in kernel for kernel, _ in told), told
    elif road == "by_batch":
        own = "nf4_2x16_batch" if call.name == "nf4" else "q4_0_2x16_by_batch"
        lanes = 2 * call.sub_group
        assert told == [(f"qlinear_xpu_kernel_{own}<{CPP[call.dtype]},{call.sub_group},{lanes}>", False)]
    elif road == "onednn":
        assert told == [("oneDNN matmul", False)]
    elif road == "engine":  # values: tests/matrix_engine
        own, operand = CPP[call.dtype], "c10::Half" if call.dtype == "float32" else CPP[call.dtype]
        columns = 16 if call.device_class == "elm" else 8
        tail = call.batch % 8 or 8
        assert told == [(f"loom_forward_kernel<{own},{operand},float,{operand},{tail},{columns},8>", False)]
    else:
        assert told == (dense_launches(call) if road == "dense" else tile_launches(call))
        if call.name != "fp6" or road == "dense":
            expected = expected_product(call, road, weight, input)
            assert torch.equal(result.cpu().nan_to_num(1e9), expected.nan_to_num(1e9)), call


BATCHES = (*range(1, 18), 63, 64, 65, 66, 128, 512)
COLUMNS = {name: (512, 1024) if FORMATS[name].elements == 64 else (1024, 2048) for name in WEIGHT_FORMATS}


@pytest.mark.grid(0.08)
@pytest.mark.parametrize("device_class", DEVICE_CLASSES)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", WEIGHT_FORMATS)
def test_roads_by_batch(name: str, dtype: str, device_class: str, monkeypatch: pytest.MonkeyPatch) -> None:
    for batch in BATCHES:
        if (name, batch) == ("q4_0_woq", 512):
            continue  # the road of 8 to 128 rows
        columns = COLUMNS[name][batch % 2]
        for rows in (16, 13) if batch in (2, 8, 17, 65) else (16,):
            check(Call(name, device_class, dtype, batch, columns, rows), monkeypatch)


TILED = ("q4_0", "q8_0", "fp8_e5m2", "fp6", "q4_0_woq")
ENVIRONMENTS = [
    (threshold, low_mem, tile_size)
    for threshold in (None, 15, 16, 17)
    for low_mem in (None, 0, 1, 2)
    for tile_size in (None, 1, 5, 16, 100)
]


@pytest.mark.grid(0.12)
@pytest.mark.parametrize("device_class", DEVICE_CLASSES)
@pytest.mark.parametrize("name", TILED)
def test_roads_by_environment(name: str, device_class: str, monkeypatch: pytest.MonkeyPatch) -> None:
    chosen = random.Random(f"{name} {device_class}")
    for environment in ENVIRONMENTS:
        dtype, batch = chosen.choice(DTYPES), chosen.choice((1, 2, 7, 8, 16, 17, 65))
        for input_size in (128, 129):
            check(Call(name, device_class, dtype, batch, 1024, 16, input_size, *environment), monkeypatch)


# ---- worked examples -------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("call", "road"),
    [
        (Call("q4_0", "elm", "float32", 3, 64, 13), "dense"),
        (Call("q4_0", "yew", "float32", 3, 64, 13), "by_batch"),
        (Call("q4_0", "yew", "float32", 8, 64, 13), "dense"),
        (Call("q4_0", "ash", "float32", 8, 64, 50001, 129), "tiled"),
        (Call("q4_0", "ash", "float32", 8, 64, 50000, 129), "dense"),
        (Call("q4_0", "ash", "float32", 8, 64, 50001, 128), "dense"),
        (Call("q4_0", "yew", "float32", 8, 64, 50001, 129, None, 1), "tiled"),
        (Call("q4_0", "yew", "float32", 8, 64, 50001, 129, None, 2), "dense"),
        (Call("q8_0", "oak", "float32", 2, 64, 50001, 1), "tiled"),
        (Call("q8_0", "ash", "float32", 65, 64, 50000, 1, None, 1), "dense"),
        (Call("q4_0_woq", "ash", "float16", 8, 64, 60000, 200), "none"),
        (Call("fp8_e4m3", "unknown", "bfloat16", 2, 64, 16), "dense"),
        (Call("nf4", "elm", "float32", 14, 64, 16), "by_batch"),
        (Call("nf4", "elm", "float32", 15, 64, 16), "dense"),
        (Call("q4_k", "oak", "float64", 2, 4096, 2), "dense"),
        (Call("q4_k", "oak", "float32", 2, 4096, 2), "dense"),
    ],
    ids=str,
)
def test_worked_examples(call: Call, road: str, monkeypatch: pytest.MonkeyPatch) -> None:
    assert road_in_words(call) == road
    check(call, monkeypatch)


def test_number_and_rows_of_the_tiles(monkeypatch: pytest.MonkeyPatch) -> None:
    _, launches, _, _ = run(Call("q4_0", "ash", "float32", 8, 64, 50001, 129), monkeypatch)
    assert len(launches) == 13
    monkeypatch.setenv("QUILLON_HOST_BACKING", "items")
    _, launches, _, _ = run(Call("q4_0", "ash", "float32", 8, 64, 50001, 129), monkeypatch)
    rows = [launch.global_range[0] // launch.local_range[0] for launch in launches]
    assert rows == [4096] * 12 + [849]


def test_tiles_of_a_row_length_that_is_no_multiple_of_64(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_LOW_MEM", "1")
    monkeypatch.setenv("TILE_THRESHOLD", "0")
    weight = torch.zeros(34 * 4097, dtype=torch.uint8, device="xpu:7")
    with pytest.raises(RuntimeError, match=r"^%d must be a multiple of 644097"):
        vesper_linear.forward_new(torch.zeros(8, 4097, device="xpu:7"), weight, FORMATS["q4_0"].qtype, 129)


def test_tiles_of_no_rows(monkeypatch: pytest.MonkeyPatch) -> None:
    """Refused where there are tiles, and read by every call of these formats all the same."""
    call = Call("q4_0", "ash", "float32", 8, 64, 16, 129, 0, None, 0)
    with pytest.raises(RuntimeError, match=r"^forward_new: TILE_SIZE is 0; it must be"):
        run(call, monkeypatch)
    run(Call("q4_0", "ash", "float32", 8, 64, 16, 128, 0, None, 0), monkeypatch)


@pytest.mark.parametrize("name", ["q4_0", "fp6"])
def test_the_environment_is_read_by_launchers_alone(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """A bad number fails each call that a launcher takes."""
    call = Call(name, "elm", "float32", 1, 512, 16)
    monkeypatch.setenv("TILE_SIZE", "many")
    packed = torch.from_numpy(random_weight(name, 128, 1)).to("xpu:1")
    for batch in (1, 17):
        with pytest.raises(RuntimeError, match=r"^invalid stoull argument"):
            vesper_linear.forward_new(torch.zeros(batch, call.columns, device="xpu:1"), packed, FORMATS[name].qtype, 0)


# ---- memory, surroundings --------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", ["q4_0", "q8_0", "fp8_e5m2", "fp6"])
def test_memory_of_tiles(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """The peak is the output, one tile and its part of the product, where a dense road has the whole weight."""
    columns, rows, tile, batch = 2048, 4096, 256, 8
    device_class = "oak" if name in ("q8_0", "fp8_e5m2") else "ash"
    device = torch.device("xpu", CLASSES.index(device_class))
    packed = torch.from_numpy(random_weight(name, rows * columns // 64, 1)).to(device)
    input = torch.zeros(batch, columns, device=device)

    def peak(threshold: int) -> int:
        monkeypatch.setenv("TILE_THRESHOLD", str(threshold))
        monkeypatch.setenv("TILE_SIZE", str(tile))
        batch_of = input.repeat(9, 1)  # too many for the matrix engine
        before = torch.xpu.memory_allocated(device)
        torch.xpu.reset_peak_memory_stats(device)
        vesper_linear.forward_new(batch_of, packed, FORMATS[name].qtype, columns)
        return torch.xpu.max_memory_allocated(device) - before

    output, part, one_tile = 9 * batch * rows * 4, 9 * batch * tile * 4, tile * columns * 4
    slack = 64 * 1024
    assert one_tile < peak(0) <= output + one_tile + 2 * part + slack
    assert peak(rows + 1) >= rows * columns * 4


@pytest.mark.parametrize("name", ["q4_0", "q5_0", "q8_0"])
def test_neither_derivatives_nor_autocast(name: str) -> None:
    """A large batch is treated as a single row: nobody above sees the product with the expanded weight."""
    packed = torch.from_numpy(random_weight(name, 128, 1)).to("xpu:7")
    input = torch.ones(20, 512, device="xpu:7", requires_grad=True)
    plain = vesper_linear.forward_new(input, packed, FORMATS[name].qtype, 0)
    assert not plain.requires_grad
    with torch.autocast("xpu", torch.bfloat16):
        inside = vesper_linear.forward_new(input, packed, FORMATS[name].qtype, 0)
    assert inside.dtype == torch.float32
    assert torch.equal(inside, plain)


@pytest.mark.parametrize("name", ["iq2_xxs", "q5_k", "q4_k"])
def test_a_weight_that_ends_inside_a_super_block(name: str) -> None:
    """Rows of 64 make 7 rows of one super-block and three quarters of another, which is not read: NaN, not garbage."""
    entry = FORMATS[name]
    packed = torch.from_numpy(random_weight(name, 2, 3)).to("xpu:7")
    result = vesper_linear.forward_new(torch.ones(9, 320, device="xpu:7"), packed, entry.qtype, 0)
    assert result.shape == (9, 1)
    assert result.isnan().all()


@pytest.mark.parametrize("qtype", [9, 22, 25])
def test_codes_without_a_kernel_for_one_row_have_no_few_rows(qtype: int) -> None:
    few = torch.ops.quillon_kernels.rows_at_once(torch.device("xpu:7"), qtype, torch.float32, 4096, 4096)[1:]
    assert few == (0, 0, 0)


# ---- the record ------------------------------------------------------------------------------------------------


def test_records_nest_and_end() -> None:
    packed = torch.from_numpy(random_weight("q4_0", 128, 1)).to("xpu:7")
    row = torch.ones(1, 512, device="xpu:7")
    with quillon.record_launches() as outer:
        vesper_linear.forward_new(row, packed, FORMATS["q4_0"].qtype, 0)
        with quillon.record_launches() as inner:
            vesper_linear.forward_new(row, packed, FORMATS["q4_0"].qtype, 0)
    vesper_linear.forward_new(row, packed, FORMATS["q4_0"].qtype, 0)
    assert len(inner) == 1
    assert outer == inner * 2
    assert inner[0].kernel == "qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>"
    assert inner[0].device == torch.device("xpu:7")
    assert not inner[0].waited


def test_a_record_ends_with_an_error() -> None:
    with pytest.raises(RuntimeError, match="multiple"), quillon.record_launches() as launches:
        vesper_linear.forward_new(
            torch.ones(1, 8, device="xpu:7"), torch.zeros(340, dtype=torch.uint8, device="xpu:7"), 2, 0
        )
    assert launches == []
    with pytest.raises(RuntimeError, match="no launches are being recorded on this thread"):
        torch.ops.quillon_kernels.end_launches()
