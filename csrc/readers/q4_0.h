// How kernels read q4_0.
//
// One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |      a chunk is eight neighbouring bytes, sixteen elements
//   scales  | d half |                                    W = d * (e - 8); d is applied to the sum of a chunk
#pragma once

#include "readers/scaled_blocks.h"

namespace quillon {

struct q4_0_reader : scaled_blocks<16, half> {
  using order = split<32>;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    return sum_products<CHUNK>(x, [=](auto i) { return biased_codes<T>(codes.nibble(i), 8); });
  }
};

}  // namespace quillon
