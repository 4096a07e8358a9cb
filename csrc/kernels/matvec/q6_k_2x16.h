// q6_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
// Template parameters
//   T         element type of input, output, local memory and every product and sum but a chunk's scaling
//   SG_SIZE   required sub-group size
//   WG_SIZE   work-items of a work-group, the ways by which K is split: 2 * SG_SIZE
// A work-group has two output rows.
//
// A chunk is one sub-block of sixteen neighbouring elements: a word of the high plane, two of the low plane,
// a scale byte. A super-block is the share of sixteen work-items:
//
//   super-block of 256   elem  0 ... 15 | 16 ... 31 | ... | 240 .. 255
//   high plane           word  0        | 1         | ... | 15              two bits of each element
//   low plane            word  0, 1     | 2, 3      | ... | 30, 31          four bits of each element
//   scales               byte  0        | 1         | ... | 15              signed
//   scale                half  d                                            one for all sixteen
//                        work-item 0    |     1     | ... |     15
//
// The words give the codes of four elements in one step, each in a byte of its own, and are shifted on to the
// next four. A chunk's sum is scaled in float whatever T is: by d * scale, a float product.
//
// Rounds are full rounds only: chunks that remain when every work-item has had the same number of them are
// not summed. So K counts in units of 16 * WG_SIZE, and a K below that gives zeros.
#pragma once

#include "formats/super_blocks.h"
#include "kernels/matvec/six_bits.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q6_k_2x16(uint64_t state_size, const uint8_t* high_plane, const uint8_t* low_plane,
                                  const T* input, const uint8_t* super_scales, const uint8_t* scales,
                                  sycl::local_accessor<T, 1> local, T* output, uint64_t output_size) {
  using namespace quillon;
  const auto add_row = [=](lane<T>& acc, const activations<T, 16>& chunk, const auto& place) {
    lane<T> sum;
    for_each_step(place.template word_of_chunk<uint32_t>(high_plane), place.template word_of_chunk<uint64_t>(low_plane),
                  [&](auto step, uint32_t high, uint32_t low) {
                    const uint32_t codes = q6_k_step_codes(high, low);
                    lane<T> p;
                    unrolled<4>([&](auto e) {
                      const lane<T> code = integer_lane<T>(static_cast<int>((codes >> (8 * e)) & 255) - 32);
                      p = e == 0 ? chunk.v[4 * step] * code : p + chunk.v[4 * step + e] * code;
                    });
                    sum = step == 0 ? p : sum + p;
                  });
    const auto d = convert<float>(half_from_bits(place.template entry_of_block<uint16_t>(super_scales)));
    const auto w = d * static_cast<float>(place.template word_of_chunk<int8_t>(scales));
    acc = acc + rounded_lane<T>(w * static_cast<float>(sum));
  };
  multiply_chunks<T, 16, WG_SIZE, 2, 256, tail_round::dropped>(state_size, input, local, output_size, output,
                                                               load_neighbours<T, 16>{}, add_row);
}
