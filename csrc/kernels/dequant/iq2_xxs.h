// iq2_xxs expanded to a dense matrix.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 32 has one super-block, a work-item one vector of eight (block_form.h). The bytes are drawn in
// readers/iq2_xxs.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/iq2_xxs.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_iq2_xxs(const quillon::block_iq2_xxs* weight, T* out) {
  using namespace quillon;
  expand_block(iq2_xxs_expander{weight}, out);
}
