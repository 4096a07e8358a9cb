// How kernels read q8_0.
//
// One block; a chunk is eight neighbouring elements:
//
//   quants   | e0 int8 | e1 | ... | e63 |
//   scales   | d float |          W = d * e; d is rounded to T and applied to the sum of a chunk
#pragma once

#include "formats/integer_blocks.h"
#include "readers/expansion.h"
#include "readers/scaled_blocks.h"

namespace quillon {

struct q8_0_reader : scaled_blocks<8, float> {
  using order = neighbours<CHUNK>;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    return sum_products<CHUNK>(x, [=](auto i) { return exact_values<T>(codes.signed_byte(i)); });
  }
};

// Expanded in T, the scale rounded to it first.
struct q8_0_expander : whole_bytes<q8_0_expander> {
  const uint8_t* scales;

  template <typename T>
  auto value(int64_t block) const {
    const values<T> d = scale_values<T>(load_float(scales + 4 * block));
    return [d](words byte) { return multiply(d, exact_values<T>(bit_cast<lanes<int32_t>>(byte << 24) >> 24)); };
  }
};

}  // namespace quillon
