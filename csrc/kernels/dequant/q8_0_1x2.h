// q8_0 expanded to a dense matrix.
//
//   T        element type of the result, and of all arithmetic
//   SG_SIZE  required sub-group size
//
// A work-item has two neighbours in a round (row_form.h). The bytes are drawn in readers/q8_0.h.
#pragma once

#include "kernels/dequant/row_form.h"
#include "readers/q8_0.h"

template <typename T, int SG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_dequantize_kernel_q8_0_1x2(uint64_t state_size, int32_t rounds, const uint8_t* scales,
                                            const uint8_t* quants, T* out, int32_t block_step, int32_t element_step) {
  using namespace quillon;
  expand_row<T, 2>(q8_0_expander{{quants}, scales}, state_size, rounds, out, block_step, element_step);
}
