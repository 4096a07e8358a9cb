// How kernels read fp6_k.
//
// A chunk is one sub-block of sixteen neighbouring elements (six_bits.h, codes as in fp6):
//
//   super-block of 256   elem  0 ... 15 | 16 ... 31 | ... | 240 .. 255
//   low plane            word  0, 1     | 2, 3      | ... | 30, 31          four bits of each element
//   high plane           word  0        | 1         | ... | 15              sign and top exponent bit
//   scales               byte  0        | 1         | ... | 15              signed
//   scale                half  d                                            one for all sixteen
//
// W = fp6(e) * (d * scale); the product in brackets is a product in half whatever T is, and is applied to the sum of a
// chunk.
#pragma once

#include "readers/six_bits.h"

namespace quillon {

struct fp6_k_reader {
  static constexpr int CHUNK = 16, BLOCK = 256, UNIT = 16;
  using order = fp6_lanes;
  const uint8_t* low_plane;
  const uint8_t* high_plane;
  const uint8_t* scales;
  const uint8_t* super_scales;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto low = at.plain_codes_of_chunk(low_plane);
    return sum_fp6<T>(x, {at.template entry_by_unit<uint32_t>(high_plane), {low.half_words[0], low.half_words[1]}});
  }
  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    const values<half> d = at.template entry_of_block<half>(super_scales);
    return rounded_halves<T>(d * exact_values<half>(lanes<int32_t>(at.template entry_by_block<int8_t>(scales))));
  }
};

}  // namespace quillon
