// How kernels read q5_0. One block, 44 bytes, high nibble on the left; a lane takes one byte, which is two elements:
//
//    0 | d  half |
//    2 | not read |
//    4 | qh, 64-bit word: bit N is bit 4 of eN |
//   12 | e32  e0 | e33  e1 | ... | e63  e31 |
//
// W = d * (e - 16), formed in float, for double in double, and rounded to T once.
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/lanes.h"
#include "readers/five_bit_records.h"

namespace quillon {

struct q5_0_reader {
  // A function from codes of 0 to 31 to their values.
  template <typename T>
  static auto decoder(const block_q5_1& block) {
    return decoder<T>(load_half(block.d), load_half(block.m));
  }
  template <typename T>
  static auto decoder(half of_code, half /*not_read*/) {
    const float d = convert<float>(of_code);
    return [d](words code) {
      if constexpr (std::is_same_v<T, double>)
        return static_cast<double>(d) * biased_codes<T>(code, 16);
      else
        return rounded_values<T>(d * biased_codes<float>(code, 16));
    };
  }
};

// Expanded in float.
struct q5_0_expander : five_bit_records<q5_0_expander> {
  static auto value(const block_q5_1& block) {
    const auto d = lanes<float>(convert<float>(load_half(block.d)));
    return [d](words code) { return multiply(d, biased_codes<float>(code, 16)); };
  }
};

}  // namespace quillon
