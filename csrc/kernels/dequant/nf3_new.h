// nf3 expanded to a dense matrix.
//
//   T        element type of the result; arithmetic is in float
//   SG_SIZE  required sub-group size
//
// A work-item has four neighbours (flat_form.h). The bytes are drawn in readers/nf3.h.
#pragma once

#include "kernels/dequant/flat_form.h"
#include "readers/nf3.h"

template <typename T, int SG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_dequantize_kernel_nf3_new(int32_t elements, const uint8_t* weight, int32_t scale_offset, T* out) {
  using namespace quillon;
  expand_flat<T>(nf3_expander{weight, weight + scale_offset}, elements, out);
}
