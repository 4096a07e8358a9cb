// How kernels read fp6.
//
// A chunk is sixteen neighbouring elements, one group of a block (six_bits.h).
//
//                 group 0          group 1       group 2       group 3
//   low plane   | word 0, word 1 | word 0, ... | word 0, ... | word 0, ... |    32 bytes of a block
//   high plane  | word           | word        | word        | word        |    16 bytes of a block
//   scales      | d half |                    W = d * fp6(e); d is applied to the sum of a chunk
#pragma once

#include "readers/six_bits.h"

namespace quillon {

struct fp6_reader : fp6_planes<64, 64> {
  const uint8_t* scales;

  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_halves<T>(entry_of_block<half>(at, scales));
  }
};

}  // namespace quillon
