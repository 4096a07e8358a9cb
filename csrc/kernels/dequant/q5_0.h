// q5_0 expanded to a dense matrix.
//
//   T        element type of the result; arithmetic is in float
//   SG_SIZE  required sub-group size
//
// A work-item has one byte, which is two elements, a half block apart (flat_form.h). The bytes are drawn in readers/q5_0.h.
#pragma once

#include "kernels/dequant/flat_form.h"
#include "readers/q5_0.h"

template <typename T, int SG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_dequantize_kernel_q5_0(int32_t elements, const quillon::block_q5_1* weight, T* out) {
  using namespace quillon;
  expand_flat<T>(q5_0_expander{{weight}}, elements, out);
}
