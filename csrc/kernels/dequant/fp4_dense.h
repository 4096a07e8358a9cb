// fp4 expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in half for both
//   BLOCKS  blocks of a work-item: eight, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/fp4.h.
#pragma once

#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_fp4_kernel(const uint8_t* quants, const uint8_t* scales, T* out) {
  using namespace quillon;
  const item_part<uint8_t, 32, BLOCKS> codes(quants);
  const item_part<half, 1, BLOCKS> d(scales);
  expand_pieces<BLOCKS>(out, [&](auto i) {
    const half scale = d.value(i);
    return nibble_halves<T>(codes, i, [=](auto code) {
      constexpr int COUNT = simd::count_of<decltype(code)>;
      // The sign and the magnitude of a code, built in the top byte of a half.
      using words = simd::vec<uint16_t, COUNT>;
      const words wide = simd::convert<uint16_t>(code);
      const words index = wide & 7;
      const words from_2 = ((wide >> 1) | (wide >> 2)) & 1;
      const words from_1 = (from_2 | wide) & 1;
      const words top = ((wide & 8) << 4) + 0x28 + (from_1 << 4) + 2 * index * from_2;
      return halves<COUNT>::by_bits(top << 8) * halves<COUNT>::all(scale);
    });
  });
}
