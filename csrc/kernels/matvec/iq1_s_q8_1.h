// iq1_s times one activation row in q8_1 blocks. Template parameter T: element type of the output. A
// work-group is one sub-group of 32 work-items with one output row; frame: q8_1_dot.h. The work-items' sums
// are added in float by the sub-group and converted to T once.
//
// A slice is one group of 32 elements:
//
//   record   0 | d half | 2 | qs, four bytes for each group | 34 | qh, 16 bits for each group |
//   qh       | sign of the shift | scale 3 bits | i3 3 bits | i2 3 bits | i1 3 bits | i0 3 bits |
//
// Three bits of qh over a byte of qs index a row of eight values, each 0, 1 or 2, in the nibbles of a word.
// All 32 elements are shifted by one constant, whose share in the sum needs the sum of the activations alone.
#pragma once

#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>

#include "formats/grids.h"
#include "kernels/matvec/q8_1_dot.h"

namespace quillon {

// Slice `iqs`, 0 to 7, of super-block `block` of `row` times its 32 activations, block 8 * block + iqs of
// `q`.
inline float vec_dot_iq1_s_q8_1(const block_iq1_s* row, const block_q8_1* q, uint32_t block, uint32_t iqs) {
  const block_iq1_s& w = row[block];
  const block_q8_1& x = (q + 8 * block)[iqs];
  const uint32_t h = (load_u32(w.qh + 2 * (iqs & 6)) >> (16 * (iqs & 1))) & 0xFFFF;
  const uint32_t low_indices = load_u32(w.qs + 4 * iqs);
  const float d = two_halves(load_u32(&w)).first;
  int sum = 0;
  // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma unroll 1
  for (int l = 0; l < 4; ++l) {
    const uint32_t grid = iq1s_grid[((low_indices >> (8 * l)) & 255) | (((h >> (3 * l)) & 7) << 8)];
    const uint64_t quants = eight_quants_of(x, l);
    sum += dot_bytes(grid & 0x0F0F0F0Fu, static_cast<uint32_t>(quants));
    sum += dot_bytes((grid >> 4) & 0x0F0F0F0Fu, static_cast<uint32_t>(quants >> 32));
  }
  const two_halves head = head_of(x);
  const float d1 = multiply(d, static_cast<float>(2 * ((h >> 12) & 7) + 1));
  return add(multiply(multiply(d1, head.first), static_cast<float>(sum)),
             multiply(multiply(d1, head.second), delta_iq1_s(h)));
}

}  // namespace quillon

template <typename T>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<2>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<32>))
void qlinear_xpu_kernel_iq1_s_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq1_s* weight,
                                   const quillon::block_q8_1* activations, T* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const uint64_t row = place.get_group(1);
  if (row >= output_size) return;
  const float sum =
      sum_of_slices<8, vec_dot_iq1_s_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane);
  const float total = sycl::reduce_over_group(place.get_sub_group(), sum, sycl::plus<float>());
  if (lane == 0) output[row] = convert<T>(total);
}
