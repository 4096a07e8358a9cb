// How kernels read q5_k.
//
// A super-block has four pairs of sub-blocks of 32, 0 to 3. Sixteen lanes cut it into shares:
//
//   one record   0 | d, dmin | 4 | scales | 16 | qh, 32 bytes | 48 | qs, 32 bytes for each pair |
//
//   qs of a pair   byte   0  1 | 2  3 | 4  5 | ... | 14 15 | 16 17 | 18 19 | ... | 30 31
//   low nibbles    elem   0  1 | 2  3 | 4  5 | ... | 14 15 | 16 17 | 18 19 | ... | 30 31   one sub-block
//   high nibbles   elem  32 33 | ...                                             | 62 63   the next
//   share, pairs 0 and 2     0 |    1 |    2 | ... |     7 |     0 |     1 | ... |     7
//   share, pairs 1 and 3     8 |    9 |   10 | ... |    15 |     8 |     9 | ... |    15
//
// So a share is two neighbouring elements in both halves of both sub-blocks of two pairs: sixteen elements in eight twos,
// with the scales and minima of four sub-blocks. W = (d * s) * e - dmin * m.
#pragma once

#include "formats/super_blocks.h"
#include "kernels/lanes.h"
#include "readers/expansion.h"

namespace quillon {

// What a lane needs of the activations of one super-block. Sub-blocks 0 to 3 here are the lane's own: 0 and 1 of its
// first pair, 2 and 3 of its second.
template <typename T>
struct q5_k_activations {
  values<T> y[4][2][2];  // sub-block, half of the sub-block, one of two neighbours
  values<T> sum[4][2];   // over the halves

  void add_up() {
    unrolled<4>([&](auto k) { unrolled<2>([&](auto j) { sum[k][j] = y[k][0][j] + y[k][1][j]; }); });
  }
};

// What a lane's share of the weight consists of. Packed are two elements, or two sub-blocks, in the bytes of 16 bits.
struct q5_k_share {
  lanes<float> d;
  lanes<float> dmin;
#ifdef QUILLON_VECTOR_LANES
  lanes<float> scales[4];  // of the lane's sub-blocks
  lanes<float> minima[4];
#else
  uint32_t scales[2];  // of the lane's first pair, and of its second
  uint32_t minima[2];
#endif
  words high[2];    // the fifth bits of both halves, those of the lane's first sub-block lowest
  words low[2][2];  // pair, half

  template <typename T>
  values<T> scale(int k) const {
    return six_bits<T>(scales, k);
  }
  template <typename T>
  values<T> minimum(int k) const {
    return six_bits<T>(minima, k);
  }

 private:
#ifdef QUILLON_VECTOR_LANES
  template <typename T>
  static values<T> six_bits(const lanes<float> (&of_sub_blocks)[4], int k) {
    return exact_values<T>(of_sub_blocks[k]);
  }
#else
  template <typename T>
  static values<T> six_bits(const uint32_t (&of_pairs)[2], int k) {
    return biased_codes<T>((of_pairs[k / 2] >> (8 * (k % 2))) & 63u, 0);
  }
#endif
};

// Scales and minima of four sub-blocks from the words of `scales`, or of two from their halves: first those of pairs 0 and
// 1, which are whole bytes, then those of pairs 2 and 3, which are put together.
struct q5_k_scales {
  uint32_t scales[2];
  uint32_t minima[2];

  q5_k_scales(uint32_t a0, uint32_t a2, uint32_t a4)
      : scales{a0 & 0x3F3F3F3Fu, (a4 & 0x0F0F0F0Fu) | ((a0 >> 2) & 0x30303030u)},
        minima{a2 & 0x3F3F3F3Fu, ((a4 >> 4) & 0x0F0F0F0Fu) | ((a2 >> 2) & 0x30303030u)} {}
};

#ifdef QUILLON_VECTOR_LANES

inline words octets_of_u16(const uint8_t* first, const uint8_t* second) {
  return converted<uint32_t>(load_octets<uint16_t>(first, second));
}

// Of a number for each sub-block those of a lane's sub-block k: lanes 0 to 7 have pairs 0 and 2, the others 1 and 3.
template <int FIRST>
inline lanes<float> of_sub_block(lanes<float> from) {
  constexpr int OTHER = FIRST + 2;
  return __builtin_shufflevector(from, from, FIRST, FIRST, FIRST, FIRST, FIRST, FIRST, FIRST, FIRST, OTHER, OTHER,
                                 OTHER, OTHER, OTHER, OTHER, OTHER, OTHER);
}

// The shares of all lanes.
inline q5_k_share load_q5_k_share(const block_q5_K& block) {
  q5_k_share w;
  w.d = lanes<float>(convert<float>(load_half(block.d)));
  w.dmin = lanes<float>(convert<float>(load_half(block.dmin)));
  const q5_k_scales packed(load_u32(block.scales), load_u32(block.scales + 4), load_u32(block.scales + 8));
  const vector<uint32_t, 4> bytes = {packed.scales[0], packed.scales[1], packed.minima[0], packed.minima[1]};
  const auto numbers = converted<float>(bit_cast<lanes<uint8_t>>(bytes));
  unrolled<4>([&](auto k) {
    constexpr int SUB_BLOCK = 4 * (k / 2) + k % 2;
    w.scales[k] = of_sub_block<SUB_BLOCK>(numbers);
    w.minima[k] = of_sub_block<8 + SUB_BLOCK>(numbers);
  });
  const words upper = {0, 0, 0, 0, 0, 0, 0, 0, 2, 2, 2, 2, 2, 2, 2, 2};
  unrolled<2>([&](auto h) {
    const words high = octets_of_u16(block.qh + 16 * h, block.qh + 16 * h);
    w.high[h] = high >> upper;
    unrolled<2>([&](auto p) {
      const uint8_t* qs = block.qs + 64 * p + 16 * h;
      w.low[p][h] = octets_of_u16(qs, qs + 32);
    });
  });
  return w;
}

#else

// Share first / 2 of pairs `pair` and `pair + 2`.
inline q5_k_share load_q5_k_share(const block_q5_K& block, int pair, int first) {
  q5_k_share w;
  const auto head = load_words<4, 16>(&block);  // both halves, and the scales
  w.d = convert<float>(half_from_bits(static_cast<uint16_t>(head[0])));
  w.dmin = convert<float>(half_from_bits(static_cast<uint16_t>(head[0] >> 16)));
  const q5_k_scales packed(head[1] >> (16 * pair), head[2] >> (16 * pair), head[3] >> (16 * pair));
  unrolled<2>([&](auto p) {
    w.scales[p] = packed.scales[p];
    w.minima[p] = packed.minima[p];
  });
  unrolled<2>([&](auto h) {
    w.high[h] = static_cast<uint32_t>(load_u16(block.qh + first + 16 * h)) >> (2 * pair);
    unrolled<2>([&](auto p) { w.low[p][h] = load_u16(block.qs + 32 * pair + first + 64 * p + 16 * h); });
  });
  return w;
}

#endif

// The share of one lane in the sum of one super-block of a row. Pairs of products are formed in T, and summed in float:
// that sums begin with a pair, and not with 0, can turn the sign of a zero alone, of which an accumulator knows nothing.
template <typename T>
inline lanes<float> dot_q5_k(const q5_k_share& w, const q5_k_activations<T>& x) {
#ifdef QUILLON_VECTOR_LANES
  // The codes of two neighbours, eight bits apart, with the nibbles where they stand and the fifth bits brought to them.
  constexpr int NIBBLE = 4;
#else
  // The codes of two neighbours, in the bytes of 16 bits: nibbles, and the fifth bits brought to bits 4 and 12.
  constexpr int NIBBLE = 0;
#endif
  words codes[4][2];
  unrolled<4>([&](auto k) {
    unrolled<2>([&](auto h) {
      constexpr int FIRST = NIBBLE * (k % 2);
      codes[k][h] = ((w.low[k / 2][h] >> (4 * (k % 2) - FIRST)) & (0x0F0Fu << FIRST)) |
                    ((w.high[h] << (4 + FIRST) >> (4 * (k / 2) + k % 2)) & (0x1010u << FIRST));
    });
  });
  lanes<float> sums[4];
  lanes<float> minimum;
  unrolled<2>([&](auto j) {
    values<T> line;
    unrolled<4>([&](auto k) {
      const auto code = [&](int h) { return biased_codes_at<T, 8 * j + NIBBLE*(k % 2), 5>(codes[k][h], 0); };
      const lanes<float> pair = as_floats<T>(multiply_add(x.y[k][0][j], code(0), x.y[k][1][j] * code(1)));
      sums[k] = j == 0 ? pair : sums[k] + pair;
      const values<T> m = w.template minimum<T>(k);
      line = k == 0 ? x.sum[k][j] * m : multiply_add(x.sum[k][j], m, line);
    });
    minimum = j == 0 ? as_floats<T>(line) : minimum + as_floats<T>(line);
  });
  lanes<float> scaled;
  unrolled<4>([&](auto k) {
    const lanes<float> scale = w.template scale<float>(k);
    scaled = k == 0 ? sums[k] * scale : multiply_add(sums[k], scale, scaled);
  });
  return multiply_subtract(scaled, w.d, minimum * w.dmin);
}

// Expanded in float. A work-item's share of a super-block is two bytes, number r of those of pair g of sub-blocks: two
// neighbours in each sub-block.
struct q5_k_expander {
  const block_q5_K* weight;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const block_q5_K& block = weight[b];
#pragma clang loop unroll(disable)
    for (int g = 0; g < 4; ++g) {
      const sub_block_floats low = values_of(block, 2 * g), high = values_of(block, 2 * g + 1);
#pragma clang loop unroll(disable)
      for (int l = 0; l < 32; l += LANES) {
        const words byte = load_bytes(block.qs + 32 * g + l);
        const words fifth = load_bytes(block.qh + l) >> (2 * g);
        to(64 * g + l, low((byte & 15u) | (fifth & 1u) << 4));
        to(64 * g + 32 + l, high(byte >> 4 | (fifth & 2u) << 3));
      }
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const block_q5_K& block = weight[b];
    const int g = at / 16, l = 2 * (at % 16);
    const sub_block_floats low = values_of(block, 2 * g), high = values_of(block, 2 * g + 1);
    const uint32_t bytes = load<uint16_t, 2>(block.qs + 32 * g + l);
    const uint32_t fifth = static_cast<uint32_t>(load<uint16_t, 2>(block.qh + l)) >> (2 * g);
    to(64 * g + l, {low((bytes & 15u) | (fifth & 1u) << 4), low((bytes >> 8 & 15u) | (fifth >> 8 & 1u) << 4)});
    to(64 * g + 32 + l, {high((bytes >> 4 & 15u) | (fifth & 2u) << 3), high(bytes >> 12 | (fifth >> 8 & 2u) << 3)});
  }
#endif

 private:
  static sub_block_floats values_of(const block_q5_K& block, int j) {
    return {load_half(block.d), static_cast<uint32_t>(scale_q5_k(block.scales, j)), load_half(block.dmin),
            static_cast<uint32_t>(minimum_q5_k(block.scales, j))};
  }
};

}  // namespace quillon
