// q5_1 times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T        element type of input, output, local memory, every product with an activation and every sum
//   SG_SIZE  required sub-group size    WG_SIZE  lanes of a work-group, which owns one row
//
// Scale and minimum come before the product with the activation (readers/q5_1.h). Lanes, blocks and rounds: five_bits.h.
#pragma once

#include "kernels/matvec/five_bits.h"
#include "readers/q5_1.h"

template <typename T, int SG_SIZE, int WG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_q5_1(uint64_t state_size, const quillon::block_q5_1* weight, const T* input,
                             sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
  multiply_five_bits<T, SG_SIZE, WG_SIZE, q5_1_reader>(state_size, weight, input, local, output);
}
