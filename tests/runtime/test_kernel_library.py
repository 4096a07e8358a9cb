"""Builds of kernels at first use: once each, side by side, told to the log, and failing with the compiler's words.

Each test runs in a process of its own, because a kernel is built once in a process, and without the persistent cache,
so that a build is one.
"""

from __future__ import annotations

import importlib.machinery
import json
import re
from pathlib import Path

import pytest
from shim.process import output_of

import vesper_linear

# Q4_0 calls on `device` with zero weights, and a list `built` of (name, begin, end) of each kernel build.
PROLOGUE = """
import json, logging, sys, threading, time
import torch, quillon, vesper_linear

built, warnings = [], []

class Listener(logging.Handler):
    def emit(self, record):
        if record.levelno == logging.INFO:
            name, seconds = record.args
            built.append((name, record.created - seconds, record.created))
        else:
            warnings.append(record.getMessage())

logger = logging.getLogger("quillon.kernels")
logger.setLevel(logging.INFO)
logger.addHandler(Listener())

def call(forward=None, dtype=torch.float32, device=7):
    input = torch.ones(1, 64, dtype=dtype, device=f"xpu:{device}")
    weight = torch.zeros(34 * 16, dtype=torch.uint8, device=f"xpu:{device}")
    output = (forward or torch.ops.quillon.forward_new)(input, weight, 2, 0)
    assert torch.equal(output.cpu(), torch.zeros(1, 16, dtype=dtype))

def in_threads(calls):
    # Each call in a thread, all let go at once; whatever a thread raises comes back.
    gate, errors = threading.Barrier(len(calls)), []
    def run(one):
        gate.wait()
        try:
            one()
        except BaseException as error:
            errors.append(error)
    threads = [threading.Thread(target=run, args=(one,)) for one in calls]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert errors == [], errors
"""

Build = tuple[str, float, float]

TYPES = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}
GEOMETRIES = {"default": "16,32,2", "elm": "32,64,2", "legacy": "16,32,8"}


def _run(text: str, *arguments: str, **environment: str) -> str:
    environment = {"SYCL_CACHE_PERSISTENT": "0"} | environment
    return output_of(PROLOGUE + text, *arguments, **environment)


def _name(element_type: str, table: str = "default") -> str:
    return f"qlinear_xpu_kernel_q4_0_2x16<{TYPES[element_type]},{GEOMETRIES[table]}>"


@pytest.fixture(scope="module")
def history() -> dict[str, object]:
    """What one process saw that comes to need all twelve kernels of q4_0, in four steps."""
    text = """
DEFAULT, ELM, LEGACY = 7, 1, 6
history = {}

def step(name):
    history[name] = list(built)
    built.clear()

in_threads([call] * 12)
in_threads([lambda i=i: call(device=i) for i in (0, 2, 3, 4, 5, 7)])  # one SYCL device behind all indices
step("one kernel")

routes = [torch.ops.quillon.forward_new, vesper_linear.forward_new]
in_threads([lambda route=route: call(route, torch.float64) for route in routes * 6])
step("both routes")

in_threads([lambda: call(dtype=torch.float16), lambda: call(dtype=torch.bfloat16)])
step("two kernels")

thread = threading.Thread(target=call, kwargs={"device": ELM})
thread.start()
history["returned"] = []
while thread.is_alive():
    call()
    history["returned"].append(time.time())
thread.join()
step("ready kernel")

for _ in range(2):
    for device in (DEFAULT, ELM, LEGACY):
        for dtype in (torch.float32, torch.float64, torch.float16, torch.bfloat16):
            call(dtype=dtype, device=device)
step("the others")
history["warnings"] = warnings
print(json.dumps(history))
"""
    loaded: dict[str, object] = json.loads(_run(text))
    return loaded


def _builds(history: dict[str, object], step: str) -> list[Build]:
    builds = history[step]
    assert isinstance(builds, list)
    return builds


def _names(history: dict[str, object], step: str) -> list[str]:
    return sorted(name for name, *_ in _builds(history, step))


def test_threads_that_need_one_kernel_build_it_once(history: dict[str, object]) -> None:
    assert _names(history, "one kernel") == [_name("float32")]


def test_waiting_with_the_gil_does_not_hold_up_the_build(history: dict[str, object]) -> None:
    """Threads through the module hold the GIL while they wait for a build; threads through torch.ops do not."""
    assert _names(history, "both routes") == [_name("float64")]


def test_different_kernels_are_built_side_by_side(history: dict[str, object]) -> None:
    assert _names(history, "two kernels") == sorted([_name("float16"), _name("bfloat16")])
    builds = _builds(history, "two kernels")
    assert max(begin for _, begin, _ in builds) < min(end for *_, end in builds)


def test_a_ready_kernel_runs_while_another_is_built(history: dict[str, object]) -> None:
    [(name, begin, end)] = _builds(history, "ready kernel")
    assert name == _name("float32", "elm")
    returned = history["returned"]
    assert isinstance(returned, list)
    assert len([moment for moment in returned if begin < moment < end]) >= 2


def test_every_instantiation_is_built_once(history: dict[str, object]) -> None:
    others = [_name(kind, table) for kind in TYPES for table in ("elm", "legacy")]
    others.remove(_name("float32", "elm"))
    assert _names(history, "the others") == sorted(others)


def test_long_waits_are_explained_once(history: dict[str, object]) -> None:
    steps = ("one kernel", "both routes", "two kernels", "ready kernel", "the others")
    seconds = sum(end - begin for step in steps for _, begin, end in _builds(history, step))
    warnings = history["warnings"]
    assert isinstance(warnings, list)
    assert len(warnings) == (1 if seconds >= 5 else 0)
    assert all("compiling kernels for this device at their first use has taken" in text for text in warnings)


def test_log_without_a_listener_and_with_one_that_fails() -> None:
    text = """
logger.setLevel(logging.NOTSET)
logger.handlers.clear()
logger.addHandler(logging.StreamHandler(sys.stdout))
call()  # silent by default

def fail(record):
    raise ZeroDivisionError

logger.setLevel(logging.INFO)
logger.addFilter(fail)
sys.unraisablehook = lambda event: print(event.exc_type.__name__)
call(vesper_linear.forward_new, torch.float64)
"""
    # A slow machine is told of the compiler's seconds, once.
    told = [line for line in _run(text).splitlines() if not line.startswith("compiling kernels for this device")]
    assert told == ["ZeroDivisionError"]


def test_the_module_alone_keeps_no_log() -> None:
    """What is logged is the package's: without its observer the module builds in silence."""
    text = """
del vesper_linear.__kernel_built__
for dtype in (torch.float32, torch.float64, torch.float16, torch.bfloat16):
    for device in (1, 6, 7):
        call(dtype=dtype, device=device)
assert (built, warnings) == ([], [])
vesper_linear.__kernel_built__ = lambda kernel, seconds: print(kernel, 0.05 < seconds < 100)
vesper_linear.forward_new(torch.ones(1, 64, device="xpu:7"), torch.zeros(36, dtype=torch.uint8, device="xpu:7"), 3, 0)
"""
    assert _run(text) == "qlinear_xpu_kernel_q4_1_2x16<float,16,32> True\n"


@pytest.fixture(scope="module")
def broken_module(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A copy of the module whose q4_0 device text does not compile."""
    content = Path(str(vesper_linear.__file__)).read_bytes()
    whole = b"\nvoid qlinear_xpu_kernel_q4_0_2x16(uint64_t state_size,"
    assert content.count(whole) == 1, "the kernel's opening line has changed"
    broken = b"\n#error this text is broken".ljust(len(whole))
    copy = tmp_path_factory.mktemp("broken") / f"vesper_linear{importlib.machinery.EXTENSION_SUFFIXES[0]}"
    copy.write_bytes(content.replace(whole, broken))
    return copy


def test_build_failure(broken_module: Path) -> None:
    text = """
import sys, threading
sys.path.insert(0, sys.argv[1])
import torch, quillon, vesper_linear
assert vesper_linear.__file__.startswith(sys.argv[1])
input = torch.ones(1, 64, device="xpu")
weight = torch.zeros(34 * 16, dtype=torch.uint8, device="xpu")
texts = []

def call(forward):
    try:
        forward(input, weight, 2, 0)
    except Exception as error:
        texts.append(f"{type(error).__name__}: {error}")

for forward in (vesper_linear.forward_new, torch.ops.quillon.forward_new):
    call(forward)
threads = [threading.Thread(target=call, args=(torch.ops.quillon.forward_new,)) for _ in range(4)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
assert len(texts) == 6
print("\\n=====\\n".join(texts))
"""
    for message in output_of(text, str(broken_module.parent)).split("\n=====\n"):
        assert message.startswith(f"RuntimeError: Building the kernel {_name('float32')} for the device ")
        # The compiler's log, with the place in the text.
        assert re.search(r"kernels/matvec/q4_0_2x16\.h:\d+:2: error: this text is broken ", message)


def test_failure_of_the_device_compiler() -> None:
    """Options that the user hands to the SYCL runtime's second compiler, and which it does not know."""
    text = """
try:
    call()
except RuntimeError as error:
    print(error)
"""
    message = _run(text, SYCL_PROGRAM_COMPILE_OPTIONS="-no-such-option")
    assert message.startswith(f"Building the kernel {_name('float32')} for the device ")
    assert "Unrecognized build options: -no-such-option" in message
