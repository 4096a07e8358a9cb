"""Tells the user of kernels that are compiled at their first use, through Python's logging."""

from __future__ import annotations

import logging

import vesper_linear

_logger = logging.getLogger("quillon.kernels")

# Waits below this, added up over a process, go by without a word at the default log level.
_LONG_SECONDS = 5.0

_total = 0.0
_told = False


def _kernel_built(kernel: str, seconds: float) -> None:
    """Log a build at level INFO and, once in a process, explain what takes the time when builds have taken long."""
    global _total, _told
    _total += seconds
    _logger.info("built %s in %.2f s", kernel, seconds)
    if _total >= _LONG_SECONDS and not _told:
        _told = True
        _logger.warning(
            "compiling kernels for this device at their first use has taken %.0f s so far; each is built once, and "
            "with the SYCL runtime's persistent cache later processes find it ready",
            _total,
        )


def install() -> None:
    """Have the extension module report its builds from now on."""
    vars(vesper_linear)["__kernel_built__"] = _kernel_built
