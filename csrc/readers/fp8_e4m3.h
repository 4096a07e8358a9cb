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
      const words bytes = halves_apart(codes.half_words[int{w}]);
#ifdef QUILLON_VECTOR_LANES
      // A shift that repeats the sign leaves one copy to be cleared.
      using shorts = vector<int16_t, 2 * LANES>;
      const auto of_upper_bytes = [](words from) {
        const shorts shifted = bit_cast<shorts>(from) >> 1;
        return (bit_cast<words>(shifted) & 0xBF80BF80u) | 0x00400040u;
      };
      halves[w][0] = of_upper_bytes(bytes << 8);
      halves[w][1] = of_upper_bytes(bytes);
#else
      halves[w][0] = ((bytes & 0x00800080u) << 8) | ((bytes & 0x007F007Fu) << 7) | 0x00400040u;
      halves[w][1] = (bytes & 0x80008000u) | ((bytes & 0x7F007F00u) >> 1) | 0x00400040u;
#endif
    });
    return sum_products<CHUNK>(x, [=](auto i) { return half_of_word<T, i % 4 / 2>(halves[i / 4][i % 2]); });
  }
};

}  // namespace quillon
