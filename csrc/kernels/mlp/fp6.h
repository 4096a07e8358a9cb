// The fused gate and up products of an MLP with both weights in fp6, and their activation (activation.h).
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
//   ROW_TILE  output rows of a work-group
//
// The bytes are drawn in readers/fp6.h; chunks and rounds in matvec/chunks.h, the two passes in gated_chunks.h.
#pragma once

#include "kernels/mlp/gated_chunks.h"
#include "readers/fp6.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void mlp_forward_fp6_kernel(uint64_t state_size, const uint8_t* high_plane1, const uint8_t* low_plane1, const T* input,
                            const c10::Half* scales1, int32_t /*blocks_per_row*/, sycl::local_accessor<T, 1> local,
                            const uint8_t* high_plane2, const uint8_t* low_plane2, const c10::Half* scales2,
                            int32_t act_type, T* output QUILLON_ROWS_PARAMETER) {
  using namespace quillon;
  multiply_gated_chunks<T, WG_SIZE, ROW_TILE>(
      fp6_reader{low_plane1, high_plane1, reinterpret_cast<const uint8_t*>(scales1)},
      fp6_reader{low_plane2, high_plane2, reinterpret_cast<const uint8_t*>(scales2)}, state_size, input, local,
      act_type, output QUILLON_ROWS);
}
