// How kernels read fp4.
//
// One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |      a chunk is eight neighbouring bytes, sixteen elements
//   scales  | d half |                                    W = d * fp4(e); d is applied to the sum of a chunk
//
// The value of a code is built from bits; no code is zero.
#pragma once

#include "formats/small_floats.h"
#include "readers/expansion.h"
#include "readers/scaled_blocks.h"

namespace quillon {

#ifndef QUILLON_VECTOR_LANES

// The magnitudes of eight codes at once, as steps of 2^22 above the pattern of the smallest, 1/32:
//
//   index       0     1   2   3   4   5   6   7     three low bits of a code
//   magnitude  1/32  1/2  1  1.5  2   3   4   6
//   steps       0     8  10  11  12  13  14  15     four bits: that of 8 says index > 0, that of 1 counts from 2 on
inline uint32_t fp4_steps(uint32_t codes) {
  const uint32_t from_2 = ((codes >> 1) | (codes >> 2)) & 0x11111111u;
  const uint32_t from_1 = (from_2 | codes) & 0x11111111u;
  return (codes & (from_2 | 0x66666666u)) | (from_1 << 3);
}

// The float of code i of a word.
inline float fp4_of_word(uint32_t codes, uint32_t steps, int i) {
  const int to_place = 22 - 4 * i;
  const uint32_t magnitude = (to_place < 0 ? steps >> -to_place : steps << to_place) & 0x03C00000u;
  const uint32_t sign = (codes << (28 - 4 * i)) & 0x80000000u;
  return bit_cast<float>((magnitude + fp4_float_bits(0)) | sign);
}

#endif

struct fp4_reader : scaled_blocks<16, half> {
  using order = split<32>;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
#ifdef QUILLON_VECTOR_LANES
    float values_of_codes[16];
    for (uint32_t code = 0; code < 16; ++code) values_of_codes[code] = fp4_to_float(code);
    return sum_looked_up<T, first_nibble::low>(x, codes.half_words, rounded_table<T>(values_of_codes));
#else
    const uint32_t steps[2] = {fp4_steps(codes.half_words[0]), fp4_steps(codes.half_words[1])};
    return sum_products<CHUNK>(
        x, [=](auto i) { return exact_values<T>(fp4_of_word(codes.half_words[i / 8], steps[i / 8], i % 8)); });
#endif
  }
};

// Expanded in T.
struct fp4_expander : split_nibbles<fp4_expander> {
  const uint8_t* scales;

  template <typename T>
  auto value(int64_t block) const {
    const values<T> d = scale_values<T>(load_half(scales + 2 * block));
#ifdef QUILLON_VECTOR_LANES
    float values_of_codes[16];
    for (uint32_t code = 0; code < 16; ++code) values_of_codes[code] = fp4_to_float(code);
    const lanes<float> table = rounded_table<T>(values_of_codes);
    return [d, table](words byte) {
      return two_values{multiply(d, exact_values<T>(look_up(table, byte & 15u))),
                        multiply(d, exact_values<T>(look_up(table, byte >> 4)))};
    };
#else
    return [d](words byte) {
      return two_values{multiply(d, exact_values<T>(fp4_to_float(byte & 15u))),
                        multiply(d, exact_values<T>(fp4_to_float(byte >> 4)))};
    };
#endif
  }
};

}  // namespace quillon
