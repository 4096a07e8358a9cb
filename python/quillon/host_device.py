"""The host device: PyTorch's XPU layer on a PyTorch built without XPU, over the SYCL runtime's CPU device.

``import quillon`` brings it up, after which ``torch.device("xpu")``, ``tensor.to("xpu")`` and ``torch.xpu``
work as they do with an XPU. On a PyTorch that has XPU of its own, nothing here does anything.
"""

from __future__ import annotations

import atexit
import ctypes
import functools
import importlib
import os
import platform
import sys
from multiprocessing.reduction import ForkingPickler
from pathlib import Path
from types import ModuleType
from typing import Any

import torch

from quillon import _compile, _sycl_runtime
from quillon._build_facts import TORCH_VERSION
from quillon._patch_after_import import patch_after_import

__all__ = ["cache_folder", "declared_architectures", "is_active"]

_CPU_DRIVER = "libintelocl.so"
_SYCL_RUNTIME = "libsycl.so"
_INSTALL_HINT = "quillon needs the SYCL runtime on a PyTorch without XPU: pip install 'quillon[host]'"

_native: ModuleType | None = None


def is_active() -> bool:
    """Return whether ``xpu`` is the host device in this process, not an XPU that PyTorch itself drives."""
    return _native is not None


def declared_architectures() -> list[int]:
    """Return the 64-bit architecture identifiers that ``QUILLON_HOST_DEVICES`` declares, one per host device.

    The list is empty where the host device is not active.
    """
    return list(_native.declared_architectures()) if _native else []


def as_cpu(tensor: torch.Tensor) -> torch.Tensor:
    """Return the tensor on the CPU: over the same memory where its device is a host device, else a copy."""
    if _native is None or tensor.device.type != "xpu":
        return tensor.cpu()
    torch.xpu.synchronize(tensor.device)
    shown: torch.Tensor = _native.as_cpu_tensor(tensor)
    return shown


def cache_folder() -> Path | None:
    """Return the folder in which the SYCL runtime keeps compiled kernels, or None if it keeps none.

    On the host device the persistent cache is on unless the user switched it off; on an XPU it is the user's
    choice.
    """
    if os.environ.get("SYCL_CACHE_PERSISTENT", "0") == "0":
        return None
    folder = os.environ.get("SYCL_CACHE_DIR")
    return Path(folder) if folder else _users_caches() / "libsycl_cache"


def _users_caches() -> Path:
    return Path(os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache"))


def start() -> None:
    """Bring the host device up, unless PyTorch has XPU or it is up already. Called by ``import quillon``.

    Neither devices nor queues are made before their first use.

    Raises:
        ImportError: the SYCL runtime or its CPU driver is missing, the runtime, PyTorch or the C++ library is another
            than that of the build, or the processor lacks AVX2.
        RuntimeError: PyTorch settled for "no XPU" before, by a backward pass for example.
        ValueError: ``QUILLON_HOST_DEVICES`` is malformed.
    """
    _check_torch_version()
    if _native is None and torch._C._has_xpu:
        return
    _check_processor()
    os.environ.update(_variables_of_the_runtime())
    native = _native or _load_native()
    native.declared_architectures()
    _connect(native)


def load_operators() -> None:
    """Load the extension module, which registers the operators. Called by ``import quillon``, after :func:`start`."""
    try:
        importlib.import_module("vesper_linear")
    except ImportError as error:
        raise _explained(error, _sycl_runtime.find(f"lib/{_SYCL_RUNTIME}")) from error


def start_with_torch() -> None:
    """Bring the host device up at the end of ``import torch``, before anything can ask for XPU.

    Called by ``quillon_autoload``. The environment changes at the first use of the device, if there is one, and
    ``QUILLON_HOST_DEVICES`` is read then or by ``import quillon``. Raises as :func:`start` does.
    """
    _check_torch_version()
    _check_processor()
    variables = _variables_of_the_runtime()
    native = _load_native()
    native.set_environment_at_first_use(list(variables.items()))
    _connect(native)


def _connect(native: ModuleType) -> None:
    """Put the loaded layer into PyTorch's place for XPU, once."""
    global _native
    if _native is not None:
        return
    if not native.hooks_are_active():
        raise RuntimeError(
            "PyTorch was asked for XPU before quillon was imported, by a backward pass for example, and has "
            "settled for having none. Import quillon before the first use of autograd: put `import quillon` "
            "right after `import torch`."
        )
    native.install()
    _connect_torch(native)
    _connect_distributed()
    _connect_processes(native)
    _compile.connect(native)
    patch_after_import("accelerate.utils.modeling", _count_memory_once)
    patch_after_import("transformers.distributed.utils", _name_the_way_between_processes)
    patch_after_import("transformers.generation.continuous_batching.utils", _tell_free_memory)
    atexit.register(native.shut_down)
    _native = native


def _check_torch_version() -> None:
    """Refuse another PyTorch than that of the build: its C++ classes may differ, and nothing else would tell."""
    version = torch.__version__.partition("+")[0]
    if version != TORCH_VERSION:
        raise ImportError(
            f"quillon was built for PyTorch {TORCH_VERSION}, and this is {torch.__version__}: build it again for this "
            "one with pip install --no-build-isolation, or install that one"
        )


def _variables_of_the_runtime() -> dict[str, str]:
    """Return what the SYCL runtime reads when it starts, where the user has not set it."""
    variables = {}
    if "OCL_ICD_FILENAMES" not in os.environ:
        driver = _sycl_runtime.find(f"lib/{_CPU_DRIVER}")
        if driver is None:
            raise ImportError(f"{_CPU_DRIVER} not found: {_INSTALL_HINT}")
        variables["OCL_ICD_FILENAMES"] = str(driver)
    if "SYCL_CACHE_PERSISTENT" not in os.environ:
        variables["SYCL_CACHE_PERSISTENT"] = "1"
        if "SYCL_CACHE_DIR" not in os.environ:
            variables["SYCL_CACHE_DIR"] = str(_users_caches() / "quillon" / "kernels")
    return variables


def _check_processor() -> None:
    """Refuse a processor for which neither the kernels nor the driver have code: it would stop at an instruction."""
    if not torch.cpu._is_avx2_supported():
        raise ImportError(
            f"quillon needs a processor with AVX2, and this one ({platform.processor() or platform.machine()}) does "
            "not say that it has it; in a virtual machine, pass the host's processor on"
        )


def _explained(error: ImportError, runtime: Path | None = None) -> ImportError:
    """The failure to load a library, with what to do about it."""
    text = str(error)
    if any(name in text for name in ("GLIBCXX_", "CXXABI_", "GLIBC_")):
        return ImportError(
            f"the C++ library of this system is older than that of the build ({text}): install a newer libstdc++, or "
            "build quillon on this machine"
        )
    if "libsycl" in text and _native is None and torch._C._has_xpu:
        return ImportError(
            f"quillon was built for another SYCL runtime than that of this PyTorch ({text}): build it again for this "
            "one with pip install --no-build-isolation"
        )
    if runtime is not None and "libsycl" in text:
        return ImportError(
            f"quillon was built for another SYCL runtime than {runtime} ({text}): pip install 'quillon[host]' brings "
            "the one that it needs"
        )
    return error


def _load_native() -> ModuleType:
    try:
        return importlib.import_module("quillon._host_device")
    except ImportError as error:
        if "libsycl" not in str(error):
            raise _explained(error) from error
        # Not where the package's library path points: a virtual environment that sees a system-wide runtime.
        runtime = _sycl_runtime.find(f"lib/{_SYCL_RUNTIME}")
        if runtime is None:
            raise ImportError(f"{_SYCL_RUNTIME} not found: {_INSTALL_HINT}") from error
    try:
        ctypes.CDLL(str(runtime), mode=ctypes.RTLD_GLOBAL)
        return importlib.import_module("quillon._host_device")
    except (ImportError, OSError) as error:
        raise _explained(ImportError(str(error)), runtime) from error


def _stream_base(native: ModuleType) -> type:
    class XpuStreamBase(torch.Stream):
        """What PyTorch's own XPU streams are made of: a generic stream that knows its queue and priority."""

        def __new__(cls, priority: int = 0, **place: int) -> Any:
            if "stream_ptr" in place:
                raise NotImplementedError("Use torch.xpu.get_stream_from_external.")
            if not place:
                stream_id, device_index, device_type = native.stream_from_pool(priority)
                place = {"stream_id": stream_id, "device_index": device_index, "device_type": device_type}
            return super().__new__(cls, **place)

        @property
        def sycl_queue(self) -> int:
            """Address of the sycl::queue."""
            return int(native.stream_queue(self.stream_id, self.device_index))

        @property
        def priority(self) -> int:
            """Priority; lower numbers are more urgent. The host device treats all alike."""
            return int(native.stream_priority(self.stream_id, self.device_index))

        @staticmethod
        def priority_range() -> tuple[int, int]:
            """Return the lowest and the highest priority."""
            lowest, highest = native.stream_priority_range()
            return lowest, highest

    return XpuStreamBase


def _event_base(native: ModuleType) -> type:
    class XpuEventBase(torch.Event):
        """What PyTorch's own XPU events are made of: a generic event that knows its address."""

        def __new__(cls, enable_timing: bool = False) -> Any:
            return super().__new__(cls, device="xpu", enable_timing=enable_timing)

        @property
        def sycl_event(self) -> int:
            """Address of the event, 0 before it is first recorded."""
            return self.event_id or 0

        def elapsed_time(self, end_event: torch.Event) -> float:
            """Return the milliseconds from this event to ``end_event``; both were made with timing on."""
            return float(native.event_elapsed_time(self, end_event))

    return XpuEventBase


def _rebuild_storage(shared: torch.UntypedStorage, index: int) -> torch.UntypedStorage:
    """Make a storage of the device of what another process has sent. Found by name: sending refers to it."""
    assert _native is not None
    storage: torch.UntypedStorage = _native.device_storage(shared, index)
    return storage


def _refuse_storage() -> None:
    """What the receiver gets for a storage that a forked process cannot send."""
    raise RuntimeError(
        "A tensor of an XPU was sent by a process that had been forked after the first use of the device. Cannot "
        "re-initialize XPU in forked subprocess. To use XPU with multiprocessing, you must use the 'spawn' start method"
    )


def _connect_processes(native: ModuleType) -> None:
    """Send tensors to other processes as CPU tensors are sent: through memory that both then share."""
    storage_class: Any = torch.UntypedStorage
    stock_share, stock_is_shared = storage_class.share_memory_, storage_class.is_shared
    stock_reduce: Any = torch.multiprocessing.reductions.reduce_storage

    def shared_memory_of(storage: Any) -> Any:
        shared = native.shared_storage_of(storage)
        if shared is None:
            shared = storage_class._new_shared(storage.nbytes())
            native.move_into(storage, shared)
        return shared

    @functools.wraps(stock_share)
    def share_memory_(self: Any, *args: Any, **kwargs: Any) -> Any:
        if self.device.type != "xpu":
            return stock_share(self, *args, **kwargs)
        shared_memory_of(self)
        return self

    @functools.wraps(stock_is_shared)
    def is_shared(self: Any) -> bool:
        if self.device.type != "xpu":
            return bool(stock_is_shared(self))
        shared = native.shared_storage_of(self)
        return shared is not None and bool(shared.is_shared())

    def reduce_storage(storage: Any) -> Any:
        if storage.device.type != "xpu":
            return stock_reduce(storage)
        if native._xpu_isInBadFork() and native.shared_storage_of(storage) is None:
            # A queue sends from a thread of its own, where an error would be lost, and the receiver wait for ever.
            return _refuse_storage, ()
        return _rebuild_storage, (shared_memory_of(storage), storage.device.index)

    storage_class.share_memory_ = share_memory_
    storage_class.is_shared = is_shared
    ForkingPickler.register(torch.UntypedStorage, reduce_storage)


def _count_memory_once(modeling: Any) -> None:
    """Have accelerate's map of free memory count the machine's once: it lies behind every device and the CPU."""
    stock = modeling.get_max_memory

    @functools.wraps(stock)
    def get_max_memory(max_memory: Any = None) -> Any:
        found = stock(max_memory)
        if max_memory is not None or not is_active():
            return found
        devices = [name for name in found if isinstance(name, int)]
        return {name: found[name] // len(devices) for name in devices}

    for module in list(sys.modules.values()):
        for name in ("get_max_memory", "accelerate_max_memory"):
            if getattr(module, "__dict__", {}).get(name) is stock:
                setattr(module, name, get_max_memory)


def _tell_free_memory(utils: Any) -> None:
    """Have transformers' cache for many users take of the memory that is free, which others on the machine use too."""
    stock = utils.get_device_and_memory_breakdown

    @functools.wraps(stock)
    def get_device_and_memory_breakdown() -> Any:
        device, _, reserved, _ = stock()
        free, total = torch.xpu.mem_get_info(device)
        return device, total, reserved, total - free

    utils.get_device_and_memory_breakdown = get_device_and_memory_breakdown


def _name_the_way_between_processes(utils: Any) -> None:
    """Have transformers start processes with the backend that PyTorch itself takes for the device."""
    utils.DISTRIBUTED_BACKEND_MAP["xpu"] = torch.distributed.get_default_backend_for_device("xpu")


def _attention_of_any_device(query: torch.Tensor, *args: Any, **kwargs: Any) -> torch.Tensor:
    """Scaled-dot-product attention in terms of other operators, without PyTorch's look-up of a kernel for XPU."""
    keys = torch._C.DispatchKey
    key = keys.AutogradXPU if query.device.type == "xpu" else keys.CompositeImplicitAutograd
    operator: Any = torch.ops.aten.scaled_dot_product_attention.default
    result: torch.Tensor = operator._op_dk(key, query, *args, **kwargs)
    return result


def _connect_distributed() -> None:
    """Make Gloo, which the CPU has, the way between processes for tensors of the host device."""
    if not torch.distributed.is_available():
        return
    from torch.distributed import distributed_c10d

    names: Any = distributed_c10d.Backend
    if "xpu" not in names.backend_capability[names.GLOO]:
        names.backend_capability[names.GLOO].append("xpu")
    if not torch.distributed.is_xccl_available():
        names.default_device_backend_map["xpu"] = names.GLOO
    stock_init = distributed_c10d.BackendConfig.__init__

    def init(self: Any, backend: Any) -> None:
        stock_init(self, backend)
        # Collectives of XPU tensors run on the CPU, and there they look for the CPU's backend.
        if self.device_backend_map.get("xpu") == names.GLOO:
            self.device_backend_map.setdefault("cpu", names.GLOO)

    distributed_c10d.BackendConfig.__init__ = init  # type: ignore[method-assign]


def _connect_torch(native: ModuleType) -> None:
    """Give torch._C what a PyTorch built with XPU has there, and torch.xpu the names it looked up before."""
    core: Any = torch._C
    xpu: Any = torch.xpu

    def init() -> None:
        native._xpu_init()
        xpu.default_generators = native.default_generators()
        xpu._get_device_properties = native.get_device_properties

    for name in dir(native):
        if name.startswith(("_xpu_", "_Xpu")):
            setattr(core, name, getattr(native, name))
    core._xpu_init = init
    core._XpuStreamBase = _stream_base(native)
    core._XpuEventBase = _event_base(native)
    core._has_xpu = True

    xpu._XpuDeviceProperties = native._XpuDeviceProperties
    xpu._exchange_device = native._xpu_exchangeDevice
    xpu._maybe_exchange_device = native._xpu_maybeExchangeDevice
    # It would count the GPUs that the machine may have all the same.
    xpu._device_count_zes = lambda: -1
    xpu._is_in_bad_fork = native._xpu_isInBadFork
    xpu.graphs._xpu_isCurrentStreamCapturing = native._xpu_isCurrentStreamCapturing
    # What a FakeTensor asks for if an operator has no kernel for it.
    composite = torch._C.DispatchKey.CompositeImplicitAutograd
    operator: Any = torch.ops.aten.scaled_dot_product_attention.default
    operator.py_impl(composite)(_attention_of_any_device)
    # The bases of its classes have changed.
    importlib.reload(xpu.streams)
    xpu.Stream = xpu.streams.Stream
    xpu.Event = xpu.streams.Event
