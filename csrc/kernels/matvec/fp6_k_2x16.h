// fp6_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
//   ROW_TILE  output rows of a work-group
//
// The bytes are drawn in readers/fp6_k.h; chunks, rounds and the tree in chunks.h.
#pragma once

#include "kernels/matvec/chunks.h"
#include "readers/fp6_k.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_fp6_k_2x16(uint64_t state_size, const uint8_t* weight, uint64_t high_plane_offset,
                                   uint64_t scales_offset, uint64_t super_scales_offset, const T* input,
                                   sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  multiply_scaled_chunks<T, WG_SIZE, ROW_TILE>(
      fp6_k_reader{weight, weight + high_plane_offset, weight + scales_offset, weight + super_scales_offset},
      state_size, input, local, output_size, output);
}
