// The skeleton of the expansions that count elements over the whole weight: q5_0, q5_1 and nf3. A work-item has the
// expander's SPAN elements of one block; no row length enters. What lies behind the last element of a weight that ends inside
// a block is not written.
//
// In the form of vectors a work-item has BLOCKS_OF_ITEM blocks.
#pragma once

#include "kernels/dequant/stores.h"

namespace quillon {

// Stores what an expander gives, up to element `count` of the block.
template <typename T>
struct part_of_block_stores {
  T* start;
  int count;

#ifdef QUILLON_VECTOR_LANES
  template <typename Value>
  void operator()(int e, Value value) const {
    const auto stored = as_stored<T>(value);
    for (int i = 0; i < LANES && e + i < count; ++i)
      start[e + i] = bit_cast<T>(static_cast<stored_element<T>>(stored[i]));
  }
#else
  template <typename Value, int COUNT>
  void operator()(int e, const Value (&values)[COUNT]) const {
    unrolled<COUNT>([&](auto i) {
      if (e + i < count) start[e + i] = as_stored<T>(values[i]);
    });
  }
#endif
};

inline constexpr int BLOCKS_OF_ITEM = 16;

template <typename T, typename Expander>
inline void expand_flat(const Expander& expander, int32_t elements, T* out) {
  constexpr int BLOCK = 64;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
#ifdef QUILLON_VECTOR_LANES
  const int64_t blocks = elements / BLOCK;
  const auto first = static_cast<int64_t>(BLOCKS_OF_ITEM * place.get_group(0));
  const bool past_caches = goes_past_caches(out, elements);
  for (int64_t block = first; block < first + BLOCKS_OF_ITEM && block < blocks; ++block)
    expander.template expand<T>(block, block_stores<T>{out + BLOCK * block, past_caches});
  if (elements % BLOCK != 0 && blocks / BLOCKS_OF_ITEM == static_cast<int64_t>(place.get_group(0)))
    expander.template expand<T>(blocks, part_of_block_stores<T>{out + BLOCK * blocks, elements % BLOCK});
#else
  const int64_t t = static_cast<int64_t>(Expander::SPAN * place.get_global_id(0));
  const auto block = static_cast<int32_t>(t / BLOCK);
  const auto at = static_cast<int32_t>(t % BLOCK);
  T* start = out + (t - at);
  if (t - at >= elements) return;
  if (t - at + BLOCK <= elements)
    expander.template expand<T, Expander::SPAN>(block, at, block_stores<T>{start});
  else
    expander.template expand<T, Expander::SPAN>(block, at, part_of_block_stores<T>{start, elements % BLOCK});
#endif
}

}  // namespace quillon
