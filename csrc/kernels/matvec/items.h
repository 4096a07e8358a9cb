// What the skeletons share where a lane is a work-item: wide loads, the rows of a tile, and how the work-items' sums meet.
#pragma once

#include <sycl/group_barrier.hpp>

#include "kernels/kernel.h"
#include "kernels/lanes.h"

namespace quillon {

// The elements of T in neighbouring words.
template <typename T, typename Words>
inline T element_of_words(const Words& from, int i) {
  if constexpr (sizeof(T) == 4)
    return bit_cast<T>(static_cast<uint32_t>(from[i]));
  else
    return bit_cast<T>(static_cast<uint16_t>(from[i / 2] >> (i % 2 * 16)));
}

// Loads COUNT neighbouring elements from `base + offset`, up to 16 bytes at a time; the offset is a multiple of COUNT,
// and the base stands at one of 16 bytes. The base is the same for the whole work-group and comes apart from the
// work-item's offset, which then takes 32 bits.
template <typename T, int COUNT, int... I>
inline void load_elements(const T* base, uint32_t offset, T (&to)[COUNT], constants<I...>) {
  if constexpr (sizeof(T) == 8) {
    ((to[I] = base[offset + I]), ...);
  } else {
    constexpr int WORDS = COUNT * sizeof(T) < 16 ? COUNT * sizeof(T) / 4 : 4;
    constexpr int PER_LOAD = WORDS * 4 / sizeof(T);
    neighbouring_words<WORDS> loaded[COUNT / PER_LOAD];
    unrolled<COUNT / PER_LOAD>(
        [&](auto i) { loaded[i] = *reinterpret_cast<const neighbouring_words<WORDS>*>(base + offset + PER_LOAD * i); });
    ((to[I] = element_of_words<T>(loaded[I / PER_LOAD], I % PER_LOAD)), ...);
  }
}
template <typename T, int COUNT>
inline void load_elements(const T* base, uint32_t offset, T (&to)[COUNT]) {
  load_elements(base, offset, to, first_constants<COUNT>{});
}

// The distance from each row of the tile to the next, in the caller's unit, 0 in place of `row_length` where
// the next row does not exist: the surplus rows of the last work-group read the last row again instead of
// what lies behind it.
template <int ROW_TILE>
struct row_steps {
  int32_t step[ROW_TILE];

  row_steps(uint64_t row0, uint64_t output_size, int32_t row_length) {
#pragma unroll
    for (int t = 0; t < ROW_TILE; ++t) step[t] = row0 + t + 1 < output_size ? row_length : 0;
  }
};

// Puts a work-item's accumulators into local memory: accumulator i of work-item `leaf` to (FIRST + i) * WG_SIZE + leaf.
// `Sum` is T or values<T>.
template <typename T, int WG_SIZE, int FIRST, int COUNT, typename Sum>
inline void store_sums(int leaf, const Sum (&acc)[COUNT], const sycl::local_accessor<T, 1>& local) {
#pragma unroll
  for (int i = 0; i < COUNT; ++i) local[(FIRST + i) * WG_SIZE + leaf] = element_of<T>(acc[i]);
}

// Adds up what all work-items have put there: a tree in T, from a stride of WG_SIZE / 2 down to 1. The sum of accumulator i
// comes out at i * WG_SIZE.
template <typename T, int WG_SIZE, int COUNT, typename Group>
inline void add_up_stored(const Group& group, int item, const sycl::local_accessor<T, 1>& local) {
  sycl::group_barrier(group);
  for (int stride = WG_SIZE / 2; stride > 0; stride /= 2) {
    if (item < stride) {
#pragma unroll
      for (int i = 0; i < COUNT; ++i)
        local[i * WG_SIZE + item] = local[i * WG_SIZE + item] + local[i * WG_SIZE + item + stride];
    }
    sycl::group_barrier(group);
  }
}

// Both, for all accumulators at once. The leaf of a work-item is its number, unless a kernel deals out the work in another
// order than that of the sum.
template <typename T, int WG_SIZE, int COUNT, typename Group, typename Sum>
inline void add_up_items(const Group& group, int item, int leaf, const Sum (&acc)[COUNT],
                         const sycl::local_accessor<T, 1>& local) {
  store_sums<T, WG_SIZE, 0>(leaf, acc, local);
  add_up_stored<T, WG_SIZE, COUNT>(group, item, local);
}

// The same for the rows of a tile, of which work-item 0 then writes those that exist. `Out` is the type of the result.
template <typename T, int WG_SIZE, int ROW_TILE, typename Sum, typename Out>
inline void reduce_and_write(const sycl::nd_item<1>& place, int leaf, const Sum (&acc)[ROW_TILE],
                             const sycl::local_accessor<T, 1>& local, uint64_t row0, uint64_t output_size,
                             Out* output) {
  const int item = static_cast<int>(place.get_local_id(0));
  add_up_items<T, WG_SIZE>(place.get_group(), item, leaf, acc, local);
  if (item == 0) {
    for (int t = 0; t < ROW_TILE && row0 + t < output_size; ++t) output[row0 + t] = convert<Out>(local[t * WG_SIZE]);
  }
}

}  // namespace quillon
