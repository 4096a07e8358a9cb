// fp6_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
// Template parameters
//   T         element type of input, output, local memory and every product and sum, but for a chunk's scale
//   SG_SIZE   required sub-group size
//   WG_SIZE   work-items of a work-group, the ways by which K is split: 2 * SG_SIZE
//   ROW_TILE  output rows of a work-group
//
// A chunk is one sub-block of sixteen neighbouring elements: two words of the low plane, a word of the high
// plane, a scale byte. A super-block is the share of sixteen work-items:
//
//   super-block of 256   elem  0 ... 15 | 16 ... 31 | ... | 240 .. 255
//   low plane            word  0, 1     | 2, 3      | ... | 30, 31          four bits of each element
//   high plane           word  0        | 1         | ... | 15              sign and top exponent bit
//   scales               byte  0        | 1         | ... | 15              signed
//   scale                half  d                                            one for all sixteen
//                        work-item 0    |     1     | ... |     15
//
// The words and the order of the sum are those of fp6. A chunk's sum is multiplied by d * scale, a product in
// half whatever T is.
#pragma once

#include "formats/super_blocks.h"
#include "kernels/matvec/six_bits.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_fp6_k_2x16(uint64_t state_size, const uint8_t* weight, uint64_t high_plane_offset,
                                   uint64_t scales_offset, uint64_t super_scales_offset, const T* input,
                                   sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  const uint8_t* high_plane = weight + high_plane_offset;
  const uint8_t* scales = weight + scales_offset;
  const uint8_t* super_scales = weight + super_scales_offset;
  const auto add_row = [=](lane<T>& acc, const activations<T, 16>& chunk, const auto& place) {
    const lane<T> sum = sum_fp6(chunk, place.template word_of_chunk<uint32_t>(high_plane),
                                place.template word_of_chunk<uint64_t>(weight));
    const half d = half_from_bits(place.template entry_of_block<uint16_t>(super_scales));
    const int scale = place.template word_of_chunk<int8_t>(scales);
    const half w = multiply(d, convert<half>(scale));
    acc = acc + sum * rounded_lane<T>(w);
  };
  multiply_chunks<T, 16, WG_SIZE, ROW_TILE, 256>(state_size, input, local, output_size, output,
                                                 load_neighbours<T, 16, fp6_order>{}, add_row);
}
