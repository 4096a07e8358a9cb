// How kernels read fp8_e5m2.
//
// One block; a chunk is eight neighbouring elements:
//
//   codes    | e0 | e1 | ... | e63 |
//   scales   | d float |          W = fp8_e5m2(e) for the readers without scales, d times that for the others
#pragma once

#include "formats/small_floats.h"
#include "readers/orders.h"
#include "readers/sums.h"

namespace quillon {

struct fp8_e5m2_reader {
  static constexpr int CHUNK = 8, BLOCK = 64, UNIT = 64;
  using order = neighbours<CHUNK>;
  const uint8_t* codes;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto bytes = at.codes_of_chunk(codes);
    return sum_products<CHUNK>(x, [=](auto i) { return halves_of_bits<T>((bytes.byte(i) << 8) | 0x0080u); });
  }
};

}  // namespace quillon
