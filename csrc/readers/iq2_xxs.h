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

#include "formats/grids.h"
#include "readers/expansion.h"
#include "readers/q8_1.h"

namespace quillon {

struct iq2_xxs_reader {
  using block = block_iq2_xxs;
  using activations = q8_1_blocks;
  static constexpr int SLICES = 8;

  struct slice {
#ifdef QUILLON_VECTOR_LANES
    const uint8_t* groups[2];  // the first of eight of each super-block
#else
    uint32_t indices;  // a byte for each vector
#endif
    words aux;       // scale and signs
    lanes<float> d;  // of the record

    // A quarter of it is what magnitudes are multiplied by.
    lanes<float> scale() const {
      return multiply(add(to_float(bit_cast<lanes<int32_t>>(aux >> 28)), lanes<float>(0.5f)), d);
    }

#ifdef QUILLON_VECTOR_LANES
    // The magnitudes of a slice. Its four rows are loaded one by one: that is faster than a gather for all slices.
    slice_bytes<uint8_t> magnitudes(int index) const {
      const uint8_t* group = groups[index / 8] + 8 * (index % 8);
      const vector<uint64_t, 4> rows = {iq2xxs_grid[group[0]], iq2xxs_grid[group[1]], iq2xxs_grid[group[2]],
                                        iq2xxs_grid[group[3]]};
      return bit_cast<slice_bytes<uint8_t>>(rows);
    }
    // The signs of the four vectors of every slice, in the bytes of a word: entries of ksigns_iq2xs, computed.
    words signs() const {
      const words seven =
          (aux & 0x7Fu) | ((aux << 1) & 0x7F00u) | ((aux << 2) & 0x7F0000u) | ((aux << 3) & 0x7F000000u);
      const words folded = seven ^ (seven >> 4);
      const words pair = folded ^ (folded >> 2);
      return seven | (((pair ^ (pair >> 1)) & 0x01010101u) << 7);
    }
#else
    // Vector v: its magnitudes, in the bytes of two words, and its signs, in eight bits: an entry of ksigns_iq2xs, computed.
    word_pair magnitudes(int v) const {
      const uint64_t row = iq2xxs_grid[(indices >> (8 * v)) & 255u];
      return {static_cast<uint32_t>(row), static_cast<uint32_t>(row >> 32)};
    }
    uint32_t signs(int v) const {
      const uint32_t seven = (aux >> (7 * v)) & 127u;
      return seven | ((static_cast<uint32_t>(__builtin_popcount(seven)) & 1u) << 7);
    }
#endif
  };

#ifdef QUILLON_VECTOR_LANES

  // The slices of two super-blocks.
  static slice load(const block& first, const block& second) {
    const words low = load_vector<uint32_t, LANES>(first.qs);
    const words high = load_vector<uint32_t, LANES>(second.qs);
    return {{first.qs, second.qs},
            pick<1, 2, uint32_t>(low, high),
            in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)))};
  }

  // Signs are given to the quants, none of which is -128 unless the scale is 0.
  static lanes<int32_t> sums(const slice& w, const activations& x) {
    const auto signs = bit_cast<vector<uint8_t, 4 * LANES>>(w.signs());
    const auto signed_quants = [&](auto index) __attribute__((always_inline)) {
      return with_signs(x.quants_of(index), signs_of_slice<index>(signs, first_constants<32>{}));
    };
    return dots_of_slices([&](auto index) __attribute__((always_inline)) { return w.magnitudes(index); },
                          signed_quants);
  }
  template <int INDEX, int... I>
  static slice_bytes<uint8_t> signs_of_slice(vector<uint8_t, 4 * LANES> signs, constants<I...>) {
    const slice_bytes<uint8_t> bits = {uint8_t{1 << (I % 8)}...};
    return __builtin_shufflevector(signs, signs, (4 * INDEX + I / 8)...) & bits;
  }
  static slice_bytes<int8_t> with_signs(slice_bytes<int8_t> quants, slice_bytes<uint8_t> signs) {
    return signs != 0 ? -quants : quants;
  }

#else

  static slice load(const block* row, int32_t number, uint32_t index) {
    const block& w = row[number];
    const uint64_t group = load_u64(w.qs + 8 * index);
    return {static_cast<uint32_t>(group), static_cast<uint32_t>(group >> 32), two_halves(load_u32(&w)).first};
  }

  static int sums(const slice& w, const activations& x) {
    int sum = 0;
    // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
    for (int v = 0; v < 4; ++v) {
      const word_pair magnitudes = w.magnitudes(v);
      const uint32_t signs = w.signs(v);
      unrolled<2>([&](auto h) {
        const uint32_t four = x.quant_word(2 * v + h);
        unrolled<4>([&](auto b) {
          const int product = static_cast<int>((magnitudes[int{h}] >> (8 * b)) & 255u) * signed_byte_of(four, b);
          sum += (signs & (1u << (4 * h + b))) != 0 ? -product : product;  // one predicated operation
        });
      });
    }
    return sum;
  }

#endif

  static lanes<float> dot(const slice& w, const activations& x) {
    return multiply(multiply(multiply(w.scale(), x.d), lanes<float>(0.25f)), to_float(sums(w, x)));
  }
};

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq2_xxs_q8_1(const block_iq2_xxs& w, const block_q8_1* q, uint32_t iqs) {
  return dot_of_slice<iq2_xxs_reader>(&w, q, 0, iqs);
}
#endif

// Expanded in float. A work-item's share of a super-block is vector at / 8 of group at mod 8: eight neighbours.
struct iq2_xxs_expander {
  const block_iq2_xxs* weight;

  // The value, or its negative where the bit of `signs` is set.
  static lanes<float> with_sign(lanes<float> value, words signs, words bit) {
    return bit_cast<lanes<float>>(bit_cast<words>(value) ^ ((signs << (31u - bit)) & 0x80000000u));
  }

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const block_iq2_xxs& block = weight[b];
    const words lane = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
#pragma clang loop unroll(disable)
    for (int g = 0; g < 8; ++g) {
      const uint32_t word = word_iq2_xxs(block, g);
      const auto scale = lanes<float>(scale_iq2_xxs(load_half(block.d), word));
      unrolled<2>([&](auto v) {
        const vector<uint64_t, 2> rows = {grid_iq2_xxs(block, g, 2 * v), grid_iq2_xxs(block, g, 2 * v + 1)};
        const words signs =
            words(signs_iq2_xxs(word, 2 * v) | static_cast<uint32_t>(signs_iq2_xxs(word, 2 * v + 1)) << 8);
        const words magnitudes = converted<uint32_t>(bit_cast<lanes<uint8_t>>(rows));
        to(32 * g + 16 * v, with_sign(multiply(scale, biased_codes<float>(magnitudes, 0)), signs, lane));
      });
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const int g = at % 8, v = at / 8;
    const auto slice = iq2_xxs_reader::load(weight + b, 0, g);
    const word_pair row = slice.magnitudes(v);
    const uint32_t signs = slice.signs(v);
    const float scale = multiply(slice.scale(), 0.25f);
    const auto value = [=](int p) {
      const uint32_t magnitude = (row[p / 4] >> (8 * (p % 4))) & 255u;
      return with_sign(multiply(scale, biased_codes<float>(magnitude, 0)), signs, p);
    };
    to(32 * g + 8 * v, {value(0), value(1), value(2), value(3), value(4), value(5), value(6), value(7)});
  }
#endif
};

}  // namespace quillon
