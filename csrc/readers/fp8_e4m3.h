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

  // Bytes 0 and 2 of a word, and bytes 1 and 3, become the bits of two halves at once.
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = at.codes_of_chunk(quants);
    words halves[2][2];
    unrolled<2>([&](auto w) {
      const words bytes = codes.half_words[int{w}];
      halves[w][0] = ((bytes & 0x00800080u) << 8) | ((bytes & 0x007F007Fu) << 7) | 0x00400040u;
      halves[w][1] = (bytes & 0x80008000u) | ((bytes & 0x7F007F00u) >> 1) | 0x00400040u;
    });
    return sum_products<CHUNK>(x, [=](auto i) { return half_of_word<T>(halves[i / 4][i % 2], i % 4 / 2); });
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_values<T>(at.template entry_of_block<float>(scales));
  }
};

}  // namespace quillon
