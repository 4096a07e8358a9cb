// fp4 times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
// A work-group has two output rows.
//
// The bytes are drawn in readers/fp4.h; chunks, rounds and the tree in chunks.h.
#pragma once

#include "kernels/matvec/chunks.h"
#include "readers/fp4.h"

template <typename T, int SG_SIZE, int WG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_fp4_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                 sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  multiply_scaled_chunks<T, WG_SIZE, 2>(fp4_reader{weight, weight + scale_offset}, state_size, input, local,
                                        output_size, output);
}
