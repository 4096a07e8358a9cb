"""What the extension module shows of itself, and how it takes its arguments."""

from __future__ import annotations

import ctypes
import importlib.machinery
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
import torch
from shim.process import output_of
from shim.spine import SpineShim

import vesper_linear
from quillon._device_table import DEVICE_CLASSES

_TENSOR = "torch.Tensor"

# Name, doc string, argument types, result type, in the order of registration.
FUNCTIONS = [
    ("forward_new", "Linear forward (XPU) new format", [_TENSOR] * 2 + ["int"] * 2, _TENSOR),
    ("dequant", "Dequantize weight (XPU)", [_TENSOR] * 2 + ["int"], _TENSOR),
    ("mlp_forward_xpu", "fused mlp", [_TENSOR] * 3 + ["int"] * 5, _TENSOR),
    ("rwkv_linear_attention_v4", "rwkv v4 attention", [_TENSOR] * 7, _TENSOR),
    ("rwkv_linear_attention_v5", "rwkv v5 attention", [_TENSOR] * 6, _TENSOR),
    ("rwkv_time_shift", "rwkv time shift", [_TENSOR] * 3, _TENSOR),
    ("dequantize_rows", "Dequantize rows of weight", [_TENSOR] * 2 + ["int"] * 3, _TENSOR),
    ("get_moe_indexes", "get moe indexes", [_TENSOR, "int"], "list[list[list[int]]]"),
    ("get_xpu_device_name", "get xpu device name", ["torch.device"], "str"),
]
NAMES = [name for name, *_ in FUNCTIONS]


def _signature(name: str, arguments: list[str], result: str) -> str:
    shown = ", ".join(f"arg{i}: {kind}" for i, kind in enumerate(arguments))
    return f"{name}({shown}) -> {result}"


class _ModuleDefinition(ctypes.Structure):
    """PyModuleDef of CPython 3.11 and 3.12 (without reference tracing)."""

    _fields_ = (
        ("reference_count", ctypes.c_ssize_t),
        ("type", ctypes.c_void_p),
        ("init", ctypes.c_void_p),
        ("index", ctypes.c_ssize_t),
        ("copy", ctypes.c_void_p),
        ("name", ctypes.c_char_p),
        ("doc", ctypes.c_char_p),
        ("size", ctypes.c_ssize_t),
        ("methods", ctypes.c_void_p),
        ("slots", ctypes.c_void_p),
    )


def test_nine_functions_in_order_and_nothing_else() -> None:
    assert [name for name in vars(vesper_linear) if not name.startswith("__")] == NAMES


def test_no_doc_string() -> None:
    assert vesper_linear.__doc__ is None
    assert vesper_linear.__name__ == "vesper_linear"


def test_single_phase_without_per_module_state() -> None:
    get_definition = ctypes.pythonapi.PyModule_GetDef
    get_definition.restype = ctypes.POINTER(_ModuleDefinition)
    get_definition.argtypes = [ctypes.py_object]
    definition = get_definition(vesper_linear).contents
    assert definition.name == b"vesper_linear"
    assert definition.doc is None
    assert definition.size == -1
    assert definition.slots is None, "a module with slots is a multi-phase one"


def test_one_exported_entry() -> None:
    nm = shutil.which("nm")
    assert nm, "nm comes with the compiler's binutils"
    listed = subprocess.run(
        [nm, "-D", "--defined-only", str(vesper_linear.__file__)], check=True, capture_output=True, text=True
    ).stdout
    assert [line.split()[-1] for line in listed.splitlines() if " T " in line] == ["PyInit_vesper_linear"]


@pytest.mark.parametrize(("name", "doc", "arguments", "result"), FUNCTIONS, ids=NAMES)
def test_doc_string_and_signature(name: str, doc: str, arguments: list[str], result: str) -> None:
    assert getattr(vesper_linear, name).__doc__ == f"{_signature(name, arguments, result)}\n\n{doc}\n"


def _arguments_of(kinds: list[str]) -> list[object]:
    values: dict[str, object] = {_TENSOR: torch.zeros(1), "int": 1, "torch.device": torch.device("xpu", 0)}
    return [values[kind] for kind in kinds]


@pytest.mark.parametrize(("name", "doc", "arguments", "result"), FUNCTIONS, ids=NAMES)
def test_wrong_arguments_list_the_signature(name: str, doc: str, arguments: list[str], result: str) -> None:
    function = getattr(vesper_linear, name)
    good = _arguments_of(arguments)
    expected = (
        f"{name}(): incompatible function arguments. The following argument types are supported:\n"
        f"    1. ({_signature(name, arguments, result)[len(name) + 1 :]}\n"
    )
    wrong_calls: list[list[object]] = [good[:-1], [*good, 1]]
    wrong_calls += [[*good[:i], "text", *good[i + 1 :]] for i in range(len(good))]
    wrong_calls += [[*good[:i], 1.5, *good[i + 1 :]] for i, kind in enumerate(arguments) if kind == "int"]
    wrong_calls += [[*good[:i], 2**63, *good[i + 1 :]] for i, kind in enumerate(arguments) if kind == "int"]
    for call in wrong_calls:
        with pytest.raises(TypeError) as error:
            function(*call)
        assert str(error.value).startswith(expected)


@pytest.mark.parametrize(("name", "doc", "arguments", "result"), FUNCTIONS, ids=NAMES)
def test_arguments_are_positional_only(name: str, doc: str, arguments: list[str], result: str) -> None:
    function = getattr(vesper_linear, name)
    good = _arguments_of(arguments)
    with pytest.raises(TypeError, match="incompatible function arguments"):
        function(*good[:-1], **{f"arg{len(good) - 1}": good[-1]})


def test_device_class_of_a_device() -> None:
    names = [vesper_linear.get_xpu_device_name(torch.device("xpu", i)) for i in range(8)]
    assert names == list(DEVICE_CLASSES)


def test_device_class_reads_the_index_alone() -> None:
    assert vesper_linear.get_xpu_device_name(torch.device("cpu", 6)) == "legacy"
    with torch.xpu.device(2):
        assert vesper_linear.get_xpu_device_name(torch.device("xpu")) == "ash"
        assert vesper_linear.get_xpu_device_name(torch.device("cpu")) == "ash"


def test_device_class_of_a_device_that_does_not_exist() -> None:
    with pytest.raises(RuntimeError, match="99"):
        vesper_linear.get_xpu_device_name(torch.device("xpu", 99))


VERSIONS = [
    ("3.9", "3.9.7 (default, Sep 16 2021, 13:09:58) [GCC 7.5.0]", True),
    ("3.9", "3.9", True),
    ("3.9", "3.9+", True),
    ("3.9", "3.9.0rc1", True),
    ("3.9", "3.90", False),
    ("3.9", "3.90.1 (main)", False),
    ("3.9", "3.10.4 (main)", False),
    ("3.9", "3.8.12 (main)", False),
    ("3.9", "13.9.1", False),
    ("3.9", "3.", False),
    ("3.9", "", False),
    ("3.11", "3.11.7 (main, Jan 1 2024)", True),
    ("3.11", "3.1", False),
    ("3.11", "3.1.1", False),
    ("3.11", "3.110.1", False),
    ("3.1", "3.11.7 (main)", False),
]


@pytest.mark.parametrize(("built_for", "interpreter", "accepted"), VERSIONS)
def test_version_rule(spine: SpineShim, built_for: str, interpreter: str, accepted: bool) -> None:
    assert spine.interpreter_matches(built_for, interpreter) is accepted


def test_version_message(spine: SpineShim) -> None:
    assert spine.interpreter_message("3.9", "3.10.4 (main)") == (
        "Python version mismatch: module was compiled for Python 3.9, "
        "but the interpreter version is incompatible: 3.10.4 (main)."
    )


def test_import_under_another_version(tmp_path: Path) -> None:
    """A copy of the module whose built-for text names another version is refused by this interpreter."""
    here = f"{sys.version_info.major}.{sys.version_info.minor}"
    other = {"3.11": "3.10", "3.12": "3.10", "3.13": "3.10"}[here]
    content = Path(str(vesper_linear.__file__)).read_bytes()
    assert content.count(b"\0" + here.encode() + b"\0") == 1
    suffix = importlib.machinery.EXTENSION_SUFFIXES[0]
    copy = tmp_path / f"vesper_linear{suffix}"
    copy.write_bytes(content.replace(b"\0" + here.encode() + b"\0", b"\0" + other.encode() + b"\0"))
    text = """
        import sys
        sys.path.insert(0, sys.argv[1])
        try:
            import quillon
        except ImportError as error:
            assert str(error) == (
                f"Python version mismatch: module was compiled for Python {sys.argv[2]}, "
                f"but the interpreter version is incompatible: {sys.version}."), error
            assert "vesper_linear" not in sys.modules
            print("refused")
    """
    assert output_of(text, str(tmp_path), other) == "refused\n"


@pytest.mark.parametrize("first", ["", "import torch"])
def test_module_alone_names_the_package(first: str) -> None:
    """On a PyTorch without XPU the package starts the host device, without which nothing here can run."""
    text = f"""
        {first}
        import sys
        try:
            import vesper_linear
        except ImportError as error:
            print(error)
        assert "vesper_linear" not in sys.modules
        import quillon, vesper_linear
        print(len([name for name in vars(vesper_linear) if not name.startswith("__")]))
    """
    assert output_of(text, TORCH_DEVICE_BACKEND_AUTOLOAD="0") == (
        "vesper_linear needs an XPU layer and this PyTorch has none: put `import quillon`, which brings up the host "
        "device, before `import vesper_linear`\n9\n"
    )
