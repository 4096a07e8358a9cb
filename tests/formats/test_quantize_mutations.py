"""Every fault of a layout that one could make in the reference decoder is seen by the hand-made bytes."""

from __future__ import annotations

from pathlib import Path

import pytest
import torch

from quillon import reference
from quillon.formats import WEIGHT_FORMATS

from .test_quantize_layout import DECODE, hand_made

SOURCE = Path(reference.__file__).read_text(encoding="utf-8")

# What stands in the decoder, and what a slip would put there: nibble and plane orders, bytes of words, signs,
# biases, dropped minima, bits and fixed bits, swapped scales.
MUTATIONS = (
    ("torch.cat((qs & 15, qs >> 4), dim=1)", "torch.cat((qs >> 4, qs & 15), dim=1)"),
    ('(f["qs"] & 15, f["qs"] >> 4), dim=2', '(f["qs"] >> 4, f["qs"] & 15), dim=2'),
    ('+ _half(f["dm"], 1)', '+ 0*_half(f["dm"], 1)'),
    ('(f["qs"] >> 4, f["qs"] & 15), dim=1', '(f["qs"] & 15, f["qs"] >> 4), dim=1'),
    ("torch.cat((levels, -levels))", "torch.cat((levels, levels))"),
    ("<< 7 | bit", "<< 7"),
    ("<< 8 | 0x80).to(dtype)", "<< 8).to(dtype)"),
    ("(low_words >> 4, low_words & 15)", "(low_words & 15, low_words >> 4)"),
    ("(6, 4, 2, 0)], dim=2", "(0, 2, 4, 6)], dim=2"),
    ("(1, 3, 0, 2))", "(0, 1, 2, 3))"),
    ("(high & 2) << 14", "(high & 2) << 13"),
    ("(high & 1) << 12", "(high & 1) << 13"),
    (".float() - 16)", ".float() - 15)"),
    ("torch.tensor((6, 4, 2, 0)", "torch.tensor((0, 2, 4, 6)"),
    ("4 * _word_bits", "4 * 0 * _word_bits"),
    (" - dmin.float()", " + dmin.float()"),
    ("(0, 2, 4, 6)], dim=2", "(6, 4, 2, 0)], dim=2"),
    ('f["scales"] & 15, codes', 'f["scales"] >> 4, codes'),
    ("(groups & 15, groups >> 4)", "(groups >> 4, groups & 15)"),
    ('f["scales"][:, 0::2], codes', 'f["scales"][:, 1::2], codes'),
    ("c & 15 | a >> 6 << 4", "c & 15"),
    ("c >> 4 | b >> 6 << 4", "c >> 4"),
    ("c & 15 | a", "c >> 4 | a"),
    ("low + 16 * fifth", "low"),
    ("(pairs & 15, pairs >> 4)", "(pairs >> 4, pairs & 15)"),
    ("(0, 1, 2, 3))", "(1, 3, 0, 2))"),
    ("16 * high + low - 32", "16 * high + low"),
    ("torch.where(negative, -values", "torch.where(negative, values"),
    ("+ 0.5) * _half", "+ 1) * _half"),
    ("torch.arange(0, 28, 7)", "torch.arange(21, -1, -7)"),
    ("-1.125, -0.875", "-0.875, -1.125"),
    ("torch.arange(0, 12, 3)", "torch.arange(9, -1, -3)"),
    ("high << 8]", "high*0]"),
    ('f["scales"].view(torch.int8).float()', 'f["scales"].float()'),
    ('f["scales"].view(torch.int8).half()', 'f["scales"].half()'),
)


@pytest.mark.parametrize(("right", "wrong"), MUTATIONS)
def test_fault_is_seen(right: str, wrong: str) -> None:
    assert SOURCE.count(right) >= 1
    module: dict[str, object] = {"__name__": "mutated"}
    exec(compile(SOURCE.replace(right, wrong), "mutated", "exec"), module)
    seen = []
    for name in WEIGHT_FORMATS:
        data, expected = hand_made(name)
        values = module["dequantize_reference"](data, name, 1, len(expected)).flatten()  # type: ignore[operator]
        seen += [name] if not torch.equal(values, expected) else []
    assert seen
    assert len(DECODE) == len(WEIGHT_FORMATS)
