// nf4 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// Chunks of sixteen in split order (nibbles.h), with the high nibble first. One block, bytes drawn with their
// high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e0  e32 | e1  e33 |  ...  | e31  e63 |
//   scales  | d half |                        W = d * dequantNF4[e]; d is applied to the sum of a chunk
#pragma once

#include "formats/code_books.h"
#include "kernels/matvec/nibbles.h"

namespace quillon {

// The two values of a quant byte, in the words of a table of all bytes in constant memory: one load gives
// both. Values are rounded to bfloat16 in the table for it, and by the kernel for half.
template <typename T>
struct nf4_pair {
  uint64_t bits;  // 32 of each value, the first in the low ones

  constexpr lane<T> first() const { return value(static_cast<uint32_t>(bits)); }
  constexpr lane<T> second() const { return value(static_cast<uint32_t>(bits >> 32)); }
  static constexpr lane<T> value(uint32_t float_bits) { return rounded_lane<T>(bit_cast<float>(float_bits)); }
};
template <>
struct nf4_pair<bfloat16> {
  uint32_t bits;  // 16 of each value

  constexpr wide_bfloat16 first() const { return wide_bfloat16::exact(bit_cast<float>(bits << 16)); }
  constexpr wide_bfloat16 second() const { return wide_bfloat16::exact(bit_cast<float>(bits & 0xFFFF0000u)); }
};

template <typename T>
struct nf4_pair_table {
  nf4_pair<T> of_byte[256];

  constexpr nf4_pair_table() : of_byte{} {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      const float first = dequantNF4[byte >> 4];
      const float second = dequantNF4[byte & 15];
      if constexpr (std::is_same_v<T, bfloat16>)
        of_byte[byte].bits = float_to_bfloat16_bits(first) | uint32_t{float_to_bfloat16_bits(second)} << 16;
      else
        of_byte[byte].bits = bit_cast<uint32_t>(first) | uint64_t{bit_cast<uint32_t>(second)} << 32;
    }
  }
};
template <typename T>
inline constexpr nf4_pair_table<T> nf4_pairs;

}  // namespace quillon

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_nf4_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                 sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, 2>(state_size, input, local, output_size, output, load_split<T>{},
                                     [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
                                       const chunk_codes codes = at.codes_of_chunk(weight);
                                       const lane<T> s = sum_products(chunk, [=](auto i) {
                                         const nf4_pair<T> pair = nf4_pairs<T>.of_byte[codes.byte(i / 2)];
                                         return i % 2 == 0 ? pair.first() : pair.second();
                                       });
                                       acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
                                     });
}
