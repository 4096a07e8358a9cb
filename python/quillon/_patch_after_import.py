"""Changing a module that takes long to import, and only if somebody imports it."""

from __future__ import annotations

import importlib.abc
import importlib.machinery
import importlib.util
import sys
from collections.abc import Callable
from types import ModuleType
from typing import Any

Patch = Callable[[Any], None]


class _Finder(importlib.abc.MetaPathFinder):
    """Finds one module as everybody does, and calls a function with it as soon as it has run."""

    def __init__(self, name: str, patch: Patch) -> None:
        self.name = name
        self.patch = patch
        self.looking = False

    def find_spec(self, fullname: str, path: Any, target: Any = None) -> importlib.machinery.ModuleSpec | None:
        if fullname != self.name or self.looking:
            return None
        self.looking = True
        try:
            spec = importlib.util.find_spec(fullname)
        finally:
            self.looking = False
        if spec is None or spec.loader is None:
            return None
        execute = spec.loader.exec_module

        def execute_and_patch(module: ModuleType) -> None:
            execute(module)
            # Not before: a mere look-up, or an import that fails, is not the last.
            if self in sys.meta_path:
                sys.meta_path.remove(self)
            self.patch(module)

        spec.loader.exec_module = execute_and_patch  # type: ignore[method-assign]
        return spec


def patch_after_import(name: str, patch: Patch) -> None:
    """Call ``patch`` with a module: now if it is imported, else when it is."""
    if name in sys.modules:
        patch(sys.modules[name])
    else:
        sys.meta_path.insert(0, _Finder(name, patch))
