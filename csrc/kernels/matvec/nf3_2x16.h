// nf3 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// A chunk is sixteen neighbouring elements, a quarter of a block: 16 bits of its first field and 32 of its
// second. Work-item 4j + c takes quarter c of block j of the round.
//
//   quants   byte 0 ... 7   | qh, 64-bit word: bit N is the top bit of eN |   quarter c: bytes 2c, 2c + 1
//            byte 8 ... 23  | e0 e1 e2 e3 | e4 e5 e6 e7 | ... e63 |           quarter c: bytes 8 + 4c and on
//                             two low bits of four codes in a byte, the first in the high bits
//   scales   | d half |                       W = d * dequantNF3[e]; d is applied to the sum of a chunk
#pragma once

#include "formats/code_books.h"
#include "kernels/matvec/chunks.h"

namespace quillon {

// The bits of dequantNF3 rounded to T, of T where that is half and else of float, which holds it.
template <typename T, int CODE>
constexpr auto nf3_bits() {
  constexpr float VALUE = dequantNF3[CODE];
  if constexpr (std::is_same_v<T, half>)
    return float_to_half_bits(VALUE);
  else
    return bit_cast<uint32_t>(static_cast<float>(rounded_lane<T>(VALUE)));
}

// dequantNF3 of a code of three bits. Eight values are chosen from faster than looked up in memory, provided
// that they are integer constants: the compiler would choose between addresses in a table.
template <typename T>
inline lane<T> nf3_value(bool bit2, bool bit1, bool bit0) {
  const auto v01 = bit0 ? nf3_bits<T, 1>() : nf3_bits<T, 0>();
  const auto v23 = bit0 ? nf3_bits<T, 3>() : nf3_bits<T, 2>();
  const auto v45 = bit0 ? nf3_bits<T, 5>() : nf3_bits<T, 4>();
  const auto v67 = bit0 ? nf3_bits<T, 7>() : nf3_bits<T, 6>();
  const auto low = bit1 ? v23 : v01;
  const auto high = bit1 ? v67 : v45;
  if constexpr (std::is_same_v<T, half>)
    return half_from_bits(static_cast<uint16_t>(bit2 ? high : low));
  else
    return exact_lane<T>(bit_cast<float>(bit2 ? high : low));
}

}  // namespace quillon

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_nf3_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                 sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, 2>(state_size, input, local, output_size, output, load_neighbours<T, 16>{},
                                     [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
                                       const uint8_t* first = weight + at.block * sizeof(block_nf3_qs);
                                       const int block = at.item / 4 * static_cast<int>(sizeof(block_nf3_qs));
                                       const int quarter = at.item % 4;
                                       const uint32_t top = load<uint16_t>(first + (block + 2 * quarter));
                                       const uint32_t low = load<uint32_t, 4>(first + (block + 8 + 4 * quarter));
                                       const lane<T> s = sum_products(chunk, [=](auto i) {
                                         constexpr int LOW_BIT = 8 * (i / 4) + 6 - 2 * (i % 4);
                                         return nf3_value<T>((top >> i) & 1, (low >> (LOW_BIT + 1)) & 1,
                                                             (low >> LOW_BIT) & 1);
                                       });
                                       acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
                                     });
}
