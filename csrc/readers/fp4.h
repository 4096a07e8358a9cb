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
#include "readers/orders.h"
#include "readers/sums.h"

namespace quillon {

struct fp4_reader {
  static constexpr int CHUNK = 16, BLOCK = 64, UNIT = 64;
  using order = split<32>;
  const uint8_t* quants;
  const uint8_t* scales;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = at.codes_of_chunk(quants);
#ifdef QUILLON_VECTOR_LANES
    float values_of_codes[16];
    for (uint32_t code = 0; code < 16; ++code) values_of_codes[code] = fp4_to_float(code);
    return sum_looked_up<T>(x, codes.half_words, rounded_table<T>(values_of_codes));
#else
    return sum_products<CHUNK>(x, [=](auto i) { return exact_values<T>(fp4_to_float(codes.nibble(i))); });
#endif
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_halves<T>(at.template entry_of_block<half>(scales));
  }
};

}  // namespace quillon
