// How kernels read fp8_e4m3.
//
// One block; a chunk is eight neighbouring elements:
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | d float |          W = d * fp8_e4m3(e); d is rounded to T and applied to the sum of a chunk
#pragma once

#include "formats/small_floats.h"
#include "readers/orders.h"
#include "readers/sums.h"

namespace quillon {

struct fp8_e4m3_reader {
  static constexpr int CHUNK = 8, BLOCK = 64, UNIT = 64;
  using order = neighbours<CHUNK>;
  const uint8_t* quants;
  const uint8_t* scales;

  // fp8_e4m3_half_bits of the byte on top of a word: the sign comes down to bits 15 and 14, and 14 is cleared.
  static words half_bits_of_top(words word) { return (shifted_right_signed(word, 17) & 0xBF80u) | 0x0040u; }

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = at.codes_of_chunk(quants);
    return sum_products<CHUNK>(x, [=](auto i) { return halves_of_bits<T>(half_bits_of_top(codes.byte_on_top(i))); });
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_values<T>(at.template entry_of_block<float>(scales));
  }
};

}  // namespace quillon
