"""Low-bit large-language-model inference on XPU devices."""

from quillon import host_device as _host_device_startup

_host_device_startup.start()
