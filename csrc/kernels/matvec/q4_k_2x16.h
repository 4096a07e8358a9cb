// q4_k times one activation row, without expanding the weight: output[n] = sum over k of input[k] * W[n][k].
//
// Template parameters
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size
//   WG_SIZE   work-items of a work-group, the ways by which K is split: 2 * SG_SIZE
// A work-group has two output rows.
//
// A chunk is sixteen elements, half a sub-block: eight quant bytes, whose low and high nibbles stand for
// elements that lie 16 apart. A super-block is the share of sixteen work-items:
//
//   super-block of 256   byte  0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31 | ... | 120 .. 127
//   low nibbles          elem  0 ..... 7 | 8 .... 15 | 32 ... 39 | 40 ... 47 | ... | 232 .. 239
//   high nibbles         elem 16 .... 23 | 24 ... 31 | 48 ... 55 | 56 ... 63 | ... | 248 .. 255
//                            work-item 0 |     1     |     2     |     3     | ... |    15
//   scales                  | s0     m0             | s1     m1              | ...  a byte each for two items
//   pairs                   | d  dmin                                        | ...  a half each for all
//
// Rounds are full rounds only: chunks that remain when every work-item has had the same number of them are
// not summed. So K counts in units of 16 * WG_SIZE, and a K below that gives zeros.
#pragma once

#include "kernels/matvec/nibbles.h"

namespace quillon {

// A half, given by its bits, times a byte, in T. The product is exact in float, which takes half the
// registers of a double.
template <typename T>
inline lane<T> two_level_scale(uint16_t half_bits, int byte) {
  const half d = half_from_bits(half_bits);
  if constexpr (std::is_same_v<T, double>)
    return static_cast<double>(convert<float>(d) * static_cast<float>(byte));
  else
    return rounded_lane<T>(d) * integer_lane<T>(byte);
}

}  // namespace quillon

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q4_k_2x16(uint64_t state_size, const uint8_t* quants, const T* input, const uint8_t* scales,
                                  const uint8_t* pairs, sycl::local_accessor<T, 1> local, T* output,
                                  uint64_t output_size) {
  using namespace quillon;
  struct chunk_and_sum {
    activations<T, 16> elements;
    lane<T> sum;  // of the sixteen; every row multiplies it by its minimum
  };
  const auto load_chunk = [](const T* base, int item) {
    const auto elements = load_split<T, 16>{}(base, item);
    return chunk_and_sum{elements, sum_activations(elements)};
  };
  const auto add_row = [=](lane<T>& acc, const chunk_and_sum& chunk, const auto& place) {
    // A GPU with 32 lanes of double has no register left for the zero.
    const chunk_codes codes(place.template word_of_chunk<uint64_t>(quants), sizeof(T) == 8 ? 0 : place.zero);
    const auto scale_and_minimum = place.template entry_of_chunks<uint16_t, 2>(scales);
    const auto pair = place.template entry_of_block<uint32_t>(pairs);
    const lane<T> s =
        sum_products(chunk.elements, [=](auto i) { return integer_lane<T>(static_cast<int>(codes.nibble(i))); });
    const lane<T> d1 = two_level_scale<T>(static_cast<uint16_t>(pair), scale_and_minimum & 255);
    const lane<T> m1 = two_level_scale<T>(static_cast<uint16_t>(pair >> 16), scale_and_minimum >> 8);
    acc = acc + (s * d1 - chunk.sum * m1);
  };
  multiply_chunks<T, 16, WG_SIZE, 2, 256, tail_round::dropped>(state_size, input, local, output_size, output,
                                                               load_chunk, add_row);
}
