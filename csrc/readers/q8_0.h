// How kernels read q8_0.
//
// One block; a chunk is eight neighbouring elements:
//
//   quants   | e0 int8 | e1 | ... | e63 |
//   scales   | d float |          W = d * e; d is rounded to T and applied to the sum of a chunk
#pragma once

#include "formats/integer_blocks.h"
#include "readers/orders.h"
#include "readers/sums.h"

namespace quillon {

struct q8_0_reader {
  static constexpr int CHUNK = 8, BLOCK = 64, UNIT = 64;
  using order = neighbours<CHUNK>;
  const uint8_t* quants;
  const uint8_t* scales;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = at.codes_of_chunk(quants);
    return sum_products<CHUNK>(x, [=](auto i) { return exact_values<T>(codes.signed_byte(i)); });
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_values<T>(at.template entry_of_block<float>(scales));
  }
};

}  // namespace quillon
