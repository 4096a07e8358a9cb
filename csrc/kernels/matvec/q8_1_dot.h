// What the kernels share that multiply packed weights by int8 activations, the q8_1 blocks of the activation
// row: output[n] = sum over k of x[k] * W[n][k], with integer products inside a slice of a super-block.
//
// A work-item takes slices; eight (q2_k: sixteen) work-items share a super-block, and the 32 work-items of a
// row take four (two) neighbouring super-blocks at a time:
//
//   q8_1 blocks, 36 bytes      | 0 | 1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | ... | 31 | 32 ...
//   slices of 32 elements     wi 0   1   2   3   4   5   6   7   8   9   ...   31    0 ...
//   super-blocks of the row    |             0                 |     1 | ...       |  4 ...
//
// A slice's sum is an integer, scaled once to float; a work-item adds up its slices in float.
#pragma once

#include "formats/q8_1.h"
#include "kernels/matvec/skeleton.h"

namespace quillon {

// Work-items of one row.
inline constexpr int q8_1_lanes = 32;

// Loads here are of 32 or 64 bits throughout: a CPU device gathers those, while it takes a vector of narrower
// ones apart.

// Two neighbouring halves, loaded as a word.
struct two_halves {
  float first;
  float second;

  explicit two_halves(uint32_t word)
      : first(convert<float>(half_from_bits(static_cast<uint16_t>(word)))),
        second(convert<float>(half_from_bits(static_cast<uint16_t>(word >> 16)))) {}
};

// Scale and sum of a block, and eight quants from 8 * index onward.
inline two_halves head_of(const block_q8_1& block) {
  return two_halves(load<uint32_t, 4>(&block));
}
inline uint64_t eight_quants_of(const block_q8_1& block, int index) {
  return load<uint64_t, 4>(block.qs + 8 * index);
}

// The signed byte `index` of a word.
constexpr int signed_byte_of(uint32_t word, int index) {
  return static_cast<int32_t>(word << (24 - 8 * index)) >> 24;
}

// The sum of four products of unsigned with signed bytes.
inline int dot_bytes(uint32_t codes, uint32_t quants) {
  int sum = 0;
  unrolled<4>([&](auto b) { sum += static_cast<int>((codes >> (8 * b)) & 255) * signed_byte_of(quants, b); });
  return sum;
}

// Adds up `VEC_DOT(row, q8_1 blocks, super-block, slice)` over the slices of one work-item. SLICES is
// the number of slices of a super-block.
template <int SLICES, auto VEC_DOT, typename Block>
inline float sum_of_slices(const Block* row, const block_q8_1* activations, int32_t blocks_per_row, int lane) {
  constexpr int STEP = q8_1_lanes / SLICES;
  const int first = lane / SLICES;
  const int slice = lane % SLICES;
  float sum = 0.0f;
  const auto add_block = [&](int32_t block) { sum = add(sum, VEC_DOT(row, activations, block + first, slice)); };
  // All work-items have a block in each of these rounds: a uniform count, which a CPU device runs unmasked.
  const int32_t full = blocks_per_row / STEP * STEP;
  for (int32_t block = 0; block < full; block += STEP) add_block(block);
  if (full + first < blocks_per_row) add_block(full);
  return sum;
}

// Adds up the work-items' sums of a row: a tree in T, from a stride of 16 down to 1, in the row's 32 elements
// of local memory, then the write by the first work-item. `active` is false for the work-items of a row that
// does not exist: they have nothing to write, and meet the others at the barriers.
template <typename T>
inline void reduce_and_write_row(const sycl::nd_item<2>& place, float sum, T* local, int lane, bool active, T* output) {
  local[lane] = convert<T>(sum);
  sycl::group_barrier(place.get_group());
  for (int stride = q8_1_lanes / 2; stride > 0; stride /= 2) {
    if (lane < stride) local[lane] = local[lane] + local[lane + stride];
    sycl::group_barrier(place.get_group());
  }
  if (lane == 0 && active) *output = local[0];
}

}  // namespace quillon
