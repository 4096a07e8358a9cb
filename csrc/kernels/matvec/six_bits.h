// What the kernels of the 6-bit formats share: a chunk of sixteen neighbouring elements stands in a word of a high
// plane and two words of a low plane, and four steps of four elements take it out.
#pragma once

#include "formats/small_floats.h"
#include "kernels/matvec/chunks.h"

namespace quillon {

// Calls `body(step, high, low)` for the steps 0 to 3 with the words shifted so that the step's bits are on top of every
// byte. The first low word, in the low half of `low_words`, serves steps 0 and 1.
template <typename Body>
inline void for_each_step(uint32_t high, uint64_t low_words, Body body) {
  const uint32_t low[2] = {static_cast<uint32_t>(low_words), static_cast<uint32_t>(low_words >> 32)};
  unrolled<4>([&](auto step) { body(step, high << (2 * step), low[step / 2] << (4 * (step % 2))); });
}

// The sum of the chunk's sixteen unscaled products, from left to right in the order of the byte lanes 0, 2, 1, 3: of
// the four elements of a step 2, 3, 0 and 1.
template <typename T>
inline lane<T> sum_fp6(const activations<T, 16>& chunk, uint32_t high_word, uint64_t low_words) {
  constexpr int FIRST = 2;
  lane<T> sum;
  for_each_step(high_word, low_words, [&](auto step, uint32_t high, uint32_t low) {
    const uint32_t codes = fp6_step_codes(high, low);
    unrolled<4>([&](auto i) {
      constexpr int e = (FIRST + i) % 4;
      const lane<T> value = exact_lane<T>(half_from_bits(fp6_half_bits(codes >> (8 * fp6_lane(e)))));
      sum = step + i == 0 ? chunk.v[e] * value : sum + chunk.v[4 * step + e] * value;
    });
  });
  return sum;
}

}  // namespace quillon
