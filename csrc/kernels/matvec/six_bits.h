// What the kernels of the 6-bit formats share: a chunk of sixteen neighbouring elements stands in a word of a
// high plane and two words of a low plane, and four steps of four elements take it out.
#pragma once

#include "formats/small_floats.h"
#include "kernels/matvec/chunks.h"

namespace quillon {

// Calls `body(step, high, low)` for the steps 0 to 3 with the words shifted so that the step's bits are on
// top of every byte. The first low word, in the low half of `low_words`, serves steps 0 and 1.
template <typename Body>
inline void for_each_step(uint32_t high, uint64_t low_words, Body body) {
  const uint32_t low[2] = {static_cast<uint32_t>(low_words), static_cast<uint32_t>(low_words >> 32)};
  unrolled<4>([&](auto step) { body(step, high << (2 * step), low[step / 2] << (4 * (step % 2))); });
}

// The sum of fp6 and fp6_k takes the byte lanes of a step's codes in the order 0, 2, 1, 3, which is elements
// 2, 3, 0, 1: their activations are loaded in this order.
struct fp6_order {
  static constexpr int lane_at(int place) { return (0x3120 >> (4 * place)) & 3; }
  constexpr int operator()(int i) const { return i / 4 * 4 + fp6_element_of_lane(lane_at(i % 4)); }
};

// The sum of the chunk's sixteen unscaled products. The low words take the plain split: holding on to a zero
// costs a GPU with 32 lanes of double the one register that it has left.
template <typename T>
inline lane<T> sum_fp6(const activations<T, 16>& chunk, uint32_t high, uint64_t low_words) {
  const chunk_codes low(low_words, 0);
  return sum_products(chunk, [=](auto i) {
    constexpr int STEP = i / 4;
    const uint32_t codes = fp6_step_codes(high << (2 * STEP), low.half_words[STEP / 2] << (4 * (STEP % 2)));
    return exact_lane<T>(half_from_bits(fp6_half_bits(codes >> (8 * fp6_order::lane_at(i % 4)))));
  });
}

}  // namespace quillon
