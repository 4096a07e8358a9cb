// q8_0 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: four, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/q8_0.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_q8_0_kernel(const uint8_t* quants, const uint8_t* scales, T* out) {
  using namespace quillon;
  const item_part<int8_t, 64, BLOCKS> codes(quants);
  const item_part<float, 1, BLOCKS> d(scales);
  expand_pieces<BLOCKS>(
      out, [&](auto i) { return halves<64>::exactly(codes[i]) * halves<64>::all(convert<half>(d.value(i))); });
}
