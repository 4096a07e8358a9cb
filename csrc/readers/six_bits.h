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

// The sum of the chunk's sixteen unscaled products of fp6 and fp6_k. The codes of bytes 0 and 2, and those of 1 and 3, become
// the bits of two halves at once, in the halves of a word.
template <typename T, typename Chunk>
inline auto sum_fp6(const Chunk& x, const six_bit_words& chunk) {
  return sum_products<16>(x, [=](auto i) {
    static_assert(fp6_lanes::byte_at(0) == 0 && fp6_lanes::byte_at(1) == 2 && fp6_lanes::byte_at(2) == 1);
    const words codes = fp6_step_codes(chunk.high_of(i / 4), chunk.low_of(i / 4));
    const words halves = i % 4 < 2 ? ((codes & 0x009F009Fu) << 8) | 0x00800080u : (codes & 0x9F009F00u) | 0x00800080u;
    return half_of_word<T>(halves, i % 2);
  });
}

}  // namespace quillon
