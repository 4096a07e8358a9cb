"""Low-bit large-language-model inference on XPU devices.

``import quillon`` registers the operators of ``torch.ops.quillon`` and, on a PyTorch without XPU, brings up the host
device, so that ``torch.device("xpu")`` works everywhere. It touches no device.
"""

import contextlib
import importlib.metadata
from typing import TYPE_CHECKING, Any

from quillon import host_device

if TYPE_CHECKING:
    __version__: str
    from quillon.gguf_model import load_gguf as load_gguf
    from quillon.transformers import QuillonConfig as QuillonConfig

host_device.start()
host_device.load_operators()  # they link the layer started above

from quillon import _build_log, _tracing, formats, nn  # noqa: E402
from quillon._patch_after_import import patch_after_import  # noqa: E402
from quillon.calibration import Calibration, calibrate  # noqa: E402
from quillon.expansion import dequantize  # noqa: E402
from quillon.gguf_import import ImportedTensor, from_gguf  # noqa: E402
from quillon.joined import join_projections  # noqa: E402
from quillon.launches import record_launches  # noqa: E402
from quillon.nn import quantize_model  # noqa: E402
from quillon.quantizers import quantize  # noqa: E402
from quillon.reference import dequantize_reference  # noqa: E402

_build_log.install()
_tracing.register()

__all__ = [
    "Calibration",
    "ImportedTensor",
    "calibrate",
    "dequantize",
    "dequantize_reference",
    "formats",
    "from_gguf",
    "join_projections",
    "nn",
    "quantize",
    "quantize_model",
    "record_launches",
]


_NEED_TRANSFORMERS = {"QuillonConfig": "quillon.transformers", "load_gguf": "quillon.gguf_model"}


def __getattr__(name: str) -> Any:
    """Import what needs transformers, and look up the version, when it is first asked for."""
    if name == "__version__":
        return importlib.metadata.version("quillon")
    if name not in _NEED_TRANSFORMERS:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    try:
        module = importlib.import_module(_NEED_TRANSFORMERS[name])
    except ImportError as missing:
        raise ImportError(
            f"quillon.{name} needs transformers 5.23 or later ({missing}): pip install 'quillon[transformers]'"
        ) from missing
    return getattr(module, name)


def _register_quantizer(_: Any) -> None:
    with contextlib.suppress(ImportError):  # an older transformers, or one that lacks what it needs
        importlib.import_module("quillon.transformers")


# The module that loads models: whoever does finds the quantizer, and nobody else waits for transformers.
patch_after_import("transformers.modeling_utils", _register_quantizer)
