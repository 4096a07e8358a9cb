// How kernels read q5_1. One block, 44 bytes, high nibble on the left; a lane takes one byte, which is two elements:
//
//    0 | d  half |
//    2 | m  half |
//    4 | qh, 64-bit word: bit N is bit 4 of eN |
//   12 | e32  e0 | e33  e1 | ... | e63  e31 |
//
// W = d * e + m, each step in T.
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/lanes.h"
#include "readers/five_bit_records.h"

namespace quillon {

struct q5_1_reader {
  // A function from codes of 0 to 31 to their values.
  template <typename T>
  static auto decoder(const block_q5_1& block) {
    return decoder<T>(load_half(block.d), load_half(block.m));
  }
  template <typename T>
  static auto decoder(half of_code, half minimum) {
    const values<T> d = rounded_values<T>(lanes<float>(convert<float>(of_code)));
    const values<T> m = rounded_values<T>(lanes<float>(convert<float>(minimum)));
    return [d, m](words code) { return multiply_add(d, biased_codes<T>(code, 0), m); };
  }
};

// Expanded in float, the product rounded before the sum.
struct q5_1_expander : five_bit_records<q5_1_expander> {
  static auto value(const block_q5_1& block) {
    const auto d = lanes<float>(convert<float>(load_half(block.d)));
    const auto m = lanes<float>(convert<float>(load_half(block.m)));
    return [d, m](words code) { return add(multiply(d, biased_codes<float>(code, 0)), m); };
  }
};

}  // namespace quillon
