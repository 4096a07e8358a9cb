"""The C++ format headers, compiled with the host compiler and called through ctypes."""

from __future__ import annotations

import ctypes

import numpy as np
from numpy.typing import NDArray
from shim.build import load_shim

from .decoders import DTYPES, RAW

_U64, _I64, _I32, _F32 = ctypes.c_uint64, ctypes.c_int64, ctypes.c_int, ctypes.c_float
_NAME, _POINTER = ctypes.c_char_p, ctypes.c_void_p


def _pointer(array: NDArray[np.generic]) -> ctypes.c_void_p:
    assert array.flags.c_contiguous
    return ctypes.c_void_p(array.ctypes.data)


class Shim:
    """Typed calls of the shim. Element types are named as in `decoders.DTYPES`."""

    def __init__(self) -> None:
        self._library = load_shim("formats_shim")

    def _call(self, name: str, result: type | None, *arguments: tuple[type, object]) -> object:
        function = self._library[name]
        function.restype = result
        function.argtypes = [kind for kind, _ in arguments]
        return function(*[value for _, value in arguments])

    def decode(
        self, reader: str, weight: NDArray[np.uint8], dtype: str, state_size: int, output_size: int
    ) -> NDArray[np.generic]:
        """Decode a whole weight by a reader's C++ rule; flat raw values."""
        out = np.empty(state_size * output_size, RAW[dtype])
        # A copy at an address of 2 modulo 4: no reader may count on more than the alignment of a half.
        held = np.zeros(weight.size + 8, np.uint8)
        start = (2 - held.ctypes.data) % 4
        held[start : start + weight.size] = weight
        status = self._call(
            "shim_decode",
            _I32,
            (_NAME, reader.encode()),
            (_I32, DTYPES.index(dtype)),
            (_POINTER, held.ctypes.data + start),
            (_U64, state_size),
            (_U64, output_size),
            (_POINTER, _pointer(out)),
        )
        assert status == 0, f"no reader {reader}"
        return out

    def readers(self) -> list[str]:
        count = self._call("shim_reader_count", _I32)
        assert isinstance(count, int)
        names = [self._call("shim_reader_name", _NAME, (_I32, i)) for i in range(count)]
        return [name.decode() for name in names if isinstance(name, bytes)]

    def format(self, qtype: int) -> tuple[str, int, int, int]:
        """Name, storage kind (0 none, 1 records, 2 regions), elements and bytes of a block."""
        name, storage, elements, size = ctypes.c_char_p(), ctypes.c_int(), ctypes.c_int32(), ctypes.c_int64()
        outputs = [(_POINTER, ctypes.addressof(value)) for value in (name, storage, elements, size)]
        self._call("shim_format", None, (_I32, qtype), *outputs)
        assert name.value is not None
        return name.value.decode(), storage.value, elements.value, size.value

    def field_bytes(self, qtype: int, field: str) -> int:
        size = self._call("shim_field_bytes", _I32, (_I32, qtype), (_NAME, field.encode()))
        assert isinstance(size, int)
        return size

    def regions_of(self, qtype: int, state_size: int, output_size: int) -> list[int]:
        return self._regions("shim_regions_of", qtype, state_size, output_size)

    def matvec_regions_of(self, qtype: int, state_size: int, output_size: int) -> list[int]:
        return self._regions("shim_matvec_regions_of", qtype, state_size, output_size)

    def dense_regions_of(self, qtype: int, state_size: int, output_size: int) -> list[int]:
        return self._regions("shim_dense_regions_of", qtype, state_size, output_size)

    def _regions(self, function: str, qtype: int, state_size: int, output_size: int) -> list[int]:
        starts = np.zeros(4, np.int64)
        self._call(
            function,
            None,
            (_I32, qtype),
            (_U64, state_size),
            (_U64, output_size),
            (_POINTER, _pointer(starts)),
        )
        return starts.tolist()

    def offset_rule(self, name: str, state_size: int, output_size: int) -> list[int]:
        starts = np.zeros(4, np.int64)
        status = self._call(
            "shim_offset_rule",
            _I32,
            (_NAME, name.encode()),
            (_U64, state_size),
            (_U64, output_size),
            (_POINTER, _pointer(starts)),
        )
        assert status == 0, f"no offset rule {name}"
        return starts.tolist()

    def table(self, name: str, dtype: type) -> NDArray[np.generic]:
        size = ctypes.c_int64()
        address = self._call("shim_table", _POINTER, (_NAME, name.encode()), (_POINTER, ctypes.addressof(size)))
        assert isinstance(address, int), f"no table {name}"
        return np.frombuffer(ctypes.string_at(address, size.value), dtype)

    def patterns(self, name: str, codes: NDArray[np.uint32]) -> NDArray[np.uint32]:
        codes = np.ascontiguousarray(codes, np.uint32)
        out = np.empty_like(codes)
        status = self._call(
            "shim_patterns",
            _I32,
            (_NAME, name.encode()),
            (_POINTER, _pointer(codes)),
            (_POINTER, _pointer(out)),
            (_I64, codes.size),
        )
        assert status == 0, f"no pattern {name}"
        return out

    def convert(self, x: NDArray[np.generic], source: str, target: str) -> NDArray[np.generic]:
        """Convert raw values of `source`, an element type or int32, to raw values of `target`."""
        x = np.ascontiguousarray(x)
        out = np.empty(x.shape, RAW[target])
        types = (*DTYPES, "int32")
        status = self._call(
            "shim_convert",
            _I32,
            (_I32, types.index(source)),
            (_I32, DTYPES.index(target)),
            (_POINTER, _pointer(x)),
            (_POINTER, _pointer(out)),
            (_I64, x.size),
        )
        assert status == 0
        return out

    def compute(
        self, operation: str, dtype: str, a: NDArray[np.generic], b: NDArray[np.generic]
    ) -> NDArray[np.generic]:
        out = np.empty_like(a)
        status = self._call(
            "shim_compute",
            _I32,
            (ctypes.c_char, operation.encode()),
            (_I32, DTYPES.index(dtype)),
            (_POINTER, _pointer(a)),
            (_POINTER, _pointer(b)),
            (_POINTER, _pointer(out)),
            (_I64, a.size),
        )
        assert status == 0, f"{operation} {dtype}: status {status}"
        return out

    def by_words(self, kind: str, high: NDArray[np.uint8], low: NDArray[np.uint8], dtype: type) -> NDArray[np.generic]:
        """Codes of 16-element groups, word by word, from planes of 4 (high) and 8 (low) bytes a group."""
        groups = high.size // 4
        out = np.empty(16 * groups, dtype)
        self._call(
            f"shim_{kind}_by_words",
            None,
            (_POINTER, _pointer(high)),
            (_POINTER, _pointer(low)),
            (_I64, groups),
            (_POINTER, _pointer(out)),
        )
        return out

    def scale_q8_1(self, absmax: float) -> np.float32:
        scale = self._call("shim_scale_q8_1", _F32, (_F32, absmax))
        assert isinstance(scale, float)
        return np.float32(scale)

    def quants_q8_1(self, x: NDArray[np.generic], dtype: str, absmax: float) -> NDArray[np.int8]:
        out = np.empty(x.size, np.int8)
        status = self._call(
            "shim_quants_q8_1",
            _I32,
            (_I32, DTYPES.index(dtype)),
            (_POINTER, _pointer(x)),
            (_F32, absmax),
            (_POINTER, _pointer(out)),
            (_I64, x.size),
        )
        assert status == 0
        return out

    def round_quotients(
        self, x: NDArray[np.float32], scale: NDArray[np.float32], quotient: NDArray[np.float32]
    ) -> NDArray[np.float32]:
        out = np.empty_like(x)
        arrays = [(_POINTER, _pointer(part)) for part in (x, scale, quotient, out)]
        self._call("shim_round_quotients", None, *arrays, (_I64, x.size))
        return out
