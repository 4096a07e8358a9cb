"""Start and end of a process that uses the library: what import does, exit with work under way, fork, the cache."""

from __future__ import annotations

from pathlib import Path

import pytest
from shim.process import output_of, run_python

# Of builds that take long, as they do on a busy machine or under a sanitizer, the library tells on stderr.
PROLOGUE = """
import logging, os, sys, threading, time
import torch, quillon, vesper_linear

logging.getLogger("quillon.kernels").setLevel(logging.ERROR)

def call(forward=torch.ops.quillon.forward_new, state_size=64, rows=64):
    input = torch.ones(1, state_size, device="xpu")
    weight = torch.zeros(34 * (state_size * rows // 64), dtype=torch.uint8, device="xpu")
    return forward(input, weight, 2, 0)
"""


def test_import_touches_no_device() -> None:
    """The CPU driver, which the SYCL runtime loads with its first look at devices, comes with the first tensor."""
    text = """
def driver_is_loaded():
    with open("/proc/self/maps") as maps:
        return "libintelocl.so" in maps.read()
print(driver_is_loaded(), torch.xpu.is_initialized())
vesper_linear.get_moe_indexes(torch.zeros(1, 1, dtype=torch.int32), 1)
print(driver_is_loaded(), torch.xpu.is_initialized())
call()
print(driver_is_loaded())
"""
    assert output_of(PROLOGUE + text) == "False False\nFalse False\nTrue\n"


# ---- exit ------------------------------------------------------------------------------------------------------

EXITS = {
    "after use": """
import atexit
threads = [threading.Thread(target=call) for _ in range(4)]
for thread in threads: thread.start()
for thread in threads: thread.join()
torch.kept = call()
atexit.register(call)
""",
    "kernels still running": """
input = torch.ones(1, 4096, device="xpu")
weight = torch.zeros(34 * 64 * 4096, dtype=torch.uint8, device="xpu")
for _ in range(40):
    output = torch.ops.quillon.forward_new(input, weight, 2, 0)
""",
    "a thread still builds": "threading.Thread(target=call).start()",
}


@pytest.mark.parametrize("text", EXITS.values(), ids=EXITS)
def test_exit(text: str) -> None:
    done = run_python(PROLOGUE + text + "\nsys.exit(3)\n", SYCL_CACHE_PERSISTENT="0")
    assert (done.returncode, done.stdout, done.stderr) == (3, "", "")


@pytest.mark.parametrize(
    ("route", "delay"), [("torch.ops.quillon", "0.1"), ("torch.ops.quillon", "0.4"), ("vesper_linear", "0.2")]
)
def test_exit_while_a_daemon_thread_builds(route: str, delay: str) -> None:
    """Wherever the build stands when the interpreter ends, the process ends in order."""
    text = """
input = torch.ones(1, 64, device="xpu")
weight = torch.zeros(34 * 64, dtype=torch.uint8, device="xpu")
threading.Thread(target=eval(sys.argv[1]).forward_new, args=(input, weight, 2, 0), daemon=True).start()
time.sleep(float(sys.argv[2]))
"""
    done = run_python(PROLOGUE + text, route, delay, SYCL_CACHE_PERSISTENT="0")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


# ---- fork ------------------------------------------------------------------------------------------------------

FORK = """
def in_child(work):
    sys.stdout.flush()
    child = os.fork()
    if child == 0:
        try:
            work()
            print("worked", flush=True)
        except Exception as error:
            print(f"{type(error).__name__}: {error}", flush=True)
        sys.exit(5)  # the whole of an interpreter's end, not os._exit
    print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""

REFUSED = (
    "RuntimeError: Cannot re-initialize XPU in forked subprocess. To use XPU with multiprocessing, you must use the "
    "'spawn' start method\n5\n"
)


def test_fork_before_first_use() -> None:
    assert output_of(PROLOGUE + FORK + "in_child(call)\ncall()\nin_child(call)\n") == "worked\n5\n" + REFUSED


def test_fork_after_use() -> None:
    text = """
kept = torch.ones(1, 64, device="xpu"), torch.zeros(34 * 64, dtype=torch.uint8, device="xpu")
call()
in_child(lambda: vesper_linear.forward_new(*kept, 2, 0))
in_child(lambda: vesper_linear.get_moe_indexes(torch.zeros(1, 1, dtype=torch.int32), 1))
call()
"""
    assert output_of(PROLOGUE + FORK + text) == REFUSED + "worked\n5\n"


def test_fork_during_a_build() -> None:
    text = """
x = torch.ones(1, device="xpu")
thread = threading.Thread(target=call)
thread.start()
time.sleep(0.2)
in_child(call)
thread.join()
call()
"""
    assert output_of(PROLOGUE + FORK + text, SYCL_CACHE_PERSISTENT="0") == REFUSED


# ---- persistent cache ------------------------------------------------------------------------------------------

CACHE = ("SYCL_CACHE_PERSISTENT", "SYCL_CACHE_DIR")
SHOW_CACHE = "print([os.environ.get(name) for name in ('SYCL_CACHE_PERSISTENT', 'SYCL_CACHE_DIR')])\n"


def test_cache_is_on_in_a_folder_of_its_own(tmp_path: Path) -> None:
    base = str(tmp_path)
    printed = output_of(PROLOGUE + SHOW_CACHE + "call()", unset=CACHE, XDG_CACHE_HOME=base)
    folder = tmp_path / "quillon" / "kernels"
    assert printed == f"['1', '{folder}']\n"
    # The runtime's cache of compiled source text. The next process finds the kernel there and adds nothing.
    compiled = folder / "ext_kernel_compiler"
    kept = sorted(compiled.rglob("*"))
    assert kept
    output_of(PROLOGUE + "call()", unset=CACHE, XDG_CACHE_HOME=base)
    assert sorted(compiled.rglob("*")) == kept


def test_users_choice_of_the_cache_stands(tmp_path: Path) -> None:
    base = str(tmp_path)
    printed = output_of(PROLOGUE + SHOW_CACHE + "call()", unset=CACHE, XDG_CACHE_HOME=base, SYCL_CACHE_PERSISTENT="0")
    assert printed == "['0', None]\n"
    folder = str(tmp_path / "mine")
    printed = output_of(PROLOGUE + SHOW_CACHE, unset=CACHE, XDG_CACHE_HOME=base, SYCL_CACHE_DIR=folder)
    assert printed == f"['1', '{folder}']\n"
    assert list(tmp_path.iterdir()) == []
