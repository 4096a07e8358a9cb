// The fused gate and up products of an MLP with both weights in q4_0, and their activation (activation.h).
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
//   ROW_TILE  output rows of a work-group
//
// The bytes are drawn in readers/q4_0.h; chunks and rounds in matvec/chunks.h, the two passes in gated_chunks.h.
#pragma once

#include "kernels/mlp/gated_chunks.h"
#include "readers/q4_0.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void mlp_forward_q4_0_kernel(uint64_t state_size, const uint8_t* weight1, int32_t scale_offset, const T* input,
                             sycl::local_accessor<T, 1> local, const uint8_t* weight2, int32_t act_type,
                             T* output QUILLON_ROWS_PARAMETER) {
  using namespace quillon;
  multiply_gated_chunks<T, WG_SIZE, ROW_TILE>(q4_0_reader{weight1, weight1 + scale_offset},
                                              q4_0_reader{weight2, weight2 + scale_offset}, state_size, input, local,
                                              act_type, output QUILLON_ROWS);
}
