"""What kernels in the form of vectors tell the compiler of addresses: no more than is true of them.

A load that claims too much is right on one processor's compiler and ends the process on another's.
"""

from __future__ import annotations

import pytest
from gpu_compile.spirv import dump_spirv, memory_accesses

# Loads of codes and scales, stores of expansions, those of the explicit-SIMD vocabulary, those of RWKV.
KERNELS = {
    "qlinear_xpu_kernel_nf3_2x16<float,16,32>": "kernels/matvec/nf3_2x16.h",
    "qlinear_xpu_dequantize_kernel_q5_1<c10::BFloat16,16>": "kernels/dequant/q5_1.h",
    "dequantize_q6_k_kernel<c10::Half,2>": "kernels/dequant/q6_k_dense.h",
    "rwkv_linear_attention_kernel_v4<c10::Half,32,16>": "kernels/rwkv/attention_v4.h",
}


@pytest.mark.parametrize("name", KERNELS)
def test_vectors_are_not_said_to_be_aligned(name: str) -> None:
    (spirv,) = dump_spirv(KERNELS[name], [name], options=["-DQUILLON_VECTOR_LANES"]).values()
    every = memory_accesses(spirv.module)
    # Kernels ask for the alignment of what they store past the caches before they do: a processor has to be told of it.
    past_caches = {one.alignment for one in every if one.past_caches}
    assert past_caches <= {32, 64}
    assert bool(past_caches) == ("dequant" in KERNELS[name])
    accesses = [one for one in every if not one.past_caches]
    stores = {one.is_store for one in accesses if one.elements > 1}
    assert stores == ({False} if "matvec" in KERNELS[name] else {False, True})
    assert max(one.alignment for one in accesses) <= 8  # what single numbers have
