// fp6 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: eight, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/fp6.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_fp6_kernel(const uint8_t* low_plane, const uint8_t* high_plane, const uint8_t* scales, T* out) {
  using namespace quillon;
  const item_part<uint32_t, 8, BLOCKS> low(low_plane);
  const item_part<uint32_t, 4, BLOCKS> high(high_plane);
  const item_part<half, 1, BLOCKS> d(scales);
  expand_pieces<BLOCKS>(out, [&](auto i) { return fp6_products<T>(fp6_bits(high[i], low[i]), d.value(i)); });
}
