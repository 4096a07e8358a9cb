// q2_k expanded to a dense matrix, whole and by rows that an index names.
//
//   T  element type of the result; arithmetic is in float
//
// A work-group of 64 has one super-block, a work-item one of its bytes (block_form.h). The bytes are drawn in
// readers/q2_k.h.
#pragma once

#include "kernels/dequant/block_form.h"
#include "readers/q2_k.h"

template <typename T>
QUILLON_KERNEL(1)
void qlinear_xpu_dequantize_kernel_q2_k(const quillon::block_q2_K* weight, T* out) {
  using namespace quillon;
  expand_block(q2_k_expander{weight}, out);
}

// The weight has `weight_blocks` super-blocks, which records do not tell otherwise.
template <typename T>
QUILLON_KERNEL(1)
void xpu_dequantize_rows_kernel_q2_k(int32_t blocks_of_row, const int64_t* index, const quillon::block_q2_K* weight,
                                     T* out, int32_t weight_blocks) {
  using namespace quillon;
  expand_gathered(q2_k_expander{weight}, blocks_of_row, index, static_cast<uint32_t>(weight_blocks), out);
}
