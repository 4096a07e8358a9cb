"""Low-bit large-language-model inference on XPU devices."""
