// What the readers of the 6-bit formats share: a chunk of sixteen neighbouring elements stands in a word of a high plane
// and two words of a low plane, and four steps of four elements take it out, each element in a byte of its own:
//
//   high plane   word          two bits of each element, those of step 0 on top of every byte
//   low plane    word 0, 1     four bits of each; word 0 serves steps 0 and 1
#pragma once

#include "formats/small_floats.h"
#include "formats/super_blocks.h"
#include "readers/expansion.h"
#include "readers/orders.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

// The words of a chunk, shifted so that the bits of `step` are on top of every byte.
struct six_bit_words {
  words high;
  words low[2];

  words high_of(int step) const { return high << (2 * step); }
  words low_of(int step) const { return low[step / 2] << (4 * (step % 2)); }
};

// The planes of fp6 and fp6_k. The codes of a step lie in the bytes 2, 0, 3, 1 of the result, and the sum takes bytes 0, 2,
// 1, 3: those of bytes 0 and 2, and those of 1 and 3, become the bits of two halves at once, in the halves of a word.
template <int BLOCK_ELEMENTS, int UNIT_ELEMENTS>
struct fp6_planes {
  static constexpr int CHUNK = 16, BLOCK = BLOCK_ELEMENTS, UNIT = UNIT_ELEMENTS;
  using order = fp6_order;
  const uint8_t* low_plane;
  const uint8_t* high_plane;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const word_pair low = at.template entry_by_unit<word_pair>(low_plane);
    const six_bit_words chunk{halves_apart(at.template entry_by_unit<uint32_t>(high_plane)),
                              {halves_apart(low[0]), halves_apart(low[1])}};
    return sum_products<CHUNK>(x, [=](auto i) {
      static_assert(order::byte_at(0) == 0 && order::byte_at(1) == 2 && order::byte_at(2) == 1);
      const words codes = fp6_step_codes(chunk.high_of(i / 4), chunk.low_of(i / 4));
      const words halves = i % 4 < 2 ? ((codes & 0x009F009Fu) << 8) | 0x00800080u : (codes & 0x9F009F00u) | 0x00800080u;
      return half_of_word<T, i % 2>(halves);
    });
  }
};

#ifdef QUILLON_VECTOR_LANES
// The sixteen codes of a group, from its words: element 4 * step + p is in byte BYTE[p] of the step's words.
template <int... BYTE>
inline words six_bit_codes(const uint8_t* high, const uint8_t* low) {
  static_assert(sizeof...(BYTE) == 4);
  const words byte = {8 * BYTE..., 8 * BYTE..., 8 * BYTE..., 8 * BYTE...};
  const words high_bit = {6, 6, 6, 6, 4, 4, 4, 4, 2, 2, 2, 2, 0, 0, 0, 0};
  const words low_bit = {4, 4, 4, 4, 0, 0, 0, 0, 4, 4, 4, 4, 0, 0, 0, 0};
  const auto both = load_vector<uint32_t, 2>(low);
  const words low_words = __builtin_shufflevector(both, both, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
  return ((words(load_u32(high)) >> (byte + high_bit)) & 3u) << 4 | ((low_words >> (byte + low_bit)) & 15u);
}
#endif

}  // namespace quillon
