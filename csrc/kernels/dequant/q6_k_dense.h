// q6_k expanded to a dense matrix for a large batch.
//
//   T       element type of the result, float or half; arithmetic is in float for both
//   BLOCKS  super-blocks of a work-item: two, or one behind the last full work-item
//
// How the work is dealt out is told in dense_form.h; the bytes are drawn in readers/q6_k.h.
#pragma once

#include "formats/super_blocks.h"
#include "kernels/dequant/dense_form.h"

template <typename T, int BLOCKS>
QUILLON_KERNEL(1)
QUILLON_EXPLICIT_SIMD
void dequantize_q6_k_kernel(const uint8_t* high_plane, const uint8_t* low_plane, const uint8_t* scales,
                            const uint8_t* super_scales, T* out) {
  using namespace quillon;
  const item_part<uint32_t, 4, 4 * BLOCKS> high(high_plane);
  const item_part<uint32_t, 8, 4 * BLOCKS> low(low_plane);
  const auto scale = scales_of_groups<4 * BLOCKS>(scales, super_scales, [](half super_scale, auto integers) {
    using floats = simd::vec<float, simd::count_of<decltype(integers)>>;
    return multiply(floats(convert<float>(super_scale)), simd::convert<float>(integers));
  });
  expand_pieces<4 * BLOCKS>(out, [&](auto i) {
    using words_16 = simd::vec<uint32_t, 16>;
    using floats_16 = simd::vec<float, 16>;
    const auto steps = step_words(high[i], low[i], [](words_16 h, words_16 l) { return q6_k_step_codes(h, l); });
    const auto codes = simd::bits_as<uint8_t>(steps);
    const auto scale_of = scale.of_piece(i);
    return floats_64{four_groups([&](auto g) {
      const auto code = simd::convert<float>(simd::select<16 * g, 16>(codes));
      return multiply(floats_16(scale_of[int{g}]), subtract(code, floats_16(32.0f)));
    })};
  });
}
