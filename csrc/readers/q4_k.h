// How kernels read q4_k.
//
// A chunk is sixteen elements, half a sub-block of 32: eight quant bytes, whose low and high nibbles stand for elements
// that lie 16 apart.
//
//   super-block of 256   byte  0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31 | ... | 120 .. 127
//   low nibbles          elem  0 ..... 7 | 8 .... 15 | 32 ... 39 | 40 ... 47 | ... | 232 .. 239
//   high nibbles         elem 16 .... 23 | 24 ... 31 | 48 ... 55 | 56 ... 63 | ... | 248 .. 255
//                              chunk 0   |  chunk 1  |  chunk 2  |  chunk 3  | ... |  chunk 15
//   scales                  | s0     m0              | s1     m1             | ...  a byte each for two chunks
//   pairs                   | d  dmin                                        | ...  a half each for all
//
// W = (d * s) * e - (dmin * m); d * s meets the sum of a chunk's products, dmin * m that of its activations.
#pragma once

#include "formats/super_blocks.h"
#include "readers/expansion.h"
#include "readers/orders.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

struct q4_k_reader {
  static constexpr int CHUNK = 16, BLOCK = 256, UNIT = 32;
  using order = split<16>;
  const uint8_t* quants;
  const uint8_t* scales;
  const uint8_t* pairs;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    // A GPU with 32 lanes of double has no register left for the zero of the codes.
    const auto codes = sizeof(T) == 8 ? plain_codes_of_chunk(at, quants) : codes_of_chunk(at, quants);
    return sum_products<CHUNK>(x, [=](auto i) { return codes.template nibble<T, i>(0); });
  }
  template <typename T, typename Place>
  scale_and_minimum<T> scale(const Place& at) const {
    const words bytes = at.template entry_of_chunks<uint16_t, 2>(scales);
    const half_pair pair = halves_of_block(at, pairs);
    return {two_level<T>(pair.first, bytes & 255u), two_level<T>(pair.second, bytes >> 8)};
  }

 private:
  // A half times a byte, in T. The product is exact in float, which takes half the registers of a
  // double.
  template <typename T>
  static values<T> two_level(values<half> d, words byte) {
    if constexpr (std::is_same_v<T, double>)
      return exact_values<T>(as_floats<half>(d) * biased_codes<float>(byte, 0));
    else
      return rounded_halves<T>(d) * biased_codes<T>(byte, 0);
  }
};

// Expanded in float. A work-item's share of a super-block is four bytes, number c of those of sub-block k: two times four
// neighbours, sixteen elements apart.
struct q4_k_expander {
  const uint8_t* quants;
  const uint8_t* scales;
  const uint8_t* pairs;

  // A function from a byte of sub-block k to what its two codes become.
  auto value(int64_t block, int k) const {
    const uint32_t pair = load<uint32_t, 4>(pairs + 4 * block);
    const uint32_t bytes = load<uint16_t, 2>(scales + 16 * block + 2 * k);
    const sub_block_floats of_code(half_from_bits(static_cast<uint16_t>(pair)), bytes & 255u,
                                   half_from_bits(static_cast<uint16_t>(pair >> 16)), bytes >> 8);
    return [of_code](words byte) { return two_values{of_code(byte & 15u), of_code(byte >> 4)}; };
  }

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t block, const To& to) const {
#pragma clang loop unroll(disable)
    for (int k = 0; k < 8; ++k) expand_pairs<16>(quants + 128 * block + 16 * k, 32 * k, value(block, k), to);
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t block, int at, const To& to) const {
    const int k = at / 4, c = at % 4;
    expand_pairs<4, 16>(quants + 128 * block + 4 * at, 32 * k + 4 * c, value(block, k), to);
  }
#endif
};

}  // namespace quillon
