// iq2_xxs times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output, of local memory and of the tree of sums
//
// A work-group has two output rows, one for each place in the dimension of rows, with 32 lanes each. The bytes are drawn
// in readers/iq2_xxs.h; slices and the tree in q8_1_dot.h.
#pragma once

#include "kernels/matvec/q8_1_dot.h"
#include "readers/iq2_xxs.h"

template <typename T>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(32)
void qlinear_xpu_kernel_iq2_xxs_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq2_xxs* weight,
                                     const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local,
                                     T* output) {
  using namespace quillon;
  multiply_slices<T, 2, iq2_xxs_reader>(output_size, blocks_per_row, weight, activations, local, output);
}
