// How kernels read iq2_xxs.
//
// A slice is one group of 32 elements, four vectors of eight; a super-block has eight. The eight bytes of a group lie two
// bytes behind a multiple of 66:
//
//   record   0 | d half | 2 | group 0 | 10 | group 1 | ... | 58 | group 7 |
//   group    | i0 | i1 | i2 | i3 | scale 4 bits, signs3, signs2, signs1, signs0 of 7 bits |
//
// Byte iv is the index of a row of eight magnitudes, signsv has the signs of the first seven of them; that of the eighth
// makes the number of negative ones even. W = ((scale + 0.5) * d * 0.25) * magnitude, with its sign.
#pragma once

#include "readers/grids.h"
#include "readers/q8_1.h"

namespace quillon {

// An entry of ksigns_iq2xs, computed: no gather from a table of bytes.
inline words with_parity(words seven_signs) {
#ifndef QUILLON_VECTOR_LANES
  return seven_signs | ((static_cast<uint32_t>(__builtin_popcount(seven_signs)) & 1u) << 7);
#else
  const words folded = seven_signs ^ (seven_signs >> 4);
  const words pair = folded ^ (folded >> 2);
  return seven_signs | (((pair ^ (pair >> 1)) & 1u) << 7);
#endif
}

// The product, or its negative where the bit of `signs` is set.
inline lanes<int32_t> with_sign(lanes<int32_t> product, words signs, int bit) {
#ifndef QUILLON_VECTOR_LANES
  return (signs & (1u << bit)) != 0 ? -product : product;  // one predicated operation
#else
  // All ones where the sign is negative: (p ^ -1) - -1 is -p.
  const lanes<int32_t> negative = bit_cast<lanes<int32_t>>(signs << (31 - bit)) >> 31;
  return (product ^ negative) - negative;
#endif
}

struct iq2_xxs_reader {
  using block = block_iq2_xxs;
  using activations = q8_1_blocks;
  static constexpr int SLICES = 8;

  struct slice {
    words indices;   // a byte for each vector
    words aux;       // scale and signs
    lanes<float> d;  // of the record

    // Vector v: its magnitudes, in the bytes of two words, and its signs, in eight bits.
    word_pair magnitudes(int v) const { return look_up(iq2xxs_grid, (indices >> (8 * v)) & 255u); }
    words signs(int v) const { return with_parity((aux >> (7 * v)) & 127u); }
    // A quarter of it is what magnitudes are multiplied by.
    lanes<float> scale() const {
      return multiply(add(to_float(bit_cast<lanes<int32_t>>(aux >> 28)), lanes<float>(0.5f)), d);
    }
  };

#ifdef QUILLON_VECTOR_LANES
  // The slices of two super-blocks.
  static slice load(const block& first, const block& second) {
    const words low = load_vector<uint32_t, LANES>(first.qs);
    const words high = load_vector<uint32_t, LANES>(second.qs);
    return {pick<0, 2, uint32_t>(low, high), pick<1, 2, uint32_t>(low, high),
            in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)))};
  }
#else
  static slice load(const block* row, int32_t number, uint32_t index) {
    const block& w = row[number];
    const uint64_t group = load_u64(w.qs + 8 * index);
    return {static_cast<uint32_t>(group), static_cast<uint32_t>(group >> 32), two_halves(load_u32(&w)).first};
  }
#endif

  static lanes<float> dot(const slice& w, const activations& x) {
    lanes<int32_t> sum = {};
    // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
    for (int v = 0; v < 4; ++v) {
      const word_pair magnitudes = w.magnitudes(v);
      const words signs = w.signs(v);
      unrolled<2>([&](auto h) {
        const words four = x.quant_word(2 * v + h);
        unrolled<4>([&](auto b) {
          const lanes<int32_t> product =
              bit_cast<lanes<int32_t>>((magnitudes[int{h}] >> (8 * b)) & 255u) * signed_byte_of(four, b);
          sum += with_sign(product, signs, 4 * h + b);
        });
      });
    }
    return multiply(multiply(multiply(w.scale(), x.d), lanes<float>(0.25f)), to_float(sum));
  }
};

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq2_xxs_q8_1(const block_iq2_xxs& w, const block_q8_1* q, uint32_t iqs) {
  return dot_of_slice<iq2_xxs_reader>(&w, q, 0, iqs);
}
#endif

}  // namespace quillon
