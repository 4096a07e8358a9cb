"""Texts of all failures of the fused MLP, and its profiler record."""

from __future__ import annotations

import re
from typing import Any

import pytest
import torch
from shim.process import output_of
from torch.profiler import ProfilerActivity, profile

import vesper_linear
from quillon.formats import WEIGHT_FORMATS, format_code, weight_bytes

from .harness import NAMES, device_of

SERVED = {
    "elm": "q4_0 (qtype 2), fp4 (qtype 16), fp8_e5m2 (qtype 19), iq2_xxs (qtype 21), fp6 (qtype 29), "
    "q4_0_woq (qtype 34)",
    "unknown": "q4_0 (qtype 2), fp4 (qtype 16), fp8_e5m2 (qtype 19), fp6 (qtype 29), q4_0_woq (qtype 34)",
}
UNITS = {"q4_0": 16, "q4_0_woq": 16, "fp4": 16, "fp6": 16, "fp8_e5m2": 8}


def arguments(name: str = "q4_0", k: int = 256, rows: int = 8, device_class: str = "elm") -> dict[str, Any]:
    device = device_of(device_class)
    size = weight_bytes(name, rows, k)
    return {
        "input": torch.ones(1, k, device=device),
        "weight1": torch.zeros(size, dtype=torch.uint8, device=device),
        "weight2": torch.zeros(size, dtype=torch.uint8, device=device),
        "batch_size": 1,
        "state_size": k,
        "output_size": rows,
        "act_type": 0,
        "qtype": format_code(name),
    }


def refused(given: dict[str, Any], route: str = "module") -> str:
    function = vesper_linear.mlp_forward_xpu if route == "module" else torch.ops.quillon.mlp_forward_xpu
    with pytest.raises(RuntimeError) as error:
        function(*given.values())
    return str(error.value).split("\nException raised from")[0]


@pytest.mark.parametrize("name", UNITS)
@pytest.mark.parametrize("dtype", [torch.float32, torch.bfloat16])
def test_state_size(name: str, dtype: torch.dtype) -> None:
    unit = UNITS[name]
    for k in (unit // 2, 4096 + unit // 2, 3 * unit + 1):
        given = arguments(name) | {"state_size": k, "input": torch.ones(1, 5000, dtype=dtype, device="xpu:1")}
        assert refused(given) == f"%d must be a multiple of %d{k}{unit}"


def test_the_site_of_the_check() -> None:
    printed = output_of(
        "import torch, quillon, vesper_linear\n"
        "w = torch.zeros(34, dtype=torch.uint8, device='xpu')\n"
        "try: vesper_linear.mlp_forward_xpu(torch.ones(1, 64, device='xpu'), w, w, 1, 4, 1, 0, 2)\n"
        "except RuntimeError as error: print(error)\n",
        TORCH_SHOW_CPP_STACKTRACES="1",
    )
    assert re.search(r"Exception raised from mlp_forward_q4_0_kernel at \S*csrc/mlp/mlp_xpu_kernel.cpp", printed)


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize(
    ("dtype", "shown"), [(torch.int64, "Long"), (torch.bool, "Bool"), (torch.complex64, "ComplexFloat")]
)
def test_element_types(name: str, dtype: torch.dtype, shown: str) -> None:
    """Before the row length; iq2_xxs fails in the quantizer of its activations."""
    launcher = "qlinear_forward_xpu" if name == "iq2_xxs" else f"mlp_forward_{name}_xpu_t"
    for k in (256, 12):
        given = arguments(name) | {"input": torch.ones(1, 256, device="xpu:1").to(dtype), "state_size": k}
        assert refused(given) == f"\"{launcher}\" not implemented for '{shown}'"


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("which", ["weight1", "weight2"])
def test_types_of_weights(name: str, which: str) -> None:
    given = arguments(name)
    given[which] = given[which].to(torch.int8)
    assert "expected scalar type Byte but found Char" in refused(given)


def test_state_size_of_iq2_xxs() -> None:
    text = refused(arguments("iq2_xxs") | {"state_size": 128})
    assert text == "quantize_input_q8_1: state_size must be a multiple of 256, the size of a super-block, got 128"


WITHOUT = [
    (name, device_class)
    for device_class in SERVED
    for name in WEIGHT_FORMATS
    if name not in NAMES or (name == "iq2_xxs" and device_class != "elm")
]


@pytest.mark.parametrize(("name", "device_class"), WITHOUT)
def test_formats_without_a_kernel(name: str, device_class: str) -> None:
    text = refused(arguments("q4_0", device_class=device_class) | {"qtype": format_code(name)})
    assert text == (
        f"mlp_forward_xpu: no kernel for {name} (qtype {format_code(name)}) on device class {device_class}; "
        f"served are {SERVED[device_class]}"
    )


@pytest.mark.parametrize("qtype", [-1, 36, 2**32 + 2, -(2**63)])
def test_codes_outside_the_table(qtype: int) -> None:
    """The code is not cut to 32 bits."""
    text = refused(arguments() | {"qtype": qtype})
    assert text == f"mlp_forward_xpu: qtype {qtype}, a code without a format; served are {SERVED['elm']}"


def test_a_code_without_a_format() -> None:
    assert "no kernel for qtype 22, a code without a format" in refused(arguments() | {"qtype": 22})


@pytest.mark.parametrize("route", ["module", "torch.ops"])
@pytest.mark.parametrize("which", ["input", "weight1", "weight2"])
def test_devices(which: str, route: str) -> None:
    given = arguments()
    for device in ("cpu", "xpu:3"):
        text = refused(given | {which: given[which].to(device)}, route)
        if which != "input":
            assert text == f"mlp_forward_xpu: input is on xpu:1 and {which} on {device}; all must be on one device"
        elif device == "cpu":
            assert text == "mlp_forward_xpu: input must be a XPU tensor, got one on cpu"
        else:
            assert text == "mlp_forward_xpu: input is on xpu:3 and weight1 on xpu:1; all must be on one device"


@pytest.mark.parametrize("which", ["batch_size", "state_size", "output_size"])
def test_sizes(which: str) -> None:
    given = arguments()
    for size in (-1, -16, -(2**63)):
        assert "batch_size, state_size and output_size are sizes, got" in refused(given | {which: size})
    for size in (2**40, 2**62):  # of rows of the output there may be as many as memory holds
        text = refused(given | {which: size})
        assert "too large" in text or (which == "batch_size" and ("memory" in text or "overflow" in text))


def test_more_rows_than_blocks_of_activations_are_counted() -> None:
    text = refused(arguments("iq2_xxs", device_class="elm") | {"batch_size": 2**31})
    assert text == "mlp_forward_xpu: 2147483648 rows of 256 activations are too many for one call"


@pytest.mark.parametrize("name", NAMES)
def test_too_little_memory(name: str) -> None:
    given = arguments(name)
    size = weight_bytes(name, 8, 256)
    for which in ("weight1", "weight2"):
        short = given[which][:-1].clone()
        text = refused(given | {which: short})
        assert text.startswith(
            f"mlp_forward_xpu: {which} must have {size} bytes for the sizes of this call, got {size - 1}"
        )
        repeated = torch.zeros(1, dtype=torch.uint8, device="xpu:1").expand(size)
        assert f"{which} must have {size} bytes" in refused(given | {which: repeated})
    text = refused(given | {"input": torch.ones(1, 255, device="xpu:1")})
    assert text.startswith("mlp_forward_xpu: input must have 1024 bytes for the sizes of this call, got 1020")
    assert "weight1 must have" in refused(given | {"output_size": 9})


def test_rows_that_end_inside_a_block_read_on() -> None:
    """As forward_new does; where there is nothing behind the activations it is refused."""
    given = arguments(k=64, rows=20) | {"state_size": 80, "output_size": 16}
    assert "input must have" in refused(given | {"input": torch.ones(1, 80, device="xpu:1")})
    vesper_linear.mlp_forward_xpu(*(given | {"input": torch.ones(1, 104, device="xpu:1")}).values())


@pytest.mark.parametrize("route", ["module", "torch.ops"])
def test_profiler_record(route: str) -> None:
    function = vesper_linear.mlp_forward_xpu if route == "module" else torch.ops.quillon.mlp_forward_xpu
    given = arguments()
    with profile(activities=[ProfilerActivity.CPU], record_shapes=True) as record:
        function(*given.values())
    (event,) = [event for event in record.events() if event.name == "mlp_forward"]
    assert event.input_shapes == [[1, 256]]
