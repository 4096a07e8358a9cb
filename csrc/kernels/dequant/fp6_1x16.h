// fp6 expanded to a dense matrix by tiles of rows.
//
//   T        element type of the result, and of all arithmetic
//   SG_SIZE  required sub-group size
//
// A work-item has one group of sixteen neighbours in a round (row_form.h). The bytes are drawn in readers/fp6.h.
//
// Rounds are of 1024 elements or more, and none is begun that the row does not fill: of a row that is no multiple of
// element_step the rest is not written.
#pragma once

#include "kernels/dequant/row_form.h"
#include "readers/fp6.h"

template <typename T, int SG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_tile_dequantize_kernel_fp6_1x16(uint64_t state_size, int32_t rounds, const uint8_t* high_plane,
                                                 const uint8_t* low_plane, const uint8_t* scales, T* out,
                                                 int32_t block_step, int32_t element_step) {
  using namespace quillon;
  expand_row<T, 16>(fp6_expander{high_plane, low_plane, scales}, state_size, rounds, out, block_step, element_step);
}
