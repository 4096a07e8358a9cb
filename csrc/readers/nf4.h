// How kernels read nf4.
//
// One block, bytes drawn with their high nibble on the left; the high one stands for the first element:
//
//   quants   byte 0      byte 1            byte 31
//           | e0  e32 | e1  e33 |  ...  | e31  e63 |      a chunk is eight neighbouring bytes, sixteen elements
//   scales  | d half |                                    W = d * dequantNF4[e]; d is applied to the sum of a chunk
#pragma once

#include "formats/code_books.h"
#include "readers/expansion.h"
#include "readers/scaled_blocks.h"

namespace quillon {

#ifndef QUILLON_VECTOR_LANES

// The two values of a quant byte, in the words of a table of all bytes in constant memory: one load gives both. Values
// are rounded to bfloat16 in the table for it, and by the kernel for half.
template <typename T>
struct nf4_pair {
  uint64_t bits;  // 32 of each value, the first in the low ones

  values<T> first() const { return rounded_values<T>(bit_cast<float>(static_cast<uint32_t>(bits))); }
  values<T> second() const { return rounded_values<T>(bit_cast<float>(static_cast<uint32_t>(bits >> 32))); }
};
template <>
struct nf4_pair<bfloat16> {
  uint32_t bits;  // 16 of each value

  values<bfloat16> first() const { return {bit_cast<float>(bits << 16)}; }
  values<bfloat16> second() const { return {bit_cast<float>(bits & 0xFFFF0000u)}; }
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

#endif

struct nf4_reader : scaled_blocks<16, half> {
  using order = split<32>;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
#ifdef QUILLON_VECTOR_LANES
    return sum_looked_up<T, first_nibble::high>(x, codes.half_words, rounded_table<T>(dequantNF4));
#else
    return sum_products<CHUNK>(x, [=](auto i) {
      const nf4_pair<T> pair = nf4_pairs<T>.of_byte[codes.byte(i / 2)];
      return i % 2 == 0 ? pair.first() : pair.second();
    });
#endif
  }
};

// Expanded in T, the entries of the table rounded to it first.
struct nf4_expander : split_nibbles<nf4_expander> {
  const uint8_t* scales;

  template <typename T>
  auto value(int64_t block) const {
    const values<T> d = scale_values<T>(load_half(scales + 2 * block));
#ifdef QUILLON_VECTOR_LANES
    const lanes<float> table = rounded_table<T>(dequantNF4);
    return [d, table](words byte) {
      return two_values{multiply(exact_values<T>(look_up(table, byte >> 4)), d),
                        multiply(exact_values<T>(look_up(table, byte & 15u)), d)};
    };
#else
    return [d](words byte) {
      const nf4_pair<T> pair = nf4_pairs<T>.of_byte[byte];
      return two_values{multiply(pair.first(), d), multiply(pair.second(), d)};
    };
#endif
  }
};

}  // namespace quillon
