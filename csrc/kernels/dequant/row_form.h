// The skeleton of the expansions that walk one row at a time: formats with blocks of 64. The whole weight and a tile of its
// rows are expanded by the same text; a tile's pointers start at its first row.
//
// A work-group has one row, and a work-item writes SPAN elements of it in a round:
//
//   row | item 0 | item 1 | ... | last item | item 0 | item 1 | ...
//       └─────────── round 0 ──────────────┘ └─ round 1 ...
//
// A round covers element_step elements, block_step blocks, a power of two that divides the row; a work-item is at the
// same place of a block in all its rounds. For SPAN 2 and 4 with two codes in a byte, a work-item has one or two bytes: half
// of its elements, and the half a half block further on.
//
// In the form of vectors a work-item has the whole row, as far as the rounds cover it.
#pragma once

#include "kernels/dequant/stores.h"

namespace quillon {

template <typename T, int SPAN, typename Expander>
inline void expand_row(const Expander& expander, uint64_t state_size, int32_t rounds, T* out, int32_t block_step,
                       int32_t element_step) {
  constexpr int BLOCK = 64;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
#ifdef QUILLON_VECTOR_LANES
  const auto first = static_cast<int64_t>(place.get_group(0) * (state_size / BLOCK));
  const int64_t last = first + static_cast<int64_t>(rounds) * block_step;
  const bool past_caches = goes_past_caches(out, place.get_group_range(0) * state_size);
  for (int64_t block = first; block < last; ++block)
    expander.template expand<T>(block, block_stores<T>{out + BLOCK * block, past_caches});
#else
  const auto t = static_cast<int32_t>(SPAN * place.get_local_id(0));
  const auto base = static_cast<int64_t>(static_cast<int32_t>(place.get_group(0)) * state_size);
  const int32_t at = t % BLOCK;
  auto block = static_cast<int32_t>((base + t) / BLOCK);
  int32_t start = t - at + static_cast<int32_t>(base);
  for (; rounds > 0; --rounds) {
    expander.template expand<T, SPAN>(block, at, block_stores<T>{out + start});
    block += block_step;
    start += element_step;
  }
#endif
}

}  // namespace quillon
