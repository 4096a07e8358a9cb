"""The start by PyTorch's entry point: programs that never heard of the package, in fresh interpreters.

Where the package runs from a build tree it has no metadata, so each test gives it the entry point of pyproject.toml.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tomllib
from collections.abc import Callable
from pathlib import Path

import pytest

import quillon
from quillon import host_device

ROOT = Path(__file__).resolve().parents[2]
PACKAGE = Path(str(quillon.__file__)).parent

pytestmark = pytest.mark.skipif(not host_device.is_active(), reason="this PyTorch has XPU itself: nothing is started")

Run = Callable[..., str]


@pytest.fixture
def metadata(tmp_path: Path) -> Path:
    """A folder with the package's entry points, for the front of the path."""
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    folder = tmp_path / "metadata" / f"quillon-{project['version']}.dist-info"
    folder.mkdir(parents=True)
    (folder / "METADATA").write_text(f"Metadata-Version: 2.1\nName: quillon\nVersion: {project['version']}\n")
    lines = [
        f"[{group}]\n" + "".join(f"{name} = {target}\n" for name, target in entries.items())
        for group, entries in project["entry-points"].items()
    ]
    (folder / "entry_points.txt").write_text("\n".join(lines))
    return folder.parent


def environment_of(path: list[Path], **variables: str | None) -> dict[str, str]:
    """The environment of the tests without what the start of the host device has set in it."""
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(map(str, path))}
    changes: dict[str, str | None] = dict.fromkeys(
        ("OCL_ICD_FILENAMES", "SYCL_CACHE_PERSISTENT", "SYCL_CACHE_DIR", "QUILLON_HOST_DEVICES")
    )
    for name, value in {**changes, **variables}.items():
        environment.pop(name, None)
        if value is not None:
            environment[name] = value
    return environment


@pytest.fixture
def run(metadata: Path) -> Run:
    """Return a function that runs a script, every warning an error, and gives what it printed; stderr stays empty."""

    def run(script: str, package: Path = PACKAGE, **variables: str | None) -> str:
        done = subprocess.run(
            [sys.executable, "-W", "error", "-c", script],
            env=environment_of([metadata, package.parent], **variables),
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
        )
        assert (done.returncode, done.stderr) == (0, ""), done.stderr[-2000:]
        return done.stdout

    return run


USE = "assert torch.ones(3, device='xpu').sum().item() == 3\n"
OPERATOR = """
import quillon, vesper_linear
weight = torch.zeros(68, dtype=torch.uint8, device="xpu")
output = vesper_linear.forward_new(torch.ones(1, 64, device="xpu"), weight, 8, 0)
assert output.tolist() == [[0.0]]
"""


def test_the_device_is_there_without_the_package(run: Run) -> None:
    script = """
import torch, sys
assert torch.xpu.is_available() and torch.xpu.device_count() == 2
assert torch.accelerator.is_available() and torch.accelerator.current_accelerator() == torch.device("xpu")
assert torch.xpu.get_device_properties(1).architecture == 7
"""
    names = "assert 'quillon' not in sys.modules and 'vesper_linear' not in sys.modules\n"
    assert run(script + USE + names, QUILLON_HOST_DEVICES="0,7") == ""


BEFORE = {
    "backward": "torch.ones(1, requires_grad=True).backward()",
    "accelerator": "torch.accelerator.is_available(); torch.accelerator.device_count()",
    "pinned": "list(torch.utils.data.DataLoader(torch.arange(4), pin_memory=True))",
    "available": "torch.xpu.is_available(); torch.get_device_module()",
    "used": "torch.ones(1, device='xpu')",
}


@pytest.mark.parametrize("before", BEFORE.values(), ids=BEFORE)
def test_whatever_comes_before_the_package(run: Run, before: str) -> None:
    assert run("import torch\n" + before + OPERATOR) == ""


def test_libraries_that_remember_what_they_saw(run: Run) -> None:
    pytest.importorskip("accelerate", reason="the demo's packages are not installed: make demo")
    script = """
import warnings
warnings.simplefilter("ignore")
from transformers.utils import is_torch_xpu_available
from accelerate.utils import is_xpu_available
assert is_torch_xpu_available() and is_xpu_available()
import torch
"""
    assert run(script + OPERATOR) == ""


def test_no_device_is_touched(run: Run, tmp_path: Path) -> None:
    """Neither a driver nor a thread nor the environment, until the first use."""
    script = """
import os, sys, ctypes
before = dict(os.environ)
import torch
getenv = ctypes.CDLL(None).getenv
getenv.restype = ctypes.c_char_p
def state():
    with open("/proc/self/maps") as maps:
        return "libintelocl.so" in maps.read(), getenv(b"SYCL_CACHE_PERSISTENT"), getenv(b"SYCL_CACHE_DIR")
torch.xpu.device_count(), torch.accelerator.is_available()
assert state() == (False, None, None), state()
assert dict(os.environ) == before
assert not torch.xpu.is_initialized()
assert not [name for name in sys.modules if name.startswith("torch._inductor") or name == "torch.distributed.nn"]
torch.ones(1, device="xpu")
print(state())
assert dict(os.environ) == before
import quillon
print(os.environ["SYCL_CACHE_DIR"])
"""
    folder = f"{tmp_path}/quillon/kernels"
    first, second = run(script, XDG_CACHE_HOME=str(tmp_path)).splitlines()
    assert first == str((True, b"1", folder.encode()))
    assert second == folder


def test_users_variables_stand(run: Run) -> None:
    script = """
import ctypes, torch
getenv = ctypes.CDLL(None).getenv
getenv.restype = ctypes.c_char_p
torch.ones(1, device="xpu")
print(getenv(b"SYCL_CACHE_PERSISTENT"), getenv(b"SYCL_CACHE_DIR"))
"""
    assert run(script, SYCL_CACHE_PERSISTENT="0") == "b'0' None\n"


def test_variables_between_the_imports_count(run: Run) -> None:
    script = """
import os, torch
os.environ["QUILLON_HOST_DEVICES"] = "1,2,3"
import quillon
assert torch.xpu.device_count() == 3
"""
    assert run(script) == ""


@pytest.mark.parametrize(
    "reason", ["torch._C._has_xpu = True", "torch.version.cuda = '12.6'", "torch.version.hip = '6.1'"]
)
def test_switched_off_where_pytorch_has_an_accelerator(run: Run, reason: str) -> None:
    script = f"""
import sys, torch
{reason}
import quillon_autoload
quillon_autoload.start()
assert not [name for name in sys.modules if name.startswith("quillon.")]
"""
    assert run(script, TORCH_DEVICE_BACKEND_AUTOLOAD="0") == ""


def test_switched_off_by_the_user(run: Run) -> None:
    script = "import torch, sys; print(torch.xpu.is_available(), 'quillon_autoload' in sys.modules)"
    assert run(script, TORCH_DEVICE_BACKEND_AUTOLOAD="0") == "False False\n"
    assert run(script) == "True True\n"


# ---- what must not make `import torch` fail --------------------------------------------------------------------------


@pytest.fixture
def broken(tmp_path: Path) -> Callable[[str, str], Path]:
    """Return a function that copies the package with one file replaced."""

    def make(name: str, content: str) -> Path:
        copy = tmp_path / "broken" / "quillon"
        shutil.copytree(PACKAGE, copy, ignore=shutil.ignore_patterns("__pycache__"), ignore_dangling_symlinks=True)
        shutil.copytree(PACKAGE.parent / "quillon_autoload", copy.parent / "quillon_autoload")
        (module,) = PACKAGE.parent.glob("vesper_linear.*.so")
        (copy.parent / module.name).symlink_to(module)
        (path,) = copy.glob(name)
        path.unlink()
        if content:
            path.write_text(content)
        return copy

    return make


BREAKS = {
    "no runtime": ("_sycl_runtime.py", "def find(relative): return None", "ImportError: libintelocl.so not found"),
    "another PyTorch": (
        "_build_facts.py",
        'TORCH_VERSION = "2.12.1"',
        "ImportError: quillon was built for PyTorch 2.12.1, and this is ",
    ),
    "another Python": ("_host_device.*.so", "", "ModuleNotFoundError: No module named 'quillon._host_device'"),
    "a damaged library": ("_host_device.*.so", "not a library", "ImportError: "),
    "no start-up": ("host_device.py", "import no_such_module", "ModuleNotFoundError: No module named 'no_such_module'"),
    "an old start-up": ("host_device.py", "def start(): raise OSError('old')", "OSError: old"),
}


@pytest.mark.parametrize(("name", "content", "text"), BREAKS.values(), ids=BREAKS)
def test_a_broken_package_leaves_pytorch_alone(
    run: Run, broken: Callable[[str, str], Path], name: str, content: str, text: str
) -> None:
    script = """
import torch
assert not torch.xpu.is_available()
torch.ones(1, requires_grad=True).backward()
try:
    import quillon
except Exception as error:
    print(f"{type(error).__name__}: {error}")
"""
    assert run(script, package=broken(name, content)).startswith(text)


def test_a_malformed_list_of_devices(run: Run) -> None:
    script = """
import torch
torch.ones(3).sum()
try:
    import quillon
except ValueError as error:
    print(error)
"""
    assert run(script, QUILLON_HOST_DEVICES="oak").startswith("QUILLON_HOST_DEVICES: item 1 is 'oak', which is not a")


def test_without_a_home(run: Run) -> None:
    assert run("import torch\n" + USE, HOME=None, XDG_CACHE_HOME=None, SYCL_CACHE_PERSISTENT="0") == ""


def test_in_a_forked_child(run: Run) -> None:
    """The import in a child of a parent without PyTorch, and the first use in a child of one with it."""
    fork = """
def in_child(text):
    child = os.fork()
    if child == 0:
        exec(text, globals())
        os._exit(7)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
"""
    use = f"in_child('''import torch\n{USE}''')\n"
    assert run("import os\n" + fork + use + "import torch\n" + use + USE) == ""


def test_in_a_thread(run: Run) -> None:
    script = """
import threading
def work():
    import torch
    assert torch.ones(3, device='xpu').sum().item() == 3
thread = threading.Thread(target=work)
thread.start()
thread.join()
import torch
"""
    assert run(script + USE) == ""


def test_in_a_daemon(metadata: Path, tmp_path: Path) -> None:
    """A session of its own, at the root, with every descriptor closed."""
    script = f"""
import os, traceback
if os.fork(): os._exit(0)
os.setsid()
if os.fork(): os._exit(0)
os.chdir("/")
os.closerange(0, 256)
result = "worked"
try:
    import torch
    {USE.strip()}
except BaseException:
    result = traceback.format_exc()
with open({str(tmp_path / "part")!r}, "w") as file: file.write(result)
os.rename({str(tmp_path / "part")!r}, {str(tmp_path / "result")!r})
"""
    environment = environment_of([metadata, PACKAGE.parent])
    subprocess.run([sys.executable, "-c", script], env=environment, check=True, timeout=60)
    wait = f"import os, time\nwhile not os.path.exists({str(tmp_path / 'result')!r}): time.sleep(0.1)"
    subprocess.run([sys.executable, "-c", wait], check=True, timeout=240)
    assert (tmp_path / "result").read_text() == "worked"
