// q2_k times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output, of local memory and of the tree of sums
//
// A work-group is 32 lanes with one output row. The bytes are drawn in readers/q2_k.h; slices and the tree in q8_1_dot.h.
#pragma once

#include "kernels/matvec/q8_1_dot.h"
#include "readers/q2_k.h"

template <typename T>
QUILLON_KERNEL(2)
void qlinear_xpu_kernel_q2_k_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_q2_K* weight,
                                  const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
  multiply_slices<T, 1, q2_k_reader>(output_size, blocks_per_row, weight, activations, local, output);
}
