// fp8_e5m2 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; there is no arithmetic
//   BLOCKS  blocks of a work-item: four, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/fp8_e5m2.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_fp8_e5m2_kernel(const uint8_t* quants, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 64, BLOCKS> codes(quants);
  expand_pieces<BLOCKS>(out, [&](auto i) {
    const auto wide = simd::convert<uint16_t>(codes[i]);
    return halves<64>::by_bits((wide << 8) | 0x80);
  });
}
