// fp6 times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
//   ROW_TILE  output rows of a work-group
//
// The bytes are drawn in readers/fp6.h; chunks, rounds and the tree in chunks.h.
#pragma once

#include "kernels/matvec/chunks.h"
#include "readers/fp6.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_fp6_2x16(uint64_t state_size, const uint8_t* high_plane, const uint8_t* low_plane,
                                 const T* input, const c10::Half* scales, int32_t /*blocks_per_row*/,
                                 sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  multiply_scaled_chunks<T, WG_SIZE, ROW_TILE>(
      fp6_reader{low_plane, high_plane, reinterpret_cast<const uint8_t*>(scales)}, state_size, input, local,
      output_size, output);
}
