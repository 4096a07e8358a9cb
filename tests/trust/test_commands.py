"""A small part of the longer programs of this folder, so that they stay in working order."""

from __future__ import annotations

from pathlib import Path

import pytest

from . import mutate, sweep


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
