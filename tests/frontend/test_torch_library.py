"""The torch operator library."""

from __future__ import annotations

import pytest
import torch

import vesper_linear

SCHEMAS = [
    "forward_new(Tensor input, Tensor weight, int qtype, int input_size) -> Tensor",
    "dequant(Tensor input, Tensor weight, int qtype) -> Tensor",
    "mlp_forward_xpu(Tensor input, Tensor weight1, Tensor weight2, int batch_size, int state_size, "
    "int output_size, int act_type, int qtype) -> Tensor",
    "rwkv_linear_attention_v4(Tensor time_decay, Tensor time_first, Tensor key, Tensor value, "
    "Tensor num_state, Tensor den_state, Tensor max_state) -> Tensor",
    "rwkv_linear_attention_v5(Tensor time_decay, Tensor time_first, Tensor receptance, Tensor key, "
    "Tensor value, Tensor state) -> Tensor",
    "rwkv_time_shift(Tensor hidden, Tensor shifted, Tensor mix) -> Tensor",
    "dequantize_rows(Tensor input, Tensor weight, int qtype, int state_size, int output_size) -> Tensor",
]
NAMES = [schema.split("(")[0] for schema in SCHEMAS]


def _registrations(name: str) -> list[str]:
    """The lines of the dispatcher's own list that name a dispatch key."""
    dump = torch._C._dispatch_dump(f"quillon::{name}")
    return [line for line in dump.splitlines() if " :: " in line]


def test_exactly_seven_operators() -> None:
    names = [name for name in torch._C._dispatch_get_all_op_names() if name.startswith("quillon::")]
    assert sorted(names) == sorted(f"quillon::{name}" for name in NAMES)


@pytest.mark.parametrize("schema", SCHEMAS, ids=NAMES)
def test_schema(schema: str) -> None:
    operator = getattr(torch.ops.quillon, schema.split("(")[0])
    assert operator.overloads() == ["default"]
    assert str(operator.default._schema) == f"quillon::{schema}"
    assert operator.default.tags == []


@pytest.mark.parametrize("name", NAMES)
def test_xpu_is_the_only_key(name: str) -> None:
    registrations = _registrations(name)
    assert len(registrations) == 1
    assert registrations[0].startswith("XPU: ")
    assert "[ boxed unboxed ]" in registrations[0]
    # Neither a derivative nor a default that would stand for other keys.
    for key in ("CPU", "CUDA", "AutogradXPU", "Autograd", "CompositeImplicitAutograd"):
        assert not torch._C._dispatch_has_kernel_for_dispatch_key(f"quillon::{name}", key)


def test_module_only_functions() -> None:
    for name in ("get_moe_indexes", "get_xpu_device_name"):
        assert hasattr(vesper_linear, name)
        assert not hasattr(torch.ops.quillon, name)


@pytest.mark.parametrize("name", NAMES)
def test_cpu_tensors_are_rejected_by_the_dispatcher(name: str) -> None:
    operator = getattr(torch.ops.quillon, name)
    arguments = [torch.zeros(1) if str(a.type) == "Tensor" else 1 for a in operator.default._schema.arguments]
    with pytest.raises(NotImplementedError, match=f"Could not run 'quillon::{name}'.*'CPU' backend"):
        operator(*arguments)
