// What the skeletons share where a lane is a work-item: wide loads, the rows of a tile, and how the work-items' sums meet.
#pragma once

#include <sycl/group_barrier.hpp>

#include "kernels/kernel.h"
#include "kernels/lanes.h"

namespace quillon {

// Element `i` of eight bytes of them. Shifts, from 32-bit halves: elements copied out of the word would be
// loaded one by one, and a CPU device has twice as many 32-bit shifts in a register.
template <typename T>
inline T element_of_word(uint64_t word, int i) {
  if constexpr (sizeof(T) == 8)
    return bit_cast<T>(word);
  else if constexpr (sizeof(T) == 4)
    return bit_cast<T>(static_cast<uint32_t>(word >> (32 * i)));
  else
    return bit_cast<T>(static_cast<uint16_t>(static_cast<uint32_t>(word >> (i / 2 * 32)) >> (i % 2 * 16)));
}

// Loads COUNT neighbouring elements from `base + offset`, up to eight bytes at a time: fewer and wider loads
// than element by element, at no more than the alignment that a tensor's data is sure to have. The base is
// the same for the whole work-group and comes apart from the work-item's offset, because a CPU device then
// gathers with 32-bit offsets.
template <typename T, int COUNT, int... I>
inline void load_elements(const T* base, uint32_t offset, T (&to)[COUNT], constants<I...>) {
  constexpr int BYTES = COUNT * sizeof(T) < 8 ? COUNT * sizeof(T) : 8;
  constexpr int PER_WORD = BYTES / sizeof(T);
  using word = std::conditional_t<BYTES == 8, uint64_t, uint32_t>;
  ((to[I] = element_of_word<T>(load<word, sizeof(T)>(base + offset + I / PER_WORD * PER_WORD), I % PER_WORD)), ...);
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

// Adds up the work-items' accumulators: a tree in T, from a stride of WG_SIZE / 2 down to 1. Element (t, leaf)
// of `local` stands at t * WG_SIZE + leaf. Work-item 0 then writes the rows that exist. `Sum` is T or lane<T>,
// `Out` the type of the result. The leaf of a work-item is its number, unless a kernel deals out the work in
// another order than that of the sum.
template <typename T, int WG_SIZE, int ROW_TILE, typename Sum, typename Out>
inline void reduce_and_write(const sycl::nd_item<1>& place, int leaf, const Sum (&acc)[ROW_TILE],
                             const sycl::local_accessor<T, 1>& local, uint64_t row0, uint64_t output_size,
                             Out* output) {
  const int item = static_cast<int>(place.get_local_id(0));
#pragma unroll
  for (int t = 0; t < ROW_TILE; ++t) local[t * WG_SIZE + leaf] = element_of<T>(acc[t]);
  sycl::group_barrier(place.get_group());
  for (int stride = WG_SIZE / 2; stride > 0; stride /= 2) {
    if (item < stride) {
#pragma unroll
      for (int t = 0; t < ROW_TILE; ++t)
        local[t * WG_SIZE + item] = local[t * WG_SIZE + item] + local[t * WG_SIZE + item + stride];
    }
    sycl::group_barrier(place.get_group());
  }
  if (item == 0) {
    for (int t = 0; t < ROW_TILE && row0 + t < output_size; ++t) output[row0 + t] = convert<Out>(local[t * WG_SIZE]);
  }
}

}  // namespace quillon
