"""Low-bit large-language-model inference on XPU devices."""

from quillon import host_device

host_device.start()
