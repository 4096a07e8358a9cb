"""The host device in every program that imports PyTorch, before any of it can ask for XPU.

PyTorch calls :func:`start` at the end of ``import torch``, by the entry point ``torch.backends``. It remembers for the
life of a process whether there is an XPU layer, and libraries remember what it says, so a later ``import quillon`` may
come too late. Nothing here may make ``import torch`` fail, or print: what goes wrong is left to ``import quillon``,
which tries again and says why. Operators come with ``import quillon`` alone, and no device is touched before its first
use. ``TORCH_DEVICE_BACKEND_AUTOLOAD=0`` switches it off.
"""

import contextlib
import importlib.util
import sys
import types


def start() -> None:
    """Bring the host device up, unless there is reason not to."""
    with contextlib.suppress(Exception):
        _start()


def _start() -> None:
    torch = sys.modules["torch"]
    if torch._C._has_xpu or torch.version.cuda or torch.version.hip:
        return  # PyTorch allows one accelerator in a process
    if "quillon" in sys.modules:
        return  # it is what imports PyTorch, and starts the device next
    spec = importlib.util.find_spec("quillon")
    if spec is None:
        return
    # The package without what its own import brings: operators, layers, quantizers.
    package = types.ModuleType("quillon")
    package.__path__ = list(spec.submodule_search_locations or ())
    sys.modules["quillon"] = package
    try:
        from quillon import host_device

        host_device.start_with_torch()
    finally:
        del sys.modules["quillon"]
