// q4_0 times a handful of activation rows: output[b][n] = sum over k of input[b][k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
//
// The bytes are drawn in readers/q4_0.h; the tile of two output rows by two activation rows in batch_chunks.h.
#pragma once

#include "kernels/by_batch/batch_chunks.h"
#include "readers/q4_0.h"

template <typename T, int SG_SIZE, int WG_SIZE>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_q4_0_2x16_by_batch(uint64_t state_size, uint64_t batch, const uint8_t* weight,
                                           int32_t scale_offset, const T* input, sycl::local_accessor<T, 1> local,
                                           uint64_t output_size, T* output) {
  using namespace quillon;
  multiply_scaled_chunks_by_batch<T, WG_SIZE, 2>(q4_0_reader{weight, weight + scale_offset}, state_size, batch, input,
                                                 local, output_size, output);
}
