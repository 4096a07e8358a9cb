"""Installing by pip: an sdist, a wheel by isolated build from it, and the wheel in another environment.

The isolated build is the one that ``pip install`` makes by itself: its compiler sees the packages of pip's overlay and
no others. It is made once, from the sdist, which pip unpacks to a folder of its own.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import zipfile
from pathlib import Path

import pytest

from quillon import _sycl_runtime

ROOT = Path(__file__).resolve().parents[2]


def run(*command: str | Path, cwd: Path, **environment: str) -> str:
    """Run a command outside of this test's environment and return what it printed; it has to succeed."""
    inherited = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    environment = inherited | {"TMPDIR": str(cwd)} | environment
    done = subprocess.run(command, cwd=cwd, env=environment, capture_output=True, text=True, timeout=1700)
    assert done.returncode == 0, f"{done.stdout[-4000:]}\n{done.stderr[-4000:]}"
    return done.stdout


def new_environment(folder: Path) -> Path:
    """Make a virtual environment and return its Python."""
    run(Path(sys._base_executable), "-m", "venv", folder, cwd=folder.parent)  # type: ignore[attr-defined]
    return folder / "bin" / "python"


@pytest.fixture(scope="module")
def sdist(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The source distribution."""
    folder = tmp_path_factory.mktemp("sdist")
    text = "import sys, scikit_build_core.build as build; print(build.build_sdist(sys.argv[1]))"
    name = run(sys.executable, "-c", text, folder, cwd=ROOT, TMPDIR=str(folder)).splitlines()[-1]
    return folder / name


@pytest.fixture(scope="module")
def wheel(sdist: Path, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The wheel that pip builds in isolation from the sdist alone, with an environment that has nothing else."""
    folder = tmp_path_factory.mktemp("wheel")
    python = new_environment(folder / "fresh")
    # No optimization and no bytecode: what is tested is where things are found, in half the time.
    flags = {"SKBUILD_CMAKE_BUILD_TYPE": "Plain", "PIP_NO_COMPILE": "1"}
    run(python, "-m", "pip", "wheel", "--no-deps", "--wheel-dir", folder, sdist, cwd=folder, **flags)
    shutil.rmtree(folder / "fresh")
    return next(folder.glob("*.whl"))


# The compiler takes two minutes on two idle cores, and machines are not always idle.
SLOW = 1800


def files_of_sdist(sdist: Path) -> set[str]:
    with tarfile.open(sdist) as archive:
        return {member.name.partition("/")[2] for member in archive if member.isfile()}


def test_sdist_has_every_source(sdist: Path) -> None:
    packed = files_of_sdist(sdist)
    needed = [path for folder in ("cmake", "csrc", "python") for path in (ROOT / folder).rglob("*") if path.is_file()]
    names = {path.relative_to(ROOT).as_posix() for path in needed if "__pycache__" not in path.parts}
    assert len(names) > 100
    assert names | {"pyproject.toml", "CMakeLists.txt", "README.md", "LICENSE"} <= packed
    assert not {name for name in packed if name.startswith((".git/", "build/", ".venv", ".cache"))}


@pytest.mark.packaging
@pytest.mark.timeout(SLOW)
def test_wheel_by_isolated_build(sdist: Path, wheel: Path) -> None:
    with zipfile.ZipFile(wheel) as archive:
        names = set(archive.namelist())
    suffix = sysconfig.get_config_var("EXT_SUFFIX")
    assert {f"vesper_linear{suffix}", f"quillon/_host_device{suffix}", "quillon/lib/libc10_xpu.so"} <= names
    sources = {name.partition("/")[2] for name in files_of_sdist(sdist) if name.startswith("python/")}
    assert len(sources) > 30
    assert sources <= names
    assert {"quillon/_format_table.py", "quillon/_device_table.py", "quillon/_value_tables.py"} <= names


USE = """
import sys, sysconfig
import torch
assert torch.xpu.is_available() and "quillon" not in sys.modules  # PyTorch itself has started the device
import quillon, vesper_linear
for module in (quillon, vesper_linear):
    assert module.__file__.startswith(sysconfig.get_path("purelib")), module.__file__
linear = torch.nn.Linear(64, 8)
layer = quillon.nn.LowBitLinear.from_linear(linear, "q8_0").to("xpu")
x = torch.randn(1, 64)
print(torch.allclose(layer(x.to("xpu")).cpu(), linear(x), atol=0.05))
"""


@pytest.mark.packaging
@pytest.mark.timeout(SLOW)
def test_wheel_in_another_environment(wheel: Path, tmp_path: Path) -> None:
    """PyTorch and the SYCL runtime come from this test's environment: another prefix than the wheel's."""
    python = new_environment(tmp_path / "elsewhere")
    run(python, "-m", "pip", "install", "--no-deps", wheel, cwd=tmp_path)
    [site] = (tmp_path / "elsewhere" / "lib").glob("python*/site-packages")
    (site / "shared.pth").write_text(sysconfig.get_path("purelib"))
    assert run(python, "-c", USE, cwd=tmp_path) == "True\n"
    info = run(python, "-m", "quillon", "info", cwd=tmp_path)
    assert "host device" in info
    assert "xpu:0" in info


# ---- where the SYCL runtime is found ---------------------------------------------------------------------------------


def put(path: Path) -> Path:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.touch()
    return path


@pytest.fixture
def path_of_packages(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> list[str]:
    """An interpreter with nothing installed in its own prefix."""
    monkeypatch.setattr(sys, "prefix", str(tmp_path / "venv"))
    monkeypatch.setattr(sys, "base_prefix", str(tmp_path / "usr"))
    monkeypatch.setattr(sys, "path", ["", str(tmp_path / "usr/lib/python3.11"), "/"])
    return sys.path


@pytest.mark.parametrize(
    "site",
    [
        "overlay/lib/python3.11/site-packages",
        "overlay/local/lib/python3.11/dist-packages",
        "other/lib64/python3.11/site-packages",
    ],
)
def test_runtime_beside_the_packages(path_of_packages: list[str], tmp_path: Path, site: str) -> None:
    assert _sycl_runtime.find("lib/libsycl.so") is None
    library = put((tmp_path / site).parents[2] / "lib" / "libsycl.so")
    assert _sycl_runtime.find("lib/libsycl.so") is None
    path_of_packages.append(str(tmp_path / site))
    assert _sycl_runtime.find("lib/libsycl.so") == library


def test_runtime_in_the_prefix_comes_after_that_of_the_path(path_of_packages: list[str], tmp_path: Path) -> None:
    base = put(tmp_path / "usr" / "lib" / "libsycl.so")
    assert _sycl_runtime.find("lib/libsycl.so") == base
    own = put(tmp_path / "venv" / "lib" / "libsycl.so")
    assert _sycl_runtime.find("lib/libsycl.so") == own
    overlay = put(tmp_path / "overlay" / "lib" / "libsycl.so")
    path_of_packages.append(str(tmp_path / "overlay" / "lib" / "python3.11" / "site-packages"))
    assert _sycl_runtime.find("lib/libsycl.so") == overlay


def test_runtime_from_the_record_of_its_package(path_of_packages: list[str], tmp_path: Path) -> None:
    """Packages in a folder of another name than a site's: only the record tells."""
    packages = tmp_path / "target" / "a" / "packages"
    library = put(tmp_path / "target" / "lib" / "libsycl.so")
    metadata = packages / "intel_sycl_rt-2026.2.0.dist-info"
    put(metadata / "METADATA").write_text("Metadata-Version: 2.1\nName: intel-sycl-rt\nVersion: 2026.2.0\n")
    put(metadata / "RECORD").write_text("../../lib/libsycl.so,,\n../../lib/gone/lib/libsycl.so,,\n")
    assert _sycl_runtime.find("lib/libsycl.so") is None
    path_of_packages.append(str(packages))
    assert _sycl_runtime.find("lib/libsycl.so") == library
    assert _sycl_runtime.find("include/sycl/version.hpp") is None


def test_build_without_a_runtime_says_where_it_looked(
    path_of_packages: list[str], tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    path_of_packages.append(str(tmp_path / "overlay" / "lib" / "python3.11" / "site-packages"))
    put(tmp_path / "overlay" / "lib" / "libsycl.so")
    assert _sycl_runtime.main() == 1
    captured = capsys.readouterr()
    assert captured.out == ""
    assert str(tmp_path / "overlay") in captured.err
    header = put(tmp_path / "overlay" / "include" / "sycl" / "version.hpp")
    assert _sycl_runtime.main() == 0
    assert capsys.readouterr().out.splitlines()[0] == str(header.parents[1])
