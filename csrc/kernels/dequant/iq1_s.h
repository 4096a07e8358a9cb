// iq1_s expanded to a dense matrix.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 32 has one super-block, a work-item one vector of eight (block_form.h). The bytes are drawn in
// readers/iq1_s.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/iq1_s.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_iq1_s(const quillon::block_iq1_s* weight, T* out) {
  using namespace quillon;
  expand_block(iq1_s_expander{weight}, out);
}
