// The skeleton of the q5_0 and q5_1 kernels. A work-group owns one output row; each 32 of its lanes take one block a
// round, and each lane one byte of it, which is two elements.
//
//   round 0, WG_SIZE 64                          round 1
//     lanes  0 to 31 | block 0 |                   lanes  0 to 31 | block 2 | ...
//     lanes 32 to 63 | block 1 |                   lanes 32 to 63 | block 3 |
//
// A block that does not lie whole in the row, behind the last of an odd number for instance, is left out, so that nothing
// behind the activations or the weight is read, and the result is right for every multiple of 64.
//
// The form of vectors walks over 16 rows; local memory has one element for each row of the last work-item.
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/kernel.h"
#include "kernels/lanes.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#else
#include "kernels/matvec/items.h"
#endif

namespace quillon {

#ifdef QUILLON_VECTOR_LANES

template <typename T, int SG_SIZE, int WG_SIZE, typename Reader>
inline void multiply_five_bits(uint64_t state_size, const block_q5_1* weight, const T* input,
                               const sycl::local_accessor<T, 1>& local, T* output) {
  constexpr int BLOCK = 64;
  constexpr int VECTORS = WG_SIZE / LANES;
  constexpr int VECTORS_OF_BLOCK = BLOCK / 2 / LANES;
  const auto blocks = static_cast<int32_t>(state_size / BLOCK);
  const words bit_of_lane = {0x1,   0x2,   0x4,   0x8,   0x10,   0x20,   0x40,   0x80,
                             0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000, 0x8000};
  for_each_row_of_item(local, [&](uint64_t row) {
    const block_q5_1* row_blocks = weight + row * blocks;
    values<T> acc[VECTORS] = {};
    for (int32_t b = 0; b < blocks; ++b) {
      const block_q5_1& block = row_blocks[b];
      const auto value = Reader::template decoder<T>(block);
      const words low_half = words(load_u32(block.qh));
      const words high_half = words(load_u32(block.qh + 4));
      unrolled<VECTORS_OF_BLOCK>([&](auto g) {
        const words byte = converted<uint32_t>(load_vector<uint8_t, LANES>(block.qs + LANES * g));
        const words bit = bit_of_lane << (LANES * g);
        const words low = byte & 15u;
        const words high = byte >> 4;
        const values<T> w0 = value((low_half & bit) != 0u ? low | 16u : low);
        const values<T> w1 = value((high_half & bit) != 0u ? high | 16u : high);
        const T* x = input + BLOCK * b + LANES * g;
        values<T>& sum = acc[(VECTORS_OF_BLOCK * b + g) % VECTORS];
        sum = sum + multiply_add(w0, load_values(x), w1 * load_values(x + BLOCK / 2));
      });
    }
    output[row] = sum_of_lanes<T, VECTORS>(acc);
  });
}

#else

template <typename T, int SG_SIZE, int WG_SIZE, typename Reader>
inline void multiply_five_bits(uint64_t state_size, const block_q5_1* weight, const T* input,
                               const sycl::local_accessor<T, 1>& local, T* output) {
  constexpr int BLOCK = 64;
  constexpr int BLOCKS_PER_ROUND = WG_SIZE / 32;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row = place.get_group(0);
  // The local id modulo 32 and divided by 32. Where a round has two blocks, each belongs to one sub-group, and saying so
  // lets a compiler see which addresses are common and which are neighbours.
  int iqs = item;
  int block_of_round = 0;
  if constexpr (BLOCKS_PER_ROUND > 1) {
    static_assert(SG_SIZE == 32);
    const auto sub_group = place.get_sub_group();
    iqs = static_cast<int>(sub_group.get_local_linear_id());
    block_of_round = static_cast<int>(sub_group.get_group_linear_id());
  }
  const uint32_t bit = 1u << iqs;
  constexpr uint32_t BYTES = sizeof(block_q5_1);
  values<T> acc[1] = {exact_values<T>(0)};
  const auto* bytes = reinterpret_cast<const uint8_t*>(weight);
  // The block `at` bytes behind the start of the weight, times the elements of the row from `x` on.
  const auto add_block = [&](uint32_t at, uint32_t x) {
    const auto head = load_words<4, 4>(bytes + at);  // the scales, both halves of qh, and four quants
    const auto value = Reader::template decoder<T>(half_from_bits(static_cast<uint16_t>(head[0])),
                                                   half_from_bits(static_cast<uint16_t>(head[0] >> 16)));
    const uint32_t byte = bytes[at + offsetof(block_q5_1, qs) + iqs];
    const values<T> w0 = value((byte & 15) | ((head[1] & bit) != 0 ? 16 : 0));
    const values<T> w1 = value((byte >> 4) | ((head[2] & bit) != 0 ? 16 : 0));
    const values<T> second = w1 * element_values<T>(input[x + iqs + 32]);
    acc[0] = acc[0] + multiply_add(w0, element_values<T>(input[x + iqs]), second);
  };
  // Blocks are counted down beside running offsets of 32 bits: a compiler would widen a counter that the offsets are
  // formed from.
  constexpr uint32_t STEP = BYTES * BLOCKS_PER_ROUND, STEP_OF_X = BLOCK * BLOCKS_PER_ROUND;
  const auto whole_blocks = static_cast<uint32_t>(state_size / BLOCK);
  uint32_t rounds = (whole_blocks - block_of_round + BLOCKS_PER_ROUND - 1) / BLOCKS_PER_ROUND;
  uint32_t x = BLOCK * block_of_round;
  if (state_size % BLOCK == 0) {
    // Four rounds at a time, whose loads are under way together.
    auto at = static_cast<uint32_t>(BYTES * (row * whole_blocks + block_of_round));
    for (; rounds >= 4; rounds -= 4, at += 4 * STEP, x += 4 * STEP_OF_X)
      unrolled<4>([&](auto i) { add_block(at + STEP * i, x + STEP_OF_X * i); });
    for (; rounds != 0; --rounds, at += STEP, x += STEP_OF_X) add_block(at, x);
  } else {
    // A row's start is rounded down to a block for each pair of elements by itself.
    auto at = static_cast<uint32_t>(BYTES * ((row * state_size + 2 * item) / BLOCK));
    for (; x / BLOCK < whole_blocks; at += STEP, x += STEP_OF_X) add_block(at, x);
  }
  reduce_and_write<T, WG_SIZE, 1>(place, item, acc, local, row, row + 1, output);
}

#endif

}  // namespace quillon
