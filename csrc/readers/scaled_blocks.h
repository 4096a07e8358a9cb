// What the readers of most formats with blocks of 64 share: codes in one region, a scale for each block in another, which
// is rounded to T and applied to the sum of a chunk.
#pragma once

#include "readers/orders.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

template <int CHUNK_ELEMENTS, typename Scale>
struct scaled_blocks {
  static constexpr int CHUNK = CHUNK_ELEMENTS, BLOCK = 64, UNIT = 64;
  const uint8_t* quants;
  const uint8_t* scales;

  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    if constexpr (std::is_same_v<Scale, half>)
      return rounded_halves<T>(entry_of_block<half>(at, scales));
    else
      return rounded_values<T>(entry_of_block<Scale>(at, scales));
  }
};

}  // namespace quillon
