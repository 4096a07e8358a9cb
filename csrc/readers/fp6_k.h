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

struct fp6_k_reader : fp6_planes<256, 16> {
  const uint8_t* scales;
  const uint8_t* super_scales;

  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    const values<half> d = entry_of_block<half>(at, super_scales);
    return rounded_halves<T>(d * exact_values<half>(lanes<int32_t>(entry_by_block<int8_t>(at, scales))));
  }
};

}  // namespace quillon
