// fp8_e5m2 times one activation row. The scales that lie behind the codes are not for this kernel.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of eight neighbouring elements: work-item 8j + c takes bytes 8c to 8c + 7 of block j of the round.
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | not read |        W = fp8_e5m2(e)
#pragma once

#include "formats/small_floats.h"
#include "kernels/matvec/chunks.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_fp8_e5m2_2x8(uint64_t state_size, const uint8_t* weight, const T* input,
                                     sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  multiply_chunks<T, 8, WG_SIZE, 2>(state_size, input, local, output_size, output, load_neighbours<T, 8>{},
                                    [=](lane<T>& acc, const activations<T, 8>& chunk, const chunk_place<8>& at) {
                                      const chunk_codes codes = at.codes_of_chunk(weight);
                                      acc = acc + sum_products(chunk, [=](auto i) {
                                              return exact_lane<T>(half_from_bits(fp8_e5m2_half_bits(codes.byte(i))));
                                            });
                                    });
}
