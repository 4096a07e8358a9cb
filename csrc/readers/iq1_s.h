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

#include "readers/grids.h"
#include "readers/q8_1.h"

namespace quillon {

struct iq1_s_reader {
  using block = block_iq1_s;
  using activations = q8_1_blocks;
  static constexpr int SLICES = 8;

  struct slice {
    words low_indices;  // a byte for each vector
    words h;            // its word of qh
    lanes<float> d;     // of the record

    // The values of vector v, and of those the first (0) or second (1) four in the bytes of a word.
    words row(int v) const {
      return look_up(iq1s_grid, ((low_indices >> (8 * v)) & 255u) | (((h >> (3 * v)) & 7u) << 8));
    }
    static words codes(words row, int which) { return (which == 0 ? row : row >> 4) & 0x0F0F0F0Fu; }
    lanes<float> scale() const { return multiply(d, to_float(bit_cast<lanes<int32_t>>(2u * ((h >> 12) & 7u) + 1u))); }
    lanes<float> shift() const { return (h & 0x8000u) != 0u ? lanes<float>(-1.125f) : lanes<float>(-0.875f); }
  };

#ifdef QUILLON_VECTOR_LANES
  // The slices of two super-blocks.
  static slice load(const block& first, const block& second) {
    return {load_octets<uint32_t>(first.qs, second.qs),
            __builtin_convertvector(load_octets<uint16_t>(first.qh, second.qh), words),
            in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)))};
  }
#else
  static slice load(const block* row, int32_t number, uint32_t index) {
    const block& w = row[number];
    const uint32_t h = (load_u32(w.qh + 2 * (index & 6)) >> (16 * (index & 1))) & 0xFFFF;
    return {load_u32(w.qs + 4 * index), h, two_halves(load_u32(&w)).first};
  }
#endif

  static lanes<float> dot(const slice& w, const activations& x) {
    lanes<int32_t> sum = {};
    // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
    for (int v = 0; v < 4; ++v) {
      const words row = w.row(v);
      unrolled<2>([&](auto i) { sum += dot_bytes(slice::codes(row, i), x.quant_word(2 * v + i)); });
    }
    const lanes<float> scale = w.scale();
    return add(multiply(multiply(scale, x.d), to_float(sum)), multiply(multiply(scale, x.s), w.shift()));
  }
};

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq1_s_q8_1(const block_iq1_s& w, const block_q8_1* q, uint32_t iqs) {
  return dot_of_slice<iq1_s_reader>(&w, q, 0, iqs);
}
#endif

}  // namespace quillon
