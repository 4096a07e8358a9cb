// How kernels read iq1_s.
//
// A slice is one group of 32 elements, four vectors of eight; a super-block has eight:
//
//   record   0 | d half | 2 | qs, four bytes for each group | 34 | qh, 16 bits for each group |
//   qh       | sign of the shift | scale 3 bits | i3 3 bits | i2 3 bits | i1 3 bits | i0 3 bits |
//
// Three bits of qh over a byte of qs index a row of eight values, each 0, 1 or 2, in the nibbles of a word: the low ones
// of its bytes, then the high ones. W = (d * (2 * scale + 1)) * (value + shift); all 32 elements have one shift, whose
// share in a product needs the sum of the activations alone.
#pragma once

#include "formats/grids.h"
#include "readers/expansion.h"
#include "readers/q8_1.h"

namespace quillon {

#ifdef QUILLON_VECTOR_LANES
// The rows of iq1s_grid with a byte for each value.
struct iq1_s_bytes {
  uint64_t rows[2048];

  constexpr iq1_s_bytes() : rows{} {
    for (int i = 0; i < 2048; ++i)
      rows[i] = (iq1s_grid[i] & 0x0F0F0F0Fu) | uint64_t{(iq1s_grid[i] >> 4) & 0x0F0F0F0Fu} << 32;
  }
};
inline constexpr iq1_s_bytes iq1_s_values;
#endif

struct iq1_s_reader {
  using block = block_iq1_s;
  using activations = q8_1_blocks;
  static constexpr int SLICES = 8;

  struct slice {
#ifdef QUILLON_VECTOR_LANES
    const block* records[2];  // eight slices each
#else
    uint32_t low_indices;  // a byte for each vector
#endif
    words h;         // its word of qh
    lanes<float> d;  // of the record

    lanes<float> scale() const { return multiply(d, to_float(bit_cast<lanes<int32_t>>(2u * ((h >> 12) & 7u) + 1u))); }
    lanes<float> shift() const { return (h & 0x8000u) != 0u ? lanes<float>(-1.125f) : lanes<float>(-0.875f); }

    // The index of the row of vector v.
    static uint32_t index_of(uint32_t low, uint32_t h, int v) { return low | (((h >> (3 * v)) & 7u) << 8); }
#ifdef QUILLON_VECTOR_LANES
    // The values of a slice. Its four rows are loaded one by one: that is faster than a gather for all slices.
    slice_bytes<uint8_t> values_of(int index) const {
      const block& w = *records[index / 8];
      const uint8_t* low = w.qs + 4 * (index % 8);
      const uint32_t high = load_u16(w.qh + 2 * (index % 8));
      const auto row = [=](int v) { return iq1_s_values.rows[index_of(low[v], high, v)]; };
      const vector<uint64_t, 4> rows = {row(0), row(1), row(2), row(3)};
      return bit_cast<slice_bytes<uint8_t>>(rows);
    }
#else
    uint32_t row(int v) const { return iq1s_grid[index_of((low_indices >> (8 * v)) & 255u, h, v)]; }
#endif
  };

#ifdef QUILLON_VECTOR_LANES

  // The slices of two super-blocks.
  static slice load(const block& first, const block& second) {
    return {{&first, &second},
            converted<uint32_t>(load_octets<uint16_t>(first.qh, second.qh)),
            in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)))};
  }

  static lanes<int32_t> sums(const slice& w, const activations& x) {
    return dots_of_slices([&](auto index) __attribute__((always_inline)) { return w.values_of(index); },
                          [&](auto index) __attribute__((always_inline)) { return x.quants_of(index); });
  }

#else

  static slice load(const block* row, int32_t number, uint32_t index) {
    const block& w = row[number];
    const uint32_t h = (load_u32(w.qh + 2 * (index & 6)) >> (16 * (index & 1))) & 0xFFFF;
    return {load_u32(w.qs + 4 * index), h, two_halves(load_u32(&w)).first};
  }

  static int sums(const slice& w, const activations& x) {
    int sum = 0;
    // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
    for (int v = 0; v < 4; ++v) {
      const uint32_t row = w.row(v);
      sum += dot_bytes(row & 0x0F0F0F0Fu, x.quant_word(2 * v));
      sum += dot_bytes((row >> 4) & 0x0F0F0F0Fu, x.quant_word(2 * v + 1));
    }
    return sum;
  }

#endif

  static lanes<float> dot(const slice& w, const activations& x) {
    const lanes<float> scale = w.scale();
    return add(multiply(multiply(scale, x.d), to_float(sums(w, x))), multiply(multiply(scale, x.s), w.shift()));
  }
};

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq1_s_q8_1(const block_iq1_s& w, const block_q8_1* q, uint32_t iqs) {
  return dot_of_slice<iq1_s_reader>(&w, q, 0, iqs);
}
#endif

// Expanded in float. A work-item's share of a super-block is vector at / 8 of group at mod 8: eight neighbours.
struct iq1_s_expander {
  const block_iq1_s* weight;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const block_iq1_s& block = weight[b];
    const words bit_of_value = {0, 8, 16, 24, 4, 12, 20, 28, 0, 8, 16, 24, 4, 12, 20, 28};
#pragma clang loop unroll(disable)
    for (int g = 0; g < 8; ++g) {
      const uint32_t h = word_iq1_s(block, g);
      const auto scale = lanes<float>(scale_iq1_s(load_half(block.d), h));
      const auto shift = lanes<float>(delta_iq1_s(h));
      unrolled<2>([&](auto v) {
        const words rows = in_octets(grid_iq1_s(block, g, 2 * v), grid_iq1_s(block, g, 2 * v + 1));
        to(32 * g + 16 * v, multiply(scale, add(shift, biased_codes<float>((rows >> bit_of_value) & 15u, 0))));
      });
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const int g = at % 8, v = at / 8;
    const auto slice = iq1_s_reader::load(weight + b, 0, g);
    const uint32_t row = slice.row(v);
    const float scale = slice.scale(), shift = slice.shift();
    const auto value = [=](int p) {
      const uint32_t code = (row >> (8 * (p % 4) + 4 * (p / 4))) & 15u;
      return multiply(scale, add(shift, biased_codes<float>(code, 0)));
    };
    to(32 * g + 8 * v, {value(0), value(1), value(2), value(3), value(4), value(5), value(6), value(7)});
  }
#endif
};

}  // namespace quillon
