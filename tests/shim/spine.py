"""Typed calls of the shim over version rule, device classes, paths and what kernels read."""

from __future__ import annotations

import ctypes

from .build import load_shim

PATHS = ("matrix engine", "legacy", "elm", "default")


class SpineShim:
    """The C++ rules, compiled by the host compiler."""

    def __init__(self) -> None:
        library = load_shim("spine_shim")
        self._matches = library.shim_interpreter_matches
        self._matches.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
        self._message = library.shim_interpreter_message
        self._message.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t]
        self._message.restype = ctypes.c_size_t
        self._classify = library.shim_classify
        self._classify.argtypes = [ctypes.c_uint64]
        self._class_name = library.shim_class_name
        self._class_name.argtypes = [ctypes.c_int]
        self._class_name.restype = ctypes.c_char_p
        self._path = library.shim_path
        self._path.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_uint64, ctypes.c_uint64]
        self._activations = library.shim_activations_read
        self._blocks = library.shim_blocks_read
        for function in (self._activations, self._blocks):
            function.argtypes = [ctypes.c_int, *[ctypes.c_uint64] * 2]
            function.restype = ctypes.c_uint64
        self.qtype_count: int = library.shim_qtype_count()

    def interpreter_matches(self, built_for: str, interpreter: str) -> bool:
        return bool(self._matches(built_for.encode(), interpreter.encode()))

    def interpreter_message(self, built_for: str, interpreter: str) -> str:
        buffer = ctypes.create_string_buffer(1000)
        length = self._message(built_for.encode(), interpreter.encode(), buffer, len(buffer))
        assert length < len(buffer)
        return buffer.value.decode()

    def classify(self, identifier: int) -> int:
        return int(self._classify(identifier))

    def class_name(self, code: int) -> str:
        return str(self._class_name(code).decode())

    def path(self, device_class: int, qtype: int, batch: int, output_size: int) -> str:
        return PATHS[self._path(device_class, qtype, batch, output_size)]

    def read_extent(self, qtype: int, state_size: int, output_size: int) -> tuple[int, int]:
        """Activations and weight blocks that the kernel of one activation row reads up to."""
        arguments = (qtype, state_size, output_size)
        return int(self._activations(*arguments)), int(self._blocks(*arguments))
