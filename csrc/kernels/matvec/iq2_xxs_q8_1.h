// iq2_xxs times one activation row in q8_1 blocks. Template parameter T: element type of the output, of local
// memory and of the tree of sums. A work-group has two output rows, one for each place in its second
// dimension, with 32 work-items each; frame and tree: q8_1_dot.h.
//
// A slice is one group of 32 elements, whose eight bytes lie two bytes behind a multiple of 66:
//
//   record   0 | d half | 2 | group 0 | 10 | group 1 | ... | 58 | group 7 |
//   group    | i0 | i1 | i2 | i3 | scale 4 bits, signs3, signs2, signs1, signs0 of 7 bits |
//
// Byte iv is the index of a row of eight magnitudes, signsv has the signs of the
// first seven of them; that of the eighth makes the number of negative ones even.
#pragma once

#include "formats/grids.h"
#include "kernels/matvec/q8_1_dot.h"

namespace quillon {

// An entry of ksigns_iq2xs, computed: no gather from a table of bytes.
inline uint32_t with_parity(uint32_t seven_signs) {
  return seven_signs | ((static_cast<uint32_t>(__builtin_popcount(seven_signs)) & 1) << 7);
}

// Slice `iqs`, 0 to 7, of super-block `block` of `row` times its 32 activations, block 8 * block + iqs of
// `q`.
inline float vec_dot_iq2_xxs_q8_1(const block_iq2_xxs* row, const block_q8_1* q, uint32_t block, uint32_t iqs) {
  const block_iq2_xxs& w = row[block];
  const block_q8_1& x = (q + 8 * block)[iqs];
  const uint64_t group = load_u64(w.qs + 8 * iqs);
  const auto indices = static_cast<uint32_t>(group);
  const auto aux = static_cast<uint32_t>(group >> 32);
  const float d = two_halves(load_u32(&w)).first;
  int sum = 0;
  // Rolled: all loads of a slice at once are more than the registers of a GPU with sub-groups of 32 hold.
#pragma unroll 1
  for (int l = 0; l < 4; ++l) {
    const uint64_t grid = iq2xxs_grid[(indices >> (8 * l)) & 255];
    const uint64_t quants = eight_quants_of(x, l);
    const uint32_t signs = with_parity((aux >> (7 * l)) & 127);
    unrolled<2>([&](auto h) {
      const auto magnitudes = static_cast<uint32_t>(grid >> (32 * h));
      const auto four = static_cast<uint32_t>(quants >> (32 * h));
      unrolled<4>([&](auto b) {
        const int product = static_cast<int>((magnitudes >> (8 * b)) & 255) * signed_byte_of(four, b);
        sum += signs & (1u << (4 * h + b)) ? -product : product;
      });
    });
  }
  const float scale = multiply(add(static_cast<float>(aux >> 28), 0.5f), d);
  return multiply(multiply(multiply(scale, head_of(x).first), 0.25f), static_cast<float>(sum));
}

}  // namespace quillon

template <typename T>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<2>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<32>))
void qlinear_xpu_kernel_iq2_xxs_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq2_xxs* weight,
                                     const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local,
                                     T* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const int y = static_cast<int>(place.get_local_id(0));
  const uint64_t row = place.get_group(1) * 2 + y;
  const bool active = row < output_size;
  const float sum =
      active ? sum_of_slices<8, vec_dot_iq2_xxs_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane)
             : 0.0f;
  reduce_and_write_row<T>(place, sum, &local[y * q8_1_lanes], lane, active, output + row);
}
