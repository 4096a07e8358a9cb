// How kernels read fp8_e5m2.
//
// One block; a chunk is eight neighbouring elements:
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | d float |          W = fp8_e5m2(e) for the readers without scales, d times that for the others
#pragma once

#include "formats/small_floats.h"
#include "readers/expansion.h"
#include "readers/orders.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

struct fp8_e5m2_reader {
  static constexpr int CHUNK = 8, BLOCK = 64, UNIT = 64;
  using order = neighbours<CHUNK>;
  const uint8_t* quants;

  // Bytes 0 and 2 of a word, and bytes 1 and 3, become the bits of two halves at once.
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    words halves[2][2];
    unrolled<2>([&](auto w) {
      const words bytes = halves_apart(codes.half_words[int{w}]);
      halves[w][0] = ((bytes & 0x00FF00FFu) << 8) | 0x00800080u;
      halves[w][1] = (bytes & 0xFF00FF00u) | 0x00800080u;
    });
    return sum_products<CHUNK>(x, [=](auto i) { return half_of_word<T, i % 4 / 2>(halves[i / 4][i % 2]); });
  }
};

struct fp8_e5m2_scaled_reader : fp8_e5m2_reader {
  const uint8_t* scales;

  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_values<T>(entry_of_block<float>(at, scales));
  }
};

// Expanded without the scale, and without arithmetic.
struct fp8_e5m2_expander : whole_bytes<fp8_e5m2_expander> {
  template <typename T>
  auto value(int64_t /*block*/) const {
    return [](words byte) { return half_patterns{(byte << 8) | 0x0080u}; };
  }
};

}  // namespace quillon
