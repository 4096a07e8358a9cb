// How kernels read fp6.
//
// A chunk is sixteen neighbouring elements, one group of a block (six_bits.h). The codes of a step lie in the bytes 2, 0,
// 3, 1 of the result, and the sum takes bytes 0, 2, 1, 3.
//
//                 group 0          group 1       group 2       group 3
//   low plane   | word 0, word 1 | word 0, ... | word 0, ... | word 0, ... |    32 bytes of a block
//   high plane  | word           | word        | word        | word        |    16 bytes of a block
//   scales      | d half |                    W = d * fp6(e); d is applied to the sum of a chunk
#pragma once

#include "readers/six_bits.h"

namespace quillon {

struct fp6_reader {
  static constexpr int CHUNK = 16, BLOCK = 64, UNIT = 64;
  using order = fp6_lanes;
  const uint8_t* high_plane;
  const uint8_t* low_plane;
  const uint8_t* scales;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto low = at.plain_codes_of_chunk(low_plane);
    return sum_fp6<T>(x, {at.template entry_by_unit<uint32_t>(high_plane), {low.half_words[0], low.half_words[1]}});
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_halves<T>(at.template entry_of_block<half>(scales));
  }
};

}  // namespace quillon
