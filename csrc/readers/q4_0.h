// How kernels read q4_0.
//
// One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |      a chunk is eight neighbouring bytes, sixteen elements
//   scales  | d half |                                    W = d * (e - 8); d is applied to the sum of a chunk
#pragma once

#include "readers/expansion.h"
#include "readers/scaled_blocks.h"

namespace quillon {

struct q4_0_reader : scaled_blocks<16, half> {
  using order = split<32>;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    return sum_products<CHUNK>(x, [=](auto i) { return codes.template nibble<T, i>(8); });
  }
};

// Expanded in T.
struct q4_0_expander : split_nibbles<q4_0_expander> {
  const uint8_t* scales;

  template <typename T>
  auto value(int64_t block) const {
    const values<T> d = scale_values<T>(load_half(scales + 2 * block));
    return [d](words byte) {
      return two_values{multiply(d, biased_codes<T>(byte & 15u, 8)), multiply(d, biased_codes<T>(byte >> 4, 8))};
    };
  }
};

}  // namespace quillon
