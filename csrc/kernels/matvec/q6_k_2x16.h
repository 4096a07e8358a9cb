// q6_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
// A work-group has two output rows.
//
// The bytes are drawn in readers/q6_k.h; chunks, rounds and the tree in chunks.h. Rounds are full rounds only:
// chunks that remain when every lane has had the same number of them are not summed. So K counts in units of
// 16 * WG_SIZE, and a K below that gives zeros. A chunk's sum is
// scaled in float whatever T is.
#pragma once

#include "kernels/matvec/chunks.h"
#include "readers/q6_k.h"

template <typename T, int SG_SIZE, int WG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_q6_k_2x16(uint64_t state_size, const uint8_t* high_plane, const uint8_t* low_plane,
                                  const T* input, const uint8_t* super_scales, const uint8_t* scales,
                                  sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const q6_k_reader reader{high_plane, low_plane, super_scales, scales};
  multiply_chunks<T, WG_SIZE, 2, q6_k_reader, tail_round::dropped, false>(
      state_size, input, local, output_size, output, [=](values<T>& acc, const auto& x, const auto& at) {
        acc = acc + rounded_values<T>(reader.float_scale(at) * as_floats<T>(reader.template sum<T>(x, at)));
      });
}
