// The fused gate and up products of an MLP with both weights in iq2_xxs and the activations in q8_1 blocks, and their
// activation (activation.h).
//
//   T  element type of the output, of local memory and of the tree of sums
//
// The bytes are drawn in readers/iq2_xxs.h; slices in matvec/q8_1_dot.h, the two sums of a row in gated_slices.h.
#pragma once

#include "kernels/mlp/gated_slices.h"
#include "readers/iq2_xxs.h"

template <typename T>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(32)
void mlp_forward_iq2_xxs_kernel(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq2_xxs* weight1,
                                const quillon::block_q8_1* activations, const quillon::block_iq2_xxs* weight2,
                                sycl::local_accessor<T, 1> local, int32_t act_type, T* output) {
  using namespace quillon;
  multiply_gated_slices<T, iq2_xxs_reader>(output_size, blocks_per_row, weight1, activations, weight2, local, act_type,
                                           output);
}
