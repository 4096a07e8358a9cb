// q6_k expanded to a dense matrix.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 64 has one super-block, a work-item four neighbours (block_form.h). The bytes are drawn
// in readers/q6_k.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/q6_k.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_q6_k(const uint8_t* high_plane, const uint8_t* low_plane, const uint8_t* scales,
                                        const uint8_t* super_scales, T* out) {
  using namespace quillon;
  expand_block(q6_k_expander{high_plane, low_plane, scales, super_scales}, out);
}
