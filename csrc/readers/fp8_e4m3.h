// How kernels read fp8_e4m3.
//
// One block; a chunk is eight neighbouring elements:
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | d float |          W = d * fp8_e4m3(e); d is rounded to T and applied to the sum of a chunk
#pragma once

#include "formats/small_floats.h"
#include "readers/scaled_blocks.h"

namespace quillon {

struct fp8_e4m3_reader : scaled_blocks<8, float> {
  using order = neighbours<CHUNK>;

  // Bytes 0 and 2 of a word, and bytes 1 and 3, become the bits of two halves at once.
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    words halves[2][2];
    unrolled<2>([&](auto w) {
      const words bytes = codes.half_words[int{w}];
      halves[w][0] = ((bytes & 0x00800080u) << 8) | ((bytes & 0x007F007Fu) << 7) | 0x00400040u;
      halves[w][1] = (bytes & 0x80008000u) | ((bytes & 0x7F007F00u) >> 1) | 0x00400040u;
    });
    return sum_products<CHUNK>(x, [=](auto i) { return half_of_word<T>(halves[i / 4][i % 2], i % 4 / 2); });
  }
};

}  // namespace quillon
