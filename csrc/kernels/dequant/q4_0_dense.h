// q4_0 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: eight, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/q4_0.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_q4_0_kernel(const uint8_t* quants, const uint8_t* scales, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 32, BLOCKS> codes(quants);
  const item_part<half, 1, BLOCKS> d(scales);
  expand_pieces<BLOCKS>(out, [&](auto i) {
    const half scale = d.value(i);
    return nibble_halves<T>(codes, i, [=](auto code) {
      using several = halves<simd::count_of<decltype(code)>>;
      return exact_difference(several::exactly(code), several::all(half(8))) * several::all(scale);
    });
  });
}
