// q4_1 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of sixteen in split order (nibbles.h). The sum of a chunk's activations serves both rows: it carries
// the minimum. One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |
//   pairs   | d half | m half |                        W = d * e + m; both are applied to the sums of a chunk
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/matvec/nibbles.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q4_1_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                  sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  struct chunk_and_sum {
    activations<T, 16> elements;
    lane<T> sum;  // of the sixteen; every row multiplies it by its minimum
  };
  const uint8_t* pairs = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, 2>(
      state_size, input, local, output_size, output,
      [](const T* base, int item) {
        const auto elements = load_split<T>{}(base, item);
        return chunk_and_sum{elements, sum_activations(elements)};
      },
      [=](lane<T>& acc, const chunk_and_sum& chunk, const chunk_place<16>& at) {
        const chunk_codes codes = at.codes_of_chunk(weight);
        const lane<T> s =
            sum_products(chunk.elements, [=](auto i) { return integer_lane<T>(static_cast<int>(codes.nibble(i))); });
        const auto pair = at.entry_of_block<block_q4_1_dm>(pairs);
        acc = acc + (s * rounded_lane<T>(pair.d) + chunk.sum * rounded_lane<T>(pair.m));
      });
}
