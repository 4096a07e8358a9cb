// What the readers of the 6-bit formats share: a chunk of sixteen neighbouring elements stands in a word of a high plane
// and two words of a low plane, and four steps of four elements take it out, each element in a byte of its own:
//
//   high plane   word          two bits of each element, those of step 0 on top of every byte
//   low plane    word 0, 1     four bits of each; word 0 serves steps 0 and 1
#pragma once

#include "formats/small_floats.h"
#include "formats/super_blocks.h"
#include "readers/orders.h"
#include "readers/sums.h"

namespace quillon {

// The words of a chunk, shifted so that the bits of `step` are on top of every byte.
struct six_bit_words {
  words high;
  words low[2];

  words high_of(int step) const { return high << (2 * step); }
  words low_of(int step) const { return low[step / 2] << (4 * (step % 2)); }
};

// The sum of the chunk's sixteen unscaled products of fp6 and fp6_k.
template <typename T, typename Chunk>
inline auto sum_fp6(const Chunk& x, const six_bit_words& chunk) {
  return sum_products<16>(x, [=](auto i) {
    constexpr int STEP = i / 4;
    const words codes = fp6_step_codes(chunk.high_of(STEP), chunk.low_of(STEP));
    const words code = codes >> (8 * fp6_lanes::byte_at(i % 4));
    return halves_of_bits<T>(((code & 0x9Fu) << 8) | 0x0080u);
  });
}

}  // namespace quillon
