// q4_k expanded to a dense matrix, whole and by rows that an index names.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 32 has one super-block, a work-item four of its bytes (block_form.h). The bytes are drawn
// in readers/q4_k.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/q4_k.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_q4_k(const uint8_t* quants, const uint8_t* scales, const uint8_t* pairs, T* out) {
  using namespace quillon;
  expand_block(q4_k_expander{quants, scales, pairs}, out);
}

// `scales` lie behind the quants of all super-blocks, whose number follows.
template <typename T>
QUILLON_KERNEL(1)
void xpu_dequantize_rows_kernel_q4_k(int32_t blocks_of_row, const int64_t* index, T* out, const uint8_t* pairs,
                                     const uint8_t* quants, const uint8_t* scales) {
  using namespace quillon;
  const auto blocks = static_cast<uint32_t>((scales - quants) / sizeof(block_q4_K_qs));
  expand_gathered(q4_k_expander{quants, scales, pairs}, blocks_of_row, index, blocks, out);
}
