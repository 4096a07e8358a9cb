"""A small part of the longer programs of this folder, so that they stay in working order."""

from __future__ import annotations

import dataclasses
import re
import subprocess
import sys
from pathlib import Path

import pytest

from . import mutate, sanitize, soak, sweep


def test_nothing_is_read_or_written_outside_a_tensor(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert sweep.sweep(["nf3"], ["behind"], calls=1, seed=0, folder=tmp_path, timeout=850) == []
    results = int(capsys.readouterr().out.split("kernels, ")[1].split()[0])
    assert results > 100


def test_mistakes_are_still_those_of_the_code() -> None:
    assert len(mutate.READERS) + len(mutate.SKELETONS) > 60
    assert len(mutate.LAUNCHERS) > 10
    for mutant in mutate.MUTANTS:
        right, wrong = mutate.mutated_text(mutant)
        assert right != wrong


@pytest.mark.parametrize("kind", sanitize.KINDS.values(), ids=sanitize.KINDS)
def test_faults_are_reported(kind: sanitize.Kind) -> None:
    missing = [name for name in kind.runtimes if not Path(sanitize.library(name)).exists()]
    if missing:
        pytest.skip(f"the compiler comes without {missing}")
    assert sanitize.unseen_faults(kind) == []


def test_reports_are_summed_up(tmp_path: Path) -> None:
    race = "WARNING: ThreadSanitizer: data race\n  Write of size 4\n\nSUMMARY: ThreadSanitizer: data race a.cpp:3\n"
    shift = "a.cpp:7:4: runtime error: shift exponent 40 is too large\n    #0 0x1 in shift a.cpp:7\n\n"
    (tmp_path / "report.tsan.1").write_text(
        f"=====\n{race}=====\n=====\n{race}=====\nThreadSanitizer: reported 2 warnings\n"
    )
    (tmp_path / "report.ubsan.2").write_text(f"{shift}a.cpp:9:1: runtime error: load of misaligned address 0x7f01\n")
    (tmp_path / "report.asan.3").write_text("==3==WARNING: AddressSanitizer failed to allocate 0xffffffffff bytes\n")
    (tmp_path / "report.asan.4").write_text(
        "==4==ERROR: cannot unmap\nAddressSanitizer: CHECK failed: p.cpp:61 (0x0) (tid=4)\n"
    )
    found = sanitize.findings(tmp_path)
    assert {line: len(reports) for line, reports in found.items()} == {
        "SUMMARY: ThreadSanitizer: data race a.cpp:3": 2,
        "a.cpp:7:4: runtime error: shift exponent 40 is too large": 1,
        "a.cpp:9:1: runtime error: load of misaligned address …": 1,
        "AddressSanitizer: CHECK failed: p.cpp:61 (…) (tid=…)": 1,
    }
    assert "#0 0x1 in shift" in found["a.cpp:7:4: runtime error: shift exponent 40 is too large"][0]


def test_sanitizers_are_put_to_tests_that_there_are() -> None:
    for kind in sanitize.KINDS.values():
        for test in (*kind.tests, *kind.left_out):
            path, *parts = test.split("::")
            assert (sanitize.ROOT / path).exists()
            assert all(f"def {part.split('[')[0]}(" in (sanitize.ROOT / path).read_text() for part in parts)


def test_a_short_soak() -> None:
    """Its rounds are too few to judge speed by, and the machine has other things to do."""
    short = ["--minutes", "0", "--calls", "8", "--warm-up", "4", "--no-model", "--slower", "10"]
    command = [sys.executable, soak.__file__, *short]
    done = subprocess.run(command, capture_output=True, text=True, timeout=850)
    assert done.returncode == 0, done.stdout + done.stderr[-2000:]
    header, first, *_ = done.stdout.splitlines()
    counted = dict(zip(header.split("\t"), first.split("\t"), strict=True))
    assert int(counted["reserved"]) > 0
    assert int(counted["calls"]) == 5 * 8


STEADY = soak.Sample(
    calls=0, seconds=2, resident=10**9, heap=10**8, mapped=10**8, allocated=5000, reserved=10**8, threads=20, files=30
)


@pytest.mark.parametrize(
    ("each_round", "found"),
    [
        ({}, ""),
        ({"heap": 10_000}, ""),
        ({"heap": 200_000}, "heap: 6600000 bytes more in 33000 calls, 200.0 each"),
        ({"mapped": 200_000}, "mapped: 6600000 bytes more in 33000 calls, 200.0 each"),
        ({"mapped": 200_000, "reserved": 200_000}, ""),
        ({"resident": 200_000}, ""),
        ({"allocated": 512}, "allocated bytes change"),
        ({"reserved": 4 << 20}, "the allocator took"),
        ({"seconds": 0.01}, "a round took 2.350 s of the processor, and in the end 2.680"),
        ({"threads": 1}, "threads: 70, and in the end 103"),
        ({"files": 1}, "files: 80, and in the end 113"),
    ],
)
def test_what_a_soak_finds(each_round: dict[str, float], found: str) -> None:
    """In a hundred rounds of a thousand calls, something of which grows."""
    rounds = [
        dataclasses.replace(
            STEADY,
            calls=1000 * number,
            **{what: getattr(STEADY, what) + number * growth for what, growth in each_round.items()},
        )
        for number in range(100)
    ]
    wrong = soak.verdict(rounds)
    assert len(wrong) == (1 if found else 0)
    assert all(re.search(found, one) for one in wrong)
