"""Writes docs/api.md, the reference of the public interface, from its docstrings.

python tools/api_reference.py
"""

from __future__ import annotations

import inspect
from pathlib import Path
from typing import Any

import quillon
import vesper_linear
from quillon import calibration, expansion, host_device, parallel, peers, pipeline, slicing

PAGE = Path(__file__).resolve().parents[1] / "docs" / "api.md"
HEAD = "# Reference\n\n`python tools/api_reference.py` writes this page from the docstrings.\n"

_NAMED = {
    "Weights": ("quantize", "dequantize", "dequantize_reference", "from_gguf", "ImportedTensor"),
    "Models": ("quantize_model", "calibrate", "Calibration", "join_projections", "QuillonConfig", "load_gguf"),
}
_SHOWN_ELSEWHERE = {"formats", "nn", *(name for names in _NAMED.values() for name in names)}
GROUPS: tuple[tuple[str, str, tuple[tuple[str, Any], ...]], ...] = (
    *((title, "quillon", tuple((name, getattr(quillon, name)) for name in names)) for title, names in _NAMED.items()),
    (
        "Calibration",
        "quillon.calibration",
        tuple((name, getattr(calibration, name)) for name in calibration.__all__ if name not in _SHOWN_ELSEWHERE),
    ),
    ("Layers", "quillon.nn", tuple((name, getattr(quillon.nn, name)) for name in sorted(quillon.nn.__all__))),
    ("Several processes", "quillon.parallel", tuple((name, getattr(parallel, name)) for name in parallel.__all__)),
    ("Stages", "quillon.pipeline", tuple((name, getattr(pipeline, name)) for name in pipeline.__all__)),
    ("Processes that stop", "quillon.peers", tuple((name, getattr(peers, name)) for name in peers.__all__)),
    ("Parts of weights", "quillon.slicing", tuple((name, getattr(slicing, name)) for name in slicing.__all__)),
    ("Formats", "quillon.formats", tuple((name, getattr(quillon.formats, name)) for name in quillon.formats.__all__)),
    (
        "Tools",
        "quillon",
        tuple((name, getattr(quillon, name)) for name in quillon.__all__ if name not in _SHOWN_ELSEWHERE),
    ),
    ("Device", "quillon.host_device", tuple((name, getattr(host_device, name)) for name in host_device.__all__)),
)


def _signature(name: str, item: Any) -> str:
    try:
        found = inspect.signature(item)
    except (TypeError, ValueError):
        return name
    plain = [one.replace(annotation=inspect.Parameter.empty) for one in found.parameters.values()]
    return name + str(found.replace(parameters=plain, return_annotation=inspect.Signature.empty))


def _entry(module: str, name: str, item: Any) -> list[str]:
    if not callable(item):
        return []
    text = inspect.cleandoc(item.__doc__ or "")
    lines = [f"### {module}.{name}", "", "```text", _signature(name, item), "", text, "```", ""]
    if not inspect.isclass(item):
        return lines
    for method, function in vars(item).items():
        plain = function.__func__ if isinstance(function, classmethod | staticmethod) else function
        if method.startswith("_") or not inspect.isfunction(plain) or not plain.__doc__:
            continue
        shown = _signature(method, getattr(item, method))
        lines += [f"#### {name}.{method}", "", "```text", shown, "", inspect.cleandoc(plain.__doc__), "```", ""]
    return lines


def _of_module(function: Any) -> list[str]:
    return [f"### vesper_linear.{function.__name__}", "", "```text", inspect.cleandoc(function.__doc__), "```", ""]


def page() -> str:
    """The whole page."""
    lines = [HEAD]
    for title, module, items in GROUPS:
        lines += [f"## {title}", ""]
        for name, item in items:
            lines += _entry(module, name, item)
    lines += ["## The raw module", "", "Functions of `vesper_linear`; `torch.ops.quillon` has the same operators.", ""]
    for name in sorted(vars(vesper_linear)):
        if not name.startswith("_"):
            lines += _of_module(getattr(vesper_linear, name))
    lines += [f"Formats that the device expands: {', '.join(expansion.EXPANDED_FORMATS)}.", ""]
    return "\n".join(lines)


if __name__ == "__main__":
    PAGE.write_text(page())
