// fp8_e4m3 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of eight neighbouring elements: work-item 8j + c takes bytes 8c to 8c + 7 of block j of the round.
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | d float |         W = d * fp8_e4m3(e); d is rounded to T and applied to the sum of a chunk
#pragma once

#include "formats/small_floats.h"
#include "kernels/matvec/chunks.h"

namespace quillon {

// fp8_e4m3_half_bits of the byte on top of a word: the sign comes down to bits 15 and 14, and 14 is cleared.
constexpr uint16_t fp8_e4m3_half_bits_of_top(uint32_t word) {
  return static_cast<uint16_t>(((static_cast<int32_t>(word) >> 17) & 0xBF80) | 0x0040);
}

}  // namespace quillon

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_fp8_e4m3_2x8(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                     sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 8, WG_SIZE, 2>(
      state_size, input, local, output_size, output, load_neighbours<T, 8>{},
      [=](lane<T>& acc, const activations<T, 8>& chunk, const chunk_place<8>& at) {
        const chunk_codes codes = at.codes_of_chunk(weight);
        const lane<T> s = sum_products(chunk, [=](auto i) {
          return exact_lane<T>(half_from_bits(fp8_e4m3_half_bits_of_top(codes.byte_on_top(i))));
        });
        acc = acc + s * rounded_lane<T>(at.entry_of_block<float>(scales));
      });
}
