// fp4 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of sixteen in split order (nibbles.h). One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |
//   scales  | d half |                                 W = d * fp4(e); d is applied to the sum of a chunk
//
// The value of a code is built from bits, without a table; no code is zero.
#pragma once

#include "formats/small_floats.h"
#include "kernels/matvec/nibbles.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_fp4_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                 sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, 2>(state_size, input, local, output_size, output, load_split<T>{},
                                     [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
                                       const chunk_codes codes = at.codes_of_chunk(weight);
                                       const lane<T> s = sum_products(
                                           chunk, [=](auto i) { return exact_lane<T>(fp4_to_float(codes.nibble(i))); });
                                       acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
                                     });
}
