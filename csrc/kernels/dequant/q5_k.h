// q5_k expanded to a dense matrix.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 64 has one super-block, a work-item two of its bytes (block_form.h). The bytes are drawn
// in readers/q5_k.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/q5_k.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_q5_k(const quillon::block_q5_K* weight, T* out) {
  using namespace quillon;
  expand_block(q5_k_expander{weight}, out);
}
