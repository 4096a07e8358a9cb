"""Low-bit large-language-model inference on XPU devices.

``import quillon`` registers the operators of ``torch.ops.quillon`` and, on a PyTorch without XPU, brings up the host
device, so that ``torch.device("xpu")`` works everywhere. It touches no device.
"""

from quillon import host_device

host_device.start()

import vesper_linear as _operators  # noqa: E402, F401  (registers torch.ops.quillon; links the layer started above)
from quillon import _build_log, _tracing, formats, nn  # noqa: E402
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
    "ImportedTensor",
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
