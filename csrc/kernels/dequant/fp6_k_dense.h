// fp6_k expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  super-blocks of a work-item: two, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/fp6_k.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_fp6_k_kernel(const uint8_t* low_plane, const uint8_t* high_plane, const uint8_t* scales,
                             const uint8_t* super_scales, T* out) {
  using namespace quillon;
  const item_part<uint32_t, 8, 4 * BLOCKS> low(low_plane);
  const item_part<uint32_t, 4, 4 * BLOCKS> high(high_plane);
  const auto scale = scales_of_groups<4 * BLOCKS>(scales, super_scales, [](half super_scale, auto integers) {
    using several = halves<simd::count_of<decltype(integers)>>;
    return (several::all(super_scale) * several::exactly(integers)).value;
  });
  expand_pieces<4 * BLOCKS>(
      out, [&](auto i) { return halves<64>::by_bits(fp6_bits(high[i], low[i])) * in_groups(scale.of_piece(i)); });
}
