// q4_1 times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  lanes of a work-group, the ways by which K is split
// A work-group has two output rows.
//
// The bytes are drawn in readers/q4_1.h; chunks, rounds and the tree in chunks.h. The sum of a chunk's activations
// serves all rows: it carries the minimum.
#pragma once

#include "kernels/matvec/chunks.h"
#include "readers/q4_1.h"

template <typename T, int SG_SIZE, int WG_SIZE>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(SG_SIZE)
void qlinear_xpu_kernel_q4_1_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                  sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const q4_1_reader reader{weight, weight + scale_offset};
  multiply_chunks<T, WG_SIZE, 2, q4_1_reader, tail_round::summed, true>(
      state_size, input, local, output_size, output, [=](values<T>& acc, const auto& x, const auto& at) {
        const values<T> s = reader.template sum<T>(x, at);
        const scale_and_minimum<T> d = reader.template scale<T>(at);
        acc = acc + multiply_add(s, d.scale, x.sum() * d.minimum);
      });
}
