// q5_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
//   T  element type of input and output, and of pairs of products; sums of pairs are float
//
// A work-group is 32 lanes on two output rows: lanes 0 to 15 take the even super-blocks of the rows, 16 to 31 the odd
// ones, each its share (readers/q5_k.h). The tree adds the shares of a pair in the order 0, 2, 4, 6, 1, 3, 5, 7.
//
// Sub-groups of 8 are asked for, and of 16 on devices without 8 (QUILLON_SUB_GROUP_SIZE, a build option); nothing in the
// arithmetic refers to the size. Local memory has 64 elements, and one more where the last work-group has one row alone.
//
// The form of vectors walks over 16 rows, with the lanes of one super-block in a vector; local memory then has one element
// for each row of the last work-item.
#pragma once

#include "readers/q5_k.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#else
#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>

#include "kernels/matvec/items.h"
#endif

#ifndef QUILLON_SUB_GROUP_SIZE
#define QUILLON_SUB_GROUP_SIZE 8
#endif

namespace quillon {

#ifdef QUILLON_VECTOR_LANES

template <typename T>
inline q5_k_activations<T> load_q5_k_activations(const T* block) {
  q5_k_activations<T> x;
  unrolled<4>([&](auto k) {
    unrolled<2>([&](auto h) {
      const T* run = block + 128 * (k / 2) + 32 * (k % 2) + 16 * h;
      const values<T> first = load_values(run);
      const values<T> second = load_values(run + 64);
      unrolled<2>([&](auto j) {
        if constexpr (is_in_float<T>)
          x.y[k][h][j] = {pick<j, 2, float>(first.value, second.value)};
        else
          x.y[k][h][j] = pick<j, 2, T>(first, second);
      });
    });
  });
  x.add_up();
  return x;
}

// Shares in the order in which the tree adds them.
inline lanes<float> in_order_of_tree(lanes<float> sum) {
  return __builtin_shufflevector(sum, sum, 0, 2, 4, 6, 1, 3, 5, 7, 8, 10, 12, 14, 9, 11, 13, 15);
}

#else

template <typename T>
inline q5_k_activations<T> load_q5_k_activations(const T* base, uint32_t offset) {
  q5_k_activations<T> x;
  unrolled<4>([&](auto k) {
    unrolled<2>([&](auto h) {
      T elements[2];
      load_elements(base, offset + 128 * (k / 2) + 32 * (k % 2) + 16 * h, elements);
      x.y[k][h][0] = element_values<T>(elements[0]);
      x.y[k][h][1] = element_values<T>(elements[1]);
    });
  });
  x.add_up();
  return x;
}

#endif

}  // namespace quillon

template <typename T>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(QUILLON_SUB_GROUP_SIZE)
void qlinear_xpu_kernel_q5_k(uint64_t state_size, const quillon::block_q5_K* weight, const T* input,
                             sycl::local_accessor<float, 1> local, T* output) {
  using namespace quillon;
  const auto blocks = static_cast<int32_t>(state_size / 256);
#ifdef QUILLON_VECTOR_LANES
  // Activations are brought into the order of the lanes once for all rows.
  with_rows_of_item(local, [&](uint64_t first, int rows) {
    lanes<float> acc[ROWS_OF_ITEM][2] = {};
    for (int32_t i = 0; i < blocks; ++i) {
      const q5_k_activations<T> x = load_q5_k_activations(input + 256 * i);
#pragma clang loop unroll(disable)
      for (int r = 0; r < rows; ++r) {
        lanes<float>& sum = acc[r][i % 2];
        sum = sum + dot_q5_k<T>(load_q5_k_share(weight[(first + r) * blocks + i]), x);
      }
    }
    for (int r = 0; r < rows; ++r) {
      unrolled<2>([&](auto i) { acc[r][i] = in_order_of_tree(acc[r][i]); });
      output[first + r] = convert<T>(sum_of_lanes<float, 2>(acc[r]));
    }
  });
#else
  constexpr int ROW_TILE = 2;
  constexpr int WG_SIZE = 32;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  // Parity and pair are those of eight neighbouring work-items. Where these are a sub-group, the broadcast of what all of
  // them have anyway tells the compiler so: it computes once, and loads neighbours as vectors.
  int octet = item / 8;
  if constexpr (QUILLON_SUB_GROUP_SIZE == 8) octet = sycl::group_broadcast(place.get_sub_group(), octet);
  const int share = item - 8 * octet;
  const int parity = octet / 2;
  const int pair = octet % 2;
  const int first = 2 * share;
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const bool one_row = place.get_group(0) + 1 == place.get_group_range(0) && local.size() > ROW_TILE * WG_SIZE;
  const uint64_t output_size = row0 + (one_row ? 1 : 2);
  const block_q5_K* rows = weight + row0 * blocks;
  const row_steps<ROW_TILE> to_next_row(row0, output_size, blocks);

  float acc[ROW_TILE] = {0.0f, 0.0f};
  for (int32_t i = parity; i < blocks; i += 2) {
    const q5_k_activations<T> x = load_q5_k_activations(input + 256 * i + 64 * pair, first);
    int32_t row = 0;
    unrolled<ROW_TILE>([&](auto t) {
      acc[t] = acc[t] + dot_q5_k<T>(load_q5_k_share(rows[row + i], pair, first), x);
      row += to_next_row.step[t];
    });
  }
  const int leaf = 8 * octet + share / 2 + share % 2 * 4;
  reduce_and_write<float, WG_SIZE, ROW_TILE>(place, leaf, acc, local, row0, output_size, output);
#endif
}
