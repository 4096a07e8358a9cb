// q4_0 woq times one activation row: q4_0 with neighbouring elements in a byte.
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  work-items of a work-group
//   ROW_TILE  output rows of a work-group
//
// Chunks of sixteen in paired order (nibbles.h). One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0     byte 1           byte 31
//           | e1  e0 | e3  e2 |  ...  | e63  e62 |
//   scales  | d half |                                 W = d * (e - 8); d is applied to the sum of a chunk
#pragma once

#include "kernels/matvec/nibbles.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q4_0_woq_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                      sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, ROW_TILE>(
      state_size, input, local, output_size, output, load_neighbours<T, 16>{},
      [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
        const chunk_codes codes = at.codes_of_chunk(weight);
        const lane<T> s =
            sum_products(chunk, [=](auto i) { return integer_lane<T>(static_cast<int>(codes.nibble(i)) - 8); });
        acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
      });
}
