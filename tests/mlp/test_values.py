"""The fused MLP in all formats, element types, activations, classes and forms."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from formats.decoders import FORMATS, split
from matvec.harness import random_weight

import vesper_linear

from .harness import (
    CLASSES,
    DTYPES,
    GELU,
    NAMES,
    SILU,
    TORCH,
    activations_of,
    call,
    classes_of,
    code_of,
    device_of,
    elements_of,
    expected,
    factor,
    form_of,
    is_expected,
    on_device,
    rounded_sums_fp8,
    sums_of,
    to_device,
    tracked_sums_fp8,
    weight_of,
    wg_size,
)

WITH_FORWARD = [name for name in NAMES if name != "fp8_e5m2"]

# One block; lanes that chunks fill in part; whole rounds; a long row. Rows are a multiple of every tile.
LENGTHS = (64, 576, 1024, 4096)
ROWS = 24


def lengths(name: str) -> list[int]:
    return [k for k in LENGTHS if k % elements_of(name) == 0]


CASES = [(name, device_class) for name in WITH_FORWARD for device_class in classes_of(name)]


@pytest.mark.parametrize("act", [SILU, GELU])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(("name", "device_class"), CASES)
def test_the_sums_of_forward_new(name: str, device_class: str, dtype: str, act: int) -> None:
    for k in lengths(name):
        x, weights = on_device(name, ROWS, k, dtype, device_of(device_class))
        given = call(name, x, weights, ROWS, k, act)
        assert given.shape == (1, ROWS)
        assert given.dtype == TORCH[dtype]
        assert given.device == device_of(device_class)
        gate, up = sums_of(name, x, weights)
        assert np.abs(gate).max() > 0.2
        assert is_expected(given, gate, up, dtype, act, form_of(name)), k


@pytest.mark.parametrize("act", [SILU, GELU])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("device_class", classes_of("fp8_e5m2"))
def test_scales_of_fp8_e5m2(device_class: str, dtype: str, act: int) -> None:
    """They come onto the sum of a chunk, in T."""
    for k in LENGTHS:
        x, weights = on_device("fp8_e5m2", ROWS, k, dtype, device_of(device_class))
        given = call("fp8_e5m2", x, weights, ROWS, k, act)
        lanes = wg_size("fp8_e5m2", device_class)
        if dtype == "bfloat16":  # nothing can be fused: the bits of the sums are known
            assert is_expected(given, *rounded_sums_fp8(k, ROWS, dtype, lanes), dtype, act)
            continue
        gate, up = tracked_sums_fp8(k, ROWS, dtype, lanes)
        output, error = expected(gate.x.astype(float), up.x.astype(float), dtype, act)
        # Neither activation rises faster than 1.13 |u|, nor falls faster.
        slope = 1.2 * gate.error * (np.abs(up.x) + up.error) + np.abs(factor(gate.x.astype(float), act)) * up.error
        assert (np.abs(given.cpu().double().numpy()[0] - output) <= error + (slope * 1.01).astype(float)).all()
        if dtype != "float16":
            assert (slope + error < 0.1 * np.std(output)).all(), "the bound says nothing"


@pytest.mark.grid(0.25)
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("device_class", CLASSES)
def test_every_class(device_class: str, name: str) -> None:
    k = 768
    x, weights = on_device(name, ROWS, k, "float32", device_of(device_class))
    if device_class not in ("elm", "legacy") and name == "iq2_xxs":
        with pytest.raises(NotImplementedError, match=f"no kernel for iq2_xxs .* on device class {device_class}"):
            call(name, x, weights, ROWS, k)
        return
    given = call(name, x, weights, ROWS, k)
    like = "elm" if device_class == "elm" else "legacy"
    other = call(name, *on_device(name, ROWS, k, "float32", device_of(like)), ROWS, k)
    assert torch.equal(given.cpu(), other.cpu())  # tiles of eight rows and of two give the same bits


@pytest.mark.grid(0.2)
@pytest.mark.parametrize("act", [SILU, GELU])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(("name", "device_class"), [(n, c) for n in NAMES for c in classes_of(n)])
def test_the_same_bits_in_both_forms(
    name: str, device_class: str, dtype: str, act: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    for k in (*lengths(name), 1280):
        for rows in (8, 16, 40):
            x, weights = on_device(name, rows, k, dtype, device_of(device_class))
            outputs = []
            for backing in ("items", "vectors"):
                monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
                outputs.append(call(name, x, weights, rows, k, act).cpu())
            assert torch.equal(*outputs), (k, rows)


# ---- what the comparisons see ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", ["float32", "float64", "float16"])
@pytest.mark.parametrize("name", WITH_FORWARD)
def test_swapped_weights_and_activations_show(name: str, dtype: str) -> None:
    device = device_of("elm")
    x, weights = on_device(name, ROWS, 512, dtype, device)
    given = call(name, x, weights, ROWS, 512, SILU)
    gate, up = sums_of(name, x, weights)
    assert is_expected(given, gate, up, dtype, SILU, form_of(name))
    assert not is_expected(given, up, gate, dtype, SILU, form_of(name))
    assert not is_expected(given, gate, up, dtype, GELU, form_of(name))
    assert not is_expected(given, np.roll(gate, 1), up, dtype, SILU, form_of(name))


def test_the_constants_of_gelu_show() -> None:
    """The cube has C2 alone; with the product of both it would be another function."""
    x, weights = on_device("q4_0", ROWS, 512, "float32", device_of("unknown"))
    given = call("q4_0", x, weights, ROWS, 512, GELU).cpu().double().numpy()[0]
    gate, up = sums_of("q4_0", x, weights)
    _, error = expected(gate, up, "float32", GELU)
    usual = 0.5 * gate * (1 + np.tanh(0.7978845834732056 * (gate + 0.044715 * gate**3))) * up
    assert not (np.abs(given - usual) <= error).all()


@pytest.mark.parametrize("name", ["q4_0", "iq2_xxs"])
def test_double_keeps_one_factor(name: str) -> None:
    """Of the two sums the gate's is narrowed to float; in iq2_xxs both are."""
    x, weights = on_device(name, ROWS, 512, "float64", device_of("elm"))
    given = call(name, x, weights, ROWS, 512, SILU).cpu().numpy()[0]
    gate, up = sums_of(name, x, weights)
    # As many bits of the factor as float has: with what remains of u beyond float the output is not a float.
    assert (given.astype(np.float32) == given).all() == (name == "iq2_xxs")
    ratio = given / up
    assert (ratio.astype(np.float32) == ratio.astype(np.float32).astype(np.float64)).all()
    assert np.allclose(given, factor(gate.astype(np.float32).astype(float), SILU) * up, rtol=1e-6)


# ---- activations by themselves ---------------------------------------------------------------------------------------


def one_gate(g: float, u: float, dtype: str, act: int, device_class: str = "unknown") -> float:
    """The output for sums of exactly g and u: a weight of one code that is not 0."""
    entry = FORMATS["q4_0"]
    weight = np.full(2 * entry.bytes, 0x88, np.uint8)
    fields = split(entry, weight)
    fields["d"][:] = 1.0
    fields["qs"][:, 0] = 0x89  # element 0 of each block is 1
    first = np.concatenate([fields["qs"].reshape(-1), fields["d"].view(np.uint8).reshape(-1)])
    fields["qs"][:, 0], fields["qs"][:, 1] = 0x88, 0x89  # and element 1 of the other weight
    second = np.concatenate([fields["qs"].reshape(-1), fields["d"].view(np.uint8).reshape(-1)])
    x = torch.zeros(1, 64, dtype=TORCH[dtype])
    x[0, 0], x[0, 1] = g, u
    device = device_of(device_class)
    weights = torch.from_numpy(first).to(device), torch.from_numpy(second).to(device)
    output = call("q4_0", x.to(device), weights, 2, 64, act).cpu().double()
    assert torch.equal(output[0, :1], output[0, 1:]) or output.isnan().all()
    return float(output[0, 0])


@pytest.mark.parametrize("backing", ["items", "vectors"])
@pytest.mark.parametrize("dtype", ["float32", "float64", "bfloat16"])
def test_ends_of_silu(dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    for u in (2.0, -2.0):
        far = one_gate(-200.0, u, dtype, SILU)  # exp overflows: a zero with the sign of g * u
        assert far == 0
        assert np.signbit(far) == (u > 0)
        assert one_gate(200.0, u, dtype, SILU) == 200 * u
        assert one_gate(0.0, u, dtype, SILU) == 0
    assert np.isnan(one_gate(np.nan, 1.0, dtype, SILU))
    large = 2.0**120
    # The product comes before the division, except in double.
    assert one_gate(large, large, dtype, SILU) == (large**2 if dtype == "float64" else np.inf)


@pytest.mark.parametrize("backing", ["items", "vectors"])
@pytest.mark.parametrize("dtype", ["float32", "float64", "bfloat16"])
def test_ends_of_gelu(dtype: str, backing: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUILLON_HOST_BACKING", backing)
    for u in (2.0, -2.0):
        assert one_gate(-200.0, u, dtype, GELU) == 0
        assert one_gate(200.0, u, dtype, GELU) == 200 * u
        assert one_gate(0.0, u, dtype, GELU) == 0
    assert np.isnan(one_gate(np.nan, 1.0, dtype, GELU))


@pytest.mark.parametrize("act", [SILU, GELU])
def test_a_line_of_gates(act: int) -> None:
    for g in np.linspace(-6, 6, 49):
        g = float(np.float32(g))
        output, error = expected(np.array([g]), np.array([1.5]), "float32", act)
        assert abs(one_gate(g, 1.5, "float32", act) - output[0]) <= error[0], g


@pytest.mark.parametrize(("act_type", "same"), [(0, SILU), (1, GELU), (2, GELU), (-1, GELU), (2**32, SILU),
                                                (2**32 + 1, GELU), (-(2**63), SILU), (2**31, GELU)])  # fmt: skip
def test_act_type_is_cut_to_32_bits(act_type: int, same: int) -> None:
    x, weights = on_device("fp6", ROWS, 128, "float32", device_of("unknown"))
    given = call("fp6", x, weights, ROWS, 128, act_type)
    assert torch.equal(given, call("fp6", x, weights, ROWS, 128, same))
    assert not torch.equal(given, call("fp6", x, weights, ROWS, 128, 1 - same))


# ---- shapes ----------------------------------------------------------------------------------------------------------


def test_only_the_first_elements_of_the_input_are_read() -> None:
    name, k = "q4_0", 128
    x, weights = on_device(name, ROWS, k, "float32", device_of("unknown"))
    expected_output = call(name, x, weights, ROWS, k)
    longer = torch.cat([x.reshape(-1), torch.full((100,), float("nan"), device=x.device)])
    for given in (longer, longer.reshape(4, 57), x.reshape(2, 64), longer[:k]):
        assert torch.equal(call(name, given, weights, ROWS, k), expected_output)


@pytest.mark.parametrize(
    ("name", "device_class"),
    [
        (name, one)
        for name in WITH_FORWARD
        for one in classes_of(name)
        if name != "iq2_xxs" and (name, one) != ("fp6", "legacy")
    ],
)
def test_rows_that_end_inside_a_block(name: str, device_class: str) -> None:
    """Read as the product with one weight reads them, whatever that means.

    It depends on the rows of a tile, of which fp6 has others here on class legacy.
    """
    k, rows, device = 80, 16, device_of(device_class)
    gate, up = (torch.from_numpy(random_weight(name, rows * k // 64, seed)).to(device) for seed in (1, 2))
    x = to_device(activations_of(160, "float32"), "float32", device)
    given = call(name, x, (gate, up), rows, k)
    # A row of a larger tensor, in which a kernel may read on.
    assert is_expected(given, *sums_of(name, x.reshape(2, k)[:1], (gate, up)), "float32", SILU)


def test_no_elements() -> None:
    x, weights = on_device("q4_0", ROWS, 64, "float32", device_of("unknown"))
    assert vesper_linear.mlp_forward_xpu(x, *weights, 1, 0, ROWS, SILU, code_of("q4_0")).tolist() == [[0.0] * ROWS]
    assert vesper_linear.mlp_forward_xpu(x, *weights, 1, 64, 0, SILU, code_of("q4_0")).shape == (1, 0)
    assert vesper_linear.mlp_forward_xpu(x, *weights, 0, 64, ROWS, SILU, code_of("q4_0")).shape == (0, ROWS)


def test_both_routes() -> None:
    name, k = "fp4", 192
    x, weights = on_device(name, ROWS, k, "float16", device_of("elm"))
    by_torch = torch.ops.quillon.mlp_forward_xpu(x, *weights, 1, k, ROWS, GELU, code_of(name))
    assert torch.equal(by_torch, call(name, x, weights, ROWS, k, GELU))


def test_weights_are_not_touched() -> None:
    for name in NAMES:
        k = 256
        x, weights = on_device(name, ROWS, k, "float32", device_of("elm"))
        call(name, x, weights, ROWS, k)
        assert torch.equal(weights[0].cpu(), torch.from_numpy(weight_of(name, ROWS, k, 1)))
        assert torch.equal(weights[1].cpu(), torch.from_numpy(weight_of(name, ROWS, k, 2)))
