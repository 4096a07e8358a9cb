// q5_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
// Template parameters
//   T        element type of input and output, and of pairs of products; sums of pairs are float
//   SG_SIZE  required sub-group size: 8, or 16 on devices without 8. The arithmetic never refers to it
//
// A work-group is 32 work-items on two output rows: work-items 0 to 15 take the even super-blocks of the
// rows, 16 to 31 the odd ones. A super-block has four pairs of sub-blocks, 0 to 3; the sixteen work-items cut
// it into shares:
//
//   one record   0 | d, dmin | 4 | scales | 16 | qh, 32 bytes | 48 | qs, 32 bytes for each pair |
//
//   qs of a pair   byte   0  1 | 2  3 | 4  5 | ... | 14 15 | 16 17 | 18 19 | ... | 30 31
//   low nibbles    elem   0  1 | 2  3 | 4  5 | ... | 14 15 | 16 17 | 18 19 | ... | 30 31   one sub-block
//   high nibbles   elem  32 33 | ...                                             | 62 63   the next
//   share, pairs 0 and 2     0 |    1 |    2 | ... |     7 |     0 |     1 | ... |     7
//   share, pairs 1 and 3     8 |    9 |   10 | ... |    15 |     8 |     9 | ... |    15
//
// So a share is two neighbouring elements in both halves of both sub-blocks of two pairs: sixteen elements in
// eight twos, with the scales and minima of four sub-blocks. The tree adds the shares 0, 2, 4, 6, 1, 3, 5, 7
// in this order; neighbouring work-items take neighbouring shares, so that their loads are neighbours, and
// put their sums where the order of the tree wants them.
#pragma once

#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>

#include "formats/super_blocks.h"
#include "kernels/matvec/arithmetic.h"
#include "kernels/matvec/skeleton.h"

namespace quillon {

// What a work-item needs of the activations of one super-block, for both rows. Sub-blocks 0 to 3 here are the
// work-item's own: 0 and 1 of its first pair, 2 and 3 of its second.
template <typename T>
struct activations_q5_k {
  lane<T> y[4][2][2];  // sub-block, half of the sub-block, one of two neighbours
  lane<T> sum[4][2];   // over the halves

  activations_q5_k(const T* base, uint32_t offset) {
    unrolled<4>([&](auto k) {
      unrolled<2>([&](auto h) {
        T elements[2];
        load_elements(base, offset + 128 * (k / 2) + 32 * (k % 2) + 16 * h, elements);
        y[k][h][0] = to_lane(elements[0]);
        y[k][h][1] = to_lane(elements[1]);
      });
      sum[k][0] = y[k][0][0] + y[k][1][0];
      sum[k][1] = y[k][0][1] + y[k][1][1];
    });
  }
};

// The share of one work-item in the sum of one super-block of a row. `pair` is 0 for the pairs 0 and 2, 1 for
// 1 and 3.
template <typename T>
inline float dot_q5_k(const block_q5_K* block, const activations_q5_k<T>& x, int pair, int first) {
  const auto pair_of_halves = load<uint32_t, 4>(block->d);
  const auto d = convert<float>(half_from_bits(static_cast<uint16_t>(pair_of_halves)));
  const auto dmin = convert<float>(half_from_bits(static_cast<uint16_t>(pair_of_halves >> 16)));

  // Two sub-blocks at a time, in the bytes of a 16-bit word.
  const uint8_t* packed = block->scales + 2 * pair;
  const uint32_t a0 = load_u16(packed);
  const uint32_t a2 = load_u16(packed + 4);
  const uint32_t a4 = load_u16(packed + 8);
  const uint32_t scales[2] = {a0 & 0x3F3F, (a4 & 0x0F0F) | ((a0 >> 2) & 0x3030)};
  const uint32_t minima[2] = {a2 & 0x3F3F, ((a4 >> 4) & 0x0F0F) | ((a2 >> 2) & 0x3030)};

  const uint32_t high[2] = {load_u16(block->qh + first), load_u16(block->qh + first + 16)};
  const uint8_t* qs = block->qs + 32 * pair + first;
  const uint32_t low[2][2] = {{load_u16(qs), load_u16(qs + 16)}, {load_u16(qs + 64), load_u16(qs + 80)}};

  float sums[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  float minimum = 0.0f;
  unrolled<2>([&](auto j) {
    lane<T> line;
    unrolled<4>([&](auto k) {
      const auto code = [&](int h) {
        const uint32_t nibble = (low[k / 2][h] >> (8 * j + 4 * (k % 2))) & 15;
        const uint32_t fifth = (high[h] >> (8 * j + 4 * (k / 2) + k % 2 + 2 * pair)) & 1;
        return integer_lane<T>(static_cast<int>(nibble | (fifth << 4)));
      };
      sums[k] = sums[k] + static_cast<float>(x.y[k][0][j] * code(0) + x.y[k][1][j] * code(1));
      const lane<T> m = integer_lane<T>(static_cast<int>((minima[k / 2] >> (8 * (k % 2))) & 63));
      line = k == 0 ? x.sum[k][j] * m : line + x.sum[k][j] * m;
    });
    minimum = minimum + static_cast<float>(line);
  });
  float scaled = 0.0f;
  unrolled<4>([&](auto k) {
    const auto scale = static_cast<float>((scales[k / 2] >> (8 * (k % 2))) & 63);
    scaled = k == 0 ? sums[k] * scale : scaled + sums[k] * scale;
  });
  return scaled * d - minimum * dmin;
}

}  // namespace quillon

template <typename T, int SG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q5_k(uint64_t state_size, const quillon::block_q5_K* weight, const T* input,
                             sycl::local_accessor<float, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  constexpr int ROW_TILE = 2;
  constexpr int WG_SIZE = 32;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  // Parity and pair are those of eight neighbouring work-items. Where these are a sub-group, the broadcast of
  // what all of them have anyway tells the compiler so: it computes once, and loads neighbours as vectors.
  int octet = item / 8;
  if constexpr (SG_SIZE == 8) octet = sycl::group_broadcast(place.get_sub_group(), octet);
  const int share = item - 8 * octet;
  const int parity = octet / 2;
  const int pair = octet % 2;
  const int first = 2 * share;
  const auto blocks = static_cast<int32_t>(state_size / 256);
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const block_q5_K* rows = weight + row0 * blocks;
  const row_steps<ROW_TILE> to_next_row(row0, output_size, blocks);

  float acc[ROW_TILE] = {0.0f, 0.0f};
  for (int32_t i = parity; i < blocks; i += 2) {
    const activations_q5_k<T> x(input + 256 * i + 64 * pair, first);
    int32_t row = 0;
    unrolled<ROW_TILE>([&](auto t) {
      acc[t] = acc[t] + dot_q5_k<T>(rows + row + i, x, pair, first);
      row += to_next_row.step[t];
    });
  }
  const int leaf = 8 * octet + share / 2 + share % 2 * 4;
  reduce_and_write<float, WG_SIZE, ROW_TILE>(place, leaf, acc, local, row0, output_size, output);
}
