// q4_0 times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
// Template parameters
//   T         element type of input, output, local memory and every product and sum: float, double, c10::Half,
//             c10::BFloat16; nothing is accumulated in a wider type
//   SG_SIZE   required sub-group size; the arithmetic never refers to it
//   WG_SIZE   work-items of a work-group, the ways by which K is split: 2 * SG_SIZE
//   ROW_TILE  output rows of a work-group
//
// A chunk is sixteen elements, a quarter of a block: eight quant bytes, whose low and high nibbles stand for elements
// that lie 32 apart.
//
//   block of 64     byte   0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31      work-item 4j + c takes bytes 8c to 8c+7
//   low nibbles     elem   0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31      of block j of each round: 8 activations
//   high nibbles    elem  32 .... 39 | 40 ... 47 | 48 ... 55 | 56 ... 63      at 8c and 8 at 32 + 8c of that block
//                        work-item 0 |     1     |     2     |     3
//
// The eight bytes are one load, at word c + item of the quants in round c: neighbouring work-items read neighbouring
// words. Nibbles are shifted out of 32-bit halves of it.
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/matvec/skeleton.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q4_0_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset, const T* input,
                                  sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  constexpr int SUB_BLK_H = 16;
  constexpr int BLOCK = elements_per_block(qtype_q4_0);
  constexpr int CHUNKS_PER_BLOCK = BLOCK / SUB_BLK_H;

  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const int place_in_block = item % CHUNKS_PER_BLOCK;
  const uint32_t x = (item - place_in_block) * SUB_BLK_H + place_in_block * 8;
  const uint64_t blk = row0 * state_size / BLOCK;
  const auto* quants = reinterpret_cast<const uint64_t*>(weight) + blk * CHUNKS_PER_BLOCK;
  const auto* scales = reinterpret_cast<const uint16_t*>(weight + scale_offset) + blk;
  const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / BLOCK));

  T acc[ROW_TILE];
#pragma unroll
  for (int t = 0; t < ROW_TILE; ++t) acc[t] = convert<T>(0);

  for_each_round<SUB_BLK_H, WG_SIZE>(state_size, item, [&](int32_t c) {
    T a[8];
    T b[8];
    const T* round_input = input + SUB_BLK_H * c;
    load_elements(round_input, x, a);
    load_elements(round_input, x + BLOCK / 2, b);
    int32_t row = 0;
#pragma unroll
    for (int t = 0; t < ROW_TILE; ++t) {
      const uint64_t q = (quants + row * CHUNKS_PER_BLOCK + c)[item];
      const uint32_t half_words[2] = {static_cast<uint32_t>(q), static_cast<uint32_t>(q >> 32)};
      T s;
#pragma unroll
      for (int i = 0; i < 8; ++i) {
        const uint32_t byte = half_words[i / 4] >> (8 * (i % 4));
        const T low = convert<T>(static_cast<int>(byte & 15) - 8);
        const T high = convert<T>(static_cast<int>((byte >> 4) & 15) - 8);
        s = i == 0 ? a[i] * low : s + a[i] * low;
        s = s + b[i] * high;
      }
      const half d = bit_cast<half>((scales + row + c / CHUNKS_PER_BLOCK)[item / CHUNKS_PER_BLOCK]);
      acc[t] = acc[t] + s * convert<T>(d);
      row += to_next_row.step[t];
    }
  });
  reduce_and_write<T, WG_SIZE, ROW_TILE>(place, acc, local, row0, output_size, output);
}
