// q8_0 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of eight neighbouring elements: work-item 8j + c takes bytes 8c to 8c + 7 of block j of the round.
//
//   quants   | e0 int8 | e1 | ... | e63 |
//   scales   | d float |         W = d * e; d is rounded to T and applied to the sum of a chunk
#pragma once

#include "kernels/matvec/chunks.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q8_0_2x8(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                 sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 8, WG_SIZE, 2>(state_size, input, local, output_size, output, load_neighbours<T, 8>{},
                                    [=](lane<T>& acc, const activations<T, 8>& chunk, const chunk_place<8>& at) {
                                      const chunk_codes codes = at.codes_of_chunk(weight);
                                      const lane<T> s = sum_products(chunk, [=](auto i) {
                                        return integer_lane<T>(static_cast<int8_t>(codes.byte(i)));
                                      });
                                      acc = acc + s * rounded_lane<T>(at.entry_of_block<float>(scales));
                                    });
}
