// q4_1 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: eight, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/q4_1.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_q4_1_kernel(const uint8_t* quants, const uint8_t* pairs, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 32, BLOCKS> codes(quants);
  const item_part<half, 2, BLOCKS> d_and_m(pairs);
  expand_pieces<BLOCKS>(out, [&](auto i) {
    const auto pair = d_and_m[i];
    const half scale = pair[0], minimum = pair[1];
    return nibble_halves<T>(codes, i, [=](auto code) {
      using several = halves<simd::count_of<decltype(code)>>;
      return several::exactly(code) * several::all(scale) + several::all(minimum);
    });
  });
}
