// The skeletons of the expansions of super-blocks: a work-group has one of 256 elements, and its expander says how it is
// shared among the work-items. In the form of vectors a work-item has the super-block.
//
//   expand_block    super-blocks counted over the whole weight: no row length enters, and one may lie in two rows
//   expand_gathered the super-blocks of the rows that an index names, one after the other:
//
//     out      | row index[0]: block 0 | block 1 | ... | row index[1]: block 0 | ...
#pragma once

#include "kernels/dequant/stores.h"

namespace quillon {

inline constexpr int SUPER_BLOCK = 256;

template <typename T, typename Expander, typename Place>
inline void expand_super_block(const Expander& expander, const Place& place, int64_t from, int64_t to, T* out) {
#ifdef QUILLON_VECTOR_LANES
  const bool past_caches = goes_past_caches(out, SUPER_BLOCK * place.get_group_range(0));
  expander.template expand<T>(from, block_stores<T>{out + SUPER_BLOCK * to, past_caches});
#else
  expander.template expand<T, SUPER_BLOCK>(from, static_cast<int>(place.get_local_id(0)),
                                           block_stores<T>{out + SUPER_BLOCK * to});
#endif
}

template <typename T, typename Expander>
inline void expand_block(const Expander& expander, T* out) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const auto block = static_cast<int64_t>(place.get_group(0));
  expand_super_block(expander, place, block, block, out);
}

// An index is cut to 32 bits, and so is the number of the super-block that it leads to. Outside the weight, which has
// `blocks` of them, nothing is read, and what would have been is NaN.
template <typename T, typename Expander>
inline void expand_gathered(const Expander& expander, int32_t blocks_of_row, const int64_t* index, uint32_t blocks,
                            T* out) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const auto group = static_cast<uint64_t>(place.get_group(0));
  const auto row = static_cast<uint32_t>(index[group / blocks_of_row]);
  const auto block = static_cast<uint32_t>(group % blocks_of_row) + row * static_cast<uint32_t>(blocks_of_row);
  if (block < blocks) {
    expand_super_block(expander, place, block, static_cast<int64_t>(group), out);
  } else {
    const auto items = static_cast<int>(place.get_local_range(0));
    T* missing = out + SUPER_BLOCK * group;
    for (auto e = static_cast<int>(place.get_local_id(0)); e < SUPER_BLOCK; e += items)
      missing[e] = convert<T>(__builtin_nanf(""));
  }
}

}  // namespace quillon
