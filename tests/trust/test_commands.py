"""A small part of the longer programs of this folder, so that they stay in working order."""

from __future__ import annotations

import dataclasses
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from . import mutate, soak, sweep


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


def test_a_short_soak() -> None:
    """Its rounds are too few to judge speed by, and the machine has other things to do."""
    pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
    command = [sys.executable, soak.__file__, "--minutes", "0.02", "--calls", "16", "--slower", "10"]
    done = subprocess.run(
        command, env=os.environ | {"HF_HUB_OFFLINE": "1"}, capture_output=True, text=True, timeout=850
    )
    assert done.returncode == 0, done.stdout + done.stderr[-2000:]
    header, first, *_ = done.stdout.splitlines()
    counted = dict(zip(header.split("\t"), first.split("\t"), strict=True))
    assert int(counted["allocated"]) > 0
    assert int(counted["calls"]) == (soak.WARM_UP + 1) * (16 + soak.TOKENS)


STEADY = soak.Sample(calls=0, seconds=2.0, resident=10**9, allocated=5000, reserved=10**8, threads=20, files=30)


@pytest.mark.parametrize(
    ("each_round", "found"),
    [
        ({}, ""),
        ({"resident": 10_000}, ""),
        ({"resident": 200_000}, "resident size grew by 15000000 bytes in 75000 calls, 200.0 each"),
        ({"allocated": 512}, "allocated bytes change"),
        ({"reserved": 4 << 20}, "the allocator took"),
        ({"seconds": 0.01}, "a round took 2.005 s of the processor, and in the end 2.755"),
        ({"threads": 1}, "threads: 32, and in the end 107"),
        ({"files": 1}, "files: 42, and in the end 117"),
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
