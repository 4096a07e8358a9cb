// How kernels read q2_k.
//
// A slice is one word of codes, four bytes with four codes each, for elements of four neighbouring sub-blocks of 32; a
// super-block has sixteen, eight in either half:
//
//   record   0 | scales, 16 bytes | 16 | qs, 64 bytes | 80 | d half | 82 | dmin half |
//   word v of half n of qs: byte 4v + b of the half is
//            | e96+4v+b  e64+4v+b  e32+4v+b  e4v+b |    counted from the start of the half's 128 elements
//
// So the four activations of bits 2i and 2i + 1 are word v of the quants of q8_1 block 4n + i. A sub-block of 16 has a
// scale (low nibble) and a minimum (high nibble) in byte 8n + 2i + v / 4 of the scales. W = d * scale * e - dmin * minimum.
#pragma once

#include <cstddef>

#include "formats/super_blocks.h"
#include "readers/expansion.h"
#include "readers/q8_1.h"

namespace quillon {

// The sixteen activations of a slice, four of bits 2i and 2i + 1 for each i, with their sum and their scale, and what takes
// their codes out of the slice's.
struct q2_k_activations {
#ifdef QUILLON_VECTOR_LANES
  // Lanes 0 to 7 have the words of blocks 0 to 3, lanes 8 to 15 those of 4 to 7.
  words quants[4];
  lanes<int32_t> sums[4];
  lanes<float> scales[4];
  words low_codes;  // 0x03030303, which must not look like it: known codes so low are multiplied in another way

  q2_k_activations(const block_q8_1* q, const block_q8_1* /*second*/) {
    low_codes = words(0x03030303u);
    unrolled<4>([&](auto i) {
      quants[i] = load_octets<uint32_t>(q[i].qs, q[4 + i].qs);
      sums[i] = dot_bytes(words(0x01010101u), quants[i]);
      scales[i] = in_octets(convert<float>(load_half(&q[i].d)), convert<float>(load_half(&q[4 + i].d)));
    });
  }
  words codes_of(words all_codes, int i) const { return (all_codes >> (2 * i)) & low_codes; }
  words quant_word(int i) const { return quants[i]; }
  lanes<int32_t> sum_of(int i) const { return sums[i]; }
  lanes<float> scale_of(int i) const { return scales[i]; }
#else
  // Offsets of 32 bits from a base that is common: sums of pointers would take 64 bits in each lane.
  static constexpr uint32_t BLOCK_BYTES = sizeof(block_q8_1);
  const uint8_t* bytes;
  uint32_t first;
  uint32_t first_quants;

  q2_k_activations(const block_q8_1* row, int32_t number, uint32_t slice)
      : bytes(reinterpret_cast<const uint8_t*>(row)),
        first((8 * number + slice / 8 * 4) * BLOCK_BYTES),
        first_quants(first + uint32_t{offsetof(block_q8_1, qs)} + slice % 8 * 4) {}
  static uint32_t codes_of(uint32_t all_codes, int i) { return (all_codes >> (2 * i)) & 0x03030303u; }
  uint32_t quant_word(int i) const { return load<uint32_t, 4>(bytes + (first_quants + BLOCK_BYTES * i)); }
  int sum_of(int i) const { return dot_bytes(0x01010101u, quant_word(i)); }
  float scale_of(int i) const { return two_halves(load<uint32_t, 4>(bytes + (first + BLOCK_BYTES * i))).first; }
#endif
};

#ifdef QUILLON_VECTOR_LANES
static_assert(sizeof(q2_k_activations) == 832);  // what kernel_table.h counts with
#endif

struct q2_k_reader {
  using block = block_q2_K;
  using activations = q2_k_activations;
  static constexpr int SLICES = 16;

  struct slice {
    words all_codes;
#ifdef QUILLON_VECTOR_LANES
    lanes<uint8_t> scale_bytes[4];
#else
    uint64_t scale_bytes;  // at bytes 0, 2, 4 and 6
#endif
    lanes<float> d;
    lanes<float> dmin;

    // The byte of scale and minimum of the four elements of bits 2i and 2i + 1.
    lanes<int32_t> scale_byte(int i) const {
#ifdef QUILLON_VECTOR_LANES
      return converted<int32_t>(scale_bytes[i]);
#else
      return static_cast<int32_t>((scale_bytes >> (16 * i)) & 255);
#endif
    }
  };

#ifdef QUILLON_VECTOR_LANES
  // The slices of one super-block.
  static slice load(const block& w, const block& /*second*/) {
    // Bytes 8n + v / 4 and on, and the next odd or even ones in the bytes above.
    const auto bytes = load_vector<uint8_t, LANES>(w.scales);
    return {load_vector<uint32_t, LANES>(w.qs),
            {__builtin_shufflevector(bytes, bytes, 0, 0, 0, 0, 1, 1, 1, 1, 8, 8, 8, 8, 9, 9, 9, 9),
             __builtin_shufflevector(bytes, bytes, 2, 2, 2, 2, 3, 3, 3, 3, 10, 10, 10, 10, 11, 11, 11, 11),
             __builtin_shufflevector(bytes, bytes, 4, 4, 4, 4, 5, 5, 5, 5, 12, 12, 12, 12, 13, 13, 13, 13),
             __builtin_shufflevector(bytes, bytes, 6, 6, 6, 6, 7, 7, 7, 7, 14, 14, 14, 14, 15, 15, 15, 15)},
            lanes<float>(convert<float>(load_half(w.d))),
            lanes<float>(convert<float>(load_half(w.dmin)))};
  }
#else
  static slice load(const block* row, int32_t number, uint32_t index) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(row);
    constexpr uint32_t BYTES = sizeof(block), QS = offsetof(block, qs), D = offsetof(block, d);
    const uint32_t record = number * BYTES;
    const uint64_t scales_of_half = load_u64(bytes + (record + index / 8 * 8));
    const two_halves d_dmin(load_u32(bytes + (record + D)));
    return {load_u32(bytes + (record + QS + 4 * index)), scales_of_half >> (index % 8 / 4 * 8), d_dmin.first,
            d_dmin.second};
  }
#endif

  static lanes<float> dot(const slice& w, const activations& x) {
    lanes<float> sum_of_codes = lanes<float>(0.0f);
    lanes<float> sum_of_minima = lanes<float>(0.0f);
#ifndef QUILLON_VECTOR_LANES
#pragma clang loop unroll(disable)
#endif
    for (int i = 0; i < 4; ++i) {
      const lanes<int32_t> byte = w.scale_byte(i);
      const lanes<int32_t> code_dot = dot_bytes(x.codes_of(w.all_codes, i), x.quant_word(i));
      sum_of_codes = add(sum_of_codes, multiply(x.scale_of(i), to_float(code_dot * (byte & 15))));
      sum_of_minima = add(sum_of_minima, multiply(x.scale_of(i), to_float((byte >> 4) * x.sum_of(i))));
    }
    return subtract(multiply(w.d, sum_of_codes), multiply(w.dmin, sum_of_minima));
  }
};

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 15, of a super-block times its sixteen activations in the eight blocks of `q`.
inline float vec_dot_q2_k_q8_1(const block_q2_K& w, const block_q8_1* q, uint32_t iqs) {
  return dot_of_slice<q2_k_reader>(&w, q, 0, iqs);
}
#endif

// Expanded in float. A work-item's share of a super-block is one byte of codes: four elements, 32 apart.
struct q2_k_expander {
  const block_q2_K* weight;

  static sub_block_floats values_of(const block_q2_K& block, int sub_block) {
    const uint32_t byte = block.scales[sub_block];
    return {load_half(block.d), byte & 15u, load_half(block.dmin), byte >> 4};
  }

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const block_q2_K& block = weight[b];
#pragma clang loop unroll(disable)
    for (int l = 0; l < 64; l += LANES) {
      const words byte = load_bytes(block.qs + l);
      const int first = 128 * (l / 32) + l % 32;
      unrolled<4>([&](auto t) {
        const int e = first + 32 * t;
        to(e, values_of(block, e / 16)((byte >> (2 * t)) & 3u));
      });
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const block_q2_K& block = weight[b];
    const uint32_t byte = block.qs[at];
    const int first = 128 * (at / 32) + at % 32;
    unrolled<4>([&](auto t) {
      const int e = first + 32 * t;
      to(e, {values_of(block, e / 16)((byte >> (2 * t)) & 3u)});
    });
  }
#endif
};

}  // namespace quillon
