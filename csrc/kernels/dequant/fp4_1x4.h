// fp4 expanded to a dense matrix.
//
//   T        element type of the result, and of all arithmetic
//   SG_SIZE  required sub-group size
//
// A work-item has two neighbouring bytes, which are four elements: two neighbours, and the two a half block further on in a round (row_form.h). The bytes are drawn in readers/fp4.h.
#pragma once

#include "kernels/dequant/row_form.h"
#include "readers/fp4.h"

template <typename T, int SG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_dequantize_kernel_fp4_1x4(uint64_t state_size, int32_t rounds, const uint8_t* scales,
                                           const uint8_t* quants, T* out, int32_t block_step, int32_t element_step) {
  using namespace quillon;
  expand_row<T, 4>(fp4_expander{{quants}, scales}, state_size, rounds, out, block_step, element_step);
}
