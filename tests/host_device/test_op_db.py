"""PyTorch's own operator samples on ``xpu:1`` against the CPU: values, strides, types, devices, gradients."""

from __future__ import annotations

import itertools
import warnings
from collections.abc import Iterator
from typing import Any

import pytest
import torch
from torch.testing._internal.common_methods_invocations import op_db

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")
SAMPLES_PER_OPERATOR = 2

# Operator variants that cannot pass, with a part of the text that says why.
EXCEPTIONS = {
    # A sparse tensor goes in or comes out, and those the host device refuses.
    "sparse.sampled_addmm": "sparse tensors are not supported on quillon's host device",
    "sparse.mm.reduce": "sparse tensors are not supported on quillon's host device",
    "to_sparse": "sparse tensor, which quillon's host device does not support",
    # Source text of a CUDA kernel is the argument.
    "jiterator_unary": "Jiterator is only supported on CUDA",
    "jiterator_binary": "Jiterator is only supported on CUDA",
    "jiterator_4inputs_with_extra_args": "Jiterator is only supported on CUDA",
    "jiterator_binary_return_by_ref": "Jiterator is only supported on CUDA",
    "jiterator_2inputs_2outputs": "Jiterator is only supported on CUDA",
    # PyTorch has these for CUDA alone and so names no element type to sample on the CPU.
    "torch.ops.aten._flash_attention_forward": "no element type",
    "torch.ops.aten._efficient_attention_forward": "no element type",
    "nn.functional.batch_norm.without_cudnn": "no element type",
}

# They make a tensor from nothing, and on the CPU unless told otherwise.
FACTORIES = {
    "arange",
    "empty",
    "empty_permuted",
    "empty_strided",
    "eye",
    "full",
    "linspace",
    "linspace.tensor_overload",
    "logspace",
    "logspace.tensor_overload",
    "normal.number_mean",
    "ones",
    "randint",
    "randn",
    "scalar_tensor",
    "tril_indices",
    "triu_indices",
    "zeros",
}
# Their values are whatever was in memory.
UNINITIALIZED = {"empty", "empty_like", "empty_permuted", "empty_strided", "new_empty", "new_empty_strided"}
# They take an argument that PyTorch wants on the CPU, whatever the device.
CPU_ARGUMENTS = {"tensor_split"}


def name_of(op: Any) -> str:
    return f"{op.name}.{op.variant_test_name}" if op.variant_test_name else op.name


def to_device(value: Any) -> Any:
    """Copy tensors to the device as they are, with storage offset, strides, lazy conjugation and negation."""
    if isinstance(value, torch.Tensor):
        if value.layout is not torch.strided:
            return value.to(DEVICE)
        if value.is_conj():
            return to_device(value.conj()).conj()
        if value.is_neg():
            return to_device(value._neg_view())._neg_view()
        storage = torch.UntypedStorage(value.untyped_storage().nbytes(), device=DEVICE)
        storage.copy_(value.untyped_storage())
        moved = torch.empty(0, dtype=value.dtype, device=DEVICE)
        moved.set_(storage, value.storage_offset(), value.size(), value.stride())
        return moved.requires_grad_(value.requires_grad)
    if isinstance(value, torch.device) or (isinstance(value, str) and value == "cpu"):
        return DEVICE
    if isinstance(value, tuple) and hasattr(value, "_fields"):
        return type(value)(*map(to_device, value))
    if isinstance(value, (list, tuple)):
        return type(value)(map(to_device, value))
    if isinstance(value, dict):
        return {key: to_device(item) for key, item in value.items()}
    return value


def tensors_in(value: Any) -> Iterator[torch.Tensor]:
    if isinstance(value, torch.Tensor):
        yield value
    elif isinstance(value, (list, tuple)):
        for item in value:
            yield from tensors_in(item)
    elif isinstance(value, dict):
        for item in value.values():
            yield from tensors_in(item)


def arguments_on_device(op: Any, sample: Any) -> tuple[Any, Any, Any]:
    if name_of(op) in CPU_ARGUMENTS:
        return to_device(sample.input), sample.args, sample.kwargs
    return to_device(sample.input), to_device(sample.args), to_device(sample.kwargs)


def compare(name: str, got: torch.Tensor, expected: torch.Tensor) -> None:
    assert got.device == DEVICE, f"result on {got.device}"
    assert got.dtype == expected.dtype
    assert got.shape == expected.shape
    assert got.layout == expected.layout
    assert got.stride() == expected.stride(), f"strides {got.stride()}, on the CPU {expected.stride()}"
    if name not in UNINITIALIZED:
        # The same kernels on the same bytes, but vector loops depend on alignment: PyTorch's default bounds.
        torch.testing.assert_close(got.detach().cpu(), expected.detach(), equal_nan=True)


def check_sample(op: Any, sample: Any) -> None:
    name = name_of(op)
    device_input, device_args, device_kwargs = arguments_on_device(op, sample)
    is_factory = name in FACTORIES or name.startswith("signal.windows.")
    if is_factory and not any(True for _ in tensors_in((sample.input, sample.args))):
        device_kwargs["device"] = DEVICE
    torch.manual_seed(1)
    got = op(device_input, *device_args, **device_kwargs)
    torch.manual_seed(1)
    expected = op(sample.input, *sample.args, **sample.kwargs)
    got_tensors, expected_tensors = list(tensors_in(got)), list(tensors_in(expected))
    assert len(got_tensors) == len(expected_tensors)
    for got_tensor, expected_tensor in zip(got_tensors, expected_tensors, strict=True):
        compare(name, got_tensor, expected_tensor)
    if not expected_tensors:
        assert got == expected or (got != got and expected != expected)


def check_gradients(op: Any, sample: Any) -> bool:
    """Compare the gradients of one sample; return whether it had any."""
    inputs = [t for t in tensors_in((sample.input, sample.args, sample.kwargs)) if t.requires_grad]
    if not inputs:
        return False
    arguments, moved = (sample.input, sample.args, sample.kwargs), arguments_on_device(op, sample)
    moved_inputs = [t for t in tensors_in(moved) if t.requires_grad]
    gradients = []
    for (first, args, kwargs), leaves in ((arguments, inputs), (moved, moved_inputs)):
        torch.manual_seed(1)
        result = op(first, *args, **kwargs)
        if sample.output_process_fn_grad is not None:
            result = sample.output_process_fn_grad(result)
        outputs = [t for t in tensors_in(result) if t.requires_grad]
        if not outputs:
            return False
        gradients.append(torch.autograd.grad(outputs, leaves, [torch.ones_like(t) for t in outputs], allow_unused=True))
    for expected, got in zip(*gradients, strict=True):
        assert (got is None) == (expected is None)
        if expected is not None and got is not None:
            assert got.device == DEVICE
            torch.testing.assert_close(got.cpu(), expected, equal_nan=True)
    return True


def element_type(op: Any) -> torch.dtype:
    assert op.dtypes, "no element type"
    return torch.float32 if torch.float32 in op.dtypes else min(op.dtypes, key=str)


def check_operator(op: Any) -> None:
    samples = 0
    torch.manual_seed(0)
    for sample in op.sample_inputs("cpu", element_type(op)):
        check_sample(op, sample)
        samples += 1
        if samples == SAMPLES_PER_OPERATOR:
            break
    assert samples > 0, "no samples"


def failure_of(check: Any, op: Any) -> str | None:
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            check(op)
    except Exception as error:  # whatever an operator can throw is a finding
        return f"{type(error).__name__}: {error}"
    return None


@pytest.fixture(scope="module")
def outcomes() -> dict[str, str | None]:
    """Failure text, or None, of every operator variant."""
    return {name_of(op): failure_of(check_operator, op) for op in op_db}


def test_variants_agree_with_the_cpu(outcomes: dict[str, str | None]) -> None:
    failures = {name: text for name, text in outcomes.items() if text is not None and name not in EXCEPTIONS}
    assert not failures, "\n".join(f"{name}: {text}" for name, text in failures.items())


def test_at_least_690_variants_pass(outcomes: dict[str, str | None]) -> None:
    passed = sum(text is None for text in outcomes.values())
    print(f"{passed} of {len(outcomes)} operator variants agree with the CPU")
    assert passed >= 690


@pytest.mark.parametrize("name", EXCEPTIONS)
def test_exception_fails_for_its_reason(outcomes: dict[str, str | None], name: str) -> None:
    text = outcomes[name]
    assert text is not None, "passes now: take it off the list"
    assert EXCEPTIONS[name] in text


def check_operator_gradients(op: Any) -> None:
    torch.manual_seed(0)
    for tried, sample in enumerate(op.sample_inputs("cpu", torch.float32, requires_grad=True)):
        if check_gradients(op, sample) or tried == SAMPLES_PER_OPERATOR:
            return


def test_gradients_agree_with_the_cpu() -> None:
    excluded = EXCEPTIONS.keys() | FACTORIES
    candidates = [
        op for op in op_db if op.supports_autograd and torch.float32 in op.dtypes and name_of(op) not in excluded
    ]
    failures = {name_of(op): text for op in candidates if (text := failure_of(check_operator_gradients, op))}
    assert not failures, "\n".join(f"{name}: {text}" for name, text in failures.items())
    assert len(candidates) > 400


def check_out_argument(op: Any, sample: Any) -> int:
    """Compare what one sample writes into tensors of the right size and into empty ones; return how many tensors."""
    name = name_of(op)
    expected = op(sample.input, *sample.args, **sample.kwargs)
    several = isinstance(expected, tuple)
    if not (isinstance(expected, torch.Tensor) or (several and all(isinstance(t, torch.Tensor) for t in expected))):
        return 0
    host_out = tuple(map(torch.empty_like, expected)) if several else torch.empty_like(expected)
    torch.manual_seed(1)
    try:
        op(sample.input, *sample.args, **sample.kwargs, out=host_out)
    except (RuntimeError, TypeError):  # the CPU does not write this sample's results
        return 0
    device_input, device_args, device_kwargs = arguments_on_device(op, sample)
    if "device" in device_kwargs:
        device_kwargs["device"] = DEVICE
    for size in (None, 0):
        made = [
            torch.empty(t.shape if size is None else size, dtype=t.dtype, device=DEVICE) for t in tensors_in(expected)
        ]
        torch.manual_seed(1)
        with torch.no_grad():
            op(device_input, *device_args, **device_kwargs, out=tuple(made) if several else made[0])
        for got_tensor, expected_tensor in zip(made, tensors_in(host_out), strict=True):
            if name not in UNINITIALIZED:
                torch.testing.assert_close(got_tensor.cpu(), expected_tensor, equal_nan=True)
    return len(made)


def test_out_arguments_agree_with_the_cpu() -> None:
    failures: dict[str, str] = {}
    several = 0
    for op in op_db:
        if not op.supports_out or name_of(op) in EXCEPTIONS:
            continue
        torch.manual_seed(0)
        for sample in itertools.islice(op.sample_inputs("cpu", element_type(op)), 2):
            try:
                with warnings.catch_warnings():
                    warnings.simplefilter("ignore")
                    several += check_out_argument(op, sample) > 1
            except Exception as error:
                failures[name_of(op)] = f"{type(error).__name__}: {error}"
    assert not failures, "\n".join(f"{name}: {text}" for name, text in failures.items())
    assert several >= 60
