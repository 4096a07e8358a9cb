// q4_k expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in float for both
//   BLOCKS  super-blocks of a work-item: two, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/q4_k.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_q4_k_kernel(const uint8_t* quants, const uint8_t* scales, const uint8_t* pairs, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 32, 4 * BLOCKS> codes(quants);
  const item_part<uint8_t, 4, 4 * BLOCKS> levels(scales);  // a scale and a minimum for each of two sub-blocks
  const item_part<half, 2, BLOCKS> d_and_dmin(pairs);
  expand_pieces<4 * BLOCKS>(out, [&](auto i) {
    using floats_4 = simd::vec<float, 4>;
    using floats_16 = simd::vec<float, 16>;
    const auto pair = simd::convert<float>(d_and_dmin[super_block_of(i)]);
    const floats_4 level = multiply<floats_4>(simd::joined(pair, pair), simd::convert<float>(levels[i]));
    return nibble_floats<T>(codes, i, [&](auto k, simd::vec<uint8_t, 16> code) {
      return subtract(multiply(floats_16(level[2 * k]), simd::convert<float>(code)), floats_16(level[2 * k + 1]));
    });
  });
}
