"""The comparison of the two decoders catches every layout fault."""

from __future__ import annotations

import numpy as np
import pytest

from .decoders import FORMATS, READERS, decode, split
from .faults import FAULTS, Fault
from .samples import same, sample
from .shim import Shim

# What can go wrong in each format at least. The scale of fp8_e5m2 is not part of the unscaled value.
ALWAYS = {"order", "sign", "plane", "scale index", "offset"}
SOMETIMES = {
    "minimum": {"q4_1", "q5_0", "q5_1", "q2_k", "q4_k", "q5_k"},
    "sub-block": {"q2_k", "q4_k", "q5_k", "q6_k", "fp6_k", "iq2_xxs", "iq1_s"},
    "fixed bit": {"fp4", "fp8_e4m3"},
    "rounding": set(FORMATS) - {"q8_1", "fp8_e5m2", "q4_0_woq", "iq2_xxs", "iq1_s"},
}


@pytest.mark.parametrize("fault", FAULTS, ids=lambda fault: f"{fault.reader}-{fault.kind}-{fault.what}")
def test_fault_is_caught(shim: Shim, fault: Fault) -> None:
    entry = FORMATS[READERS[fault.reader].format]
    weight = sample(entry.name, fault.sample)
    compiled = shim.decode(fault.reader, weight, fault.dtype, entry.elements, weight.size // entry.bytes)
    assert same(compiled, decode(fault.reader, weight, fault.dtype), fault.dtype)
    with np.errstate(all="ignore"):
        wrong = fault.wrong(split(entry, weight), fault.dtype)
    assert wrong.shape == compiled.shape
    assert wrong.dtype == compiled.dtype
    assert not same(compiled, wrong, fault.dtype)


def test_every_format_has_its_faults() -> None:
    kinds: dict[str, set[str]] = {name: set() for name in FORMATS}
    for fault in FAULTS:
        kinds[READERS[fault.reader].format].add(fault.kind)
    for name, found in kinds.items():
        wanted = ALWAYS | {kind for kind, names in SOMETIMES.items() if name in names}
        assert wanted <= found, f"{name} lacks {wanted - found}"
