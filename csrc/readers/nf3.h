// How kernels read nf3.
//
// A chunk is sixteen neighbouring elements, a quarter of a block: 16 bits of its first field and 32 of its second.
//
//   quants   byte 0 ... 7   | qh, 64-bit word: bit N is the top bit of eN |   quarter c: bytes 2c, 2c + 1
//            byte 8 ... 23  | e0 e1 e2 e3 | e4 e5 e6 e7 | ... e63 |           quarter c: bytes 8 + 4c and on
//                             two low bits of four codes in a byte, the first in the high bits
//   scales   | d half |                       W = d * dequantNF3[e]; d is applied to the sum of a chunk
#pragma once

#include "formats/code_books.h"
#include "readers/expansion.h"
#include "readers/scaled_blocks.h"

namespace quillon {

#ifndef QUILLON_VECTOR_LANES

// The bits of dequantNF3 rounded to T, of T where that is half and else of float, which holds it.
template <typename T, int CODE>
constexpr auto nf3_bits() {
  constexpr float VALUE = dequantNF3[CODE];
  if constexpr (std::is_same_v<T, half>)
    return float_to_half_bits(VALUE);
  else if constexpr (std::is_same_v<T, bfloat16>)
    return uint32_t{float_to_bfloat16_bits(VALUE)} << 16;
  else
    return bit_cast<uint32_t>(VALUE);
}

// dequantNF3 in a register, of which each lane takes the value that its code names. Integers, which no T converts.
template <typename T, int... CODE>
inline auto nf3_table(constants<CODE...>) {
  using table = decltype(nf3_bits<T, 0>()) __attribute__((ext_vector_type(8)));
  return table{nf3_bits<T, CODE>()...};
}
template <typename T, typename Table>
inline values<T> nf3_value(const Table& table, uint32_t code) {
  if constexpr (std::is_same_v<T, half>)
    return half_from_bits(table[code]);
  else
    return exact_values<T>(bit_cast<float>(table[code]));
}

#endif

struct nf3_reader : scaled_blocks<16, half> {
  using order = neighbours<CHUNK>;

#ifdef QUILLON_VECTOR_LANES
  // Four blocks of six words for sixteen lanes: the words 2 to 5 of a block are its lanes' fields of two bits, and 0 and
  // 1 have a half word of top bits for each.
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto [first, second] = at.template words_of_blocks<6>(quants);
    const words low = __builtin_shufflevector(first, second, 2, 3, 4, 5, 8, 9, 10, 11, 14, 15, 16, 17, 20, 21, 22, 23);
    const words top = __builtin_shufflevector(first, second, 0, 0, 1, 1, 6, 6, 7, 7, 12, 12, 13, 13, 18, 18, 19, 19);
    const words odd = {0, 16, 0, 16, 0, 16, 0, 16, 0, 16, 0, 16, 0, 16, 0, 16};
    return sum_of_codes<T>(x, top >> odd, low);
  }

 private:
  template <typename T, typename Chunk>
  static auto sum_of_codes(const Chunk& x, words top, words low) {
    // Codes of four elements, with the first on top, become codes from the low end: bytes are kept, fields swapped.
    const words pairs = ((low >> 4) & 0x0F0F0F0Fu) | ((low << 4) & 0xF0F0F0F0u);
    words rest = ((pairs >> 2) & 0x33333333u) | ((pairs << 2) & 0xCCCCCCCCu);
    words rest_of_top = top << 2;
    const lanes<float> table = rounded_table<T>(dequantNF3);
    auto s = x.minus_zero();
#pragma clang loop unroll(disable)
    for (int i = 0; i < CHUNK; ++i) {
      s = multiply_add(x.v(i), exact_values<T>(look_up(table, (rest & 3u) | (rest_of_top & 4u))), s);
      rest >>= 2;
      rest_of_top >>= 1;
    }
    return s;
  }

 public:
#else
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const uint8_t* block = quants + at.block_of_item() * sizeof(block_nf3_qs);
    const uint32_t top = load<uint16_t>(block + 2 * at.chunk_of_block());
    const uint32_t low = load<uint32_t, 4>(block + 8 + 4 * at.chunk_of_block());
    const auto table = nf3_table<T>(first_constants<8>{});
    return sum_products<CHUNK>(x, [=](auto i) {
      constexpr int LOW_BIT = 8 * (i / 4) + 6 - 2 * (i % 4);
      return nf3_value<T>(table, ((top >> i) & 1) << 2 | ((low >> LOW_BIT) & 3));
    });
  }
#endif
};

// Expanded in float, for every T: no twin of nf4. A work-item's share is four neighbours, one byte of the low bits.
struct nf3_expander {
  static constexpr int SPAN = 4;
  const uint8_t* quants;
  const uint8_t* scales;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const uint8_t* block = quants + sizeof(block_nf3_qs) * b;
    const auto d = lanes<float>(convert<float>(load_half(scales + 2 * b)));
    const lanes<float> table = rounded_table<float>(dequantNF3);
    const words low_bit = {6, 4, 2, 0, 14, 12, 10, 8, 22, 20, 18, 16, 30, 28, 26, 24};
    const words lane = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
#pragma clang loop unroll(disable)
    for (int e = 0; e < 64; e += LANES) {
      const words low = (words(load_u32(block + 8 + e / 4)) >> low_bit) & 3u;
      const words top = (words(load_u16(block + e / 8)) >> lane) & 1u;
      to(e, multiply(look_up(table, low | top << 2), d));
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const uint8_t* block = quants + sizeof(block_nf3_qs) * b;
    const float d = convert<float>(load_half(scales + 2 * b));
    const uint32_t low = block[8 + at / 4];
    const uint32_t top = block[at / 8] >> (at % 8);
    const auto table = nf3_table<float>(first_constants<8>{});
    const auto value = [&](int p) {
      return multiply(nf3_value<float>(table, (top >> p & 1u) << 2 | (low >> (6 - 2 * p) & 3u)), d);
    };
    to(at, {value(0), value(1), value(2), value(3)});
  }
#endif
};

}  // namespace quillon
