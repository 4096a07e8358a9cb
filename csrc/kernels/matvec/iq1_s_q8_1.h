// iq1_s times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output
//
// A work-group is one sub-group of 32 lanes with one output row; frame: q8_1_dot.h. The lanes' sums are added in float by
// the sub-group and converted to T once. A slice is one group of 32 elements:
//
//   record   0 | d half | 2 | qs, four bytes for each group | 34 | qh, 16 bits for each group |
//   qh       | sign of the shift | scale 3 bits | i3 3 bits | i2 3 bits | i1 3 bits | i0 3 bits |
//
// Three bits of qh over a byte of qs index a row of eight values, each 0, 1 or 2, in the nibbles of a word. All 32
// elements are shifted by one constant, whose share in the sum needs the sum of the activations alone.
#pragma once

#include "formats/grids.h"
#include "kernels/matvec/q8_1_dot.h"
#ifndef QUILLON_VECTOR_LANES
#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>
#endif

namespace quillon {

// The sum of one slice: the low bits of its grid indices, its word of qh, the record's scale, its 32 activations.
template <typename Activations>
inline lanes<float> slice_of_iq1_s(words low_indices, words h, lanes<float> d, const Activations& x) {
  lanes<int32_t> sum = {};
  // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma clang loop unroll(disable)
  for (int l = 0; l < 4; ++l) {
    const words grid = look_up(iq1s_grid, ((low_indices >> (8 * l)) & 255u) | (((h >> (3 * l)) & 7u) << 8));
    sum += dot_bytes(grid & 0x0F0F0F0Fu, x.quant_word(2 * l));
    sum += dot_bytes((grid >> 4) & 0x0F0F0F0Fu, x.quant_word(2 * l + 1));
  }
  const lanes<float> d1 = multiply(d, to_float(bit_cast<lanes<int32_t>>(2u * ((h >> 12) & 7u) + 1u)));
  const lanes<float> delta = (h & 0x8000u) != 0u ? lanes<float>(-1.125f) : lanes<float>(-0.875f);
  return add(multiply(multiply(d1, x.d), to_float(sum)), multiply(multiply(d1, x.s), delta));
}

#ifndef QUILLON_VECTOR_LANES
// Slice `iqs`, 0 to 7, of a super-block times block `iqs` of its eight blocks of activations.
inline float vec_dot_iq1_s_q8_1(const block_iq1_s& w, const block_q8_1* q, uint32_t iqs) {
  const uint32_t h = (load_u32(w.qh + 2 * (iqs & 6)) >> (16 * (iqs & 1))) & 0xFFFF;
  return slice_of_iq1_s(load_u32(w.qs + 4 * iqs), h, two_halves(load_u32(&w)).first, q8_1_blocks(q[iqs]));
}
#endif

}  // namespace quillon

template <typename T>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(32)
void qlinear_xpu_kernel_iq1_s_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq1_s* weight,
                                   const quillon::block_q8_1* activations, T* output
#ifdef QUILLON_VECTOR_LANES
                                   ,
                                   sycl::local_accessor<float, 1> local  // the arranged activations
#endif
) {
  using namespace quillon;
#ifdef QUILLON_VECTOR_LANES
  for_each_row_of_slices<2, q8_1_blocks>(
      output_size, blocks_per_row, activations, local,
      [=](uint64_t first_block, uint64_t second_block, const q8_1_blocks& x) {
        const block_iq1_s& first = weight[first_block];
        const block_iq1_s& second = weight[second_block];
        const words h = __builtin_convertvector(
            joined<uint16_t>(load_vector<uint16_t, 8>(first.qh), load_vector<uint16_t, 8>(second.qh)), words);
        const lanes<float> d = in_octets(convert<float>(load_half(first.d)), convert<float>(load_half(second.d)));
        return slice_of_iq1_s(words_of_two(first.qs, second.qs), h, d, x);
      },
      [=](uint64_t row, const lanes<float>(&sums)[2]) {
        // From lane 0 to lane 31: the order in which the CPU device's sub-groups add.
        float total = sums[0][0];
        for (int lane = 1; lane < q8_1_lanes; ++lane) total = add(total, sums[lane / LANES][lane % LANES]);
        output[row] = convert<T>(total);
      });
#else
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const uint64_t row = place.get_group(1);
  if (row >= output_size) return;
  const float sum =
      sum_of_slices<8, vec_dot_iq1_s_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane);
  const float total = sycl::reduce_over_group(place.get_sub_group(), sum, sycl::plus<float>());
  if (lane == 0) output[row] = convert<T>(total);
#endif
}
