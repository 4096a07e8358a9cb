// The skeleton of the kernels against q8_1 activations: slices of a row, and how their sums meet.
//
// A lane takes slices; eight (q2_k: sixteen) lanes share a super-block, and the 32 lanes of a row take four (two)
// neighbouring super-blocks at a time:
//
//   q8_1 blocks, 36 bytes      | 0 | 1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | ... | 31 | 32 ...
//   slices of 32 elements   lane 0   1   2   3   4   5   6   7   8   9   ...   31    0 ...
//   super-blocks of the row    |             0                 |     1 | ...       |  4 ...
//
// A slice's sum is an integer, scaled once to float; a lane adds up its slices in float.
//
// What a reader tells the skeleton:
//
//   SLICES        slices of a super-block
//   slice, load   what a lane needs of the weight for a slice, and how it is read
//   activations   what it needs of the activations
//   dot           the product of the two
//
// The form of vectors takes the slices of sixteen lanes at once.
#pragma once

#include "kernels/kernel.h"
#include "kernels/lanes.h"
#include "readers/q8_1.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#else
#include <sycl/group_barrier.hpp>
#endif

namespace quillon {

// Lanes of one row.
inline constexpr int q8_1_lanes = 32;

#ifdef QUILLON_VECTOR_LANES

// The lanes' sums of a row.
struct sums_of_row {
  lanes<float> of[q8_1_lanes / LANES];

  // Their tree, in T.
  template <typename T>
  T total() const {
    values<T> acc[2] = {rounded_values<T>(of[0]), rounded_values<T>(of[1])};
    return sum_of_lanes<T, 2>(acc);
  }
};

// What all rows need of the activations of sixteen slices, made once and kept in local memory. Sixteen slices are those of
// one or two super-blocks; where there is no second one, the first stands for it, and the upper lanes count for nothing.
template <typename Reader>
struct arranged_slices {
  using activations = typename Reader::activations;
  static constexpr int BLOCKS = LANES / Reader::SLICES;
  activations* arranged;
  int32_t blocks_per_row;

  template <typename Local>
  arranged_slices(int32_t blocks, const block_q8_1* input, const Local& local) : blocks_per_row(blocks) {
    constexpr uint64_t ALIGNMENT = alignof(activations);
    const auto start = reinterpret_cast<uint64_t>(&local[0]);
    arranged = reinterpret_cast<activations*>((start + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT);
    for (int32_t block = 0; block < blocks_per_row; block += BLOCKS)
      arranged[block / BLOCKS] = activations(input + 8 * block, input + 8 * second_of(block));
  }
  int32_t second_of(int32_t first) const { return first + BLOCKS - 1 < blocks_per_row ? first + BLOCKS - 1 : first; }

  sums_of_row multiply(const typename Reader::block* weight, uint64_t row) const {
    const typename Reader::block* blocks = weight + row * blocks_per_row;
    sums_of_row sums = {};
    for (int32_t block = 0; block < blocks_per_row; block += BLOCKS) {
      lanes<float>& sum = sums.of[block / BLOCKS % (q8_1_lanes / LANES)];
      const lanes<float> dot =
          Reader::dot(Reader::load(blocks[block], blocks[second_of(block)]), arranged[block / BLOCKS]);
      const lanes<float> changed = add(sum, dot);
      sum = block + BLOCKS <= blocks_per_row ? changed : in_first_lanes<float>(LANES / 2, changed, sum);
    }
    return sums;
  }
};

// Calls `body(first, last)` with the run of rows of the work-item.
template <typename Body>
inline void with_run_of_rows(uint64_t output_size, Body body) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t groups = place.get_group_range(0) * place.get_group_range(1);
  body(output_size * place.get_group_linear_id() / groups, output_size * (place.get_group_linear_id() + 1) / groups);
}

// Walks over the rows of a work-item; `write(row, sums)` gets the sums of a row.
template <typename Reader, typename Local, typename Write>
inline void for_each_row_of_slices(uint64_t output_size, int32_t blocks_per_row, const typename Reader::block* weight,
                                   const block_q8_1* activations, const Local& local, Write write) {
  const arranged_slices<Reader> arranged(blocks_per_row, activations, local);
  with_run_of_rows(output_size, [&](uint64_t first, uint64_t last) {
    for (uint64_t row = first; row < last; ++row) write(row, arranged.multiply(weight, row));
  });
}

// The kernels whose tree over the lanes is in T.
template <typename T, int ROW_TILE, typename Reader>
inline void multiply_slices(uint64_t output_size, int32_t blocks_per_row, const typename Reader::block* weight,
                            const block_q8_1* activations, const sycl::local_accessor<T, 1>& local, T* output) {
  for_each_row_of_slices<Reader>(output_size, blocks_per_row, weight, activations, local,
                                 [=](uint64_t row, const sums_of_row& sums) { output[row] = sums.total<T>(); });
}

#else

// Adds up the products of the slices of one work-item.
template <typename Reader>
inline float sum_of_slices(const typename Reader::block* row, const block_q8_1* activations, int32_t blocks_per_row,
                           int lane) {
  constexpr int STEP = q8_1_lanes / Reader::SLICES;
  const int first = lane / Reader::SLICES;
  const int slice = lane % Reader::SLICES;
  float sum = 0.0f;
  const auto add_block = [&](int32_t block) {
    sum = add(sum, dot_of_slice<Reader>(row, activations, block + first, slice));
  };
  // All work-items have a block in each of these rounds: a uniform count, which a CPU device runs unmasked.
  const int32_t full = blocks_per_row / STEP * STEP;
  for (int32_t block = 0; block < full; block += STEP) add_block(block);
  if (full + first < blocks_per_row) add_block(full);
  return sum;
}

// Adds up the work-items' sums of a row: a tree in T, from a stride of 16 down to 1, in the row's 32 elements of local
// memory, then the write by the first work-item. `active` is false for the work-items of a row that does not exist: they
// have nothing to write, and meet the others at the barriers.
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

// The kernels whose tree over the lanes is in T; a work-group has ROW_TILE rows, one for each place in its dimension of
// rows.
template <typename T, int ROW_TILE, typename Reader>
inline void multiply_slices(uint64_t output_size, int32_t blocks_per_row, const typename Reader::block* weight,
                            const block_q8_1* activations, const sycl::local_accessor<T, 1>& local, T* output) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const int y = ROW_TILE > 1 ? static_cast<int>(place.get_local_id(0)) : 0;
  const uint64_t row = place.get_group(1) * ROW_TILE + y;
  const bool active = row < output_size;
  const float sum =
      active ? sum_of_slices<Reader>(weight + row * blocks_per_row, activations, blocks_per_row, lane) : 0.0f;
  reduce_and_write_row<T>(place, sum, &local[y * q8_1_lanes], lane, active, output + row);
}

#endif

}  // namespace quillon
