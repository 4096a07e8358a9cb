"""What the tools say about the code: formatted, ruff and mypy are clean, and the stubs match the module."""

from __future__ import annotations

import ast
import subprocess
import sys
from pathlib import Path

import vesper_linear

ROOT = Path(__file__).resolve().parents[2]


def run(*command: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-m", *command], cwd=ROOT, capture_output=True, text=True, check=False)


def test_ruff_is_clean() -> None:
    found = run("ruff", "check", ".")
    assert found.returncode == 0, found.stdout + found.stderr


def test_python_is_formatted() -> None:
    found = run("ruff", "format", "--check", ".")
    assert found.returncode == 0, found.stdout + found.stderr


def test_cpp_is_formatted() -> None:
    listed = subprocess.run(["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, capture_output=True, text=True, check=True)
    files = [name for name in listed.stdout.split() if not name.endswith("_grid.h")]  # tables in columns of their own
    assert len(files) > 50
    found = subprocess.run(
        ["clang-format", "--dry-run", "-Werror", *files], cwd=ROOT, capture_output=True, text=True, check=False
    )
    assert found.returncode == 0, found.stderr


def test_mypy_is_clean() -> None:
    found = run("mypy")
    assert found.returncode == 0, found.stdout + found.stderr


def test_stubs_name_every_function_with_its_arguments() -> None:
    stubs = ast.parse((ROOT / "python/vesper_linear-stubs/__init__.pyi").read_text())
    stubbed = {node.name: node for node in stubs.body if isinstance(node, ast.FunctionDef)}
    functions = {name for name in vars(vesper_linear) if not name.startswith("_")}
    assert set(stubbed) == functions
    for name, node in stubbed.items():
        shown = getattr(vesper_linear, name).__doc__.split("(", 1)[1].split(")")[0].split(", ")
        assert [argument.split(": ")[1] for argument in shown] == [
            ast.unparse(argument.annotation) for argument in node.args.posonlyargs if argument.annotation
        ]
