// fp8_e4m3 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: four, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/fp8_e4m3.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_fp8_e4m3_kernel(const uint8_t* quants, const uint8_t* scales, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 64, BLOCKS> codes(quants);
  const item_part<float, 1, BLOCKS> d(scales);
  expand_pieces<BLOCKS>(out, [&](auto i) {
    const auto wide = simd::convert<uint16_t>(codes[i]);
    const auto value = halves<64>::by_bits(((wide & 0x80) << 8) | ((wide & 0x7F) << 7) | 0x40);
    return value * halves<64>::all(convert<half>(d.value(i)));
  });
}
