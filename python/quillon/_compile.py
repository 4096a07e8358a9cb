"""torch.compile's default backend on the host device.

Inductor generates code for CPUs and for GPUs. The memory of a host device is the CPU's, so each graph is handed to
Inductor as a graph of CPU tensors: its inputs become CPU tensors over the same memory when it is called, its results
tensors of the device when it returns. Operators for which the CPU has no kernel stay calls, and run on the device.
"""

from __future__ import annotations

import functools
import sys
from collections.abc import Sequence
from typing import Any

import torch
from torch.fx import GraphModule
from torch.fx.node import map_aggregate

from quillon._patch_after_import import patch_after_import


def connect(native: Any) -> None:
    """Let torch.compile serve the host device. Called once, when the device comes up."""
    patch_after_import("torch._inductor.compile_fx", functools.partial(_patch_compiler, native))
    if "torch._dynamo.device_interface" in sys.modules:
        _refresh_interface(sys.modules["torch._dynamo.device_interface"].XpuInterface)


def _refresh_interface(interface: Any) -> None:
    """Replace what the dynamo looked up in torch.xpu before the device was there."""
    interface.Event = torch.xpu.Event
    interface.Stream = torch.xpu.Stream
    for name, function in (
        ("get_raw_stream", torch._C._xpu_getCurrentRawStream),
        ("exchange_device", torch.xpu._exchange_device),
        ("maybe_exchange_device", torch.xpu._maybe_exchange_device),
    ):
        setattr(interface, name, staticmethod(function))


def _patch_compiler(native: Any, module: Any) -> None:
    stock = module._compile_fx_inner

    @functools.wraps(stock)
    def compile_graph(graph: GraphModule, example_inputs: Sequence[Any], *args: Any, **kwargs: Any) -> Any:
        devices = _devices(graph, example_inputs)
        if not devices or not any(node.op.startswith("call") for node in graph.graph.nodes):
            return stock(graph, example_inputs, *args, **kwargs)
        if len(devices) > 1:
            names = ", ".join(sorted(map(str, devices)))
            raise RuntimeError(
                f"torch.compile: this graph has tensors on {names}; the default backend compiles graphs of one host "
                'device. Compile the parts, or use backend="aot_eager".'
            )
        (device,) = devices
        on_device = [
            isinstance(value, torch.Tensor) and value.device.type == "xpu" for value in map(_value, _outputs(graph))
        ]
        random, small = _draws_random_numbers(graph), _is_small(native, graph)
        _move_to_cpu(native, graph)
        with torch._inductor.config.patch({"cpp.min_chunk_size": native.small_call_elements // 2}):
            compiled = stock(graph, [_as_cpu(example) for example in example_inputs], *args, **kwargs)
        function = compiled.current_callable

        def call(inputs: list[Any]) -> list[Any]:
            results: list[Any] = native.call_on_cpu(function, inputs, device.index, on_device, random, small)
            return results

        compiled.current_callable = call
        # AOTAutograd would keep the graph without this call around it.
        compiled._fx_graph_cache_key = None
        return compiled

    module._compile_fx_inner = compile_graph


def _value(node: Any) -> Any:
    return node.meta.get("val") if isinstance(node, torch.fx.Node) else None


def _outputs(graph: GraphModule) -> Sequence[Any]:
    (results,) = graph.graph.output_node().args
    assert isinstance(results, (list, tuple))
    return results


def _graphs(graph: GraphModule) -> list[GraphModule]:
    """Return the graph and those that its higher-order operators call."""
    return [module for module in graph.modules() if isinstance(module, GraphModule)]


def _devices(graph: GraphModule, example_inputs: Sequence[Any]) -> set[torch.device]:
    found: set[torch.device] = set()

    def look(value: Any) -> Any:
        device = value.device if isinstance(value, torch.Tensor) else value
        if isinstance(device, torch.device) and device.type == "xpu":
            found.add(torch.device("xpu", torch.xpu.current_device()) if device.index is None else device)
        return value

    for example in example_inputs:
        look(example)
    for one in _graphs(graph):
        for node in one.graph.nodes:
            map_aggregate((node.args, node.kwargs, node.meta.get("val")), look)
    return found


def _draws_random_numbers(graph: GraphModule) -> bool:
    for one in _graphs(graph):
        for node in one.graph.nodes:
            if isinstance(node.target, torch._ops.OpOverload) and (
                torch.Tag.nondeterministic_seeded in node.target.tags or "inductor_seed" in node.target._schema.name
            ):
                return True
    return False


def _is_small(native: Any, graph: GraphModule) -> bool:
    """Return whether what the CPU does for a graph is done best by one thread, as the fallback does small operators."""

    def elements(value: Any) -> int:
        count = value.numel() if isinstance(value, torch.Tensor) else 0
        return count if isinstance(count, int) else sys.maxsize  # unknown until the call

    for one in _graphs(graph):
        for node in one.graph.nodes:
            if node.op != "call_function" or not isinstance(node.target, torch._ops.OpOverload):
                continue
            values = [node.meta.get("val")]
            if native.work_grows_faster_than_data(node.target._schema.name):
                values += [argument.meta.get("val") for argument in node.all_input_nodes]
            if any(elements(value) > native.small_call_elements for value in values):
                return False
    return True


def _moved(value: Any, target: torch.device, source: str) -> Any:
    """Return what a graph is described with, fake tensors and devices, for another type of device."""
    if isinstance(value, torch.device):
        return target if value.type == source else value
    if not isinstance(value, torch.Tensor) or value.device.type != source:
        return value
    with value.fake_mode if isinstance(value, torch._subclasses.FakeTensor) else torch.no_grad():
        elements = value.untyped_storage().nbytes() // value.element_size()
        whole = torch.empty(elements, dtype=value.dtype, device=target)
        return whole.as_strided(value.size(), value.stride(), value.storage_offset())


_as_cpu = functools.partial(_moved, target=torch.device("cpu"), source="xpu")
_as_xpu = functools.partial(_moved, target=torch.device("xpu"), source="cpu")


def _move_to_cpu(native: Any, graph: GraphModule) -> None:
    def move(value: Any) -> Any:
        return _cpu_form(native, value) if isinstance(value, torch._ops.OpOverload) else _as_cpu(value)

    for one in _graphs(graph):
        for node in one.graph.nodes:
            node.args, node.kwargs = map_aggregate((node.args, node.kwargs), move)
            node.target = move(node.target)
            for key in ("val", "example_value"):
                if key in node.meta:
                    node.meta[key] = map_aggregate(node.meta[key], _as_cpu)
            if node.op == "get_attr":
                constant = getattr(one, str(node.target), None)
                if isinstance(constant, torch.Tensor) and constant.device.type == "xpu":
                    setattr(one, str(node.target), native.as_cpu_tensor(constant.detach()))
        one.recompile()


def _full_name(operator: Any) -> str:
    return str(operator.name())


@functools.cache
def _cpu_form(native: Any, operator: torch._ops.OpOverload) -> torch._ops.OpOverload:
    """Return the operator or, where the CPU has no kernel for it, its twin, which takes CPU tensors to the device."""
    has_kernel = functools.partial(torch._C._dispatch_has_kernel_for_dispatch_key, _full_name(operator))
    name = operator._schema.name
    if not has_kernel("XPU") or (
        name not in native.operators_beyond_the_cpu()
        and any(map(has_kernel, ("CPU", "CompositeExplicitAutograd", "CompositeImplicitAutograd")))
    ):
        return operator
    twin: torch._ops.OpOverload = getattr(
        torch.ops.quillon_host_device, native.define_twin(name, operator._schema.overload_name)
    ).default

    def describe(*args: Any, **kwargs: Any) -> Any:
        moved_args, moved_kwargs = map_aggregate((args, kwargs), _as_xpu)
        return map_aggregate(operator(*moved_args, **moved_kwargs), _as_cpu)

    torch.library.register_fake(twin, describe)
    return twin
