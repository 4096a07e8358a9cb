// iq2_xxs times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output, of local memory and of the tree of sums
//
// A work-group has two output rows, one for each place in the dimension of rows, with 32 lanes each; frame and tree:
// q8_1_dot.h. A slice is one group of 32 elements, whose eight bytes lie two bytes behind a multiple of 66:
//
//   record   0 | d half | 2 | group 0 | 10 | group 1 | ... | 58 | group 7 |
//   group    | i0 | i1 | i2 | i3 | scale 4 bits, signs3, signs2, signs1, signs0 of 7 bits |
//
// Byte iv is the index of a row of eight magnitudes, signsv has the signs of the first seven of them; that of the eighth
// makes the number of negative ones even.
#pragma once

#include "formats/grids.h"
#include "kernels/matvec/q8_1_dot.h"

namespace quillon {

// An entry of ksigns_iq2xs, computed: no gather from a table of bytes.
inline words with_parity(words seven_signs) {
#ifndef QUILLON_VECTOR_LANES
  return seven_signs | ((static_cast<uint32_t>(__builtin_popcount(seven_signs)) & 1u) << 7);
#else
  const words folded = seven_signs ^ (seven_signs >> 4);
  const words pair = folded ^ (folded >> 2);
  return seven_signs | (((pair ^ (pair >> 1)) & 1u) << 7);
#endif
}

// The product, or its negative where the bit of `signs` is set.
inline lanes<int32_t> with_sign(lanes<int32_t> product, words signs, int bit) {
#ifndef QUILLON_VECTOR_LANES
  return (signs & (1u << bit)) != 0 ? -product : product;  // one predicated operation
#else
  // All ones where the sign is negative: (p ^ -1) - -1 is -p.
  const lanes<int32_t> negative = bit_cast<lanes<int32_t>>(signs << (31 - bit)) >> 31;
  return (product ^ negative) - negative;
#endif
}

// The sum of one slice: its grid indices, its word of scale and signs, the record's scale, its 32 activations.
template <typename Activations>
inline lanes<float> slice_of_iq2_xxs(words indices, words aux, lanes<float> d, const Activations& x) {
  lanes<int32_t> sum = {};
  // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
  for (int l = 0; l < 4; ++l) {
    const two_words magnitudes = look_up(iq2xxs_grid, (indices >> (8 * l)) & 255u);
    const words signs = with_parity((aux >> (7 * l)) & 127u);
    unrolled<2>([&](auto h) {
      const words four = x.quant_word(2 * l + h);
      unrolled<4>([&](auto b) {
        const lanes<int32_t> product =
            bit_cast<lanes<int32_t>>((magnitudes.half[h] >> (8 * b)) & 255u) * signed_byte_of(four, b);
        sum += with_sign(product, signs, 4 * h + b);
      });
    });
  }
  const lanes<float> scale = multiply(add(to_float(bit_cast<lanes<int32_t>>(aux >> 28)), lanes<float>(0.5f)), d);
  return multiply(multiply(multiply(scale, x.d), lanes<float>(0.25f)), to_float(sum));
}

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq2_xxs_q8_1(const block_iq2_xxs& w, const block_q8_1* q, uint32_t iqs) {
  const uint64_t group = load_u64(w.qs + 8 * iqs);
  return slice_of_iq2_xxs(static_cast<uint32_t>(group), static_cast<uint32_t>(group >> 32),
                          two_halves(load_u32(&w)).first, q8_1_blocks(q[iqs]));
}
#endif

}  // namespace quillon

template <typename T>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(32)
void qlinear_xpu_kernel_iq2_xxs_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq2_xxs* weight,
                                     const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local,
                                     T* output) {
  using namespace quillon;
#ifdef QUILLON_VECTOR_LANES
  for_each_row_of_slices<2, q8_1_blocks>(
      output_size, blocks_per_row, activations, local,
      [=](uint64_t first_block, uint64_t second_block, const q8_1_blocks& x) {
        const block_iq2_xxs& first = weight[first_block];
        const block_iq2_xxs& second = weight[second_block];
        const words low = load_vector<uint32_t, LANES>(first.qs);
        const words high = load_vector<uint32_t, LANES>(second.qs);
        const lanes<float> d = in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)));
        return slice_of_iq2_xxs(pick<0, 2, uint32_t>(low, high), pick<1, 2, uint32_t>(low, high), d, x);
      },
      [=](uint64_t row, const lanes<float>(&sums)[2]) { output[row] = tree_of_sums<T>(sums); });
#else
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const int y = static_cast<int>(place.get_local_id(0));
  const uint64_t row = place.get_group(1) * 2 + y;
  const bool active = row < output_size;
  const float sum =
      active ? sum_of_slices<8, vec_dot_iq2_xxs_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane)
             : 0.0f;
  reduce_and_write_row<T>(place, sum, &local[y * q8_1_lanes], lane, active, output + row);
#endif
}
